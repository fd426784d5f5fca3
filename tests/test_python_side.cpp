// Bringing the Python side up and down, references, conversions, error text and exception capture.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <thread>

#include "interface/py_interface.h"
#include "log_capture.h"
#include "pyfunc/ovra_kb_pyfunc_mgr.h"
#include "pywrapper/pywrapper.h"
#include "runtime/handle_manager.h"
#include "test_env.h"

using OvraKb::PyObject;
using OvraKb::PyObjectPtr;
using OvraKb::StrMap;
using OvraTest::LogCapture;
using OvraTest::TempDir;
namespace PyWrapper = OvraKb::PyWrapper;

namespace {

using Strings = std::vector<std::string>;

OvraKb::HandleManager &Api()
{
    return OvraKb::PyApi();
}

OvraKb::OvraKbPyfuncMgr &Manager()
{
    return OvraKb::Singleton<OvraKb::OvraKbPyfuncMgr>::Instance();
}

std::uint64_t Users()
{
    return OvraKb::OvraKbPyfuncMgr::reference_.load();
}

std::string RunAndRead(const std::string &command)
{
    FILE *pipe = popen(command.c_str(), "r");
    char line[4096] = {0};
    std::string text;
    if (pipe != nullptr) {
        if (fgets(line, sizeof(line), pipe) != nullptr) {
            text = line;
        }
        pclose(pipe);
    }
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

// Minor version of the test interpreter, as 306, 311, ...
int PythonVersion()
{
    return std::stoi(RunAndRead("'" + OvraTest::TestPython() +
                                "' -c 'import sys; print(sys.version_info[0] * 100 + sys.version_info[1])'"));
}

std::string RuntimeLibraryPath()
{
    const std::string python =
        "'" + OvraTest::TestPython() + "' -c 'import sysconfig; print(sysconfig.get_config_var(\"";
    return RunAndRead(python + "LIBDIR\"))'") + "/" + RunAndRead(python + "LDLIBRARY\"))'");
}

class Gil {
  public:
    Gil() : state_(Api().PyGILState_Ensure()) {}
    ~Gil() { Api().PyGILState_Release(state_); }

  private:
    OvraKb::PyGILState_STATE state_;
};

// Evaluates a Python expression; the caller holds the lock and owns the result.
PyObject *Eval(const char *expression)
{
    PyObject *builtins = Api().PyImport_ImportModule("builtins");
    PyObject *result = Api().PyObject_CallMethod(builtins, "eval", "s{}", expression);
    OvraKb::PyObjectDecRef(builtins);
    return result;
}

void DiscardPendingError()
{
    PyObject *type = nullptr;
    PyObject *value = nullptr;
    PyObject *traceback = nullptr;
    Api().PyErr_Fetch(&type, &value, &traceback);
}

// True when another thread can take the interpreter lock within a few seconds.
bool LockIsFree()
{
    auto taken = std::make_shared<std::promise<void>>();
    std::future<void> done = taken->get_future();
    std::thread([taken] {
        OvraKb::PyGILState_STATE state = Api().PyGILState_Ensure();
        Api().PyGILState_Release(state);
        taken->set_value();
    }).detach();
    return done.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
}

class PythonSide : public ::testing::Test {
  protected:
    void SetUp() override
    {
        OvraTest::PutCountingPythonFirstOnPath(dir_, OvraTest::TestPython(), counter_);
        OvraTest::UsePackages({"kb", "log"});
        OvraTest::ClearErrorReports();
        LogCapture::Clear();
    }
    size_t Queries() const { return OvraTest::ReadLines(counter_).size(); }
    Strings ManagerEvents() const { return LogCapture::Messages(OVRA_LEVEL_EVENT, "ovra_kb_pyfunc_mgr"); }

    TempDir dir_;
    std::string counter_ = dir_.File("python3-runs.txt");
    OvraTest::Scripted scripted_{dir_};
};

// ---- Start-up and tear-down ----

TEST_F(PythonSide, FirstUserStartsSecondIsCountedLastStopsAndTheCycleRepeats)
{
    const bool needsThreadInit = PythonVersion() < 307;
    for (int cycle = 0; cycle < 2; ++cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        LogCapture::Clear();
        ASSERT_TRUE(Manager().PyObjectInit());
        Strings expected = {"OvraKbPyfuncMgr: Enter PyObjectInit, reference_ is 0!",
                            "Start to run Py_IsInitialized now."};
        if (needsThreadInit) {
            expected.push_back("Start to run PyEval_ThreadsInitialized now.");
        }
        expected.push_back("Start to run PyEval_SaveThread now.");
        expected.push_back("OvraKbPyfuncMgr: Run PyObjectInit successfully!");
        EXPECT_EQ(ManagerEvents(), expected);
        EXPECT_EQ(Users(), 1U);
        EXPECT_FALSE(Manager().PyAlreadyInited());
        EXPECT_NE(Manager().SavedThreadState(), nullptr);
        EXPECT_NE(Manager().GetOvraKbInterface().get(), nullptr);
        EXPECT_NE(PyWrapper::g_pyFormatExceptionFunc, nullptr);
        EXPECT_NE(PyWrapper::g_pyPrintExceptionFunc, nullptr);
        EXPECT_NE(PyWrapper::g_pyUploadExceptionFunc, nullptr);
        EXPECT_EQ(Api().PyGILState_Check(), 0) << "the starting thread must not keep the lock";
        ASSERT_TRUE(LockIsFree()) << "another thread could not take the interpreter lock";
        const size_t queriesAfterStart = Queries();

        LogCapture::Clear();
        ASSERT_TRUE(Manager().PyObjectInit());
        EXPECT_EQ(Users(), 2U);
        EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_INFO, "ovra_kb_pyfunc_mgr"),
                  Strings{"PyObjectInit: PyObject has been initialized, no need to re-initialize!"});
        EXPECT_EQ(ManagerEvents(), Strings{"OvraKbPyfuncMgr: Enter PyObjectInit, reference_ is 1!"});
        EXPECT_EQ(Queries(), queriesAfterStart);

        LogCapture::Clear();
        Manager().PyObjectDeinit();
        EXPECT_EQ(Users(), 1U);
        EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_INFO, "ovra_kb_pyfunc_mgr"),
                  Strings{"PyObject does not need to deinit"});
        EXPECT_EQ(Api().Py_IsInitialized(), 1);

        LogCapture::Clear();
        Manager().PyObjectDeinit();
        EXPECT_EQ(Users(), 0U);
        EXPECT_EQ(ManagerEvents(), (Strings{"OvraKbPyfuncMgr: enter PyObjectDeinit function, reference_[1]",
                                            "OvraKbPyfuncMgr: PyObjectDeinit function end successfully!"}));
        EXPECT_EQ(Manager().GetOvraKbInterface().get(), nullptr);
        EXPECT_FALSE(Api().IsLoaded()) << "the library this library opened is closed again";
        EXPECT_FALSE(Manager().PyAlreadyInited());
    }
}

