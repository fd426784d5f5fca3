// What stays alive: the library keeps some Python references on purpose (the argument
// dictionaries of init, write and delete, one reference on None per search without a search
// type and one per flag it reads, the formatted lines and the upload dictionary of each captured
// exception, with the exception itself). N operations of each kind leave exactly those behind,
// and nothing else grows with N.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "ovra_kb/ovra_kb_api.h"
#include "test_env.h"

using namespace OvraTest;

namespace {

const StrMap MEASURE = {{"op_type", "measure"}};
constexpr int N = 40;
// The interpreter's own caches come and go by a few objects between two measurements; a leak of
// even one object per operation shows as N or more.
constexpr long NOISE = 24;

// The module keeps every dictionary it receives (so that their counts can be read later) and
// answers a write with op_type "measure" by noting the interpreter's counts.
const char *const SCRIPT = R"js({
  "ovra_kb_init": ["state.setdefault('kept', []).extend(args) or 0"],
  "ovra_kb_write": ["note('%d %d' % (tracked_objects(), traceback_line_lists())) if args[2]['op_type'] == 'measure' else (fail(RuntimeError({'errCode': 'E_MEM'})) if args[0] == 'fail' else (state['kept'].append(args[2]) or 0))"],
  "ovra_kb_delete": ["state['kept'].append(args[1]) or 0"],
  "ovra_kb_search_async": ["state['kept'].append(args[1]) or default()"],
  "ovra_kb_finalize": ["note(' '.join(str(n) for n in extra_refs(state['kept']) + extra_refs(state.get('uploads', []))))"],
  "get_py_exception_dict": ["state.setdefault('uploads', []).append({'errCode': 'E_MEM'}) or state['uploads'][-1]"]
})js";

struct Counts {
    long tracked = 0;
    long tracebackLists = 0;
};

Counts ParseCounts(const std::string &note)
{
    Counts counts;
    std::istringstream(note) >> counts.tracked >> counts.tracebackLists;
    return counts;
}

class Memory : public ::testing::Test {
  protected:
    void SetUp() override
    {
        OvraTest::PutPythonFirstOnPath(dir_, OvraTest::TestPython());
        OvraTest::UsePackages({"kb", "log"});
        scripted_.SetScript(SCRIPT);
    }
    Counts Measure()
    {
        EXPECT_EQ(OvraKbWrite("measure", "", MEASURE, false), 0U);
        return ParseCounts(scripted_.Notes().back());
    }
    void Successes(int rounds)
    {
        for (int i = 0; i < rounds; ++i) {
            Rows rows;
            ASSERT_EQ(OvraKbWrite("kw", "text", OP, i % 2 == 0), 0U);
            ASSERT_EQ(OvraKbSearch("kw", OP, rows), 0U);
            ASSERT_EQ(OvraKbSearch("kw", {{"op_type", "Add"}, {"search_type", "exact"}}, rows), 0U);
            ASSERT_EQ(OvraKbDelete("kw", OP, false), 0U);
        }
    }
    void Failures(int rounds)
    {
        for (int i = 0; i < rounds; ++i) {
            ASSERT_EQ(OvraKbWrite("fail", "text", OP, true), 6U);
        }
    }

    TempDir dir_;
    OvraTest::Scripted scripted_{dir_};
};

TEST_F(Memory, SuccessfulOperationsKeepOnlyTheirDictionariesAndSingletonReferences)
{
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    Successes(2);  // warm-up: first-use caches of the interpreter
    Counts before = Measure();
    Successes(N);
    Counts after = Measure();
    Successes(2 * N);
    Counts later = Measure();

    // The kept argument dictionaries hold strings only, so the collector does not follow them:
    // nothing it follows may grow with the number of operations.
    EXPECT_LE(std::labs(after.tracked - before.tracked), NOISE) << "objects grew beyond the ones kept on purpose";
    EXPECT_LE(std::labs(later.tracked - after.tracked), NOISE) << "objects grew beyond the ones kept on purpose";
    EXPECT_EQ(after.tracebackLists, before.tracebackLists);
    // (The references kept on None and on the flags are counted exactly where no Python code runs
    // in between: test_python_side and test_api. Here the interpreter's own use of None blurs them.)

    ASSERT_EQ(OvraKbFinalize(), 0U);
    std::istringstream extras(scripted_.Notes().back());
    std::vector<int> counts;
    for (int extra = 0; extras >> extra;) {
        counts.push_back(extra);
    }
    // kept: init's two dictionaries, then per round: write, search, search, delete dictionaries
    // (the measuring writes' dictionaries are not kept).
    ASSERT_EQ(counts.size(), static_cast<size_t>(2 + 4 * (3 * N + 2)));
    EXPECT_EQ(counts[0], 1) << "the init system dictionary is kept by the library";
    EXPECT_EQ(counts[1], 1) << "the init load dictionary is kept by the library";
    for (size_t i = 2; i < counts.size(); i += 4) {
        EXPECT_EQ(counts[i], 1) << "write dictionary " << i;
        EXPECT_EQ(counts[i + 1], 0) << "search dictionary " << i + 1 << " must be released";
        EXPECT_EQ(counts[i + 2], 0) << "search dictionary " << i + 2 << " must be released";
        EXPECT_EQ(counts[i + 3], 1) << "delete dictionary " << i + 3;
    }
}

TEST_F(Memory, EachCapturedExceptionKeepsItsLinesAndUploadDictionaryAndNothingGrowsBeyond)
{
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    Failures(5);
    Measure();
    Failures(N);  // the interpreter settles its own caches during the first batch
    Counts start = Measure();
    Failures(N);
    Counts middle = Measure();
    Failures(N);
    Counts end = Measure();

    EXPECT_EQ(middle.tracebackLists - start.tracebackLists, N);
    EXPECT_EQ(end.tracebackLists - middle.tracebackLists, N);
    // Per failure the same objects stay (lines, the exception and its traceback): two equal
    // batches leave the same number behind.
    long first = middle.tracked - start.tracked;
    long second = end.tracked - middle.tracked;
    EXPECT_GE(first, N);
    EXPECT_LE(std::labs(second - first), NOISE) << "per failure " << first / static_cast<double>(N) << " then "
                                                << second / static_cast<double>(N) << " objects stayed";

    ASSERT_EQ(OvraKbFinalize(), 0U);
    std::istringstream extras(scripted_.Notes().back());
    std::vector<int> counts;
    for (int extra = 0; extras >> extra;) {
        counts.push_back(extra);
    }
    // init's two dictionaries, then one upload dictionary per failure
    ASSERT_EQ(counts.size(), static_cast<size_t>(2 + 5 + 3 * N));
    for (size_t i = 2; i < counts.size(); ++i) {
        EXPECT_EQ(counts[i], 1) << "upload dictionary " << i - 2 << " is kept by the library";
    }
}

}  // namespace
