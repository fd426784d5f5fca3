// The five exported functions, end to end, against the scripted test packages.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

#include "log_capture.h"
#include "ovra_kb/ovra_kb_api.h"
#include "test_env.h"

using namespace OvraTest;

namespace {

// Runs `work` on a thread of its own: a new thread has a fresh Python thread state, so an
// error that one call leaves pending does not reach the next case.
std::uint32_t OnNewThread(const std::function<std::uint32_t()> &work)
{
    std::uint32_t status = 0;
    std::thread([&] { status = work(); }).join();
    return status;
}

// The failure lines of the operation and of the exported layer (traceback lines excluded).
Strings FailureLines()
{
    Strings out;
    for (const OvraTest::LogLine &line : LogCapture::Lines()) {
        if (line.level == OVRA_LEVEL_ERROR && (line.file == "py_interface" || line.file == "ovra_kb_api")) {
            out.push_back(line.message);
        }
    }
    return out;
}

Strings TracebackLines()
{
    return LogCapture::Messages(OVRA_LEVEL_ERROR, "pywrapper");
}

class Api : public ::testing::Test {
  protected:
    void SetUp() override
    {
        OvraTest::PutPythonFirstOnPath(dir_, OvraTest::TestPython());
        OvraTest::UsePackages({"kb", "log"});
        OvraTest::ClearErrorReports();
    }
    void Up() { ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U); }
    void ResetObservations()
    {
        scripted_.ClearRecord();
        LogCapture::Clear();
        OvraTest::ClearErrorReports();
    }

    TempDir dir_;
    OvraTest::Scripted scripted_{dir_};
};

// ---- Arguments reach Python exactly ----

TEST_F(Api, ArgumentsReachTheModuleExactly)
{
    StrMap sys = {{"soc_version", ""}, {"core_num", "abc"}, {"extra", "dropped"}};
    StrMap load = {{"op_bank_path", "/banks/one"}, {"other", "dropped"}};
    ASSERT_EQ(OvraKbInit(sys, load), 0U);
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_init"),
              Strings{"ovra_kb_init({'soc_version': '', 'core_num': 'abc'}, {'op_bank_path': '/banks/one'})"});

    StrMap write = {{"op_type", "Add"}, {"search_type", "exact"}, {"x", "y"}};
    EXPECT_EQ(OvraKbWrite("kw", "knowledge text", write, true), 0U);
    EXPECT_EQ(OvraKbWrite(std::string("a\0b", 3), std::string("k\0nowledge", 10), write, false), 0U);
    EXPECT_EQ(OvraKbDelete("kw", write, false), 0U);
    EXPECT_EQ(OvraKbDelete("kw", write, true), 0U);
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_write"),
              (Strings{"ovra_kb_write('kw', 'knowledge text', {'op_type': 'Add'}, 1)",
                       "ovra_kb_write('a', 'k', {'op_type': 'Add'}, 0)"}));
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_delete"),
              (Strings{"ovra_kb_delete('kw', {'op_type': 'Add'}, 0)", "ovra_kb_delete('kw', {'op_type': 'Add'}, 1)"}));

    Rows rows;
    EXPECT_EQ(OvraKbSearch("kw", {{"op_type", "Add"}, {"return_type", "list"}}, rows), 0U);
    EXPECT_EQ(OvraKbSearch("kw", {{"op_type", std::string("Mul\0tail", 8)}, {"search_type", "prefix"}}, rows), 0U);
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_search_async"),
              (Strings{"ovra_kb_search_async('kw', {'op_type': 'Add', 'return_type': 'str', 'search_type': None})",
                       "ovra_kb_search_async('kw', {'op_type': 'Mul', 'return_type': 'str', 'search_type': "
                       "'prefix'})"}));
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_search_get"),
              (Strings{"ovra_kb_search_get('task-1')", "ovra_kb_search_get('task-2')"}));
    EXPECT_EQ(OvraKbFinalize(), 0U);
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_finalize"), Strings{"ovra_kb_finalize()"});
}

