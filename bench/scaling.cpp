// Searches from many native threads at once (--ovra_mode=scaling), on a bank of 2,000 records of one op type
// written by --ovra_mode=fill_scaling: four groups of 500 keywords, g0_0000 to g3_0499, so that an exact search
// finds one row, a prefix search ("g1_") 500 and an "all" search 2,000. Every caller is a native thread of its
// own, none of them the initialising one; the figures are searches per second of all threads together, the
// slowest single search of the run, and per search the CPU time and the voluntary context switches of the whole
// process (the package's worker threads too), which the machine's other load changes less than the wall time.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <atomic>
#include <cstdio>
#include <ctime>

#include "bench.h"

namespace OvraBench {
namespace {

constexpr int GROUPS = 4;
constexpr int GROUP_SIZE = 500;

const StrMap EXACT = {{"op_type", "Conv"}};
const StrMap PREFIX = {{"op_type", "Conv"}, {"search_type", "prefix"}};
const StrMap ALL = {{"op_type", "Conv"}, {"search_type", "all"}};

struct SearchKind {
    const char *name;
    const StrMap *config;
    size_t rows;
};
const SearchKind KINDS[] = {
    {"scale_exact", &EXACT, 1}, {"scale_prefix500", &PREFIX, GROUP_SIZE}, {"scale_all2000", &ALL, GROUPS *GROUP_SIZE}};

std::string Keyword(int group, int number)
{
    char text[16];
    snprintf(text, sizeof(text), "g%d_%04d", group, number);
    return text;
}

// The keyword of a thread's n-th search: spread over the bank, the same sequence in every run.
std::string KeywordOf(const SearchKind &kind, int n)
{
    if (kind.rows == 1) {
        return Keyword(n % GROUPS, (n * 7919) % GROUP_SIZE);
    }
    return kind.rows == GROUP_SIZE ? Keyword(n % GROUPS, 0).substr(0, 3) : "";
}

std::int64_t Nanoseconds(clockid_t clock)
{
    struct timespec now {};
    clock_gettime(clock, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

long VoluntarySwitches()
{
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw;
}

// The run as a whole, from the first search of any thread to the last: Google Benchmark's own rate divides by
// the mean of the threads' times, which flatters a run where some threads finish long before the others.
struct Run {
    std::atomic<bool> started{false};
    std::atomic<std::int64_t> wallNs{0};
    std::atomic<std::int64_t> cpuNs{0};
    std::atomic<long> switches{0};
    std::atomic<std::int64_t> worstNs{0};

    void Reset()
    {
        started = false;
        worstNs = 0;
    }

    void Start()
    {
        if (!started.exchange(true)) {
            wallNs = Nanoseconds(CLOCK_MONOTONIC);
            cpuNs = Nanoseconds(CLOCK_PROCESS_CPUTIME_ID);
            switches = VoluntarySwitches();
        }
    }

    void KeepWorst(std::int64_t ns)
    {
        std::int64_t worst = worstNs.load();
        while (ns > worst && !worstNs.compare_exchange_weak(worst, ns)) {
        }
    }
};
Run gRun;

void ScalingSearch(benchmark::State &state, const SearchKind *kind)
{
    // Before the loop's start barrier, which no thread passes until every thread has come to it.
    if (state.thread_index() == 0) {
        gRun.Reset();
    }
    std::vector<StrMap> results;
    int next = state.thread_index() * 37;
    bool first = true;
    for (auto _ : state) {
        if (first) {
            gRun.Start();
            first = false;
        }
        const std::string keyword = KeywordOf(*kind, next++);
        results.clear();
        std::int64_t start = Nanoseconds(CLOCK_MONOTONIC);
        std::uint32_t status = OvraKbSearch(keyword, *kind->config, results);
        gRun.KeepWorst(Nanoseconds(CLOCK_MONOTONIC) - start);
        if (status != OvraKb::OVRA_KB_SUCCESS || results.size() != kind->rows) {
            state.SkipWithError(("search of " + keyword + ": status " + std::to_string(status) + ", " +
                                 std::to_string(results.size()) + " rows")
                                    .c_str());
            break;
        }
    }
    // After the loop's end barrier, which the last thread passes last: every thread reads the same figures.
    double searches = static_cast<double>(state.iterations()) * state.threads();
    auto counter = [](double value) { return benchmark::Counter(value, benchmark::Counter::kAvgThreads); };
    state.counters["searches_per_s"] = counter(searches * 1e9 / (Nanoseconds(CLOCK_MONOTONIC) - gRun.wallNs.load()));
    state.counters["worst_ms"] = counter(gRun.worstNs.load() / 1e6);
    state.counters["cpu_us"] = counter((Nanoseconds(CLOCK_PROCESS_CPUTIME_ID) - gRun.cpuNs.load()) / 1e3 / searches);
    state.counters["switches"] = counter(static_cast<double>(VoluntarySwitches() - gRun.switches.load()) / searches);
}

}  // namespace

void RegisterScaling(const std::vector<int> &threads)
{
    for (const SearchKind &kind : KINDS) {
        for (int count : threads) {
            benchmark::RegisterBenchmark((std::string(kind.name) + "/library").c_str(), ScalingSearch, &kind)
                ->Threads(count)
                ->UseRealTime();
        }
    }
}

int FillScalingBank(const StrMap &sysConfig, const std::string &bank)
{
    std::uint32_t status = OvraKbInit(sysConfig, {{"op_bank_path", bank}});
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        fprintf(stderr, "OvraKbInit answered %u\n", status);
        return 1;
    }
    for (int group = 0; group < GROUPS && status == OvraKb::OVRA_KB_SUCCESS; ++group) {
        for (int number = 0; number < GROUP_SIZE && status == OvraKb::OVRA_KB_SUCCESS; ++number) {
            bool last = group == GROUPS - 1 && number == GROUP_SIZE - 1;
            status = OvraKbWrite(Keyword(group, number), "tiling=" + std::to_string(number), EXACT, last);
        }
    }
    std::uint32_t closed = OvraKbFinalize();
    printf("wrote %d records (status %u, finalize %u)\n", GROUPS * GROUP_SIZE, status, closed);
    return status == OvraKb::OVRA_KB_SUCCESS && closed == OvraKb::OVRA_KB_SUCCESS ? 0 : 1;
}

}  // namespace OvraBench