TEST_F(PythonSide, FailedStartUpCountsNoUserAndTheRetryLoadsNothing)
{
    OvraTest::UsePackages({"variants/log_without_dict", "kb"});
    ASSERT_FALSE(Manager().PyObjectInit());
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_ERROR, "ovra_kb_pyfunc_mgr"),
              Strings{"PyObjectInit: pyPrintFunc or pyUploadFunc is nullptr."});
    EXPECT_EQ(Users(), 0U);
    EXPECT_EQ(Api().Py_IsInitialized(), 1) << "nothing is rolled back";
    EXPECT_TRUE(LockIsFree());
    const size_t queries = Queries();
    EXPECT_EQ(queries, 2U);

    LogCapture::Clear();
    ASSERT_FALSE(Manager().PyObjectInit());
    EXPECT_EQ(Queries(), queries) << "the retry must find the runtime already loaded";
    Strings events = ManagerEvents();
    EXPECT_NE(std::find(events.begin(), events.end(), "OVRA_KB_Py has already been initialized."), events.end());
    EXPECT_TRUE(Manager().PyAlreadyInited()) << "the interpreter started by the failed attempt now counts as a host's";
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_EVENT, "handle_manager"),
              Strings{"Start to run init functions to load dynamic python lib!"})
        << "no load is attempted";
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_INFO, "handle_manager"), Strings{"Dynamic python lib has been inited!"});
    EXPECT_EQ(Users(), 0U);
}

