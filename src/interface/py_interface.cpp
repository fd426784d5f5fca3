#include "interface/py_interface.h"

#include <cerrno>
#include <ctime>
#include <initializer_list>

#include "common/common.h"
#include "pyfunc/ovra_kb_pyfunc_mgr.h"
#include "runtime/handle_manager.h"

namespace OvraKb {
namespace {

PyObject *KbModule()
{
    return Singleton<OvraKbPyfuncMgr>::Instance().GetOvraKbInterface().get();
}

bool HasKeys(const StrMap &map, std::initializer_list<const char *> keys)
{
    for (const char *key : keys) {
        if (map.find(key) == map.end()) {
            return false;
        }
    }
    return true;
}

PyObject *BuildStr(const char *text)
{
    return PyApi().Py_BuildValue("s", text);
}

bool AllBuilt(const std::vector<PyObject *> &values)
{
    for (PyObject *value : values) {
        if (value == nullptr) {
            return false;
        }
    }
    return true;
}

// Builds a str for each key's value and stores them only when all were built; the builder's
// own references are dropped either way.
bool BuildDictEntries(const StrMap &map, std::initializer_list<const char *> keys, PyObject *dict)
{
    std::vector<PyObject *> values;
    for (const char *key : keys) {
        values.push_back(BuildStr(map.at(key).c_str()));
    }
    bool built = AllBuilt(values);
    if (built) {
        size_t index = 0;
        for (const char *key : keys) {
            (void)PyApi().PyDict_SetItemString(dict, key, values[index++]);
        }
    }
    PyWrapper::PyObjectDecRefAll(std::move(values));
    return built;
}

// Takes the pending exception out of the interpreter, logs its traceback and reports it; the
// holder returned carries the triple and no object.
PyObjectPtr CaptureAndReportException()
{
    PyWrapper::PyExceptionTriple fetched = PyWrapper::FetchNormalizedException();
    (void)PyWrapper::GetPyException(fetched.type, fetched.value, fetched.traceback);
    PyObjectPtr exc(nullptr, fetched.type, fetched.value, fetched.traceback);
    PyErrMessageReport(exc);
    if (PyWrapper::ReleasesKept()) {
        PyWrapper::DropKept(fetched);
        return PyObjectPtr();
    }
    return exc;
}

// The reply of a module call, or the captured exception when the call raised.
PyObjectPtr HoldReply(PyObject *reply)
{
    return reply != nullptr ? PyObjectPtr(reply) : CaptureAndReportException();
}

bool ParsesAsZero(const PyObjectPtr &reply)
{
    int code = 0;
    return PyApi().PyArg_Parse(reply.get(), "i", &code) != 0 && code == 0;
}

bool IsNonEmptyStr(const PyObjectPtr &obj)
{
    const char *text = nullptr;
    return PyApi().PyArg_Parse(obj.get(), "s", &text) != 0 && text != nullptr && text[0] != '\0';
}

// One poll interval; a signal does not shorten it.
void SleepOnePollInterval()
{
    struct timespec interval = {0, 1000000};
    while (nanosleep(&interval, &interval) == -1 && errno == EINTR) {
    }
}

// Whether the Python side can take a call: the table is bound and its interpreter runs. Checked after
// the configuration so that a misused call returns a status instead of jumping through a stale table.
bool PythonSideIsUp()
{
    HandleManager &api = PyApi();
    return api.IsInited() && api.Py_IsInitialized() != 0;
}

void LogSearchNotInitialised()
{
    OVRA_KB_LOG(OVRA_LEVEL_ERROR, "OvraKbSearch: the knowledge base is not initialised, call OvraKbInit first.");
}

// What the request answers a search that a finalisation keeps out: the configuration first, then 3.
std::uint32_t RefuseSearchRequest(const StrMap &searchConfigMap)
{
    std::uint32_t status = CheckSearchConfigMap(searchConfigMap);
    if (status != OVRA_KB_SUCCESS) {
        return status;
    }
    LogSearchNotInitialised();
    return OVRA_KB_PYTHON_UNAVAILABLE;
}

// The failure lines of one change operation, each written with its own literal format.
struct ChangeMessages {
    void (*dictNotCreated)();
    void (*callFailed)();
    void (*notInitialised)();
};

const ChangeMessages WRITE_MESSAGES = {
    [] { OVRA_KB_LOG(OVRA_LEVEL_ERROR, "OvraKbWrite: create new pydict failed."); },
    [] { OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to call ovra_kb_write."); },
    [] { OVRA_KB_LOG(OVRA_LEVEL_ERROR, "OvraKbWrite: the knowledge base is not initialised, call OvraKbInit first."); },
};

const ChangeMessages DELETE_MESSAGES = {
    [] { OVRA_KB_LOG(OVRA_LEVEL_ERROR, "OvraKbDelete: create new pydict failed."); },
    [] { OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to call ovra_kb_delete."); },
    [] {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "OvraKbDelete: the knowledge base is not initialised, call OvraKbInit first.");
    },
};

// Write and delete: check, lock, argument dictionary, one module call whose answer must be the int 0.
template <typename CallModule>
std::uint32_t RunChange(const ChangeMessages &messages, const StrMap &writeConfigMap, CallModule callModule)
{
    std::uint32_t status = CheckSearchConfigMap(writeConfigMap);
    if (status != OVRA_KB_SUCCESS) {
        return status;
    }
    CallGate::Call call;
    if (!call.Admitted() || !PythonSideIsUp()) {
        messages.notInitialised();
        return OVRA_KB_PYTHON_UNAVAILABLE;
    }
    GilGuard gil;
    PyObject *dict = PyApi().PyDict_New();
    if (dict == nullptr) {
        messages.dictNotCreated();
        return OVRA_KB_DICT_CREATION_FAILED;
    }
    if (GetParamsFromWriteConfig(writeConfigMap, dict) != OVRA_KB_SUCCESS) {
        PyWrapper::PyObjectDecRefAll({dict});
        return OVRA_KB_VALUE_CONVERSION_FAILED;
    }
    PyObject *module = KbModule();
    // Built once, from the reply or empty: an empty holder assigned afterwards would allocate a second
    // control block on every call.
    PyObjectPtr reply = module != nullptr ? HoldReply(callModule(module, dict)) : PyObjectPtr();
    // The filled dictionary is kept for the life of the process, on purpose.
    PyWrapper::DropKept(dict);
    if (reply.get() == nullptr || !ParsesAsZero(reply)) {
        messages.callFailed();
        return OVRA_KB_PYTHON_CALL_FAILED;
    }
    return OVRA_KB_SUCCESS;
}

enum class PollResult { NOT_FINISHED, FINISHED, CALL_FAILED, FLAG_FAILED, FINALISED };

// One cycle of the search: asks the module once, under the lock, whether the task finished. The first poll
// takes its turn like the request; later ones, of a search that is waiting, take the lock at once.
PollResult PollSearchOnce(PyObjectPtr &taskHandle, std::vector<StrMap> &results, GilGuard::Turn turn)
{
    HandleManager &api = PyApi();
    GilGuard gil(turn);
    if (CallGate::Closing()) {
        taskHandle = PyObjectPtr();
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "OvraKbSearch: the knowledge base is being finalised, the search ends unfinished.");
        return PollResult::FINALISED;
    }
    PyObject *module = KbModule();
    // Built once, as in RunChange: one control block per poll, not two.
    PyObjectPtr reply = module != nullptr
                            ? HoldReply(api.PyObject_CallMethod(module, "ovra_kb_search_get", "O", taskHandle.get()))
                            : PyObjectPtr();
    if (reply.get() == nullptr) {
        taskHandle = PyObjectPtr();
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to call ovra_kb_search_get.");
        return PollResult::CALL_FAILED;
    }
    PyObject *finished = api.PyTuple_GetItem(reply.get(), 0);
    // One reference on the flag object is kept on purpose for every cycle.
    RefCount(finished) += 1;
    int truth = api.PyObject_IsTrue(finished);
    PyWrapper::DropKept(finished);
    if (truth == 1) {
        PyWrapper::PylistToVec(api.PyTuple_GetItem(reply.get(), 1), results);
        taskHandle = PyObjectPtr();
        return PollResult::FINISHED;
    }
    if (truth == -1) {
        taskHandle = PyObjectPtr();
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "ovra_kb_search_get check res failed.");
        return PollResult::FLAG_FAILED;
    }
    return PollResult::NOT_FINISHED;
}

}  // namespace

