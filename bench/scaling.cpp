// Searches from many native threads at once (--ovra_mode=scaling), on a bank of 2,000 records of one op type
// written by --ovra_mode=fill_scaling: four groups of 500 keywords, g0_0000 to g3_0499, so that an exact search
// finds one row, a prefix search ("g1_") 500 and an "all" search 2,000. Every caller is a native thread of its
// own, none of them the initialising one; the figure is searches per second of all threads together, and the
// slowest single search of the run.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>

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
    {"scale_exact", &EXACT, 1}, {"scale_prefix500", &PREFIX, GROUP_SIZE}, {"scale_all2000", &ALL, GROUPS * GROUP_SIZE}};

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

std::atomic<std::int64_t> gWorstNs{0};

void KeepWorst(std::int64_t ns)
{
    std::int64_t worst = gWorstNs.load();
    while (ns > worst && !gWorstNs.compare_exchange_weak(worst, ns)) {
    }
}

void ScalingSearch(benchmark::State &state, const SearchKind *kind)
{
    // Before the loop's start barrier, which no thread passes until every thread has come to it.
    if (state.thread_index() == 0) {
        gWorstNs = 0;
    }
    std::vector<StrMap> results;
    int next = state.thread_index() * 37;
    for (auto _ : state) {
        const std::string keyword = KeywordOf(*kind, next++);
        results.clear();
        auto start = std::chrono::steady_clock::now();
        std::uint32_t status = OvraKbSearch(keyword, *kind->config, results);
        KeepWorst(std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start)
                      .count());
        if (status != OvraKb::OVRA_KB_SUCCESS || results.size() != kind->rows) {
            state.SkipWithError(("search of " + keyword + ": status " + std::to_string(status) + ", " +
                                 std::to_string(results.size()) + " rows")
                                    .c_str());
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    // After the loop's end barrier: every thread reads the worst of all of them.
    state.counters["worst_ms"] = benchmark::Counter(gWorstNs.load() / 1e6, benchmark::Counter::kAvgThreads);
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