TEST_F(PythonSide, FinalisingWithoutStartUpWrapsTheCount)
{
    Manager().PyObjectDeinit();
    EXPECT_EQ(Users(), UINT64_MAX);
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_INFO, "ovra_kb_pyfunc_mgr"), Strings{"PyObject does not need to deinit"});

    EXPECT_TRUE(Manager().PyObjectInit());
    EXPECT_EQ(Users(), 0U);
    EXPECT_EQ(Manager().GetOvraKbInterface().get(), nullptr) << "no start-up happened";
    EXPECT_EQ(Queries(), 0U);
}

struct HostCase {
    const char *label;
    bool hostKeepsLock;
};

class HostInterpreter : public PythonSide, public ::testing::WithParamInterface<HostCase> {};

TEST_P(HostInterpreter, IsJoinedNeverLoadedAgainNorFinalised)
{
    void *runtime = dlopen(RuntimeLibraryPath().c_str(), RTLD_NOW | RTLD_GLOBAL);
    ASSERT_NE(runtime, nullptr) << dlerror();
    reinterpret_cast<void (*)()>(dlsym(runtime, "Py_Initialize"))();
    auto isInitialized = reinterpret_cast<int (*)()>(dlsym(runtime, "Py_IsInitialized"));
    if (!GetParam().hostKeepsLock) {
        (void)reinterpret_cast<void *(*)()>(dlsym(runtime, "PyEval_SaveThread"))();
    }

    LogCapture::Clear();
    ASSERT_TRUE(Manager().PyObjectInit());
    EXPECT_EQ(Queries(), 0U) << "no python3 query when the process already carries a runtime";
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_EVENT, "handle_manager"),
              (Strings{"Start to run init functions to load dynamic python lib!",
                       "Init functions of loading dynamic python lib end!"}));
    Strings events = ManagerEvents();
    EXPECT_NE(std::find(events.begin(), events.end(), "OVRA_KB_Py has already been initialized."), events.end());
    EXPECT_EQ(std::find(events.begin(), events.end(), "Start to run Py_IsInitialized now."), events.end());
    EXPECT_TRUE(Manager().PyAlreadyInited());
    EXPECT_EQ(Manager().SavedThreadState() != nullptr, GetParam().hostKeepsLock);
    EXPECT_TRUE(LockIsFree());

    Manager().PyObjectDeinit();
    EXPECT_EQ(isInitialized(), 1) << "the host's interpreter must not be finalised";
    EXPECT_FALSE(Api().IsLoaded());
}

INSTANTIATE_TEST_SUITE_P(Host, HostInterpreter,
                         ::testing::Values(HostCase{"thread_holds_lock", true}, HostCase{"lock_released", false}),
                         [](const ::testing::TestParamInfo<HostCase> &info) { return info.param.label; });

// ---- References ----

std::vector<PyObject *> g_deallocated;
void (*g_realDealloc)(PyObject *) = nullptr;
void CountingDealloc(PyObject *obj)
{
    g_deallocated.push_back(obj);
    g_realDealloc(obj);
}
int g_isInitializedCalls = 0;
int InterpreterGone()
{
    ++g_isInitializedCalls;
    return 0;
}
int InterpreterUp()
{
    ++g_isInitializedCalls;
    return 1;
}

class References : public PythonSide {
  protected:
    void SetUp() override
    {
        PythonSide::SetUp();
        ASSERT_TRUE(Manager().PyObjectInit());
        g_realDealloc = Api()._Py_Dealloc;
        Api()._Py_Dealloc = CountingDealloc;
        g_deallocated.clear();
    }
    void TearDown() override { Api()._Py_Dealloc = g_realDealloc; }
};

