// The benchmark program of libovra_kb: the library's exported functions side by side with the same Python
// calls written by hand against the C-API and through pybind11, all in one process and against one runtime.
//
// Own options (the rest go to Google Benchmark):
//   --ovra_mode=ops          the minimal module of bench/pypkg (default)
//   --ovra_mode=reference    the reference knowledge base of python/, on the bank of --ovra_bank; its exact
//                            search also from Python in this process, through the package and as a direct
//                            sqlite3 query
//   --ovra_mode=fill_bank    writes --ovra_records records into --ovra_bank through the library, then stops
//   --ovra_mode=scaling      searches of the reference knowledge base from --ovra_threads native threads at
//                            once, on the bank of --ovra_bank (a directory or a postgresql:// URL)
//   --ovra_mode=fill_scaling writes the 2,000 records of that bank into --ovra_bank, then stops
//   --ovra_mode=kept         memory kept per call by each operation and outcome of the reference package,
//                            --ovra_calls calls each, on a new bank at --ovra_bank
//   --ovra_mode=cold         cold start-up, one child process per repetition
//   --ovra_mode=info         prints the CPython this program was built against, as JSON
//   --ovra_init_thread=main|helper  the thread that initialises: this one (whose thread state is kept, so the
//                            one-thread runs call from it) or a helper thread (every caller is another thread)
//   --ovra_threads=1,2,8     the caller thread counts to register
//   --ovra_mode=calls --ovra_op=OP --ovra_bridge=BRIDGE --ovra_calls=N
//                            makes N calls of one operation (write_flag0, write_flag1, delete,
//                            search_first_poll, init_finalize, write_on_new_thread) through one bridge
//                            (library, capi, pybind11, capi_mirror)
//                            inside OvraBench::MeasuredCalls, after as many warm-up calls outside it: for
//                            counting instructions with valgrind --tool=callgrind
//                            --toggle-collect='OvraBench::MeasuredCalls*'
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <future>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"

namespace OvraBench {
namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::string mode = "ops";
    bool initOnHelper = false;
    std::vector<int> threads = {1};
    std::string bank;
    int records = 100000;
    std::string op;
    std::string bridge;
    int calls = 10000;
};

const StrMap SYS_CONFIG = {{"soc_version", "soc-a1"}, {"core_num", "8"}};
const StrMap REFERENCE_SYS_CONFIG = {{"soc_version", "soc-a1"}, {"core_num", "32"}};
const StrMap OP_CONFIG = {{"op_type", "MatMul"}};
const StrMap PREFIX_CONFIG = {{"op_type", "MatMul"}, {"search_type", "prefix"}};
const StrMap BENCH_WRITE_CONFIG = {{"op_type", "BenchWrite"}};

bool TakeOption(const char *arg, const char *name, std::string &value)
{
    size_t length = strlen(name);
    if (strncmp(arg, name, length) != 0 || arg[length] != '=') {
        return false;
    }
    value = arg + length + 1;
    return true;
}

// Takes this program's own options out of argv.
bool ParseOptions(int &argc, char **argv, Options &options)
{
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        std::string value;
        if (TakeOption(argv[i], "--ovra_mode", value)) {
            options.mode = value;
        } else if (TakeOption(argv[i], "--ovra_init_thread", value)) {
            if (value != "main" && value != "helper") {
                fprintf(stderr, "--ovra_init_thread must be main or helper\n");
                return false;
            }
            options.initOnHelper = value == "helper";
        } else if (TakeOption(argv[i], "--ovra_threads", value)) {
            options.threads.clear();
            std::istringstream items(value);
            std::string item;
            while (std::getline(items, item, ',')) {
                options.threads.push_back(std::stoi(item));
            }
        } else if (TakeOption(argv[i], "--ovra_bank", value)) {
            options.bank = value;
        } else if (TakeOption(argv[i], "--ovra_records", value)) {
            options.records = std::stoi(value);
        } else if (TakeOption(argv[i], "--ovra_op", value)) {
            options.op = value;
        } else if (TakeOption(argv[i], "--ovra_bridge", value)) {
            options.bridge = value;
        } else if (TakeOption(argv[i], "--ovra_calls", value)) {
            options.calls = std::stoi(value);
        } else {
            argv[kept++] = argv[i];
        }
    }
    argc = kept;
    argv[argc] = nullptr;
    return true;
}

