// The child process of the cold start-up benchmarks: one start-up per process, timed from inside.
//
//   ovra_kb_bench_cold library          OvraKbInit in this fresh process (the library finds python3 on PATH)
//   ovra_kb_bench_cold embed LIBPYTHON  the same start-up written by hand: load the runtime, start the
//                                       interpreter, import the same modules, call "ovra_kb_init"
//   ovra_kb_bench_cold query            the library's two python3 queries, as the library runs them
//
// Results are printed as "bench: NAME VALUE" lines (microseconds). With OVRA_LOG_EVENT=1 the library mode
// also writes "bench: begin" and "bench: end" through the platform log, so that the library's own event
// lines between them give the breakdown.
#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ovra_kb/ovra_kb_api.h"
#include "ovra_platform/platform.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int LOG_MODULE = 60;
constexpr int LOG_EVENT = 16;

// The commands of the library's runtime discovery, character for character.
const char *const NAME_QUERY = "python3 -c \"import sysconfig; print(sysconfig.get_config_var(\\\"LDLIBRARY\\\"))\"";
const char *const DIR_QUERY = "python3 -c \"import sysconfig; print(sysconfig.get_config_var(\\\"LIBDIR\\\"))\"";

const char *const KB_MODULE = "oxe.common.repository_manager.interface";
const char *const LOG_MODULE_NAME = "oxe.common.repository_manager.utils.repository_manager_log";

double MicrosSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

void Report(const char *name, double micros)
{
    printf("bench: %s %.1f\n", name, micros);
}

void Mark(const char *text)
{
    if (CheckLogLevel(LOG_MODULE, LOG_EVENT) == 1) {
        DlogInner(LOG_MODULE, LOG_EVENT, "bench: %s", text);
    }
}

int RunLibrary()
{
    const OvraKb::StrMap sysConfig = {{"soc_version", "soc-a1"}, {"core_num", "8"}};
    const OvraKb::StrMap loadConfig = {{"op_bank_path", "/nonexistent/bench"}};
    Mark("begin");
    Clock::time_point start = Clock::now();
    std::uint32_t status = OvraKbInit(sysConfig, loadConfig);
    double total = MicrosSince(start);
    Mark("end");
    Report("total_us", total);
    printf("bench: status %u\n", status);
    return status == OvraKb::OVRA_KB_SUCCESS ? 0 : 1;
}

// The C-API entries the hand-written start-up needs; objects stay opaque.
struct Runtime {
    void (*Py_Initialize)();
    void *(*PyEval_SaveThread)();
    int (*PyGILState_Ensure)();
    void (*PyGILState_Release)(int);
    void *(*PyImport_ImportModule)(const char *);
    void *(*PyObject_GetAttrString)(void *, const char *);
    void *(*PyDict_New)();
    void *(*PyUnicode_FromString)(const char *);
    int (*PyDict_SetItemString)(void *, const char *, void *);
    void *(*PyObject_CallMethod)(void *, const char *, const char *, ...);
    long (*PyLong_AsLong)(void *);
    void (*PyErr_Print)();
};

template <typename T>
bool Bind(void *handle, const char *name, T &entry)
{
    entry = reinterpret_cast<T>(dlsym(handle, name));
    if (entry == nullptr) {
        fprintf(stderr, "bench: %s is missing\n", name);
    }
    return entry != nullptr;
}

bool SetText(const Runtime &py, void *dict, const char *key, const char *text)
{
    void *value = py.PyUnicode_FromString(text);
    return value != nullptr && py.PyDict_SetItemString(dict, key, value) == 0;
}