TEST_F(Api, WrittenRecordsComeBackFromSearchAfterRowsAlreadyThere)
{
    Up();
    ASSERT_EQ(OvraKbWrite("relu", "use vector unit", OP, true), 0U);
    Rows rows = {{{"earlier", "row"}}};
    ASSERT_EQ(OvraKbSearch("relu", OP, rows), 0U);
    EXPECT_EQ(rows, (Rows{{{"earlier", "row"}},
                          {{"keyword", "relu"}, {"knowledge", "use vector unit"}, {"op_type", "Add"}}}));
    ASSERT_EQ(OvraKbDelete("relu", OP, true), 0U);
    Rows none;
    ASSERT_EQ(OvraKbSearch("relu", OP, none), 0U);
    EXPECT_TRUE(none.empty());
}

// ---- Statuses, log lines and reports ----

enum class Op { INIT, FINALIZE, WRITE, DELETE, SEARCH };

struct StatusCase {
    std::string label;
    std::string script;  // JSON script of the module
    Op op;
    std::uint32_t status;
    Strings lines;       // failure lines of the operation and the exported layer, in order
    Strings codes;       // error reports, by code
    bool reachesModule;  // whether the operation's module function is called at all
    StrMap sys = SYS;
    StrMap load = LOAD;
    StrMap config = OP;
};

// A case prints as its label: Google Test's default byte dump would read the padding of the struct.
void PrintTo(const StatusCase &c, std::ostream *os)
{
    *os << c.label;
}

std::uint32_t RunCase(const StatusCase &c)
{
    Rows rows;
    switch (c.op) {
        case Op::INIT:
            return OvraKbInit(c.sys, c.load);
        case Op::FINALIZE:
            return OvraKbFinalize();
        case Op::WRITE:
            return OvraKbWrite("kw", "text", c.config, true);
        case Op::DELETE:
            return OvraKbDelete("kw", c.config, false);
        case Op::SEARCH:
            return OvraKbSearch("kw", c.config, rows);
    }
    return 99;
}

const char *ModuleFunction(Op op)
{
    switch (op) {
        case Op::INIT:
            return "ovra_kb_init";
        case Op::FINALIZE:
            return "ovra_kb_finalize";
        case Op::WRITE:
            return "ovra_kb_write";
        case Op::DELETE:
            return "ovra_kb_delete";
        case Op::SEARCH:
            return "ovra_kb_search_async";
    }
    return "";
}

std::string Script(const std::string &function, const std::string &answer)
{
    std::string escaped;
    for (char c : answer) {
        if (c == '"' || c == '\\') {
            escaped += '\\';
        }
        escaped += c;
    }
    return "{\"" + function + "\": [\"" + escaped + "\"]}";
}