std::uint32_t CheckSysConfigMap(const StrMap &sysConfigMap)
{
    if (!HasKeys(sysConfigMap, {"soc_version", "core_num"})) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "CheckSysConfigMap: Check sysConfigMap Failed!");
        return OVRA_KB_CONFIG_KEY_MISSING;
    }
    return OVRA_KB_SUCCESS;
}

std::uint32_t CheckLoadConfigMap(const StrMap &loadConfigMap)
{
    if (!HasKeys(loadConfigMap, {"op_bank_path"})) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "CheckLoadConfigMap: Check loadConfigMap Failed!");
        return OVRA_KB_CONFIG_KEY_MISSING;
    }
    return OVRA_KB_SUCCESS;
}

std::uint32_t CheckSearchConfigMap(const StrMap &searchConfigMap)
{
    if (!HasKeys(searchConfigMap, {"op_type"})) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "CheckSearchConfigMap: Check searchConfigMap Failed!");
        return OVRA_KB_CONFIG_KEY_MISSING;
    }
    return OVRA_KB_SUCCESS;
}

std::uint32_t GetParamsFromSysConfig(const StrMap &sysConfigMap, PyObject *dict)
{
    if (!BuildDictEntries(sysConfigMap, {"soc_version", "core_num"}, dict)) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "GetSysConfigParams: Py_BuildValue returns nullptr!");
        return OVRA_KB_VALUE_CONVERSION_FAILED;
    }
    return OVRA_KB_SUCCESS;
}

