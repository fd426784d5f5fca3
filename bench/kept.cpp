// Memory that calls through the library leave behind on the reference package (--ovra_mode=kept), by operation
// and outcome, from one native thread that is not the initialising one: the growth of Python's allocated memory
// (tracemalloc, after a collection) and of the resident set, per call, after warm-up calls. The resident set is
// measured first, without tracemalloc, whose own bookkeeping grows with every block it traces. Writes replace
// one of 1,000 records, so that the bank and SQLite's page cache keep their size. Prints one line per outcome:
// "kept OUTCOME TRACED_BYTES_PER_CALL RESIDENT_BYTES_PER_CALL".
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cstdio>

#include "bench.h"
#include "python_gil.h"

namespace OvraBench {
namespace {

const StrMap MATMUL = {{"op_type", "MatMul"}};
const StrMap NOT_UTF8 = {{"op_type", "\xff"}};
const StrMap EVERY_OP_TYPE = {{"op_type", "*"}};  // a value only a search may ask for: a write is refused

struct Outcome {
    const char *name;
    std::uint32_t status;
    std::uint32_t (*call)(const std::string &keyword);
};

std::vector<StrMap> g_rows;

const Outcome OUTCOMES[] = {
    {"write", 0, [](const std::string &k) { return OvraKbWrite(k, "tile 128x128", MATMUL, false); }},
    {"search", 0,
     [](const std::string &k) {
         g_rows.clear();
         return OvraKbSearch(k, MATMUL, g_rows);
     }},
    {"delete", 0, [](const std::string &k) { return OvraKbDelete(k, MATMUL, false); }},
    {"refused", 6, [](const std::string &k) { return OvraKbWrite(k, "tile 128x128", EVERY_OP_TYPE, false); }},
    {"failed_conversion", 4, [](const std::string &k) { return OvraKbWrite(k, "tile 128x128", NOT_UTF8, false); }},
};

// Python's allocated bytes as tracemalloc counts them, after a collection; -1 when it cannot tell.
long long TracedBytes()
{
    Gil gil;
    PyObject *globals = PyDict_New();
    PyObject *value = globals != nullptr ? PyRun_String(
                                               "__import__('gc').collect() * 0 + "
                                               "__import__('tracemalloc').get_traced_memory()[0]",
                                               Py_eval_input, globals, globals)
                                         : nullptr;
    long long bytes = value != nullptr ? PyLong_AsLongLong(value) : -1;
    if (value == nullptr) {
        PyErr_Print();
    }
    Py_XDECREF(value);
    Py_XDECREF(globals);
    return bytes;
}

void RunPython(const char *statement)
{
    Gil gil;
    if (PyRun_SimpleString(statement) != 0) {
        fprintf(stderr, "could not run: %s\n", statement);
    }
}

bool Calls(const Outcome &outcome, int count)
{
    for (int i = 0; i < count; ++i) {
        std::uint32_t status = outcome.call("k" + std::to_string(i % 1000));
        if (status != outcome.status) {
            fprintf(stderr, "%s: status %u, not %u\n", outcome.name, status, outcome.status);
            return false;
        }
    }
    return true;
}

}  // namespace

int RunKept(int calls)
{
    int warmUp = 1000;  // every keyword once, and the interpreter's first-use caches
    std::vector<long> resident;
    for (const Outcome &outcome : OUTCOMES) {
        long before = 0;
        if (!Calls(outcome, warmUp) || (before = ResidentBytes(), !Calls(outcome, calls))) {
            return 1;
        }
        resident.push_back(ResidentBytes() - before);
    }
    RunPython("import tracemalloc; tracemalloc.start()");
    int traced = calls / 2;
    for (size_t i = 0; i < sizeof(OUTCOMES) / sizeof(OUTCOMES[0]); ++i) {
        const Outcome &outcome = OUTCOMES[i];
        long long before = 0;
        if (!Calls(outcome, 200) || (before = TracedBytes(), !Calls(outcome, traced))) {
            return 1;
        }
        printf("kept %s %.2f %.1f\n", outcome.name, double(TracedBytes() - before) / traced,
               double(resident[i]) / calls);
    }
    RunPython("import tracemalloc; tracemalloc.stop()");
    return 0;
}

}  // namespace OvraBench
