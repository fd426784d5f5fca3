#include "pywrapper/pywrapper.h"

#include <atomic>
#include <cctype>
#include <utility>

#include "common/common.h"
#include "runtime/handle_manager.h"

namespace OvraKb {
namespace {

const char *const FALLBACK_ERROR_CODE = "EC0010";

// Written under the start-up mutex while no operation runs, read by every operation.
std::atomic<bool> g_releaseKept{false};

// Python's None from the table, in place of a missing argument.
PyObject *OrNone(const PyObject *obj)
{
    return obj == nullptr ? PyApi()._Py_NoneStruct : const_cast<PyObject *>(obj);
}

}  // namespace

void PyObjectDecRef(PyObject *obj)
{
    if (obj == nullptr) {
        return;
    }
    HandleManager &api = PyApi();
    // Once the interpreter is gone its objects are simply abandoned.
    if (api.Py_IsInitialized() == 0) {
        return;
    }
    std::int64_t &count = RefCount(obj);
    count = count - 1;
    if (count == 0) {
        api._Py_Dealloc(obj);
    }
}

void PyObjectDecRecovery(std::vector<PyObject *> &objs, PyObject *&extra)
{
    for (PyObject *obj : objs) {
        PyObjectDecRef(obj);
    }
    PyObjectDecRef(extra);
}

void PyErrMessageReport(const PyObjectPtr &exc)
{
    StrMap details;
    std::string code;
    PyWrapper::UploadPyException(exc, details);
    auto found = details.find("errCode");
    if (found == details.end()) {
        OVRA_KB_LOG(OVRA_LEVEL_WARNING, "Failed to upload errcode message.");
        return;
    }
    code = found->second;
    if (ErrorManager::GetInstance().ReportErrMessage(code, details) == -1) {
        OVRA_KB_LOG(OVRA_LEVEL_WARNING, "Report error message failed.");
    }
}

namespace PyWrapper {

PyObject *g_pyFormatExceptionFunc = nullptr;
PyObject *g_pyPrintExceptionFunc = nullptr;
PyObject *g_pyUploadExceptionFunc = nullptr;

void PyObjectDecRefAll(std::vector<PyObject *> &&objs)
{
    for (size_t i = 0; i < objs.size(); ++i) {
        PyObjectDecRef(objs[i]);
    }
}

void SetReleaseKept(bool release)
{
    g_releaseKept.store(release, std::memory_order_relaxed);
}

bool ReleasesKept()
{
    return g_releaseKept.load(std::memory_order_relaxed);
}

void DropKept(PyObject *obj)
{
    if (ReleasesKept()) {
        PyObjectDecRef(obj);
    }
}

std::uint32_t PyParseStrList(PyObject *pyStrList, std::vector<std::string> &vstr)
{
    if (pyStrList == nullptr || !vstr.empty()) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "PyParseStrList: pyStrList is nullptr or vstr is empty.");
        return 0xFFFFFFFFU;
    }
    HandleManager &api = PyApi();
    Py_ssize_t size = api.PyList_Size(pyStrList);
    OVRA_KB_LOG(OVRA_LEVEL_DEBUG, "PyParseStrList: Length of pyStrList is [%zu].", static_cast<size_t>(size));
    if (size < 1) {
        return 0;
    }
    for (Py_ssize_t i = 0; i < size; ++i) {
        PyObject *item = api.PyList_GetItem(pyStrList, i);
        const char *text = nullptr;
        // All or nothing: a bad item discards what was read so far.
        if (item == nullptr || api.PyArg_Parse(item, "s", &text) == 0 || text == nullptr) {
            vstr.clear();
            return 0;
        }
        vstr.emplace_back(text);
    }
    return static_cast<std::uint32_t>(size);
}

std::uint32_t PyParseStrList(const PyObjectPtr &pyStrList, std::vector<std::string> &vstr)
{
    return PyParseStrList(pyStrList.get(), vstr);
}