std::uint32_t GetParamsFromLoadConfig(const StrMap &loadConfigMap, PyObject *dict)
{
    if (!BuildDictEntries(loadConfigMap, {"op_bank_path"}, dict)) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "GetLoadConfigParams: Py_BuildValue returns nullptr!");
        return OVRA_KB_VALUE_CONVERSION_FAILED;
    }
    return OVRA_KB_SUCCESS;
}

std::uint32_t GetParamsFromWriteConfig(const StrMap &writeConfigMap, PyObject *dict)
{
    if (!BuildDictEntries(writeConfigMap, {"op_type"}, dict)) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "GetParamsFromWriteConfig: Py_BuildValue returns nullptr!");
        return OVRA_KB_VALUE_CONVERSION_FAILED;
    }
    return OVRA_KB_SUCCESS;
}

std::uint32_t GetParamsFromSearchConfig(const StrMap &searchConfigMap, PyObject *dict)
{
    HandleManager &api = PyApi();
    PyObject *opType = BuildStr(searchConfigMap.at("op_type").c_str());
    PyObject *returnType = BuildStr("str");
    std::vector<PyObject *> values = {opType, returnType};
    PyObject *searchType = nullptr;
    if (searchConfigMap.find("search_type") != searchConfigMap.end()) {
        searchType = BuildStr(searchConfigMap.at("search_type").c_str());
        values.push_back(searchType);
    } else {
        // This reference on None is never given back: one per search without a search type.
        searchType = api._Py_NoneStruct;
        RefCount(searchType) += 1;
    }
    if (opType == nullptr || returnType == nullptr || searchType == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "GetParamsFromSearchConfig: Py_BuildValue returns nullptr!");
        PyWrapper::PyObjectDecRefAll(std::move(values));
        return OVRA_KB_VALUE_CONVERSION_FAILED;
    }
    (void)api.PyDict_SetItemString(dict, "op_type", opType);
    (void)api.PyDict_SetItemString(dict, "return_type", returnType);
    (void)api.PyDict_SetItemString(dict, "search_type", searchType);
    PyWrapper::PyObjectDecRefAll(std::move(values));
    if (searchType == api._Py_NoneStruct) {
        PyWrapper::DropKept(searchType);
    }
    return OVRA_KB_SUCCESS;
}