TEST_F(References, LastOfSeveralCopiesDeallocatesExactlyOnce)
{
    Gil gil;
    PyObject *obj = Eval("['a fresh list']");
    ASSERT_EQ(OvraKb::RefCount(obj), 1);
    {
        PyObjectPtr first(obj);
        PyObjectPtr second = first;
        PyObjectPtr third(first);
        EXPECT_TRUE(g_deallocated.empty());
    }
    EXPECT_EQ(g_deallocated, std::vector<PyObject *>{obj});
}

TEST_F(References, SharedObjectOnlyDropsOneReference)
{
    Gil gil;
    PyObject *obj = Eval("['shared']");
    OvraKb::RefCount(obj) += 1;
    OvraKb::PyObjectDecRef(obj);
    EXPECT_EQ(OvraKb::RefCount(obj), 1);
    EXPECT_TRUE(g_deallocated.empty());
    OvraKb::PyObjectDecRef(obj);
}

TEST_F(References, NothingIsTouchedOnceTheInterpreterIsGone)
{
    Gil gil;
    PyObject *obj = Eval("['orphan']");
    auto realIsInitialized = Api().Py_IsInitialized;
    Api().Py_IsInitialized = InterpreterGone;
    OvraKb::PyObjectDecRef(obj);
    {
        PyObjectPtr holder(obj);
    }
    Api().Py_IsInitialized = realIsInitialized;
    EXPECT_EQ(OvraKb::RefCount(obj), 1);
    EXPECT_TRUE(g_deallocated.empty());
    OvraKb::PyObjectDecRef(obj);
    EXPECT_EQ(g_deallocated.size(), 1U);
}

TEST_F(References, HelpersReleaseEachEntryOnceAndSkipNulls)
{
    Gil gil;
    auto realIsInitialized = Api().Py_IsInitialized;
    Api().Py_IsInitialized = InterpreterUp;
    g_isInitializedCalls = 0;
    OvraKb::PyObjectDecRef(nullptr);
    {
        PyObjectPtr empty;
    }
    {
        PyObjectPtr fromNull(nullptr);
    }
    EXPECT_EQ(g_isInitializedCalls, 0) << "a null release must not reach the table";

    PyObject *a = Eval("['a']");
    PyObject *b = Eval("['b']");
    PyObject *extra = Eval("['extra']");
    std::vector<PyObject *> objs = {a, nullptr, b};
    PyWrapper::PyObjectDecRefAll(std::vector<PyObject *>(objs));
    EXPECT_EQ(g_deallocated, (std::vector<PyObject *>{a, b}));

    g_deallocated.clear();
    std::vector<PyObject *> none;
    OvraKb::PyObjectDecRecovery(none, extra);
    EXPECT_EQ(g_deallocated, std::vector<PyObject *>{extra});

    g_deallocated.clear();
    PyObject *c = Eval("['c']");
    std::vector<PyObject *> one = {c};
    PyObject *nullExtra = nullptr;
    OvraKb::PyObjectDecRecovery(one, nullExtra);
    EXPECT_EQ(g_deallocated, std::vector<PyObject *>{c});
    EXPECT_EQ(one, std::vector<PyObject *>{c}) << "the vector is left as it was";
    Api().Py_IsInitialized = realIsInitialized;
}

TEST_F(References, SearchArgumentsKeepOneReferenceOnNonePerSearchWithoutType)
{
    if (OvraTest::TestPythonVersion() >= 312) {
        GTEST_SKIP() << "None is immortal on this Python: its count says nothing";
    }
    Gil gil;
    PyObject *none = Api()._Py_NoneStruct;
    const std::int64_t before = OvraKb::RefCount(none);
    for (int i = 0; i < 25; ++i) {
        PyObjectPtr dict(Api().PyDict_New());
        ASSERT_EQ(OvraKb::GetParamsFromSearchConfig({{"op_type", "Add"}}, dict.get()), 0U);
        ASSERT_EQ(OvraKb::GetParamsFromSearchConfig({{"op_type", "Add"}, {"search_type", "all"}}, dict.get()), 0U);
    }
    EXPECT_EQ(OvraKb::RefCount(none) - before, 25);
}