void PydictToMap(PyObject *pyObj, StrMap &out)
{
    if (pyObj == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_WARNING, "PydictToMap: pyObj is nullptr.");
        return;
    }
    HandleManager &api = PyApi();
    std::shared_ptr<PyObject> keys(api.PyDict_Keys(pyObj), PyObjectDecRef);
    if (keys == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_WARNING, "pyUniques is nullptr or is not List.");
        return;
    }
    Py_ssize_t size = api.PyList_Size(keys.get());
    for (Py_ssize_t i = 0; i < size; ++i) {
        // Each item on its own: a bad one is skipped, the rest still arrive.
        PyObject *key = api.PyList_GetItem(keys.get(), i);
        PyObject *val = api.PyDict_GetItem(pyObj, key);
        if (key == nullptr) {
            OVRA_KB_LOG(OVRA_LEVEL_WARNING, "pyUnique is nullptr or is not string!");
            continue;
        }
        if (val == nullptr) {
            OVRA_KB_LOG(OVRA_LEVEL_WARNING, "pyVal is nullptr or is not string!");
            continue;
        }
        const char *keyText = api.PyUnicode_AsUTF8(key);
        const char *valText = api.PyUnicode_AsUTF8(val);
        if (keyText == nullptr || valText == nullptr) {
            OVRA_KB_LOG(OVRA_LEVEL_WARNING, "pUnique or pVal is nullptr!.");
            continue;
        }
        out[keyText] = valText;
    }
}

void PylistToVec(PyObject *pyObj, std::vector<StrMap> &out)
{
    if (pyObj == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_WARNING, "PylistToVec: pyObj is nullptr.");
        return;
    }
    HandleManager &api = PyApi();
    Py_ssize_t size = api.PyList_Size(pyObj);
    // One allocation for the rows of a long answer, instead of a dozen growths that each move every row so far.
    if (size > 0) {
        out.reserve(out.size() + static_cast<size_t>(size));
    }
    for (Py_ssize_t i = 0; i < size; ++i) {
        PyObject *row = api.PyList_GetItem(pyObj, i);
        if (row == nullptr) {
            OVRA_KB_LOG(OVRA_LEVEL_WARNING, "PylistToVec: pyKbMap is nullptr.");
            return;
        }
        StrMap mapTmp;
        PydictToMap(row, mapTmp);
        if (mapTmp.empty()) {
            OVRA_KB_LOG(OVRA_LEVEL_WARNING, "PylistToVec: mapTmp is empty.");
            return;
        }
        // Moved, not copied: mapTmp is not used again, and the row appended is the same.
        out.push_back(std::move(mapTmp));
    }
}

std::uint64_t StringSplit(const std::string &text, const std::string &separator, std::vector<std::string> &out)
{
    size_t pos = 0;
    size_t idx = text.find(separator, pos);
    while (idx != std::string::npos) {
        out.push_back(text.substr(pos, idx - pos));
        pos = idx + separator.size();
        idx = text.find(separator, pos);
    }
    std::string rest = text.substr(pos);
    if (!rest.empty()) {
        out.push_back(rest);
    }
    return out.size();
}

void Trim(std::string &s)
{
    size_t first = 0;
    while (first < s.size() && std::isspace(static_cast<unsigned char>(s[first])) != 0) {
        ++first;
    }
    s.erase(0, first);
    size_t end = s.size();
    while (end > 0 && std::isspace(static_cast<unsigned char>(s[end - 1])) != 0) {
        --end;
    }
    s.erase(end);
}

bool ParseStrMap(const std::string &text, StrMap &out)
{
    size_t left = text.find('{');
    size_t right = text.find('}');
    if (left == std::string::npos || right == std::string::npos || right < left || right - left == 1) {
        return false;
    }
    std::string body = text.substr(left + 1, right - left - 1);
    std::string unquoted;
    for (char c : body) {
        if (c != '\'') {
            unquoted += c;
        }
    }
    std::vector<std::string> pairs;
    StringSplit(unquoted, ",", pairs);
    for (const std::string &pair : pairs) {
        std::vector<std::string> keyValue;
        if (StringSplit(pair, ":", keyValue) != 2) {
            continue;
        }
        Trim(keyValue[0]);
        Trim(keyValue[1]);
        out[keyValue[0]] = keyValue[1];
    }
    return true;
}

std::string DealWithError(const std::string &errorText, StrMap &details)
{
    if (errorText.find("RuntimeError") == std::string::npos) {
        details["result"] = errorText;
        return FALLBACK_ERROR_CODE;
    }
    if (ParseStrMap(errorText, details)) {
        auto found = details.find("errCode");
        if (found != details.end()) {
            std::string code = found->second;
            details.erase(found);
            return code;
        }
    }
    details["result"] = errorText;
    return FALLBACK_ERROR_CODE;
}

