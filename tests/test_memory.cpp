// What stays alive: the library keeps some Python references on purpose (the argument dictionaries of
// init, write and delete, one reference on each completion flag a search reads, and the formatted lines
// and upload dictionary of each captured exception, with the exception itself). N operations of each
// kind leave exactly those behind, and nothing else grows with N. (The reference kept on None by each
// search without a search type is counted in test_python_side: here the interpreter's own use blurs it.)
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "ovra_kb/ovra_kb_api.h"
#include "test_env.h"

using namespace OvraTest;

namespace {

constexpr int N = 40;
// The interpreter's own caches come and go by a few objects between two measurements; a leak of
// even one object per operation shows as N or more.
constexpr long NOISE = 24;

// The module keeps every dictionary it receives, so that their counts can be read at the end, answers
// each search's first poll with False and its second with True, and answers a write with op_type
// "measure" by noting the interpreter's counts.
const char *const SCRIPT = R"js({
  "ovra_kb_init": ["state.setdefault('kept', []).extend(args) or 0"],
  "ovra_kb_write": ["note('%d %d %d %d' % (tracked_objects(state['kept']), traceback_line_lists(), sys.getrefcount(False), sys.getrefcount(True))) if args[2]['op_type'] == 'measure' else (fail(RuntimeError({'errCode': 'E_MEM'})) if args[0] == 'fail' else (state['kept'].append(args[2]) or 0))"],
  "ovra_kb_delete": ["state['kept'].append(args[1]) or 0"],
  "ovra_kb_search_async": ["state['kept'].append(args[1]) or default()"],
  "ovra_kb_search_get": ["poll_after(args[0], 1, default)"],
  "ovra_kb_finalize": ["note(' '.join(str(n) for n in extra_refs(state['kept']) + extra_refs(state.get('uploads', []))))"],
  "get_py_exception_dict": ["state.setdefault('uploads', []).append({'errCode': 'E_MEM'}) or state['uploads'][-1]"]
})js";

// The interpreter's counts, as the measuring write notes them.
struct Counts {
    long tracked = 0;
    long tracebackLists = 0;
    long falseRefs = 0;
    long trueRefs = 0;
};

using Memory = ScriptedTest;

TEST_F(Memory, OperationsKeepOnlyWhatTheyKeepOnPurposeAndNothingGrowsBeyond)
{
    auto measure = [this] {
        EXPECT_EQ(OvraKbWrite("measure", "", {{"op_type", "measure"}}, false), 0U);
        Counts c;
        std::istringstream(scripted_.Notes().back()) >> c.tracked >> c.tracebackLists >> c.falseRefs >> c.trueRefs;
        return c;
    };
    auto successes = [](int rounds) {
        for (int i = 0; i < rounds; ++i) {
            Rows rows;
            ASSERT_EQ(OvraKbWrite("kw", "text", OP, i % 2 == 0), 0U);
            ASSERT_EQ(OvraKbSearch("kw", OP, rows), 0U);
            ASSERT_EQ(OvraKbSearch("kw", {{"op_type", "Add"}, {"search_type", "exact"}}, rows), 0U);
            ASSERT_EQ(OvraKbDelete("kw", OP, false), 0U);
        }
    };
    auto failures = [] {
        for (int i = 0; i < N; ++i) {
            ASSERT_EQ(OvraKbWrite("fail", "text", OP, true), 6U);
        }
    };
    scripted_.SetScript(SCRIPT);
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    successes(2);  // warm-up: first-use caches of the interpreter
    const Counts start = measure();
    successes(N);
    const Counts afterSuccesses = measure();
    failures();  // the interpreter settles its caches of tracebacks during the first batch
    const Counts settled = measure();
    failures();
    const Counts afterFailures = measure();
    failures();
    const Counts afterMore = measure();

    // Beyond the kept argument dictionaries (which the collector follows from CPython 3.14 on; before, it
    // leaves dictionaries of strings alone), nothing it follows may grow with the number of successful
    // operations.
    EXPECT_LE(std::labs(afterSuccesses.tracked - start.tracked), NOISE) << "objects grew beyond the ones kept";
    EXPECT_EQ(afterSuccesses.tracebackLists, start.tracebackLists);
    if (TestPythonVersion() < 312) {  // False and True are immortal from 3.12 on: their counts say nothing
        EXPECT_EQ(afterSuccesses.falseRefs - start.falseRefs, 2 * N);
        EXPECT_EQ(afterSuccesses.trueRefs - start.trueRefs, 2 * N);
    }
    // Per failure the same objects stay (lines, the exception and its traceback): two equal batches
    // leave the same number behind.
    EXPECT_EQ(afterFailures.tracebackLists - settled.tracebackLists, N);
    EXPECT_EQ(afterMore.tracebackLists - afterFailures.tracebackLists, N);
    const long first = afterFailures.tracked - settled.tracked;
    const long second = afterMore.tracked - afterFailures.tracked;
    EXPECT_GE(first, N);
    EXPECT_LE(std::labs(second - first), NOISE)
        << "per failure " << first / double(N) << " then " << second / double(N);

    // The references beyond the module's own, in the order the module kept the dictionaries: init's two, per
    // round those of write, search, search and delete (not those of the measuring writes), one upload
    // dictionary per failure. The library keeps one on each dictionary but a search's.
    ASSERT_EQ(OvraKbFinalize(), 0U);
    std::istringstream extras(scripted_.Notes().back());
    std::string kept;
    for (int extra = 0; extras >> extra;) {
        kept += std::to_string(extra);
    }
    std::string expected = "11";
    for (int round = 0; round < 2 + N; ++round) {
        expected += "1001";
    }
    EXPECT_EQ(kept, expected + std::string(3 * N, '1'));
}

}  // namespace