std::vector<StatusCase> StatusCases()
{
    const std::string raise = "fail(RuntimeError({'errCode': 'E_MOD', 'why': 'disk full'}))";
    const Strings initFailed = {"Failed to call ovra_kb_init.", "Run OvraKbInit Error!"};
    const Strings searchReqInvalid = {"Failed to call ovra_kb_search_async, pyRes.get() is invalid.",
                                      "Failed to call OvraKbSearchReq.", "Run OvraKbSearch Error!"};
    std::vector<StatusCase> cases;
    auto add = [&cases](StatusCase c) { cases.push_back(std::move(c)); };

    StatusCase missingCore{"init_missing_core_num",
                           "{}",
                           Op::INIT,
                           2,
                           {"CheckSysConfigMap: Check sysConfigMap Failed!", "Run OvraKbInit Error!"},
                           {},
                           false};
    missingCore.sys = {{"soc_version", "x"}};
    add(missingCore);
    StatusCase missingSoc = missingCore;
    missingSoc.label = "init_missing_soc_version";
    missingSoc.sys = {{"core_num", "8"}};
    add(missingSoc);
    StatusCase missingBank{"init_missing_bank",
                           "{}",
                           Op::INIT,
                           2,
                           {"CheckLoadConfigMap: Check loadConfigMap Failed!", "Run OvraKbInit Error!"},
                           {},
                           false};
    missingBank.load = {{"bank", "/x"}};
    add(missingBank);
    StatusCase badSoc{"init_invalid_utf8_soc",
                      "{}",
                      Op::INIT,
                      4,
                      {"GetSysConfigParams: Py_BuildValue returns nullptr!", "Run OvraKbInit Error!"},
                      {},
                      false};
    badSoc.sys = {{"soc_version", "\xff"}, {"core_num", "8"}};
    add(badSoc);
    StatusCase badBank{"init_invalid_utf8_bank",
                       "{}",
                       Op::INIT,
                       4,
                       {"GetLoadConfigParams: Py_BuildValue returns nullptr!", "Run OvraKbInit Error!"},
                       {},
                       false};
    badBank.load = {{"op_bank_path", "/tmp/\xc3"}};
    add(badBank);
    for (const auto &answer : std::vector<std::pair<std::string, std::string>>{{"zero", "0"}, {"false", "False"}}) {
        add({"init_answers_" + answer.first, Script("ovra_kb_init", answer.second), Op::INIT, 0, {}, {}, true});
    }
    for (const auto &answer : std::vector<std::pair<std::string, std::string>>{{"one", "1"},
                                                                               {"true", "True"},
                                                                               {"minus_one", "-1"},
                                                                               {"none", "None"},
                                                                               {"text", "'0'"},
                                                                               {"huge", "2**40"}}) {
        add({"init_answers_" + answer.first, Script("ovra_kb_init", answer.second), Op::INIT, 6, initFailed, {}, true});
    }
    add({"init_raises", Script("ovra_kb_init", raise), Op::INIT, 6, initFailed, {"E_MOD"}, true});

    for (const auto &answer :
         std::vector<std::pair<std::string, std::string>>{{"none", "None"}, {"false", "False"}, {"one", "1"}}) {
        add({"finalize_answers_" + answer.first,
             Script("ovra_kb_finalize", answer.second),
             Op::FINALIZE,
             0,
             {},
             {},
             true});
    }
    add({"finalize_raises",
         Script("ovra_kb_finalize", raise),
         Op::FINALIZE,
         6,
         {"Failed to call ovra_kb_finalize.", "Run OvraKbFinalize Error!"},
         {"E_MOD"},
         true});

    for (Op op : {Op::WRITE, Op::DELETE}) {
        const std::string name = op == Op::WRITE ? "write" : "delete";
        const std::string exported = op == Op::WRITE ? "Run OvraKbWrite Error!" : "Run OvraKbDelete Error!";
        const Strings failed = {"Failed to call ovra_kb_" + name + ".", exported};
        StatusCase missing{name + "_missing_op_type",
                           "{}",
                           op,
                           2,
                           {"CheckSearchConfigMap: Check searchConfigMap Failed!", exported},
                           {},
                           false};
        missing.config = {{"search_type", "exact"}};
        add(missing);
        StatusCase bad{name + "_invalid_utf8_op_type",
                       "{}",
                       op,
                       4,
                       {"GetParamsFromWriteConfig: Py_BuildValue returns nullptr!", exported},
                       {},
                       false};
        bad.config = {{"op_type", "\xfe\xfe"}};
        add(bad);
        for (const auto &answer : std::vector<std::pair<std::string, std::string>>{
                 {"one", "1"}, {"minus_one", "-1"}, {"none", "None"}, {"text_zero", "'0'"}}) {
            add({name + "_answers_" + answer.first, Script("ovra_kb_" + name, answer.second), op, 6, failed, {}, true});
        }
        add({name + "_answers_false", Script("ovra_kb_" + name, "False"), op, 0, {}, {}, true});
        add({name + "_raises", Script("ovra_kb_" + name, raise), op, 6, failed, {"E_MOD"}, true});
    }

    StatusCase searchMissing{"search_missing_op_type",
                             "{}",
                             Op::SEARCH,
                             2,
                             {"CheckSearchConfigMap: Check searchConfigMap Failed!", "Failed to call OvraKbSearchReq.",
                              "Run OvraKbSearch Error!"},
                             {},
                             false};
    searchMissing.config = {{"search_type", "exact"}};
    add(searchMissing);
    StatusCase searchBad{"search_invalid_utf8_search_type",
                         "{}",
                         Op::SEARCH,
                         4,
                         {"GetParamsFromSearchConfig: Py_BuildValue returns nullptr!",
                          "Failed to call OvraKbSearchReq.", "Run OvraKbSearch Error!"},
                         {},
                         false};
    searchBad.config = {{"op_type", "Add"}, {"search_type", "\x80"}};
    add(searchBad);
    // A refused answer is dropped after the lock is given back, so the module must keep every
    // answer alive itself: here a cached empty str, None, a small int and a bytes object it holds.
    for (const auto &answer : std::vector<std::pair<std::string, std::string>>{
             {"empty", "''"}, {"none", "None"}, {"number", "5"}, {"bytes", "state.setdefault('kept', b'task')"}}) {
        add({"search_async_answers_" + answer.first,
             Script("ovra_kb_search_async", answer.second),
             Op::SEARCH,
             6,
             searchReqInvalid,
             {},
             true});
    }
    add({"search_async_raises",
         Script("ovra_kb_search_async", raise),
         Op::SEARCH,
         6,
         {"Failed to call ovra_kb_search_async, pyRes is nullptr.", "Failed to call OvraKbSearchReq.",
          "Run OvraKbSearch Error!"},
         {"E_MOD"},
         true});
    add({"search_get_raises",
         Script("ovra_kb_search_get", raise),
         Op::SEARCH,
         6,
         {"Failed to call ovra_kb_search_get.", "Run OvraKbSearch Error!"},
         {"E_MOD"},
         true});
    add({"search_flag_truth_raises",
         Script("ovra_kb_search_get", "(BadBool(), [])"),
         Op::SEARCH,
         2,
         {"ovra_kb_search_get check res failed.", "Run OvraKbSearch Error!"},
         {},
         true});
    return cases;
}