std::uint32_t OvraKbSearchReq(const std::string &keyword, const StrMap &searchConfigMap, PyObjectPtr &taskHandle)
{
    std::uint32_t status = CheckSearchConfigMap(searchConfigMap);
    if (status != OVRA_KB_SUCCESS) {
        return status;
    }
    if (!PythonSideIsUp()) {
        LogSearchNotInitialised();
        return OVRA_KB_PYTHON_UNAVAILABLE;
    }
    HandleManager &api = PyApi();
    GilGuard gil;
    // Declared after the guard: the dictionary is dropped while the lock is still held.
    PyObjectPtr dict(api.PyDict_New());
    if (dict.get() == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "OvraKbSearch: create new pydict failed.");
        return OVRA_KB_DICT_CREATION_FAILED;
    }
    if (GetParamsFromSearchConfig(searchConfigMap, dict.get()) != OVRA_KB_SUCCESS) {
        return OVRA_KB_VALUE_CONVERSION_FAILED;
    }
    PyObject *module = KbModule();
    if (module == nullptr) {
        taskHandle = PyObjectPtr();
    } else {
        taskHandle =
            HoldReply(api.PyObject_CallMethod(module, "ovra_kb_search_async", "sO", keyword.c_str(), dict.get()));
    }
    if (taskHandle.get() == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to call ovra_kb_search_async, pyRes is nullptr.");
        return OVRA_KB_PYTHON_CALL_FAILED;
    }
    if (!IsNonEmptyStr(taskHandle)) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to call ovra_kb_search_async, pyRes.get() is invalid.");
        return OVRA_KB_PYTHON_CALL_FAILED;
    }
    return OVRA_KB_SUCCESS;
}

namespace PyInterface {

std::uint32_t PyInterfaceInit()
{
    if (Singleton<OvraKbPyfuncMgr>::Instance().PyObjectInit()) {
        return OVRA_KB_SUCCESS;
    }
    OVRA_KB_LOG(OVRA_LEVEL_ERROR, "PyObjectInit of OvraKbPyfuncMgr Error!");
    return OVRA_KB_PYTHON_UNAVAILABLE;
}

std::uint32_t PyInterfaceDeinit()
{
    Singleton<OvraKbPyfuncMgr>::Instance().PyObjectDeinit();
    return OVRA_KB_SUCCESS;
}

std::uint32_t OvraKbInit(const StrMap &sysConfigMap, const StrMap &loadConfigMap)
{
    std::uint32_t status = CheckSysConfigMap(sysConfigMap);
    if (status != OVRA_KB_SUCCESS) {
        return status;
    }
    status = CheckLoadConfigMap(loadConfigMap);
    if (status != OVRA_KB_SUCCESS) {
        return status;
    }
    HandleManager &api = PyApi();
    GilGuard gil;
    PyObject *sysDict = api.PyDict_New();
    if (sysDict == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "OvraKbInit: create new pydict failed.");
        return OVRA_KB_DICT_CREATION_FAILED;
    }
    if (GetParamsFromSysConfig(sysConfigMap, sysDict) != OVRA_KB_SUCCESS) {
        PyWrapper::PyObjectDecRefAll({sysDict});
        return OVRA_KB_VALUE_CONVERSION_FAILED;
    }
    PyObject *loadDict = api.PyDict_New();
    if (loadDict == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "OvraKbInit: create new pydict failed.");
        return OVRA_KB_DICT_CREATION_FAILED;
    }
    if (GetParamsFromLoadConfig(loadConfigMap, loadDict) != OVRA_KB_SUCCESS) {
        PyWrapper::PyObjectDecRefAll({loadDict});
        return OVRA_KB_VALUE_CONVERSION_FAILED;
    }
    PyObject *module = KbModule();
    // Without the module no call is made.
    PyObjectPtr reply =
        module != nullptr ? HoldReply(api.PyObject_CallMethod(module, "ovra_kb_init", "OO", sysDict, loadDict))
                          : PyObjectPtr();
    // From here on both dictionaries are kept for the life of the process, on purpose.
    PyWrapper::DropKept(sysDict);
    PyWrapper::DropKept(loadDict);
    if (reply.get() == nullptr || !ParsesAsZero(reply)) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to call ovra_kb_init.");
        return OVRA_KB_PYTHON_CALL_FAILED;
    }
    return OVRA_KB_SUCCESS;
}

