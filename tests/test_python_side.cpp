// Bringing the Python side up and down, references, conversions, error text and exception capture.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "interface/py_interface.h"
#include "log_capture.h"
#include "pyfunc/ovra_kb_pyfunc_mgr.h"
#include "pywrapper/pywrapper.h"
#include "runtime/handle_manager.h"
#include "test_env.h"

using namespace OvraTest;
using OvraKb::PyObject;
using OvraKb::PyObjectPtr;
namespace PyWrapper = OvraKb::PyWrapper;

namespace {

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

bool Contains(const Strings &lines, const std::string &line)
{
    return std::find(lines.begin(), lines.end(), line) != lines.end();
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

Strings ManagerEvents()
{
    return LogCapture::Messages(OVRA_LEVEL_EVENT, "ovra_kb_pyfunc_mgr");
}

// ---- Start-up and tear-down ----

using PythonSide = ScriptedTest;

TEST_F(PythonSide, AnEarlyFinaliseWrapsTheCountThenFirstUserStartsAndLastStopsEachCycle)
{
    // A finalisation without start-up wraps the count, and the next initialisation only brings it back.
    Manager().PyObjectDeinit();
    EXPECT_EQ(Users(), UINT64_MAX);
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_INFO, "ovra_kb_pyfunc_mgr"), Strings{"PyObject does not need to deinit"});
    EXPECT_TRUE(Manager().PyObjectInit());
    EXPECT_EQ(Users(), 0U);
    EXPECT_EQ(Manager().GetOvraKbInterface().get(), nullptr) << "no start-up happened";
    EXPECT_EQ(Queries(), 0U);

    Strings startUp = {"OvraKbPyfuncMgr: Enter PyObjectInit, reference_ is 0!", "Start to run Py_IsInitialized now."};
    if (TestPythonVersion() < 307) {
        startUp.push_back("Start to run PyEval_ThreadsInitialized now.");
    }
    startUp.push_back("Start to run PyEval_SaveThread now.");
    startUp.push_back("OvraKbPyfuncMgr: Run PyObjectInit successfully!");
    for (int cycle = 0; cycle < 2; ++cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        LogCapture::Clear();
        ASSERT_TRUE(Manager().PyObjectInit());
        EXPECT_EQ(ManagerEvents(), startUp);
        EXPECT_EQ(Users(), 1U);
        EXPECT_NE(Manager().GetOvraKbInterface().get(), nullptr);
        EXPECT_EQ(Api().PyGILState_Check(), 0) << "the starting thread must not keep the lock";
        const size_t queriesAfterStart = Queries();

        LogCapture::Clear();
        ASSERT_TRUE(Manager().PyObjectInit());
        Manager().PyObjectDeinit();
        EXPECT_EQ(Users(), 1U);
        EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_INFO, "ovra_kb_pyfunc_mgr"),
                  (Strings{"PyObjectInit: PyObject has been initialized, no need to re-initialize!",
                           "PyObject does not need to deinit"}));
        EXPECT_EQ(ManagerEvents(), (Strings{"OvraKbPyfuncMgr: Enter PyObjectInit, reference_ is 1!",
                                            "OvraKbPyfuncMgr: enter PyObjectDeinit function, reference_[2]"}));
        EXPECT_EQ(Queries(), queriesAfterStart);
        EXPECT_EQ(Api().Py_IsInitialized(), 1);

        LogCapture::Clear();
        Manager().PyObjectDeinit();
        EXPECT_EQ(Users(), 0U);
        EXPECT_EQ(ManagerEvents(), (Strings{"OvraKbPyfuncMgr: enter PyObjectDeinit function, reference_[1]",
                                            "OvraKbPyfuncMgr: PyObjectDeinit function end successfully!"}));
        EXPECT_EQ(Manager().GetOvraKbInterface().get(), nullptr);
        EXPECT_FALSE(Api().IsLoaded()) << "the library this library opened is closed again";
    }
}