void UploadPyException(const PyObjectPtr &exc, StrMap &details)
{
    HandleManager &api = PyApi();
    if (g_pyUploadExceptionFunc == nullptr) {
        api.PyErr_Print();
        return;
    }
    // The returned dictionary is kept alive on purpose.
    PyObject *dict = api.PyObject_CallFunction(g_pyUploadExceptionFunc, "OOO", OrNone(exc.type()), OrNone(exc.value()),
                                               OrNone(exc.traceback()));
    if (dict == nullptr) {
        api.PyErr_Print();
        return;
    }
    PydictToMap(dict, details);
    DropKept(dict);
}

void UploadPyException(PyObject *pyErrMsgTuple, StrMap &details)
{
    if (pyErrMsgTuple == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_WARNING, "PyErrMsgTuple is nullptr.");
        return;
    }
    HandleManager &api = PyApi();
    if (api.PyTuple_Size(pyErrMsgTuple) != 2) {
        OVRA_KB_LOG(OVRA_LEVEL_WARNING, "Failed to parse pyErrMsgTuple.");
        return;
    }
    PyObject *errDict = api.PyTuple_GetItem(pyErrMsgTuple, 0);
    PyObject *opName = api.PyTuple_GetItem(pyErrMsgTuple, 1);
    // Dropping the two borrowed items on these failure paths is deliberate.
    if (errDict == nullptr || opName == nullptr) {
        PyObjectDecRefAll({errDict, opName});
        OVRA_KB_LOG(OVRA_LEVEL_WARNING, "PyErrDict or pyOpName is nullptr.");
        return;
    }
    const char *name = api.PyUnicode_AsUTF8(opName);
    if (name == nullptr) {
        PyObjectDecRefAll({errDict, opName});
        OVRA_KB_LOG(OVRA_LEVEL_WARNING, "PyUnicode_AsUTF8 return nullptr.");
        return;
    }
    details["op_name"] = name;
    PydictToMap(errDict, details);
}

PyObject *GetFormatExcetpionFunc()
{
    HandleManager &api = PyApi();
    // The traceback module's reference is kept for the life of the process.
    PyObject *module = api.PyImport_ImportModule("traceback");
    if (module != nullptr) {
        return api.PyObject_GetAttrString(module, "format_exception");
    }
    api.PyErr_Print();
    OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Import module traceback failed.");
    return nullptr;
}

std::string GetPyException(const PyObject *type, const PyObject *value, const PyObject *traceback)
{
    std::string result;
    HandleManager &api = PyApi();
    if (g_pyFormatExceptionFunc == nullptr) {
        api.PyErr_Print();
        return result;
    }
    // The formatted lines are not released: this helper leaves that reference alone.
    PyObject *lines =
        api.PyObject_CallFunction(g_pyFormatExceptionFunc, "OOO", OrNone(type), OrNone(value), OrNone(traceback));
    if (lines == nullptr) {
        api.PyErr_Print();
        return result;
    }
    std::vector<std::string> texts;
    std::uint32_t count = PyParseStrList(lines, texts);
    DropKept(lines);
    if (count == 0 || texts.empty()) {
        api.PyErr_Print();
        return result;
    }
    for (const std::string &text : texts) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "%s", text.c_str());
    }
    result = texts.back();
    if (!result.empty()) {
        result.back() = '.';
    }
    return result;
}

PyExceptionTriple FetchNormalizedException()
{
    PyExceptionTriple exc;
    HandleManager &api = PyApi();
    api.PyErr_Fetch(&exc.type, &exc.value, &exc.traceback);
    api.PyErr_NormalizeException(&exc.type, &exc.value, &exc.traceback);
    return exc;
}

void DropKept(const PyExceptionTriple &exc)
{
    DropKept(exc.type);
    DropKept(exc.value);
    DropKept(exc.traceback);
}

void DiscardPendingError()
{
    PyExceptionTriple exc;
    PyApi().PyErr_Fetch(&exc.type, &exc.value, &exc.traceback);
    PyObjectDecRefAll({exc.type, exc.value, exc.traceback});
}

std::string GetPyException()
{
    PyExceptionTriple exc = FetchNormalizedException();
    std::string text = GetPyException(exc.type, exc.value, exc.traceback);
    DropKept(exc);
    return text;
}

PyObjectPtr ImportModule(const char *name)
{
    if (name == nullptr) {
        return PyObjectPtr();
    }
    PyObject *module = PyApi().PyImport_ImportModule(name);
    if (module != nullptr) {
        return PyObjectPtr(module);
    }
    std::string text = GetPyException();
    StrMap details;
    std::string code = DealWithError(text, details);
    (void)ErrorManager::GetInstance().ReportErrMessage(code, details);
    return PyObjectPtr();
}

}  // namespace PyWrapper
}  // namespace OvraKb