// ---- Conversions ----

class Conversions : public PythonSide {
  protected:
    void SetUp() override
    {
        PythonSide::SetUp();
        ASSERT_TRUE(Manager().PyObjectInit());
        LogCapture::Clear();
    }
};

struct StrListCase {
    const char *expression;  // nullptr: a null object
    Strings before;
    std::uint32_t result;
    Strings after;
    Strings errors;
};

TEST_F(Conversions, StringListIsAllOrNothing)
{
    const std::string misuse = "PyParseStrList: pyStrList is nullptr or vstr is empty.";
    const std::vector<StrListCase> cases = {
        {"['a', 'b']", {}, 2U, {"a", "b"}, {}},
        {"[]", {}, 0U, {}, {}},
        {"['a', 3]", {}, 0U, {}, {}},
        {"['a', None, 'c']", {}, 0U, {}, {}},
        {"['a', 'b']", {"kept"}, 0xFFFFFFFFU, {"kept"}, {misuse}},
        {nullptr, {}, 0xFFFFFFFFU, {}, {misuse}},
        {"('a', 'b')", {}, 0U, {}, {}},
    };
    Gil gil;
    for (const StrListCase &c : cases) {
        SCOPED_TRACE(c.expression != nullptr ? c.expression : "null");
        LogCapture::Clear();
        PyObjectPtr list(c.expression != nullptr ? Eval(c.expression) : nullptr);
        Strings out = c.before;
        EXPECT_EQ(PyWrapper::PyParseStrList(list, out), c.result);
        EXPECT_EQ(out, c.after);
        EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_ERROR), c.errors);
        DiscardPendingError();
    }
}

struct DictCase {
    const char *expression;
    StrMap before;
    StrMap after;
    Strings warnings;
};

TEST_F(Conversions, DictionaryKeepsGoodItemsAndSkipsBadOnes)
{
    const std::string badItem = "pUnique or pVal is nullptr!.";
    const std::vector<DictCase> cases = {
        {"{'k': 'v', 'n': 1}", {}, {{"k", "v"}}, {badItem}},
        {"{'k': 'new'}", {{"k", "old"}, {"z", "kept"}}, {{"k", "new"}, {"z", "kept"}}, {}},
        {"{1: 'x', 'a': 'b', 'c': None}", {}, {{"a", "b"}}, {badItem, badItem}},
        {"{}", {{"x", "y"}}, {{"x", "y"}}, {}},
        {"['not', 'a', 'dict']", {}, {}, {"pyUniques is nullptr or is not List."}},
        {nullptr, {}, {}, {"PydictToMap: pyObj is nullptr."}},
    };
    Gil gil;
    for (const DictCase &c : cases) {
        SCOPED_TRACE(c.expression != nullptr ? c.expression : "null");
        LogCapture::Clear();
        PyObjectPtr dict(c.expression != nullptr ? Eval(c.expression) : nullptr);
        StrMap out = c.before;
        PyWrapper::PydictToMap(dict.get(), out);
        EXPECT_EQ(out, c.after);
        EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_WARNING), c.warnings);
        DiscardPendingError();
    }
}

struct RowsCase {
    const char *expression;
    std::vector<StrMap> before;
    std::vector<StrMap> after;
    Strings warnings;
};

