// Cold start-up: every repetition runs one child process (ovra_kb_bench_cold) and reads what it measured.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bench.h"

extern char **environ;

namespace OvraBench {
namespace {

struct Child {
    int exitCode = -1;
    std::string output;  // standard output and standard error together
};

// This process's environment with `changes` applied (an empty value removes the variable).
std::vector<std::string> ChildEnvironment(const std::map<std::string, std::string> &changes)
{
    std::vector<std::string> env;
    for (char **entry = environ; *entry != nullptr; ++entry) {
        std::string item(*entry);
        std::string name = item.substr(0, item.find('='));
        if (changes.count(name) == 0) {
            env.push_back(item);
        }
    }
    for (const auto &change : changes) {
        if (!change.second.empty()) {
            env.push_back(change.first + "=" + change.second);
        }
    }
    return env;
}

Child Run(const std::vector<std::string> &args, const std::vector<std::string> &env)
{
    Child child;
    int fds[2];
    if (pipe(fds) != 0) {
        return child;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    posix_spawn_file_actions_addclose(&actions, fds[1]);
    std::vector<char *> argv;
    for (const std::string &arg : args) {
        argv.push_back(const_cast<char *>(arg.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<char *> envp;
    for (const std::string &item : env) {
        envp.push_back(const_cast<char *>(item.c_str()));
    }
    envp.push_back(nullptr);
    pid_t pid = -1;
    int failed = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    char buffer[4096];
    ssize_t count = 0;
    while ((count = read(fds[0], buffer, sizeof(buffer))) > 0 || (count < 0 && errno == EINTR)) {
        if (count > 0) {
            child.output.append(buffer, static_cast<size_t>(count));
        }
    }
    close(fds[0]);
    if (failed != 0) {
        child.output += std::string("cannot start ") + args[0] + ": " + strerror(failed);
        return child;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    child.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return child;
}

std::vector<std::string> Lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

// "bench: NAME VALUE" lines of the child.
std::map<std::string, double> Values(const std::vector<std::string> &lines)
{
    std::map<std::string, double> values;
    for (const std::string &line : lines) {
        if (line.compare(0, 7, "bench: ") != 0) {
            continue;
        }
        std::istringstream fields(line.substr(7));
        std::string name;
        double value = 0;
        if (fields >> name >> value) {
            values[name] = value;
        }
    }
    return values;
}

// Microseconds of the day of a platform log line: "[LEVEL] YYYY-MM-DD HH:MM:SS.uuuuuu pid=...".
bool LogMicros(const std::string &line, double &micros)
{
    size_t at = line.find("] ");
    if (at == std::string::npos || line.size() < at + 2 + 26) {
        return false;
    }
    const std::string time = line.substr(at + 2 + 11, 15);
    int hours = 0;
    int minutes = 0;
    double seconds = 0;
    if (sscanf(time.c_str(), "%d:%d:%lf", &hours, &minutes, &seconds) != 3) {
        return false;
    }
    micros = ((hours * 60.0 + minutes) * 60.0 + seconds) * 1e6;
    return true;
}

// The time of the `nth` (from 0) log line that contains `text`; false when there is none.
bool FindMark(const std::vector<std::string> &lines, const char *text, int nth, double &micros)
{
    for (const std::string &line : lines) {
        if (line.find(text) != std::string::npos && nth-- == 0) {
            return LogMicros(line, micros);
        }
    }
    return false;
}

struct Setup {
    std::string driver;
    std::string packageDir;
    std::string shimDir;
    std::string shimVersion;
    PythonBuild python;
};

Setup &TheSetup()
{
    static Setup setup;
    return setup;
}

std::string PathWith(const std::string &dir)
{
    const char *path = getenv("PATH");
    return dir + ":" + (path != nullptr ? path : "/usr/bin:/bin");
}

std::map<std::string, std::string> BaseChanges(bool shim, bool logged)
{
    const Setup &setup = TheSetup();
    return {{"PATH", PathWith(shim ? setup.shimDir : setup.python.binDir)},
            {"PYENV_VERSION", shim ? setup.shimVersion : ""},
            {"PYTHONPATH", setup.packageDir},
            {"PYTHONHOME", ""},
            {"OVRA_LOG_EVENT", logged ? "1" : "0"},
            {"OVRA_LOG_LEVEL", logged ? "debug" : "warning"}};
}

bool Failed(benchmark::State &state, const Child &child, const char *what)
{
    if (child.exitCode == 0) {
        return false;
    }
    std::string message = std::string(what) + " failed: " + child.output.substr(0, 600);
    state.SkipWithError(message.c_str());
    return true;
}

// OvraKbInit in a fresh process; with `logged`, the library's event and debug lines split it into steps.
void ColdLibrary(benchmark::State &state, bool shim, bool logged)
{
    const std::vector<std::string> env = ChildEnvironment(BaseChanges(shim, logged));
    for (auto _ : state) {
        Child child = Run({TheSetup().driver, "library"}, env);
        if (Failed(state, child, "library start-up")) {
            break;
        }
        std::vector<std::string> lines = Lines(child.output);
        std::map<std::string, double> values = Values(lines);
        double total = values["total_us"];
        state.SetIterationTime(total / 1e6);
        state.counters["total_ms"] = total / 1e3;
        if (!logged) {
            continue;
        }
        double begin = 0;
        double loadStart = 0;
        double query1 = 0;
        double query2 = 0;
        double loaded = 0;
        double bound = 0;
        double started = 0;
        double imported = 0;
        double end = 0;
        bool found = FindMark(lines, "bench: begin", 0, begin) &&
                     FindMark(lines, "Start to load dynamic python lib!", 0, loadStart) &&
                     FindMark(lines, "line:[", 0, query1) && FindMark(lines, "line:[", 1, query2) &&
                     FindMark(lines, "Load dynamic Python library[", 0, loaded) &&
                     FindMark(lines, "Init functions of loading dynamic python lib end!", 0, bound) &&
                     FindMark(lines, "Start to run PyEval_SaveThread now.", 0, started) &&
                     FindMark(lines, "Run PyObjectInit successfully!", 0, imported) &&
                     FindMark(lines, "bench: end", 0, end);
        if (!found) {
            std::string message = "a step line is missing: " + child.output.substr(0, 600);
            state.SkipWithError(message.c_str());
            break;
        }
        state.counters["q1_ms"] = (query1 - loadStart) / 1e3;
        state.counters["q2_ms"] = (query2 - query1) / 1e3;
        state.counters["before_ms"] = (loadStart - begin) / 1e3;
        state.counters["load_ms"] = (loaded - query2) / 1e3;
        state.counters["bind_ms"] = (bound - loaded) / 1e3;
        state.counters["start_ms"] = (started - bound) / 1e3;
        state.counters["imports_ms"] = (imported - started) / 1e3;
        state.counters["init_call_ms"] = (end - imported) / 1e3;
        // Everything but the two queries, for the comparison with a plain embedded start-up.
        state.counters["nonquery_ms"] = (total - (query2 - loadStart)) / 1e3;
    }
}

// The same start-up written by hand against the same runtime, in a fresh process.
void ColdEmbedded(benchmark::State &state)
{
    const std::vector<std::string> env = ChildEnvironment(BaseChanges(false, false));
    for (auto _ : state) {
        Child child = Run({TheSetup().driver, "embed", TheSetup().python.library}, env);
        if (Failed(state, child, "embedded start-up")) {
            break;
        }
        std::map<std::string, double> values = Values(Lines(child.output));
        state.SetIterationTime(values["total_us"] / 1e6);
        for (const char *step : {"load", "bind", "start", "imports", "init_call", "total"}) {
            state.counters[std::string(step) + "_ms"] = values[std::string(step) + "_us"] / 1e3;
        }
    }
}

// The library's two python3 queries on their own, with python3 found directly or through the shim.
void Queries(benchmark::State &state, bool shim)
{
    const std::vector<std::string> env = ChildEnvironment(BaseChanges(shim, false));
    for (auto _ : state) {
        Child child = Run({TheSetup().driver, "query"}, env);
        if (Failed(state, child, "python3 queries")) {
            break;
        }
        std::map<std::string, double> values = Values(Lines(child.output));
        state.SetIterationTime((values["q1_us"] + values["q2_us"]) / 1e6);
        state.counters["q1_ms"] = values["q1_us"] / 1e3;
        state.counters["q2_ms"] = values["q2_us"] / 1e3;
    }
}

void Configure(benchmark::internal::Benchmark *bench)
{
    bench->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
}

}  // namespace

void RegisterColdBenchmarks(const std::string &driver, const std::string &packageDir, const std::string &shimDir,
                            const std::string &shimVersion)
{
    Setup &setup = TheSetup();
    setup.driver = driver;
    setup.packageDir = packageDir;
    setup.shimDir = shimDir;
    setup.shimVersion = shimVersion;
    setup.python = ThisPython();
    Configure(benchmark::RegisterBenchmark("cold_init/library", ColdLibrary, false, true));
    Configure(benchmark::RegisterBenchmark("cold_init/library_quiet", ColdLibrary, false, false));
    Configure(benchmark::RegisterBenchmark("cold_init/embedded", ColdEmbedded));
    Configure(benchmark::RegisterBenchmark("query/direct", Queries, false));
    if (!shimDir.empty()) {
        Configure(benchmark::RegisterBenchmark("cold_init/library_shim", ColdLibrary, true, true));
        Configure(benchmark::RegisterBenchmark("query/shim", Queries, true));
    }
}

}  // namespace OvraBench
