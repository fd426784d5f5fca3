// Shared declarations of the benchmark program (one build per CPython, see bench/CMakeLists.txt).
#ifndef OVRA_KB_BENCH_BENCH_H
#define OVRA_KB_BENCH_BENCH_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ovra_kb/ovra_kb_api.h"

namespace OvraBench {

using OvraKb::StrMap;

// The module every bridge calls: the library imports it by this name, the baselines find it in sys.modules.
constexpr const char *KB_MODULE = "oxe.common.repository_manager.interface";

// One way from C++ to the knowledge-base module's functions: the library itself, or a baseline that makes
// the same Python calls with the same arguments, taking and giving back the interpreter lock around each
// call with PyGILState_Ensure and PyGILState_Release as the library does. Each answers a library status.
struct Bridge {
    const char *name;
    std::uint32_t (*write)(const std::string &keyword, const std::string &knowledge, const StrMap &config, bool flag);
    std::uint32_t (*erase)(const std::string &keyword, const StrMap &config, bool flag);
    // Asks once, then every millisecond with the lock given back while sleeping, until the module is done.
    std::uint32_t (*search)(const std::string &keyword, const StrMap &config, std::vector<StrMap> &results);
    // "ovra_kb_init" then "ovra_kb_finalize", each under its own lock.
    std::uint32_t (*initFinalize)(const StrMap &sysConfig, const StrMap &loadConfig);
};

const Bridge &LibraryBridge();
const Bridge &CApiBridge();
const Bridge &CApiMirrorBridge();
const Bridge &Pybind11Bridge();

// The baselines look the module up once, after the library imported it, and drop it before the library's
// last finalisation. Both take the interpreter lock themselves.
void AttachCApi();
void DetachCApi();
void AttachPybind11();
void DetachPybind11();

// The CPython this program was built against (set by the build).
struct PythonBuild {
    std::string version;  // for example "3.11.7"
    std::string binDir;   // the directory of its python3
    std::string library;  // the full path of its shared runtime
};
PythonBuild ThisPython();

// Cold start-up, one child process per repetition: registers the cold benchmarks. `shimDir` is the version
// manager's shim directory ("" when there is none), `shimVersion` the name it selects this Python by.
void RegisterColdBenchmarks(const std::string &driver, const std::string &packageDir, const std::string &shimDir,
                            const std::string &shimVersion);

// The exact search of the reference bank from Python in this process (direct_lookup.cpp): through the
// package's entry points, and as the same query on a sqlite3 connection of its own. Attached once the library
// has brought the package up; only their `search` is set.
bool AttachDirectLookup(const std::string &bank, const StrMap &sysConfig);
void DetachDirectLookup();
const Bridge &PackageLookupBridge();
const Bridge &Sqlite3LookupBridge();

// Searches from many threads on the bank of 2,000 records that FillScalingBank writes (scaling.cpp).
void RegisterScaling(const std::vector<int> &threads);
int FillScalingBank(const StrMap &sysConfig, const std::string &bank);

// Memory kept per call by each operation and outcome, with `calls` calls of each (kept.cpp).
int RunKept(int calls);

// The resident set of this process, from /proc/self/statm.
long ResidentBytes();

// Makes `count` calls; the only code that --ovra_mode=calls counts instructions in.
std::uint32_t MeasuredCalls(const std::function<std::uint32_t()> &call, int count);

// The sleep of one poll cycle, shared by the baselines: 1 ms, resumed after a signal, as the library sleeps.
void SleepOnePollInterval();

}  // namespace OvraBench

#endif  // OVRA_KB_BENCH_BENCH_H