TEST_F(PythonSide, FailedStartUpCountsNoUserAndTheRetryLoadsNothing)
{
    setenv("OVRA_TEST_LOG_WITHOUT_DICT", "1", 1);
    ASSERT_FALSE(Manager().PyObjectInit());
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_ERROR, "ovra_kb_pyfunc_mgr"),
              Strings{"PyObjectInit: pyPrintFunc or pyUploadFunc is nullptr."});
    EXPECT_EQ(Users(), 0U);
    EXPECT_EQ(Api().Py_IsInitialized(), 1) << "nothing is rolled back";
    EXPECT_EQ(Api().PyGILState_Check(), 0) << "the lock must be free for other threads";
    EXPECT_EQ(Queries(), 2U);

    LogCapture::Clear();
    ASSERT_FALSE(Manager().PyObjectInit());
    EXPECT_EQ(Queries(), 2U) << "the retry must find the runtime already loaded";
    EXPECT_TRUE(Contains(ManagerEvents(), "OVRA_KB_Py has already been initialized."));
    EXPECT_TRUE(Manager().PyAlreadyInited()) << "the interpreter started by the failed attempt now counts as a host's";
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_EVENT, "handle_manager"),
              Strings{"Start to run init functions to load dynamic python lib!"})
        << "no load is attempted";
    EXPECT_EQ(Users(), 0U);
}

// A native host that started Python itself and holds the lock on the calling thread (a Python host,
// whose extension gives the lock back around its calls, is tests/host).
TEST_F(PythonSide, AHostsInterpreterIsJoinedNeverLoadedAgainNorFinalised)
{
    void *runtime = OpenRuntimeGlobally();
    ASSERT_NE(runtime, nullptr) << dlerror();
    reinterpret_cast<void (*)()>(dlsym(runtime, "Py_Initialize"))();

    ASSERT_TRUE(Manager().PyObjectInit());
    EXPECT_EQ(Queries(), 0U) << "no python3 query when the process already carries a runtime";
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_EVENT, "handle_manager"),
              (Strings{"Start to run init functions to load dynamic python lib!",
                       "Init functions of loading dynamic python lib end!"}));
    EXPECT_TRUE(Contains(ManagerEvents(), "OVRA_KB_Py has already been initialized."));
    EXPECT_FALSE(Contains(ManagerEvents(), "Start to run Py_IsInitialized now."));
    EXPECT_EQ(Api().PyGILState_Check(), 0) << "the lock must be free for other threads";

    Manager().PyObjectDeinit();
    EXPECT_EQ(reinterpret_cast<int (*)()>(dlsym(runtime, "Py_IsInitialized"))(), 1)
        << "the host's interpreter must not be finalised";
    EXPECT_FALSE(Api().IsLoaded());
}

// The Python side is up, with the lock free, and the test holds it through a Gil.
class Started : public ScriptedTest {
  protected:
    void SetUp() override
    {
        ScriptedTest::SetUp();
        ASSERT_TRUE(Manager().PyObjectInit());
        LogCapture::Clear();
    }
};

// ---- References ----

std::vector<PyObject *> g_deallocated;
void (*g_realDealloc)(PyObject *) = nullptr;
void CountingDealloc(PyObject *obj)
{
    g_deallocated.push_back(obj);
    g_realDealloc(obj);
}
int g_isInitializedAnswer = 1;
int StubIsInitialized()
{
    return g_isInitializedAnswer;
}

TEST_F(Started, ReferencesAreReleasedOnceAndOnlyWhileTheInterpreterRuns)
{
    Gil gil;
    g_realDealloc = Api()._Py_Dealloc;
    Api()._Py_Dealloc = CountingDealloc;
    auto realIsInitialized = Api().Py_IsInitialized;
    Api().Py_IsInitialized = StubIsInitialized;
    PyObject *copied = Eval("['copied']");
    {
        PyObjectPtr first(copied);
        PyObjectPtr second = first;
        PyObjectPtr third(first);
        PyObjectPtr empty(nullptr);
    }
    PyObject *shared = Eval("['shared']");
    OvraKb::RefCount(shared) += 1;
    PyObject *a = Eval("['a']");
    PyWrapper::PyObjectDecRefAll({a, nullptr, shared});
    EXPECT_EQ(OvraKb::RefCount(shared), 1) << "a shared object only loses one reference";
    std::vector<PyObject *> one = {Eval("['c']")};
    PyObject *nullExtra = nullptr;
    OvraKb::PyObjectDecRecovery(one, nullExtra);
    EXPECT_EQ(g_deallocated, (std::vector<PyObject *>{copied, a, one[0]})) << "each released once, the last copy";
    OvraKb::PyObjectDecRef(shared);

    g_isInitializedAnswer = 0;  // the interpreter is gone: nothing is touched
    g_deallocated.clear();
    PyObject *orphan = Eval("['orphan']");
    OvraKb::PyObjectDecRef(orphan);
    {
        PyObjectPtr holder(orphan);
    }
    EXPECT_EQ(OvraKb::RefCount(orphan), 1);
    EXPECT_TRUE(g_deallocated.empty());
    Api().Py_IsInitialized = realIsInitialized;
    Api()._Py_Dealloc = g_realDealloc;
}