// The library's users for the life of the benchmarks: one OvraKbInit before them, on this thread or on a
// helper thread that stays until the matching OvraKbFinalize, so that the count never falls to zero.
class Session {
  public:
    std::uint32_t Open(bool onHelper, const StrMap &sysConfig, const StrMap &loadConfig)
    {
        onHelper_ = onHelper;
        if (!onHelper) {
            return OvraKbInit(sysConfig, loadConfig);
        }
        std::promise<std::uint32_t> opened;
        std::future<std::uint32_t> status = opened.get_future();
        helper_ = std::thread([this, &opened, &sysConfig, &loadConfig] {
            opened.set_value(OvraKbInit(sysConfig, loadConfig));
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [this] { return closing_; });
            closed_ = OvraKbFinalize();
        });
        return status.get();
    }

    std::uint32_t Close()
    {
        if (!onHelper_) {
            return OvraKbFinalize();
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            closing_ = true;
        }
        wake_.notify_one();
        helper_.join();
        return closed_;
    }

  private:
    bool onHelper_ = false;
    std::thread helper_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool closing_ = false;
    std::uint32_t closed_ = 0;
};

bool Succeeded(benchmark::State &state, std::uint32_t status, const char *what)
{
    if (status == OvraKb::OVRA_KB_SUCCESS) {
        return true;
    }
    std::string message = std::string(what) + " answered status " + std::to_string(status);
    state.SkipWithError(message.c_str());
    return false;
}

void Write(benchmark::State &state, const Bridge *bridge, bool flag)
{
    const std::string keyword = "m128_n128_k64";
    const std::string knowledge = "tile 128x128, k-step 64";
    for (auto _ : state) {
        if (!Succeeded(state, bridge->write(keyword, knowledge, OP_CONFIG, flag), "write")) {
            break;
        }
    }
}

void Delete(benchmark::State &state, const Bridge *bridge)
{
    const std::string keyword = "m128_n128_k64";
    for (auto _ : state) {
        if (!Succeeded(state, bridge->erase(keyword, OP_CONFIG, false), "delete")) {
            break;
        }
    }
}

// A search that the module answers at the first poll, with one row of five entries.
void SearchFirstPoll(benchmark::State &state, const Bridge *bridge)
{
    const std::string keyword = "first";
    std::vector<StrMap> results;
    for (auto _ : state) {
        results.clear();
        if (!Succeeded(state, bridge->search(keyword, OP_CONFIG, results), "search")) {
            break;
        }
    }
    if (results.size() != 1 || results[0].size() != 5) {
        state.SkipWithError("the search did not bring back its one row");
    }
}

// A thread that makes one write and ends: its start, its one call with whatever the bridge does for a
// thread it has never seen, and its exit, per iteration.
void WriteOnNewThread(benchmark::State &state, const Bridge *bridge)
{
    const std::string keyword = "m128_n128_k64";
    const std::string knowledge = "tile 128x128, k-step 64";
    for (auto _ : state) {
        std::uint32_t status = 0;
        std::thread([&] { status = bridge->write(keyword, knowledge, OP_CONFIG, false); }).join();
        if (!Succeeded(state, status, "write")) {
            break;
        }
    }
}