class Statuses : public Api, public ::testing::WithParamInterface<StatusCase> {};

TEST_P(Statuses, StatusLinesAndReports)
{
    const StatusCase &c = GetParam();
    Up();
    ResetObservations();
    scripted_.SetScript(c.script);
    EXPECT_EQ(OnNewThread([&] { return RunCase(c); }), c.status);
    EXPECT_EQ(FailureLines(), c.lines);
    Strings codes;
    for (const auto &report : OvraTest::ErrorReports()) {
        codes.push_back(report.first);
        EXPECT_EQ(report.second, (StrMap{{"errCode", "E_MOD"}, {"why", "disk full"}}));
    }
    EXPECT_EQ(codes, c.codes);
    if (!c.codes.empty()) {
        Strings traceback = TracebackLines();
        ASSERT_FALSE(traceback.empty());
        EXPECT_EQ(traceback.front(), "Traceback (most recent call last):\n");
        EXPECT_EQ(traceback.back(), "RuntimeError: {'errCode': 'E_MOD', 'why': 'disk full'}\n");
    } else {
        EXPECT_TRUE(TracebackLines().empty());
    }
    EXPECT_EQ(scripted_.CallsOf(ModuleFunction(c.op)).empty(), !c.reachesModule);
    if (c.op == Op::SEARCH && c.lines.size() == 3U) {
        EXPECT_TRUE(scripted_.CallsOf("ovra_kb_search_get").empty()) << "a refused request is never polled";
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, Statuses, ::testing::ValuesIn(StatusCases()),
                         [](const ::testing::TestParamInfo<StatusCase> &info) { return info.param.label; });

TEST_F(Api, WithLoggingSwitchedOffStatusesAreTheSameAndNothingIsWritten)
{
    for (int level : {0, 1, 2, 3, 16}) {
        LogCapture::SetEnabled(level, false);
    }
    for (const StatusCase &c : StatusCases()) {
        SCOPED_TRACE(c.label);
        scripted_.SetScript("{}");
        ASSERT_EQ(OnNewThread([] { return OvraKbInit(SYS, LOAD); }), 0U);
        scripted_.SetScript(c.script);
        EXPECT_EQ(OnNewThread([&] { return RunCase(c); }), c.status);
    }
    EXPECT_TRUE(LogCapture::Lines().empty());
    EXPECT_GT(LogCapture::Checks(), 0U);
}

TEST_F(Api, PythonUnavailableGivesThreeAndNeverCallsTheModule)
{
    TempDir empty;
    setenv("PATH", empty.Path().c_str(), 1);
    EXPECT_EQ(OvraKbInit(SYS, LOAD), 3U);
    Strings lines = FailureLines();
    EXPECT_EQ(lines, (Strings{"PyObjectInit of OvraKbPyfuncMgr Error!", "Run PyInterfaceInit Error!"}));
    EXPECT_TRUE(scripted_.Calls().empty());
}

// ---- Search ----

TEST_F(Api, SearchPollsEveryMillisecondUntilFinishedAndAppendsItsRows)
{
    Up();
    scripted_.SetScript(
        R"js({"ovra_kb_search_get": ["(False, [])", "(False, [])", "(True, [{'op': 'Add', 'tiling': 'x8'}])"]})js");
    ResetObservations();
    Rows rows = {{{"already", "here"}}};
    ASSERT_EQ(OvraKbSearch("kw", OP, rows), 0U);
    EXPECT_EQ(rows, (Rows{{{"already", "here"}}, {{"op", "Add"}, {"tiling", "x8"}}}));
    std::vector<OvraTest::RecordedCall> polls;
    for (const auto &call : scripted_.Calls()) {
        if (call.call == "ovra_kb_search_get('task-1')") {
            polls.push_back(call);
        }
    }
    ASSERT_EQ(polls.size(), 3U);
    for (size_t i = 1; i < polls.size(); ++i) {
        std::int64_t gap = polls[i].nanoseconds - polls[i - 1].nanoseconds;
        EXPECT_GE(gap, 1000000) << "polls must be at least one millisecond apart";
        EXPECT_LT(gap, 500000000) << "polls must not wait much longer than a millisecond";
    }
}

TEST_F(Api, SearchKeepsOneReferenceOnEachFlagItReads)
{
    Up();
    const char *counts =
        "note('%d %d %d' % (sys.version_info[:2] >= (3, 12), sys.getrefcount(False), sys.getrefcount(True)))";
    scripted_.SetScript(Script("ovra_kb_write", counts));
    ASSERT_EQ(OvraKbWrite("kw", "text", OP, true), 0U);
    scripted_.SetScript(R"js({"ovra_kb_search_get": ["(False, [])", "(False, [])", "(True, [])"]})js");
    Rows rows;
    ASSERT_EQ(OvraKbSearch("kw", OP, rows), 0U);
    scripted_.SetScript(Script("ovra_kb_write", counts));
    ASSERT_EQ(OvraKbWrite("kw", "text", OP, true), 0U);
    Strings notes = scripted_.Notes();
    ASSERT_EQ(notes.size(), 2U);
    int immortal = 0;
    long falseBefore = 0;
    long trueBefore = 0;
    long falseAfter = 0;
    long trueAfter = 0;
    sscanf(notes[0].c_str(), "%d %ld %ld", &immortal, &falseBefore, &trueBefore);
    sscanf(notes[1].c_str(), "%*d %ld %ld", &falseAfter, &trueAfter);
    if (immortal != 0) {
        GTEST_SKIP() << "False and True are immortal on this Python: their counts say nothing";
    }
    EXPECT_EQ(falseAfter - falseBefore, 2);
    EXPECT_EQ(trueAfter - trueBefore, 1);
}

TEST_F(Api, FinishedSearchWithoutUsableRowsStillSucceeds)
{
    Up();
    for (const char *answer :
         {"(True, [])", "(True, 'not a list')", "(True, None)", "(1, [{'a': '1'}, {}, {'b': '2'}])"}) {
        SCOPED_TRACE(answer);
        scripted_.SetScript(Script("ovra_kb_search_get", answer));
        ResetObservations();
        Rows rows;
        EXPECT_EQ(OnNewThread([&] { return OvraKbSearch("kw", OP, rows); }), 0U);
        EXPECT_TRUE(FailureLines().empty());
        if (std::string(answer).find("'a'") != std::string::npos) {
            EXPECT_EQ(rows, (Rows{{{"a", "1"}}}));
            EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_WARNING), Strings{"PylistToVec: mapTmp is empty."});
        } else {
            EXPECT_TRUE(rows.empty());
        }
    }
}