int RunEmbedded(const char *library)
{
    Clock::time_point start = Clock::now();
    void *handle = dlopen(library, RTLD_NOW | RTLD_GLOBAL);
    if (handle == nullptr) {
        fprintf(stderr, "bench: %s\n", dlerror());
        return 1;
    }
    double loaded = MicrosSince(start);
    Runtime py{};
    bool bound =
        Bind(handle, "Py_Initialize", py.Py_Initialize) && Bind(handle, "PyEval_SaveThread", py.PyEval_SaveThread) &&
        Bind(handle, "PyGILState_Ensure", py.PyGILState_Ensure) &&
        Bind(handle, "PyGILState_Release", py.PyGILState_Release) &&
        Bind(handle, "PyImport_ImportModule", py.PyImport_ImportModule) &&
        Bind(handle, "PyObject_GetAttrString", py.PyObject_GetAttrString) &&
        Bind(handle, "PyDict_New", py.PyDict_New) && Bind(handle, "PyUnicode_FromString", py.PyUnicode_FromString) &&
        Bind(handle, "PyDict_SetItemString", py.PyDict_SetItemString) &&
        Bind(handle, "PyObject_CallMethod", py.PyObject_CallMethod) &&
        Bind(handle, "PyLong_AsLong", py.PyLong_AsLong) && Bind(handle, "PyErr_Print", py.PyErr_Print);
    if (!bound) {
        return 1;
    }
    double boundAt = MicrosSince(start);
    py.Py_Initialize();
    (void)py.PyEval_SaveThread();
    double started = MicrosSince(start);

    // What the library imports: the traceback formatter, the log module's two functions, the module.
    int state = py.PyGILState_Ensure();
    void *traceback = py.PyImport_ImportModule("traceback");
    void *logModule = py.PyImport_ImportModule(LOG_MODULE_NAME);
    void *kbModule = py.PyImport_ImportModule(KB_MODULE);
    bool imported = traceback != nullptr && logModule != nullptr && kbModule != nullptr &&
                    py.PyObject_GetAttrString(traceback, "format_exception") != nullptr &&
                    py.PyObject_GetAttrString(logModule, "get_py_exception_str") != nullptr &&
                    py.PyObject_GetAttrString(logModule, "get_py_exception_dict") != nullptr;
    if (!imported) {
        py.PyErr_Print();
    }
    py.PyGILState_Release(state);
    double importedAt = MicrosSince(start);

    state = py.PyGILState_Ensure();
    void *sysDict = py.PyDict_New();
    void *loadDict = py.PyDict_New();
    bool called = imported && SetText(py, sysDict, "soc_version", "soc-a1") &&
                  SetText(py, sysDict, "core_num", "8") && SetText(py, loadDict, "op_bank_path", "/nonexistent/bench");
    void *reply = called ? py.PyObject_CallMethod(kbModule, "ovra_kb_init", "OO", sysDict, loadDict) : nullptr;
    called = reply != nullptr && py.PyLong_AsLong(reply) == 0;
    if (reply == nullptr) {
        py.PyErr_Print();
    }
    py.PyGILState_Release(state);
    double total = MicrosSince(start);

    Report("load_us", loaded);
    Report("bind_us", boundAt - loaded);
    Report("start_us", started - boundAt);
    Report("imports_us", importedAt - started);
    Report("init_call_us", total - importedAt);
    Report("total_us", total);
    return called ? 0 : 1;
}

// One query as the library runs it: a shell through popen, one line read, then pclose.
bool RunQuery(const char *command, const char *name)
{
    Clock::time_point start = Clock::now();
    FILE *pipe = popen(command, "r");
    char line[1024] = {0};
    bool answered = pipe != nullptr && fgets(line, sizeof(line), pipe) != nullptr;
    if (pipe != nullptr) {
        (void)pclose(pipe);
    }
    Report(name, MicrosSince(start));
    return answered;
}

int RunQueries()
{
    bool answered = RunQuery(NAME_QUERY, "q1_us");
    answered = RunQuery(DIR_QUERY, "q2_us") && answered;
    return answered ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv)
{
    int code = 2;
    if (argc == 2 && strcmp(argv[1], "library") == 0) {
        code = RunLibrary();
    } else if (argc == 3 && strcmp(argv[1], "embed") == 0) {
        code = RunEmbedded(argv[2]);
    } else if (argc == 2 && strcmp(argv[1], "query") == 0) {
        code = RunQueries();
    } else {
        fprintf(stderr, "usage: %s library | embed LIBPYTHON | query\n", argv[0]);
    }
    fflush(stdout);
    fflush(stderr);
    // One start-up per process: leave without tearing anything down.
    _exit(code);
}