TEST_F(Conversions, ListOfDictionariesStopsAtTheFirstBadRowAndKeepsEarlierOnes)
{
    const std::vector<RowsCase> cases = {
        {"[{'a': '1'}, {}, {'b': '2'}]", {}, {{{"a", "1"}}}, {"PylistToVec: mapTmp is empty."}},
        {"[{'a': '1'}, {'n': 1, 'm': 2}]",
         {},
         {{{"a", "1"}}},
         {"pUnique or pVal is nullptr!.", "pUnique or pVal is nullptr!.", "PylistToVec: mapTmp is empty."}},
        {"[{'b': '2'}]", {{{"old", "row"}}}, {{{"old", "row"}}, {{"b", "2"}}}, {}},
        {"[]", {}, {}, {}},
        {nullptr, {}, {}, {"PylistToVec: pyObj is nullptr."}},
    };
    Gil gil;
    for (const RowsCase &c : cases) {
        SCOPED_TRACE(c.expression != nullptr ? c.expression : "null");
        LogCapture::Clear();
        PyObjectPtr list(c.expression != nullptr ? Eval(c.expression) : nullptr);
        std::vector<StrMap> out = c.before;
        PyWrapper::PylistToVec(list.get(), out);
        EXPECT_EQ(out, c.after);
        EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_WARNING), c.warnings);
        DiscardPendingError();
    }
}

// ---- Error text ----

struct SplitCase {
    std::string text;
    Strings before;
    Strings after;
};

TEST(ErrorText, StringSplitKeepsInnerEmptyPiecesButNoTrailingOne)
{
    const std::vector<SplitCase> cases = {
        {"a,,b", {}, {"a", "", "b"}},    {",a", {}, {"", "a"}}, {"a,b,", {}, {"a", "b"}}, {"", {}, {}},
        {"a,b", {"x"}, {"x", "a", "b"}}, {"abc", {}, {"abc"}},  {",", {}, {""}},
    };
    for (const SplitCase &c : cases) {
        Strings out = c.before;
        EXPECT_EQ(PyWrapper::StringSplit(c.text, ",", out), c.after.size()) << c.text;
        EXPECT_EQ(out, c.after) << c.text;
    }
    Strings multi;
    EXPECT_EQ(PyWrapper::StringSplit("a::b:c", "::", multi), 2U);
    EXPECT_EQ(multi, (Strings{"a", "b:c"}));
}

TEST(ErrorText, TrimRemovesWhiteSpaceAtBothEnds)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"  a b \t\n", "a b"}, {" \t\r\n ", ""}, {"", ""}, {"x", "x"}, {"\vx\f", "x"}, {"\xC3\xA9 ", "\xC3\xA9"}};
    for (const auto &c : cases) {
        std::string text = c.first;
        PyWrapper::Trim(text);
        EXPECT_EQ(text, c.second) << "[" << c.first << "]";
    }
}

struct ParseCase {
    std::string text;
    bool found;
    StrMap out;
};

TEST(ErrorText, ParseStrMapReadsTheFirstBracePair)
{
    const std::vector<ParseCase> cases = {
        {"RuntimeError: {'errCode': 'E1', 'reason': ' bad '}.", true, {{"errCode", "E1"}, {"reason", "bad"}}},
        {"{'path': 'a:b'}", true, {}},
        {"}{", false, {}},
        {"{}", false, {}},
        {"no braces", false, {}},
        {"{\"errCode\": \"E2\"}", true, {{"\"errCode\"", "\"E2\""}}},
        {"{'a': '1', 'novalue', 'b': '2'} {'c': '3'}", true, {{"a", "1"}, {"b", "2"}}},
        {"{'a': '1', 'a': '2'}", true, {{"a", "2"}}},
    };
    for (const ParseCase &c : cases) {
        StrMap out;
        EXPECT_EQ(PyWrapper::ParseStrMap(c.text, out), c.found) << c.text;
        EXPECT_EQ(out, c.out) << c.text;
    }
}

struct DealCase {
    std::string text;
    std::string code;
    StrMap details;
};

