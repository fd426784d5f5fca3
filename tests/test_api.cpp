// The five exported functions, end to end against the scripted test packages.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <thread>

#include "log_capture.h"
#include "ovra_kb/ovra_kb_api.h"
#include "test_env.h"

using namespace OvraTest;

namespace {

const std::string RAISE = "fail(RuntimeError({'errCode': 'E_MOD', 'why': 'disk full'}))";
const std::string SEARCH_REQUEST_FAILED = "Failed to call OvraKbSearchReq.";
const std::string TEAR_DOWN = "OvraKbPyfuncMgr: PyObjectDeinit function end successfully!";

// Runs `work` on a native thread of its own, which keeps a Python thread state for its calls.
std::uint32_t OnNewThread(const std::function<std::uint32_t()> &work)
{
    std::uint32_t status = 0;
    std::thread([&] { status = work(); }).join();
    return status;
}

// The library's error lines, traceback lines excluded.
Strings ErrorLines()
{
    Strings out;
    for (const LogLine &line : LogCapture::Lines()) {
        if (line.level == OVRA_LEVEL_ERROR && line.file != "pywrapper") {
            out.push_back(line.message);
        }
    }
    return out;
}

long TearDowns()
{
    Strings events = LogCapture::Messages(OVRA_LEVEL_EVENT, "ovra_kb_pyfunc_mgr");
    return std::count(events.begin(), events.end(), TEAR_DOWN);
}

using Api = ScriptedTest;

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

// ---- Statuses, log lines and reports ----

enum class Op { INIT, FINALIZE, WRITE, DELETE, SEARCH };

struct Operation {
    std::string function;                                             // the module function it calls first
    std::string name;                                                 // of the exported function
    std::string Failed() const { return "Run " + name + " Error!"; }  // the exported layer's line
};

const Operation &Of(Op op)
{
    static const Operation operations[] = {{"ovra_kb_init", "OvraKbInit"},
                                           {"ovra_kb_finalize", "OvraKbFinalize"},
                                           {"ovra_kb_write", "OvraKbWrite"},
                                           {"ovra_kb_delete", "OvraKbDelete"},
                                           {"ovra_kb_search_async", "OvraKbSearch"}};
    return operations[static_cast<int>(op)];
}

struct StatusCase {
    Op op;
    std::string script;  // empty: the module answers as usual
    std::uint32_t status;
    Strings lines;  // the operation's own failure lines; the exported layer adds its line to a non-zero status
    StrMap sys = SYS;
    StrMap load = LOAD;
    StrMap config = OP;
};

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

// Answers of one module function that the operation accepts (status 0) or refuses (status 6, its lines
// by default "Failed to call <function>.").
struct Answers {
    Op op;
    std::string function;
    Strings accepted;
    Strings refused;
    Strings lines = {};
};

std::vector<StatusCase> StatusCases()
{
    const std::string noKey = "CheckSearchConfigMap: Check searchConfigMap Failed!";
    const std::string badSys = "GetSysConfigParams: Py_BuildValue returns nullptr!";
    const std::string badLoad = "GetLoadConfigParams: Py_BuildValue returns nullptr!";
    const std::string badWrite = "GetParamsFromWriteConfig: Py_BuildValue returns nullptr!";
    const std::string badSearch = "GetParamsFromSearchConfig: Py_BuildValue returns nullptr!";
    const std::string noResult = "Failed to call ovra_kb_search_async, pyRes is nullptr.";
    const std::string badResult = "Failed to call ovra_kb_search_async, pyRes.get() is invalid.";
    const StrMap noOpType = {{"search_type", "exact"}};
    const StrMap badOpType = {{"op_type", "\xfe\xfe"}};
    const StrMap badSearchType = {{"op_type", "Add"}, {"search_type", "\x80"}};
    const std::string async = "ovra_kb_search_async";
    const std::string get = "ovra_kb_search_get";
    std::vector<StatusCase> cases = {
        {Op::INIT, "", 2, {"CheckSysConfigMap: Check sysConfigMap Failed!"}, {{"soc_version", "x"}}},
        {Op::INIT, "", 2, {"CheckSysConfigMap: Check sysConfigMap Failed!"}, {{"core_num", "8"}}},
        {Op::INIT, "", 2, {"CheckLoadConfigMap: Check loadConfigMap Failed!"}, SYS, {{"bank", "/x"}}},
        {Op::INIT, "", 4, {badSys}, {{"soc_version", "\xff"}, {"core_num", "8"}}},
        {Op::INIT, "", 4, {badLoad}, SYS, {{"op_bank_path", "/tmp/\xc3"}}},
        {Op::WRITE, "", 2, {noKey}, SYS, LOAD, noOpType},
        {Op::DELETE, "", 2, {noKey}, SYS, LOAD, noOpType},
        {Op::SEARCH, "", 2, {noKey, SEARCH_REQUEST_FAILED}, SYS, LOAD, noOpType},
        {Op::WRITE, "", 4, {badWrite}, SYS, LOAD, badOpType},
        {Op::DELETE, "", 4, {badWrite}, SYS, LOAD, badOpType},
        {Op::SEARCH, "", 4, {badSearch, SEARCH_REQUEST_FAILED}, SYS, LOAD, badSearchType},
        {Op::SEARCH, Script(async, RAISE), 6, {noResult, SEARCH_REQUEST_FAILED}},
        {Op::SEARCH, Script(get, RAISE), 6, {"Failed to call ovra_kb_search_get."}},
        {Op::SEARCH, Script(get, "(BadBool(), [])"), 2, {"ovra_kb_search_get check res failed."}},
    };
    const Strings notZero = {"1", "True", "-1", "2**40", "None", "'0'", RAISE};
    // A refused task handle is dropped after the lock is given back, so the module must keep every
    // answer alive itself: here a cached empty str, None, a small int and a bytes object it holds.
    const Strings badHandles = {"''", "None", "5", "state.setdefault('kept', b'task')"};
    const Strings noRows = {"(True, [])", "(True, 'not a list')", "(True, None)", "(1, [{'a': '1'}, {}, {'b': '2'}])"};
    const std::vector<Answers> answers = {
        {Op::INIT, "ovra_kb_init", {"0", "False"}, notZero},
        {Op::FINALIZE, "ovra_kb_finalize", {"None", "False", "1"}, {RAISE}},
        {Op::WRITE, "ovra_kb_write", {"False"}, notZero},
        {Op::DELETE, "ovra_kb_delete", {"False"}, notZero},
        {Op::SEARCH, async, {}, badHandles, {badResult, SEARCH_REQUEST_FAILED}},
        {Op::SEARCH, get, noRows, {}},  // finished, but without rows to take: the search still succeeds
    };
    for (const Answers &a : answers) {
        for (const std::string &answer : a.accepted) {
            cases.push_back({a.op, Script(a.function, answer), 0, {}});
        }
        for (const std::string &answer : a.refused) {
            Strings lines = a.lines.empty() ? Strings{"Failed to call " + a.function + "."} : a.lines;
            cases.push_back({a.op, Script(a.function, answer), 6, lines});
        }
    }
    return cases;
}

TEST_F(Api, EveryCaseGivesItsStatusLinesAndReportsAndTheSameStatusWithLoggingOff)
{
    for (bool logging : {true, false}) {
        for (int level : {0, 1, 2, 3, 16}) {
            LogCapture::SetEnabled(level, logging);
        }
        for (const StatusCase &c : StatusCases()) {
            SCOPED_TRACE(Of(c.op).name + " " + (c.script.empty() ? c.lines[0] : c.script));
            scripted_.SetScript("{}");
            ASSERT_EQ(OnNewThread([] { return OvraKbInit(SYS, LOAD); }), 0U);
            scripted_.ClearRecord();
            LogCapture::Clear();
            ClearErrorReports();
            scripted_.SetScript(c.script.empty() ? "{}" : c.script);
            EXPECT_EQ(OnNewThread([&] { return RunCase(c); }), c.status);

            Strings lines = c.lines;
            if (c.status != 0) {
                lines.push_back(Of(c.op).Failed());
            }
            EXPECT_EQ(ErrorLines(), logging ? lines : Strings{});
            const bool raised = c.script.find(RAISE) != std::string::npos;
            const Reports report = {{"E_MOD", {{"errCode", "E_MOD"}, {"why", "disk full"}}}};
            EXPECT_EQ(ErrorReports(), raised ? report : Reports{});
            Strings traceback = LogCapture::Messages(OVRA_LEVEL_ERROR, "pywrapper");
            if (!logging) {
                EXPECT_TRUE(LogCapture::Lines().empty());
            } else if (raised) {
                ASSERT_FALSE(traceback.empty());
                EXPECT_EQ(traceback.front(), "Traceback (most recent call last):\n");
                EXPECT_EQ(traceback.back(), "RuntimeError: {'errCode': 'E_MOD', 'why': 'disk full'}\n");
            } else {
                EXPECT_TRUE(traceback.empty());
            }
            EXPECT_EQ(scripted_.CallsOf(Of(c.op).function).empty(), c.script.empty())
                << "only a refused configuration stays out of Python";
            if (std::find(lines.begin(), lines.end(), SEARCH_REQUEST_FAILED) != lines.end()) {
                EXPECT_TRUE(scripted_.CallsOf("ovra_kb_search_get").empty()) << "a refused request is never polled";
            }
        }
    }
}

// ---- Nothing a call leaves behind reaches the next call ----

// Calls that fail after Python set an error that nothing takes back: a value that is not UTF-8 for each
// builder, and answers that the library cannot read. The same thread's next calls must not see it.
TEST_F(Api, AnErrorThatACallLeavesPendingNeverReachesTheThreadsNextCalls)
{
    const StrMap notUtf8 = {{"op_type", "\xff"}};
    const std::vector<StatusCase> leavers = {
        {Op::INIT, "", 4, {}, {{"soc_version", "soc-a1"}, {"core_num", "\xff"}}},
        {Op::WRITE, "", 4, {}, SYS, LOAD, notUtf8},
        {Op::DELETE, "", 4, {}, SYS, LOAD, notUtf8},
        {Op::SEARCH, "", 4, {}, SYS, LOAD, {{"op_type", "Add"}, {"search_type", "\xc3"}}},
        {Op::WRITE, Script("ovra_kb_write", "None"), 6, {}},
        {Op::SEARCH, Script("ovra_kb_search_async", "5"), 6, {}},
    };
    auto leaveThenCallWell = [this](const StatusCase &leaver) {
        scripted_.SetScript(leaver.script.empty() ? "{}" : leaver.script);
        Rows rows;
        std::vector<std::uint32_t> statuses = {RunCase(leaver)};
        scripted_.SetScript("{}");
        statuses.push_back(OvraKbWrite("kw", "text", OP, true));
        statuses.push_back(OvraKbDelete("kw", OP, false));
        statuses.push_back(OvraKbSearch("kw", OP, rows));
        return statuses;
    };
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    for (const StatusCase &leaver : leavers) {
        SCOPED_TRACE(Of(leaver.op).name + " " + leaver.script);
        const std::vector<std::uint32_t> expected = {leaver.status, 0, 0, 0};
        EXPECT_EQ(leaveThenCallWell(leaver), expected) << "on the initialising thread";
        std::vector<std::uint32_t> onNative;
        std::thread([&] { onNative = leaveThenCallWell(leaver); }).join();
        EXPECT_EQ(onNative, expected) << "on a native thread";
    }
}

// ---- Initialise and finalise ----

// OVRA_KB_PYTHONPATH goes before every other folder of the module search path of the interpreter the library starts.
TEST_F(Api, TheDeploymentsPackageFoldersComeFirstOnTheModuleSearchPath)
{
    const std::string folders = getenv("PYTHONPATH");
    setenv("OVRA_KB_PYTHONPATH", folders.c_str(), 1);
    setenv("PYTHONPATH", dir_.File("elsewhere").c_str(), 1);
    scripted_.SetScript(Script("ovra_kb_init", "note(':'.join(sys.path[:3]))"));
    EXPECT_EQ(OvraKbInit(SYS, LOAD), 0U);
    EXPECT_EQ(scripted_.Notes(), Strings{folders});
    EXPECT_EQ(OvraKbFinalize(), 0U);
    unsetenv("OVRA_KB_PYTHONPATH");
}

TEST_F(Api, AFailedInitKeepsItsUserAndAFailedFinaliseLeavesPythonUp)
{
    EXPECT_EQ(OvraKbInit({{"soc_version", "x"}}, LOAD), 2U);
    EXPECT_EQ(OvraKbWrite("kw", "text", OP, true), 0U) << "the Python side stays up after a refused configuration";
    scripted_.SetScript(Script("ovra_kb_finalize", "fail(RuntimeError('busy'))"));
    EXPECT_EQ(OvraKbFinalize(), 6U);
    EXPECT_EQ(TearDowns(), 0);
    scripted_.SetScript("{}");
    Rows rows;
    EXPECT_EQ(OvraKbSearch("kw", OP, rows), 0U) << "Python is still up";
    EXPECT_EQ(OvraKbFinalize(), 0U);
    EXPECT_EQ(TearDowns(), 1);
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_finalize").size(), 2U);
}

TEST_F(Api, CallsWhilePythonIsDownReturnThreeAndTheProcessGoesOn)
{
    auto misuseEach = [&](const std::string &when) {
        for (Op op : {Op::SEARCH, Op::WRITE, Op::DELETE, Op::FINALIZE}) {
            StatusCase c{op, "", 3, {}};
            SCOPED_TRACE(Of(op).name + " " + when);
            LogCapture::Clear();
            EXPECT_EQ(RunCase(c), 3U);
            Strings lines = {Of(op).name + ": the knowledge base is not initialised, call OvraKbInit first.",
                             Of(op).Failed()};
            if (op == Op::SEARCH) {
                lines.insert(lines.begin() + 1, SEARCH_REQUEST_FAILED);
            }
            EXPECT_EQ(ErrorLines(), lines);
            if (op != Op::FINALIZE) {
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

// ---- Faults of the environment: each gives status 3 and its lines, and the process goes on ----

struct FaultCase {
    const char *label;
    std::function<void(const TempDir &)> arrange;
    Strings lines;                  // before the start-up's own two
    std::string lastTracebackLine;  // empty: nothing raised, nothing reported
    std::string code;
    StrMap details = {};  // of the report; empty: the fallback, "result" = the last traceback line and a full stop
    std::string suggested = {};  // the module CPython 3.15 and later name after the line: ". Did you mean: '...'?"
};

std::string LastTracebackLine(const FaultCase &c)
{
    const bool suggests = !c.suggested.empty() && TestPythonVersion() >= 315;
    return c.lastTracebackLine + (suggests ? ". Did you mean: '" + c.suggested + "'?" : "");
}

// Named by its label: printed byte by byte, the case would show its padding, which memcheck reports.
void PrintTo(const FaultCase &c, std::ostream *out)
{
    *out << c.label;
}

class Faults : public Api, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(Faults, GiveTheirStatusAndLinesAndTheProcessGoesOn)
{
    const FaultCase &c = GetParam();
    const std::string goodPath = getenv("PATH");
    c.arrange(dir_);
    EXPECT_EQ(OvraKbInit(SYS, LOAD), 3U);
    Strings lines = c.lines;
    lines.insert(lines.end(), {"PyObjectInit of OvraKbPyfuncMgr Error!", "Run PyInterfaceInit Error!"});
    EXPECT_EQ(ErrorLines(), lines);
    if (c.code.empty()) {
        EXPECT_TRUE(ErrorReports().empty());
    } else {
        const StrMap fallback = {{"result", LastTracebackLine(c) + "."}};
        EXPECT_EQ(ErrorReports(), (Reports{{c.code, c.details.empty() ? fallback : c.details}}));
        EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_ERROR, "pywrapper").back(), LastTracebackLine(c) + "\n");
    }

    LogCapture::Clear();
    Rows rows;
    if (c.code.empty()) {  // the runtime was not found: with python3 back it comes up
        setenv("PATH", goodPath.c_str(), 1);
        ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
        EXPECT_EQ(OvraKbWrite("kw", "text", OP, true), 0U);
        EXPECT_EQ(OvraKbSearch("kw", OP, rows), 0U);
        EXPECT_EQ(rows.size(), 1U);
        EXPECT_EQ(OvraKbFinalize(), 0U);
        return;
    }
    // The interpreter stays up without the module: every call is refused cleanly.
    EXPECT_EQ(OvraKbInit(SYS, LOAD), 3U);
    EXPECT_EQ(OvraKbWrite("kw", "text", OP, true), 6U);
    EXPECT_EQ(OvraKbSearch("kw", OP, rows), 6U);
    EXPECT_EQ(OvraKbDelete("kw", OP, true), 6U);
    EXPECT_EQ(OvraKbFinalize(), 6U);
    EXPECT_TRUE(scripted_.Calls().empty());
}

const std::string IMPORT_FAILED = "OVRA_KB import ovraKbInterface_ error";

INSTANTIATE_TEST_SUITE_P(
    Environment, Faults,
    ::testing::Values(
        FaultCase{"no_python3",
                  [](const TempDir &dir) { setenv("PATH", dir.File("nowhere").c_str(), 1); },
                  {"Cannot fetch the version information of the current python.", "Failed to get python3 [LDLIBRARY].",
                   "Failed to get python3 lib name when trying to load library.", "PyObjectInit: Load python error"},
                  "",
                  ""},
        FaultCase{"knowledge_module_missing",
                  [](const TempDir &) { UsePackages({"log"}); },
                  {IMPORT_FAILED, "PyObjectInit: Run Init error."},
                  "ModuleNotFoundError: No module named 'oxe.common.repository_manager.interface'",
                  "EC0010",
                  {},
                  "oxe.common.repository_manager.utils"},
        FaultCase{"log_module_missing",
                  [](const TempDir &) { UsePackages({"kb"}); },
                  {"PyObjectInit: Import repository_manager_log error"},
                  "ModuleNotFoundError: No module named 'oxe.common.repository_manager.utils'",
                  "EC0010",
                  {},
                  "oxe.common.repository_manager.interface"},
        FaultCase{"knowledge_module_raises_at_import",
                  [](const TempDir &) { setenv("OVRA_TEST_IMPORT_ERROR", "1", 1); },
                  {IMPORT_FAILED, "PyObjectInit: Run Init error."},
                  "RuntimeError: {'errCode': 'E_KB_IMPORT', 'reason': 'bank offline'}",
                  "E_KB_IMPORT",
                  {{"reason", "bank offline"}}}),
    [](const ::testing::TestParamInfo<FaultCase> &info) { return info.param.label; });

}  // namespace