// ---- Concurrency ----

TEST_F(Api, ConcurrentCallersEachGetTheirOwnRowsAndStatuses)
{
    Up();
    // Every search needs a few polls, so that the threads' searches overlap.
    scripted_.SetScript(R"js({"ovra_kb_search_get": ["poll_after(args[0], 3, default)"]})js");
    constexpr int THREADS = 8;
    constexpr int ROUNDS = 40;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([t, &failures] {
            const StrMap config = {{"op_type", "Op" + std::to_string(t)}};
            for (int i = 0; i < ROUNDS; ++i) {
                const std::string keyword = "k" + std::to_string(i);
                const std::string knowledge = "thread " + std::to_string(t) + " round " + std::to_string(i);
                Rows rows;
                bool ok =
                    OvraKbWrite(keyword, knowledge, config, i % 2 == 0) == 0 &&
                    OvraKbSearch(keyword, config, rows) == 0 &&
                    rows == Rows{{{"keyword", keyword}, {"knowledge", knowledge}, {"op_type", config.at("op_type")}}};
                // A refused configuration fails on its own thread without disturbing the others.
                Rows ignored;
                ok = ok && OvraKbSearch(keyword, {{"search_type", "exact"}}, ignored) == 2;
                ok = ok && OvraKbDelete(keyword, config, false) == 0;
                if (!ok) {
                    ++failures;
                }
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_write").size(), static_cast<size_t>(THREADS * ROUNDS));
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

// ---- Initialise and finalise ----

TEST_F(Api, TwoInitsAndTwoFinalisesStartAndStopPythonOnce)
{
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    EXPECT_EQ(OvraKbFinalize(), 0U);
    EXPECT_EQ(OvraKbFinalize(), 0U);
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_init").size(), 2U);
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_finalize").size(), 2U);
    Strings events = LogCapture::Messages(OVRA_LEVEL_EVENT, "ovra_kb_pyfunc_mgr");
    EXPECT_EQ(std::count(events.begin(), events.end(), "OvraKbPyfuncMgr: Run PyObjectInit successfully!"), 1);
    EXPECT_EQ(std::count(events.begin(), events.end(), "OvraKbPyfuncMgr: PyObjectDeinit function end successfully!"),
              1);
}

TEST_F(Api, FailingModuleFinaliseLeavesPythonUpUntilItSucceeds)
{
    Up();
    scripted_.SetScript(Script("ovra_kb_finalize", "fail(RuntimeError('busy'))"));
    EXPECT_EQ(OvraKbFinalize(), 6U);
    Strings events = LogCapture::Messages(OVRA_LEVEL_EVENT, "ovra_kb_pyfunc_mgr");
    EXPECT_EQ(std::count(events.begin(), events.end(), "OvraKbPyfuncMgr: PyObjectDeinit function end successfully!"),
              0);
    scripted_.SetScript("{}");
    Rows rows;
    EXPECT_EQ(OvraKbSearch("kw", OP, rows), 0U) << "Python is still up";
    EXPECT_EQ(OvraKbFinalize(), 0U);
    events = LogCapture::Messages(OVRA_LEVEL_EVENT, "ovra_kb_pyfunc_mgr");
    EXPECT_EQ(std::count(events.begin(), events.end(), "OvraKbPyfuncMgr: PyObjectDeinit function end successfully!"),
              1);
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_finalize").size(), 2U);
}

TEST_F(Api, FailedInitLeavesTheUserCountedUntilFinalised)
{
    EXPECT_EQ(OvraKbInit({{"soc_version", "x"}}, LOAD), 2U);
    EXPECT_EQ(OvraKbWrite("kw", "text", OP, true), 0U) << "the Python side stays up after a refused configuration";
    EXPECT_EQ(OvraKbFinalize(), 0U);
    Strings events = LogCapture::Messages(OVRA_LEVEL_EVENT, "ovra_kb_pyfunc_mgr");
    EXPECT_EQ(std::count(events.begin(), events.end(), "OvraKbPyfuncMgr: PyObjectDeinit function end successfully!"),
              1);
}

// ---- Calls out of order and the host's process ----

TEST_F(Api, CallsWhilePythonIsDownReturnThreeAndTheProcessGoesOn)
{
    const std::vector<std::pair<Op, Strings>> misuses = {
        {Op::SEARCH,
         {"OvraKbSearch: the knowledge base is not initialised, call OvraKbInit first.",
          "Failed to call OvraKbSearchReq.", "Run OvraKbSearch Error!"}},
        {Op::WRITE,
         {"OvraKbWrite: the knowledge base is not initialised, call OvraKbInit first.", "Run OvraKbWrite Error!"}},
        {Op::DELETE,
         {"OvraKbDelete: the knowledge base is not initialised, call OvraKbInit first.", "Run OvraKbDelete Error!"}},
        {Op::FINALIZE,
         {"OvraKbFinalize: the knowledge base is not initialised, call OvraKbInit first.",
          "Run OvraKbFinalize Error!"}},
    };
    auto misuseEach = [&](const std::string &when) {
        for (const auto &misuse : misuses) {
            StatusCase c;
            c.op = misuse.first;
            SCOPED_TRACE(std::string(ModuleFunction(c.op)) + " " + when);
            LogCapture::Clear();
            EXPECT_EQ(RunCase(c), 3U);
            EXPECT_EQ(FailureLines(), misuse.second);
            if (c.op != Op::FINALIZE) {
                c.config = {};
                EXPECT_EQ(RunCase(c), 2U) << "the configuration is checked first";
            }
        }
    };
    misuseEach("before the first initialisation");
    for (const char *cycle : {"after the first finalisation", "after a second start and stop"}) {
        ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
        ASSERT_EQ(OvraKbFinalize(), 0U);
        misuseEach(cycle);
    }
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_finalize").size(), 2U);
}

using Dispositions = std::vector<std::uintptr_t>;

Dispositions SignalDispositions()
{
    Dispositions out;
    for (int signal : {SIGINT, SIGPIPE, SIGXFSZ}) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        out.push_back(reinterpret_cast<std::uintptr_t>(action.sa_handler));
    }
    return out;
}

void HostHandler(int) {}

TEST_F(Api, TheHostKeepsItsSignalDispositionsAcrossStartAndStop)
{
    const Dispositions before = SignalDispositions();
    Up();
    EXPECT_EQ(SignalDispositions(), before);
    for (int signal : {SIGINT, SIGPIPE, SIGXFSZ}) {
        std::signal(signal, HostHandler);
    }
    const Dispositions installedInBetween = SignalDispositions();
    EXPECT_EQ(OvraKbFinalize(), 0U);
    EXPECT_EQ(SignalDispositions(), installedInBetween);
    for (int signal : {SIGINT, SIGPIPE, SIGXFSZ}) {
        std::signal(signal, SIG_DFL);
    }
}

TEST_F(Api, SigintEndsAHostThatStartedTheLibrary)
{
    pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        std::signal(SIGINT, SIG_DFL);
        if (OvraKbInit(SYS, LOAD) != 0U) {
            _exit(3);
        }
        kill(getpid(), SIGINT);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << "wait status " << status;
}

}  // namespace