std::uint32_t OvraKbFinalize()
{
    if (!PythonSideIsUp()) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "OvraKbFinalize: the knowledge base is not initialised, call OvraKbInit first.");
        return OVRA_KB_PYTHON_UNAVAILABLE;
    }
    HandleManager &api = PyApi();
    GilGuard gil;
    PyObject *module = KbModule();
    if (module == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to call ovra_kb_finalize.");
        return OVRA_KB_PYTHON_CALL_FAILED;
    }
    PyObjectPtr reply = HoldReply(api.PyObject_CallMethod(module, "ovra_kb_finalize", ""));
    if (reply.get() == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to call ovra_kb_finalize.");
        return OVRA_KB_PYTHON_CALL_FAILED;
    }
    return OVRA_KB_SUCCESS;
}

std::uint32_t OvraKbWrite(const std::string &keyword, const std::string &knowledge, const StrMap &writeConfigMap,
                          const bool &flag)
{
    return RunChange(WRITE_MESSAGES, writeConfigMap, [&](PyObject *module, PyObject *dict) {
        return PyApi().PyObject_CallMethod(module, "ovra_kb_write", "ssOi", keyword.c_str(), knowledge.c_str(), dict,
                                           static_cast<int>(flag));
    });
}

std::uint32_t OvraKbDelete(const std::string &keyword, const StrMap &writeConfigMap, const bool &flag)
{
    return RunChange(DELETE_MESSAGES, writeConfigMap, [&](PyObject *module, PyObject *dict) {
        return PyApi().PyObject_CallMethod(module, "ovra_kb_delete", "sOi", keyword.c_str(), dict,
                                           static_cast<int>(flag));
    });
}

std::uint32_t OvraKbSearch(const std::string &keyword, const StrMap &searchConfigMap, std::vector<StrMap> &results)
{
    // A finalisation waits for the search until it returns.
    CallGate::Call call;
    // Outlives the request's lock: a handle refused by the request is dropped after the lock is given back.
    PyObjectPtr taskHandle;
    std::uint32_t status =
        call.Admitted() ? OvraKbSearchReq(keyword, searchConfigMap, taskHandle) : RefuseSearchRequest(searchConfigMap);
    if (status != OVRA_KB_SUCCESS) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to call OvraKbSearchReq.");
        return status;
    }
    for (GilGuard::Turn turn = GilGuard::Turn::IN_TURN;; turn = GilGuard::Turn::AT_ONCE) {
        switch (PollSearchOnce(taskHandle, results, turn)) {
            case PollResult::FINISHED:
                return OVRA_KB_SUCCESS;
            case PollResult::CALL_FAILED:
                return OVRA_KB_PYTHON_CALL_FAILED;
            case PollResult::FLAG_FAILED:
                return OVRA_KB_CONFIG_KEY_MISSING;
            case PollResult::FINALISED:
                return OVRA_KB_PYTHON_UNAVAILABLE;
            case PollResult::NOT_FINISHED:
                break;
        }
        SleepOnePollInterval();
    }
}

}  // namespace PyInterface
}  // namespace OvraKb