double Median(std::vector<double> values)
{
    if (values.empty()) {
        return 0;
    }
    auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double Percentile90(std::vector<double> values)
{
    if (values.empty()) {
        return 0;
    }
    auto at = values.begin() + static_cast<std::ptrdiff_t>(values.size() * 9 / 10);
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

// A search that the module finishes `delayMs` after the request: the time of each call, in milliseconds.
void SearchAfter(benchmark::State &state, const Bridge *bridge, int delayMs)
{
    const std::string keyword = "after_ms=" + std::to_string(delayMs);
    std::vector<StrMap> results;
    std::vector<double> latencies;
    for (auto _ : state) {
        results.clear();
        Clock::time_point start = Clock::now();
        std::uint32_t status = bridge->search(keyword, OP_CONFIG, results);
        latencies.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        if (!Succeeded(state, status, "search")) {
            break;
        }
    }
    state.counters["median_ms"] = benchmark::Counter(Median(latencies), benchmark::Counter::kAvgThreads);
    state.counters["p90_ms"] = benchmark::Counter(Percentile90(latencies), benchmark::Counter::kAvgThreads);
}

// A warm initialisation and finalisation: the session's user keeps the count above zero.
void InitFinalize(benchmark::State &state, const Bridge *bridge)
{
    const StrMap loadConfig = {{"op_bank_path", "/nonexistent/bench"}};
    for (auto _ : state) {
        if (!Succeeded(state, bridge->initFinalize(SYS_CONFIG, loadConfig), "init and finalize")) {
            break;
        }
    }
}

// Keywords of the reference bank, spread over it: the records are shape_000000 to shape_<records - 1>.
std::vector<std::string> SpreadKeywords(int records, int count, int digits)
{
    std::vector<std::string> keywords;
    int divisor = 1;
    for (int i = digits; i < 6; ++i) {
        divisor *= 10;
    }
    for (int i = 0; i < count; ++i) {
        long number = (static_cast<long>(i) * 7919L) % records / divisor;
        char text[32];
        snprintf(text, sizeof(text), "shape_%0*ld", digits, number);
        keywords.emplace_back(text);
    }
    return keywords;
}

void ReferenceSearch(benchmark::State &state, const Bridge *bridge, int records, bool prefix)
{
    // An exact search finds one record; a prefix of four digits finds 100 (answered at once up to 256).
    const std::vector<std::string> keywords = SpreadKeywords(records, 1000, prefix ? 4 : 6);
    const size_t expected = prefix ? 100 : 1;
    std::vector<StrMap> results;
    size_t next = static_cast<size_t>(state.thread_index()) * 37;
    for (auto _ : state) {
        results.clear();
        const std::string &keyword = keywords[next++ % keywords.size()];
        if (!Succeeded(state, bridge->search(keyword, prefix ? PREFIX_CONFIG : OP_CONFIG, results), "search")) {
            break;
        }
        if (results.size() != expected) {
            state.SkipWithError(("found " + std::to_string(results.size()) + " rows for " + keyword).c_str());
            break;
        }
    }
}

// Writes replace one of 1,000 records of their own op type, so that the bank keeps its size.
void ReferenceWrite(benchmark::State &state, const Bridge *bridge, bool flag)
{
    std::vector<std::string> keywords;
    for (int i = 0; i < 1000; ++i) {
        char text[16];
        snprintf(text, sizeof(text), "w_%03d", i);
        keywords.emplace_back(text);
    }
    const std::string knowledge(64, 'x');
    size_t next = static_cast<size_t>(state.thread_index()) * 37;
    for (auto _ : state) {
        const std::string &keyword = keywords[next++ % keywords.size()];
        if (!Succeeded(state, bridge->write(keyword, knowledge, BENCH_WRITE_CONFIG, flag), "write")) {
            break;
        }
    }
}

template <typename... Args>
void Register(const std::string &name, const std::vector<int> &threads, Args &&...args)
{
    for (int count : threads) {
        benchmark::RegisterBenchmark(name.c_str(), std::forward<Args>(args)...)->Threads(count)->UseRealTime();
    }
}

void RegisterOps(const Options &options)
{
    const Bridge *bridges[] = {&LibraryBridge(), &CApiBridge(), &Pybind11Bridge(), &CApiMirrorBridge()};
    for (const Bridge *bridge : bridges) {
        std::string suffix = std::string("/") + bridge->name;
        Register("write_flag0" + suffix, options.threads, Write, bridge, false);
        Register("write_flag1" + suffix, options.threads, Write, bridge, true);
        Register("delete" + suffix, options.threads, Delete, bridge);
        Register("search_first_poll" + suffix, options.threads, SearchFirstPoll, bridge);
        if (bridge != &CApiMirrorBridge()) {
            Register("search_after_5ms" + suffix, options.threads, SearchAfter, bridge, 5);
        }
        Register("init_finalize" + suffix, options.threads, InitFinalize, bridge);
        Register("write_on_new_thread" + suffix, {1}, WriteOnNewThread, bridge);
    }
}

void RegisterReference(const Options &options)
{
    for (const Bridge *bridge : {&PackageLookupBridge(), &Sqlite3LookupBridge()}) {
        Register(std::string("ref_exact/") + bridge->name, options.threads, ReferenceSearch, bridge, options.records,
                 false);
    }
    const Bridge *bridges[] = {&LibraryBridge(), &CApiBridge()};
    for (const Bridge *bridge : bridges) {
        std::string suffix = std::string("/") + bridge->name;
        Register("ref_exact" + suffix, options.threads, ReferenceSearch, bridge, options.records, false);
        Register("ref_prefix" + suffix, options.threads, ReferenceSearch, bridge, options.records, true);
        Register("ref_write_flag0" + suffix, options.threads, ReferenceWrite, bridge, false);
        Register("ref_write_flag1" + suffix, options.threads, ReferenceWrite, bridge, true);
    }
}

void PutFirstOnPath(const std::string &dir)
{
    const char *path = getenv("PATH");
    std::string value = dir + ":" + (path != nullptr ? path : "/usr/bin:/bin");
    setenv("PATH", value.c_str(), 1);
}

int FillBank(const Options &options)
{
    Session session;
    std::uint32_t status = session.Open(false, REFERENCE_SYS_CONFIG, {{"op_bank_path", options.bank}});
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        fprintf(stderr, "OvraKbInit answered %u\n", status);
        return 1;
    }
    Clock::time_point start = Clock::now();
    for (int number = 0; number < options.records && status == OvraKb::OVRA_KB_SUCCESS; ++number) {
        char keyword[32];
        char knowledge[64];
        snprintf(keyword, sizeof(keyword), "shape_%06d", number);
        snprintf(knowledge, sizeof(knowledge), "tiling=%d;block=%d", number, number % 64);
        status = OvraKbWrite(keyword, knowledge, OP_CONFIG, false);
    }
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::uint32_t closed = session.Close();
    printf("wrote %d records in %.1f s (status %u, finalize %u)\n", options.records, seconds, status, closed);
    return status == OvraKb::OVRA_KB_SUCCESS && closed == OvraKb::OVRA_KB_SUCCESS ? 0 : 1;
}

// One operation of --ovra_mode=calls, with the arguments of its benchmark.
std::function<std::uint32_t()> CallOf(const std::string &op, const Bridge &bridge)
{
    static const std::string keyword = "m128_n128_k64";
    static const std::string knowledge = "tile 128x128, k-step 64";
    static const StrMap loadConfig = {{"op_bank_path", "/nonexistent/bench"}};
    static std::vector<StrMap> results;
    if (op == "write_flag0" || op == "write_flag1") {
        bool flag = op == "write_flag1";
        return [&bridge, flag] { return bridge.write(keyword, knowledge, OP_CONFIG, flag); };
    }
    if (op == "delete") {
        return [&bridge] { return bridge.erase(keyword, OP_CONFIG, false); };
    }
    if (op == "search_first_poll") {
        return [&bridge] {
            results.clear();
            return bridge.search("first", OP_CONFIG, results);
        };
    }
    if (op == "init_finalize") {
        return [&bridge] { return bridge.initFinalize(SYS_CONFIG, loadConfig); };
    }
    if (op == "write_on_new_thread") {
        return [&bridge] {
            std::uint32_t status = 0;
            std::thread([&bridge, &status] { status = bridge.write(keyword, knowledge, OP_CONFIG, false); }).join();
            return status;
        };
    }
    return nullptr;
}

// Page faults of this process served without I/O (first touches of fresh memory).
long MinorFaults()
{
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

int RunCalls(const Options &options)
{
    const Bridge *bridge = options.bridge == "library"       ? &LibraryBridge()
                           : options.bridge == "capi"        ? &CApiBridge()
                           : options.bridge == "pybind11"    ? &Pybind11Bridge()
                           : options.bridge == "capi_mirror" ? &CApiMirrorBridge()
                                                             : nullptr;
    std::function<std::uint32_t()> call = bridge != nullptr ? CallOf(options.op, *bridge) : nullptr;
    if (call == nullptr) {
        fprintf(stderr, "unknown --ovra_op=%s or --ovra_bridge=%s\n", options.op.c_str(), options.bridge.c_str());
        return 2;
    }
    std::uint32_t status = 0;
    for (int i = 0; i < options.calls; ++i) {
        status |= call();
    }
    long before = ResidentBytes();
    long faultsBefore = MinorFaults();
    status |= MeasuredCalls(call, options.calls);
    long faultsAfter = MinorFaults();
    long after = ResidentBytes();
    printf("%d calls of %s through %s: status %u\n", options.calls, options.op.c_str(), options.bridge.c_str(), status);
    // What the calls left behind: the resident set's growth, and the pages first touched, per call.
    printf("resident_bytes_per_call %.1f\n", static_cast<double>(after - before) / options.calls);
    printf("minor_faults_per_call %.4f\n", static_cast<double>(faultsAfter - faultsBefore) / options.calls);
    return status == OvraKb::OVRA_KB_SUCCESS ? 0 : 1;
}

// The modes that call only through the library, from threads other than the initialising one.
int RunOnReferenceBank(const Options &options)
{
    Session session;
    std::uint32_t status = session.Open(true, REFERENCE_SYS_CONFIG, {{"op_bank_path", options.bank}});
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        fprintf(stderr, "OvraKbInit answered %u\n", status);
        return 1;
    }
    int code = 0;
    if (options.mode == "kept") {
        code = RunKept(options.calls);
    } else {
        RegisterScaling(options.threads);
        benchmark::RunSpecifiedBenchmarks();
    }
    status = session.Close();
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        fprintf(stderr, "OvraKbFinalize answered %u\n", status);
        return 1;
    }
    return code;
}