TEST(ErrorText, DealWithErrorFindsTheCodeOrFallsBack)
{
    const std::string plain = "ModuleNotFoundError: No module named 'x'.";
    const std::vector<DealCase> cases = {
        {plain, "EC0010", {{"result", plain}}},
        {"RuntimeError: {'errCode': 'E1', 'reason': ' bad '}.", "E1", {{"reason", "bad"}}},
        {"RuntimeError: {}", "EC0010", {{"result", "RuntimeError: {}"}}},
        {"RuntimeError: {'reason': 'x'}", "EC0010", {{"reason", "x"}, {"result", "RuntimeError: {'reason': 'x'}"}}},
        {"RuntimeError: bank offline.", "EC0010", {{"result", "RuntimeError: bank offline."}}},
        {"RuntimeError: {\"errCode\": \"E2\"}",
         "EC0010",
         {{"\"errCode\"", "\"E2\""}, {"result", "RuntimeError: {\"errCode\": \"E2\"}"}}},
        {"", "EC0010", {{"result", ""}}},
    };
    for (const DealCase &c : cases) {
        StrMap details = {{"kept", "yes"}};
        StrMap expected = c.details;
        expected["kept"] = "yes";
        EXPECT_EQ(PyWrapper::DealWithError(c.text, details), c.code) << c.text;
        EXPECT_EQ(details, expected) << c.text;
    }
}

// ---- Exception capture and reports ----

class Exceptions : public Conversions {};

TEST_F(Exceptions, TracebackLinesAreLoggedInOrderAndTheLastIsReturned)
{
    Gil gil;
    ASSERT_EQ(Eval("1 / 0"), nullptr);
    LogCapture::Clear();
    std::string text = PyWrapper::GetPyException();
    EXPECT_EQ(text, "ZeroDivisionError: division by zero.");
    Strings lines = LogCapture::Messages(OVRA_LEVEL_ERROR, "pywrapper");
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines.front(), "Traceback (most recent call last):\n");
    EXPECT_EQ(lines.back(), "ZeroDivisionError: division by zero\n");
    for (const std::string &line : lines) {
        EXPECT_EQ(line.back(), '\n');
    }
}

TEST_F(Exceptions, WithoutFormatFunctionNothingIsLogged)
{
    Gil gil;
    PyObject *saved = PyWrapper::g_pyFormatExceptionFunc;
    PyWrapper::g_pyFormatExceptionFunc = nullptr;
    ASSERT_EQ(Eval("1 / 0"), nullptr);
    LogCapture::Clear();
    EXPECT_EQ(PyWrapper::GetPyException(), "");
    PyWrapper::g_pyFormatExceptionFunc = saved;
    EXPECT_TRUE(LogCapture::Messages(OVRA_LEVEL_ERROR).empty());
    DiscardPendingError();
}

TEST_F(Exceptions, NoExceptionFormatsThreeNones)
{
    Gil gil;
    LogCapture::Clear();
    EXPECT_EQ(PyWrapper::GetPyException(nullptr, nullptr, nullptr), "NoneType: None.");
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_ERROR), Strings{"NoneType: None\n"});
}

TEST_F(Exceptions, FailedImportMakesExactlyOneFallbackReport)
{
    Gil gil;
    EXPECT_EQ(PyWrapper::ImportModule(nullptr).get(), nullptr);
    EXPECT_TRUE(OvraTest::ErrorReports().empty());

    LogCapture::Clear();
    EXPECT_EQ(PyWrapper::ImportModule("no_such_module_for_ovra").get(), nullptr);
    const std::string text = "ModuleNotFoundError: No module named 'no_such_module_for_ovra'.";
    auto reports = OvraTest::ErrorReports();
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports[0].first, "EC0010");
    EXPECT_EQ(reports[0].second, (StrMap{{"result", text}}));
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_ERROR, "pywrapper").back(),
              "ModuleNotFoundError: No module named 'no_such_module_for_ovra'\n");
}

struct ImportFailureCase {
    const char *label;
    const char *kind;
    std::string code;
    StrMap details;
};

class KbImportFailure : public PythonSide, public ::testing::WithParamInterface<ImportFailureCase> {};