TEST_F(Started, SearchArgumentsKeepOneReferenceOnNonePerSearchWithoutType)
{
    if (TestPythonVersion() >= 312) {
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

template <typename T>
struct Conversion {
    const char *expression;  // nullptr: a null object
    T before;
    T after;
    Strings lines;  // of the level the table is about
    std::uint32_t result = 0;
};

// Converts the object of each row's expression and compares the output and the log lines of `level`.
template <typename T, typename Convert>
void ForEachRow(const std::vector<Conversion<T>> &rows, int level, Convert convert)
{
    for (const Conversion<T> &row : rows) {
        SCOPED_TRACE(row.expression != nullptr ? row.expression : "null");
        LogCapture::Clear();
        PyObjectPtr object(row.expression != nullptr ? Eval(row.expression) : nullptr);
        T out = row.before;
        convert(object, out, row.result);
        EXPECT_EQ(out, row.after);
        EXPECT_EQ(LogCapture::Messages(level), row.lines);
        (void)PyWrapper::FetchNormalizedException();  // the error a failed conversion leaves pending
    }
}

TEST_F(Started, ListsAndDictionariesConvertAllOrNothingItemByItemOrRowByRow)
{
    Gil gil;
    const std::string misuse = "PyParseStrList: pyStrList is nullptr or vstr is empty.";
    ForEachRow<Strings>({{"['a', 'b']", {}, {"a", "b"}, {}, 2U},
                         {"[]", {}, {}, {}},
                         {"['a', 3]", {}, {}, {}},
                         {"['a', None, 'c']", {}, {}, {}},
                         {"('a', 'b')", {}, {}, {}},
                         {"['a', 'b']", {"kept"}, {"kept"}, {misuse}, 0xFFFFFFFFU},
                         {nullptr, {}, {}, {misuse}, 0xFFFFFFFFU}},
                        OVRA_LEVEL_ERROR, [](const PyObjectPtr &list, Strings &out, std::uint32_t result) {
                            EXPECT_EQ(PyWrapper::PyParseStrList(list, out), result);
                        });

    const std::string badItem = "pUnique or pVal is nullptr!.";
    ForEachRow<StrMap>({{"{'k': 'v', 'n': 1}", {}, {{"k", "v"}}, {badItem}},
                        {"{'k': 'new'}", {{"k", "old"}, {"z", "kept"}}, {{"k", "new"}, {"z", "kept"}}, {}},
                        {"{1: 'x', 'a': 'b', 'c': None}", {}, {{"a", "b"}}, {badItem, badItem}},
                        {"{}", {{"x", "y"}}, {{"x", "y"}}, {}},
                        {"['not', 'a', 'dict']", {}, {}, {"pyUniques is nullptr or is not List."}},
                        {nullptr, {}, {}, {"PydictToMap: pyObj is nullptr."}}},
                       OVRA_LEVEL_WARNING, [](const PyObjectPtr &dict, StrMap &out, std::uint32_t) {
                           PyWrapper::PydictToMap(dict.get(), out);
                       });

    ForEachRow<Rows>(
        {{"[{'a': '1'}, {}, {'b': '2'}]", {}, {{{"a", "1"}}}, {"PylistToVec: mapTmp is empty."}},
         {"[{'a': '1'}, {'n': 1, 'm': 2}]", {}, {{{"a", "1"}}}, {badItem, badItem, "PylistToVec: mapTmp is empty."}},
         {"[{'b': '2'}]", {{{"old", "row"}}}, {{{"old", "row"}}, {{"b", "2"}}}, {}},
         {"[]", {}, {}, {}},
         {nullptr, {}, {}, {"PylistToVec: pyObj is nullptr."}}},
        OVRA_LEVEL_WARNING,
        [](const PyObjectPtr &list, Rows &out, std::uint32_t) { PyWrapper::PylistToVec(list.get(), out); });

    // The error tuple (details, operator name); its reader drops references it does not own on some
    // failures, so each tuple gets spares.
    ForEachRow<StrMap>({{"({'errCode': 'E1'}, 'Add')",
                         {{"kept", "yes"}},
                         {{"errCode", "E1"}, {"op_name", "Add"}, {"kept", "yes"}},
                         {}},
                        {"({'op_name': 'Mul'}, 'Add')", {{"kept", "yes"}}, {{"op_name", "Mul"}, {"kept", "yes"}}, {}},
                        {"({}, 'Add', 3)", {{"kept", "yes"}}, {{"kept", "yes"}}, {"Failed to parse pyErrMsgTuple."}},
                        {"({}, 5)", {{"kept", "yes"}}, {{"kept", "yes"}}, {"PyUnicode_AsUTF8 return nullptr."}},
                        {nullptr, {{"kept", "yes"}}, {{"kept", "yes"}}, {"PyErrMsgTuple is nullptr."}}},
                       OVRA_LEVEL_WARNING, [](const PyObjectPtr &tuple, StrMap &out, std::uint32_t) {
                           if (tuple.get() != nullptr) {
                               OvraKb::RefCount(tuple.get()) += 10;
                           }
                           PyWrapper::UploadPyException(tuple.get(), out);
                       });
}

// ---- Error text ----

// The code and details an error text gives: the first brace pair of a RuntimeError's text, read as
// 'key': 'value' pairs, trimmed, without quotes; its errCode, else "EC0010" with the text as "result".
TEST(ErrorText, DealWithErrorFindsTheCodeOrFallsBack)
{
    const std::string plain = "ModuleNotFoundError: No module named 'x'.";
    const std::vector<std::pair<std::string, std::pair<std::string, StrMap>>> cases = {
        {plain, {"EC0010", {{"result", plain}}}},
        {"{'errCode': 'E1'}", {"EC0010", {{"result", "{'errCode': 'E1'}"}}}},
        {"RuntimeError: {'errCode': 'E1', 'reason': ' bad disk \t\n'}.", {"E1", {{"reason", "bad disk"}}}},
        {"RuntimeError: {'errCode': '\vE2\f', 'note': '\xC3\xA9 ', 'blank': ' \r '}",
         {"E2", {{"blank", ""}, {"note", "\xC3\xA9"}}}},
        {"RuntimeError: {}", {"EC0010", {{"result", "RuntimeError: {}"}}}},
        {"RuntimeError: }{", {"EC0010", {{"result", "RuntimeError: }{"}}}},
        {"RuntimeError: {'reason': 'x'}", {"EC0010", {{"reason", "x"}, {"result", "RuntimeError: {'reason': 'x'}"}}}},
        {"RuntimeError: {'path': 'a:b'}", {"EC0010", {{"result", "RuntimeError: {'path': 'a:b'}"}}}},
        {"RuntimeError: {\"errCode\": \"E2\"}",
         {"EC0010", {{"\"errCode\"", "\"E2\""}, {"result", "RuntimeError: {\"errCode\": \"E2\"}"}}}},
        {"RuntimeError: {'errCode': 'E3', 'novalue', 'b': '2'} {'c': '3'}", {"E3", {{"b", "2"}}}},
        {"RuntimeError: {'errCode': 'E4', 'errCode': 'E5', 'kept': 'new'}", {"E5", {{"kept", "new"}}}},
        {"", {"EC0010", {{"result", ""}}}},
    };
    for (const auto &c : cases) {
        StrMap details = {{"kept", "yes"}};
        StrMap expected = c.second.second;
        expected.insert({"kept", "yes"});
        EXPECT_EQ(PyWrapper::DealWithError(c.first, details), c.second.first) << c.first;
        EXPECT_EQ(details, expected) << c.first;
    }
}

// ---- Exception capture and reports ----

// The log module's dictionary is reported when it has a code (tests/test_api), and only then.
TEST_F(Started, AFailureWhoseDictionaryHasNoCodeIsNotReported)
{
    Gil gil;
    ASSERT_EQ(Eval("1 / 0"), nullptr);
    const PyWrapper::PyExceptionTriple e = PyWrapper::FetchNormalizedException();
    scripted_.SetScript(Script("get_py_exception_dict", "{'no': 'code'}"));
    OvraKb::PyErrMessageReport(PyObjectPtr(nullptr, e.type, e.value, e.traceback));
    EXPECT_TRUE(ErrorReports().empty());
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_WARNING), Strings{"Failed to upload errcode message."});
}

}  // namespace