std::string ShimDir()
{
    const char *root = getenv("PYENV_ROOT");
    const char *home = getenv("HOME");
    std::string dir = root != nullptr && *root != '\0'
                          ? std::string(root) + "/shims"
                          : std::string(home != nullptr ? home : "/root") + "/.pyenv/shims";
    struct stat info {};
    return stat((dir + "/python3").c_str(), &info) == 0 ? dir : "";
}

// The name the version manager knows this Python by: the directory above bin/ under .../versions/.
std::string ShimVersion(const std::string &binDir)
{
    size_t versions = binDir.rfind("/versions/");
    if (versions == std::string::npos) {
        return "";
    }
    std::string rest = binDir.substr(versions + 10);
    return rest.substr(0, rest.find('/'));
}

}  // namespace

long ResidentBytes()
{
    long pages = 0;
    long resident = 0;
    FILE *statm = fopen("/proc/self/statm", "r");
    if (statm != nullptr) {
        if (fscanf(statm, "%ld %ld", &pages, &resident) != 2) {
            resident = 0;
        }
        fclose(statm);
    }
    return resident * sysconf(_SC_PAGESIZE);
}

// Kept out of line: under callgrind, only what runs inside this function is counted.
__attribute__((noinline)) std::uint32_t MeasuredCalls(const std::function<std::uint32_t()> &call, int count)
{
    std::uint32_t status = 0;
    for (int i = 0; i < count; ++i) {
        status |= call();
    }
    return status;
}