TEST_P(KbImportFailure, ReportsTheModulesOwnCodeOrTheFallback)
{
    setenv("OVRA_TEST_IMPORT_ERROR", GetParam().kind, 1);
    OvraTest::UsePackages({"variants/interface_raises", "log"});
    EXPECT_FALSE(Manager().PyObjectInit());
    EXPECT_EQ(Users(), 0U);
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_ERROR, "ovra_kb_pyfunc_mgr"),
              (Strings{"OVRA_KB import ovraKbInterface_ error", "PyObjectInit: Run Init error."}));
    auto reports = OvraTest::ErrorReports();
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports[0].first, GetParam().code);
    EXPECT_EQ(reports[0].second, GetParam().details);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, KbImportFailure,
    ::testing::Values(
        ImportFailureCase{"runtime_dict", "runtime_dict", "E_KB_IMPORT", {{"reason", "bank offline"}}},
        ImportFailureCase{"runtime_text", "runtime_text", "EC0010", {{"result", "RuntimeError: bank offline."}}},
        ImportFailureCase{"value_error", "value_error", "EC0010", {{"result", "ValueError: bad configuration."}}}),
    [](const ::testing::TestParamInfo<ImportFailureCase> &info) { return info.param.label; });

TEST_F(PythonSide, MissingPackagesFailTheStartUp)
{
    OvraTest::UsePackages({});
    EXPECT_FALSE(Manager().PyObjectInit());
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_ERROR, "ovra_kb_pyfunc_mgr"),
              Strings{"PyObjectInit: Import repository_manager_log error"});
    auto reports = OvraTest::ErrorReports();
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports[0].first, "EC0010");
    EXPECT_EQ(Users(), 0U);
}

TEST_F(Exceptions, OperationFailureReportsTheLogModulesDictionary)
{
    Gil gil;
    ASSERT_EQ(Eval("(_ for _ in ()).throw(RuntimeError({'errCode': 'E7', 'op': 'Add'}))"), nullptr);
    PyObject *type = nullptr;
    PyObject *value = nullptr;
    PyObject *traceback = nullptr;
    Api().PyErr_Fetch(&type, &value, &traceback);
    Api().PyErr_NormalizeException(&type, &value, &traceback);
    OvraKb::PyErrMessageReport(PyObjectPtr(nullptr, type, value, traceback));
    auto reports = OvraTest::ErrorReports();
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports[0].first, "E7");
    EXPECT_EQ(reports[0].second, (StrMap{{"errCode", "E7"}, {"op", "Add"}})) << "the code stays among the details";

    OvraTest::ClearErrorReports();
    scripted_.SetScript(R"({"get_py_exception_dict": ["{'no': 'code'}"]})");
    LogCapture::Clear();
    OvraKb::PyErrMessageReport(PyObjectPtr(nullptr, type, value, traceback));
    EXPECT_TRUE(OvraTest::ErrorReports().empty());
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_WARNING), Strings{"Failed to upload errcode message."});
}

struct TupleCase {
    const char *expression;
    StrMap after;
    Strings warnings;
};

TEST_F(Exceptions, TupleFormReadsDetailsAndOperatorName)
{
    const std::vector<TupleCase> cases = {
        {"({'errCode': 'E1'}, 'Add')", {{"errCode", "E1"}, {"op_name", "Add"}, {"kept", "yes"}}, {}},
        {"({'op_name': 'Mul'}, 'Add')", {{"op_name", "Mul"}, {"kept", "yes"}}, {}},
        {"({}, 'Add', 3)", {{"kept", "yes"}}, {"Failed to parse pyErrMsgTuple."}},
        {"({}, 5)", {{"kept", "yes"}}, {"PyUnicode_AsUTF8 return nullptr."}},
        {nullptr, {{"kept", "yes"}}, {"PyErrMsgTuple is nullptr."}},
    };
    Gil gil;
    for (const TupleCase &c : cases) {
        SCOPED_TRACE(c.expression != nullptr ? c.expression : "null");
        LogCapture::Clear();
        PyObject *tuple = c.expression != nullptr ? Eval(c.expression) : nullptr;
        if (tuple != nullptr) {
            // The reader drops references it does not own on some failures: keep the items alive.
            OvraKb::RefCount(tuple) += 10;
        }
        StrMap details = {{"kept", "yes"}};
        PyWrapper::UploadPyException(tuple, details);
        EXPECT_EQ(details, c.after);
        EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_WARNING), c.warnings);
        DiscardPendingError();
    }
}

}  // namespace