PythonBuild ThisPython()
{
    return {OVRA_BENCH_PYTHON_VERSION, OVRA_BENCH_PYTHON_BIN_DIR, OVRA_BENCH_PYTHON_LIBRARY};
}

void SleepOnePollInterval()
{
    struct timespec interval = {0, 1000000};
    while (nanosleep(&interval, &interval) == -1 && errno == EINTR) {
    }
}

}  // namespace OvraBench

int main(int argc, char **argv)
{
    using namespace OvraBench;
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        return 2;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    PutFirstOnPath(OVRA_BENCH_PYTHON_BIN_DIR);
    const std::vector<std::string> referenceModes = {"reference", "fill_bank", "scaling", "fill_scaling", "kept"};
    bool reference = std::find(referenceModes.begin(), referenceModes.end(), options.mode) != referenceModes.end();
    // Anything the run adds to the path (a PostgreSQL driver) comes after the package.
    const char *extraPath = getenv("PYTHONPATH");
    std::string path = reference ? OVRA_BENCH_REFERENCE_DIR : OVRA_BENCH_PACKAGE_DIR;
    setenv("PYTHONPATH", (extraPath != nullptr && *extraPath != '\0' ? path + ":" + extraPath : path).c_str(), 1);

    if (options.mode == "info") {
        PythonBuild python = ThisPython();
        printf("{\"version\": \"%s\", \"bin_dir\": \"%s\", \"library\": \"%s\"}\n", python.version.c_str(),
               python.binDir.c_str(), python.library.c_str());
        return 0;
    }
    if (options.mode == "cold") {
        RegisterColdBenchmarks(OVRA_BENCH_COLD_DRIVER, OVRA_BENCH_PACKAGE_DIR, ShimDir(),
                               ShimVersion(OVRA_BENCH_PYTHON_BIN_DIR));
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
        return 0;
    }
    if (reference && options.bank.empty()) {
        fprintf(stderr, "--ovra_mode=%s needs --ovra_bank=DIR\n", options.mode.c_str());
        return 2;
    }
    if (options.mode == "fill_bank") {
        return FillBank(options);
    }
    if (options.mode == "fill_scaling") {
        return FillScalingBank(REFERENCE_SYS_CONFIG, options.bank);
    }
    if (options.mode == "scaling" || options.mode == "kept") {
        return RunOnReferenceBank(options);
    }
    if (options.mode != "ops" && options.mode != "reference" && options.mode != "calls") {
        fprintf(stderr, "unknown --ovra_mode=%s\n", options.mode.c_str());
        return 2;
    }

    Session session;
    StrMap loadConfig = {{"op_bank_path", reference ? options.bank : std::string("/nonexistent/bench")}};
    std::uint32_t status =
        session.Open(options.initOnHelper, reference ? REFERENCE_SYS_CONFIG : SYS_CONFIG, loadConfig);
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        fprintf(stderr, "OvraKbInit answered %u\n", status);
        return 1;
    }
    AttachCApi();
    AttachPybind11();
    if (reference && !AttachDirectLookup(options.bank, REFERENCE_SYS_CONFIG)) {
        return 1;
    }
    if (options.mode == "calls") {
        int code = RunCalls(options);
        DetachPybind11();
        DetachCApi();
        return session.Close() == OvraKb::OVRA_KB_SUCCESS ? code : 1;
    }
    if (reference) {
        RegisterReference(options);
    } else {
        RegisterOps(options);
    }
    benchmark::RunSpecifiedBenchmarks();
    if (reference) {
        DetachDirectLookup();
    }
    DetachPybind11();
    DetachCApi();
    status = session.Close();
    benchmark::Shutdown();
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        fprintf(stderr, "OvraKbFinalize answered %u\n", status);
        return 1;
    }
    return 0;
}
