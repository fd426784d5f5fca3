// Two hand-written C-API bridges against the runtime this program links. Both take and give back the lock
// with PyGILState_Ensure and PyGILState_Release around every call, look the module's function up by name at
// every call and build the same argument dictionaries as the library.
//
// "capi", the floor of any bridge: names and constant keys are made once (interned), arguments are built
//   with PyUnicode_FromStringAndSize, the call is PyObject_CallFunctionObjArgs, the answer is read with
//   PyLong_AsLong, rows with PyDict_Next, and every object made is released.
// "capi_mirror": the library's own sequence of C-API calls written out by hand, with its formats
//   (PyObject_CallMethod, Py_BuildValue "s", PyDict_SetItemString, PyArg_Parse "i" and "s", PyDict_Keys) and
//   the references it keeps (the dictionaries of write, delete and init, one reference on None per search
//   without a search type and on the completion flag per poll), without the library's C++ layers. The floor,
//   the mirror and the library side by side tell the cost of those choices from the cost of the C++ code.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include "bench.h"
#include "python_gil.h"

namespace OvraBench {
namespace {

constexpr std::uint32_t SUCCESS = OvraKb::OVRA_KB_SUCCESS;
constexpr std::uint32_t KEY_MISSING = OvraKb::OVRA_KB_CONFIG_KEY_MISSING;
constexpr std::uint32_t CONVERSION_FAILED = OvraKb::OVRA_KB_VALUE_CONVERSION_FAILED;
constexpr std::uint32_t CALL_FAILED = OvraKb::OVRA_KB_PYTHON_CALL_FAILED;

PyObject *g_module = nullptr;

// Interned once by AttachCApi: the six function names, the dictionary keys and the constant "str".
struct Names {
    PyObject *init;
    PyObject *finalize;
    PyObject *write;
    PyObject *erase;
    PyObject *searchAsync;
    PyObject *searchGet;
    PyObject *opType;
    PyObject *returnType;
    PyObject *searchType;
    PyObject *socVersion;
    PyObject *coreNum;
    PyObject *opBankPath;
    PyObject *str;
};
Names g_names{};

// ---------------------------------------------------------------- the floor

PyObject *Text(const std::string &text)
{
    return PyUnicode_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size()));
}

// Stores `text` as a str under the interned `key`; false (with the Python error set) when it could not.
bool SetText(PyObject *dict, PyObject *key, const std::string &text)
{
    PyObject *value = Text(text);
    if (value == nullptr) {
        return false;
    }
    int failed = PyDict_SetItem(dict, key, value);
    Py_DECREF(value);
    return failed == 0;
}

// The dictionary of write and delete: {"op_type": str}.
PyObject *ChangeDict(const std::string &opType)
{
    PyObject *dict = PyDict_New();
    if (dict != nullptr && !SetText(dict, g_names.opType, opType)) {
        Py_CLEAR(dict);
    }
    return dict;
}

// Looks `name` up on the module and calls it with the arguments (a null-terminated list).
template <typename... Args>
PyObject *CallByName(PyObject *name, Args... args)
{
    PyObject *function = PyObject_GetAttr(g_module, name);
    if (function == nullptr) {
        return nullptr;
    }
    PyObject *reply = PyObject_CallFunctionObjArgs(function, args..., nullptr);
    Py_DECREF(function);
    return reply;
}

// The module answered with the int 0.
std::uint32_t ZeroOrFailure(PyObject *reply)
{
    if (reply == nullptr) {
        PyErr_Print();
        return CALL_FAILED;
    }
    long code = PyLong_AsLong(reply);
    Py_DECREF(reply);
    if (code == -1 && PyErr_Occurred() != nullptr) {
        PyErr_Clear();
    }
    return code == 0 ? SUCCESS : CALL_FAILED;
}

// Builds the positional str arguments, calls, and releases them.
template <size_t N>
PyObject *CallWithTexts(PyObject *name, const std::string *(&texts)[N], PyObject *dict, PyObject *flag)
{
    PyObject *values[N];
    size_t built = 0;
    for (; built < N; ++built) {
        values[built] = Text(*texts[built]);
        if (values[built] == nullptr) {
            break;
        }
    }
    PyObject *reply = nullptr;
    if (built == N) {
        if constexpr (N == 2) {
            reply = CallByName(name, values[0], values[1], dict, flag);
        } else {
            reply = CallByName(name, values[0], dict, flag);
        }
    }
    for (size_t i = 0; i < built; ++i) {
        Py_DECREF(values[i]);
    }
    return reply;
}

std::uint32_t Write(const std::string &keyword, const std::string &knowledge, const StrMap &config, bool flag)
{
    auto opType = config.find("op_type");
    if (opType == config.end()) {
        return KEY_MISSING;
    }
    Gil gil;
    PyObject *dict = ChangeDict(opType->second);
    if (dict == nullptr) {
        PyErr_Clear();
        return CONVERSION_FAILED;
    }
    const std::string *texts[] = {&keyword, &knowledge};
    PyObject *flagValue = PyLong_FromLong(flag ? 1 : 0);
    PyObject *reply = CallWithTexts(g_names.write, texts, dict, flagValue);
    Py_DECREF(flagValue);
    Py_DECREF(dict);
    return ZeroOrFailure(reply);
}

std::uint32_t Erase(const std::string &keyword, const StrMap &config, bool flag)
{
    auto opType = config.find("op_type");
    if (opType == config.end()) {
        return KEY_MISSING;
    }
    Gil gil;
    PyObject *dict = ChangeDict(opType->second);
    if (dict == nullptr) {
        PyErr_Clear();
        return CONVERSION_FAILED;
    }
    const std::string *texts[] = {&keyword};
    PyObject *flagValue = PyLong_FromLong(flag ? 1 : 0);
    PyObject *reply = CallWithTexts(g_names.erase, texts, dict, flagValue);
    Py_DECREF(flagValue);
    Py_DECREF(dict);
    return ZeroOrFailure(reply);
}

// The dictionary of a search: {"op_type": str, "return_type": "str", "search_type": str or None}.
PyObject *SearchDict(const std::string &opType, const StrMap &config)
{
    PyObject *dict = PyDict_New();
    if (dict == nullptr) {
        return nullptr;
    }
    auto searchType = config.find("search_type");
    bool filled = SetText(dict, g_names.opType, opType) && PyDict_SetItem(dict, g_names.returnType, g_names.str) == 0 &&
                  (searchType != config.end() ? SetText(dict, g_names.searchType, searchType->second)
                                              : PyDict_SetItem(dict, g_names.searchType, Py_None) == 0);
    if (!filled) {
        Py_CLEAR(dict);
    }
    return dict;
}

// Appends one map per dictionary of `rows`, a list of dictionaries from str to str.
void AppendRows(PyObject *rows, std::vector<StrMap> &results)
{
    if (!PyList_Check(rows)) {
        return;
    }
    Py_ssize_t count = PyList_GET_SIZE(rows);
    for (Py_ssize_t i = 0; i < count; ++i) {
        PyObject *row = PyList_GET_ITEM(rows, i);
        if (!PyDict_Check(row)) {
            return;
        }
        StrMap map;
        Py_ssize_t position = 0;
        PyObject *key = nullptr;
        PyObject *value = nullptr;
        while (PyDict_Next(row, &position, &key, &value) != 0) {
            const char *keyText = PyUnicode_AsUTF8(key);
            const char *valueText = PyUnicode_AsUTF8(value);
            if (keyText == nullptr || valueText == nullptr) {
                PyErr_Clear();
                continue;
            }
            map.emplace(keyText, valueText);
        }
        results.push_back(std::move(map));
    }
}

std::uint32_t Search(const std::string &keyword, const StrMap &config, std::vector<StrMap> &results)
{
    auto opType = config.find("op_type");
    if (opType == config.end()) {
        return KEY_MISSING;
    }
    PyObject *task = nullptr;
    {
        Gil gil;
        PyObject *dict = SearchDict(opType->second, config);
        if (dict == nullptr) {
            PyErr_Clear();
            return CONVERSION_FAILED;
        }
        PyObject *text = Text(keyword);
        task = text != nullptr ? CallByName(g_names.searchAsync, text, dict) : nullptr;
        Py_XDECREF(text);
        Py_DECREF(dict);
        if (task == nullptr) {
            PyErr_Print();
            return CALL_FAILED;
        }
        if (!PyUnicode_Check(task) || PyUnicode_GetLength(task) == 0) {
            Py_DECREF(task);
            return CALL_FAILED;
        }
    }
    for (;;) {
        {
            Gil gil;
            PyObject *reply = CallByName(g_names.searchGet, task);
            if (reply == nullptr || !PyTuple_Check(reply) || PyTuple_GET_SIZE(reply) < 2) {
                if (reply == nullptr) {
                    PyErr_Print();
                }
                Py_XDECREF(reply);
                Py_DECREF(task);
                return CALL_FAILED;
            }
            int finished = PyObject_IsTrue(PyTuple_GET_ITEM(reply, 0));
            if (finished != 0) {
                if (finished == 1) {
                    AppendRows(PyTuple_GET_ITEM(reply, 1), results);
                } else {
                    PyErr_Clear();
                }
                Py_DECREF(reply);
                Py_DECREF(task);
                return finished == 1 ? SUCCESS : KEY_MISSING;
            }
            Py_DECREF(reply);
        }
        SleepOnePollInterval();
    }
}

std::uint32_t InitFinalize(const StrMap &sysConfig, const StrMap &loadConfig)
{
    {
        Gil gil;
        PyObject *sysDict = PyDict_New();
        PyObject *loadDict = PyDict_New();
        bool filled = sysDict != nullptr && loadDict != nullptr &&
                      SetText(sysDict, g_names.socVersion, sysConfig.at("soc_version")) &&
                      SetText(sysDict, g_names.coreNum, sysConfig.at("core_num")) &&
                      SetText(loadDict, g_names.opBankPath, loadConfig.at("op_bank_path"));
        PyObject *reply = filled ? CallByName(g_names.init, sysDict, loadDict) : nullptr;
        Py_XDECREF(sysDict);
        Py_XDECREF(loadDict);
        std::uint32_t status = ZeroOrFailure(reply);
        if (status != SUCCESS) {
            return status;
        }
    }
    Gil gil;
    PyObject *reply = CallByName(g_names.finalize);
    if (reply == nullptr) {
        PyErr_Print();
        return CALL_FAILED;
    }
    Py_DECREF(reply);
    return SUCCESS;
}

// ---------------------------------------------------------------- the mirror of the library's calls

bool MirrorParsesAsZero(PyObject *reply)
{
    int code = 0;
    return PyArg_Parse(reply, "i", &code) != 0 && code == 0;
}

// Write and delete: {"op_type"} built with Py_BuildValue and kept, one PyObject_CallMethod, PyArg_Parse "i".
template <typename CallModule>
std::uint32_t MirrorChange(const StrMap &config, CallModule callModule)
{
    auto opType = config.find("op_type");
    if (opType == config.end()) {
        return KEY_MISSING;
    }
    Gil gil;
    PyObject *dict = PyDict_New();
    if (dict == nullptr) {
        return OvraKb::OVRA_KB_DICT_CREATION_FAILED;
    }
    PyObject *value = Py_BuildValue("s", opType->second.c_str());
    if (value == nullptr) {
        Py_DECREF(dict);
        return CONVERSION_FAILED;
    }
    (void)PyDict_SetItemString(dict, "op_type", value);
    Py_DECREF(value);
    // The dictionary is kept, as the library keeps it.
    PyObject *reply = callModule(dict);
    if (reply == nullptr) {
        PyErr_Print();
        return CALL_FAILED;
    }
    bool zero = MirrorParsesAsZero(reply);
    Py_DECREF(reply);
    return zero ? SUCCESS : CALL_FAILED;
}

std::uint32_t MirrorWrite(const std::string &keyword, const std::string &knowledge, const StrMap &config, bool flag)
{
    return MirrorChange(config, [&](PyObject *dict) {
        return PyObject_CallMethod(g_module, "ovra_kb_write", "ssOi", keyword.c_str(), knowledge.c_str(), dict,
                                   static_cast<int>(flag));
    });
}

std::uint32_t MirrorErase(const std::string &keyword, const StrMap &config, bool flag)
{
    return MirrorChange(config, [&](PyObject *dict) {
        return PyObject_CallMethod(g_module, "ovra_kb_delete", "sOi", keyword.c_str(), dict, static_cast<int>(flag));
    });
}

// Rows as the library reads them: PyDict_Keys, then PyDict_GetItem and PyUnicode_AsUTF8 for each key.
void MirrorAppendRows(PyObject *rows, std::vector<StrMap> &results)
{
    Py_ssize_t count = PyList_Size(rows);
    for (Py_ssize_t i = 0; i < count; ++i) {
        PyObject *row = PyList_GetItem(rows, i);
        if (row == nullptr) {
            return;
        }
        StrMap map;
        PyObject *keys = PyDict_Keys(row);
        if (keys != nullptr) {
            Py_ssize_t size = PyList_Size(keys);
            for (Py_ssize_t k = 0; k < size; ++k) {
                PyObject *key = PyList_GetItem(keys, k);
                PyObject *value = PyDict_GetItem(row, key);
                const char *keyText = key != nullptr ? PyUnicode_AsUTF8(key) : nullptr;
                const char *valueText = value != nullptr ? PyUnicode_AsUTF8(value) : nullptr;
                if (keyText != nullptr && valueText != nullptr) {
                    map[keyText] = valueText;
                }
            }
            Py_DECREF(keys);
        }
        if (map.empty()) {
            return;
        }
        results.push_back(std::move(map));
    }
}

std::uint32_t MirrorSearch(const std::string &keyword, const StrMap &config, std::vector<StrMap> &results)
{
    auto opType = config.find("op_type");
    if (opType == config.end()) {
        return KEY_MISSING;
    }
    PyObject *task = nullptr;
    {
        Gil gil;
        PyObject *dict = PyDict_New();
        if (dict == nullptr) {
            return OvraKb::OVRA_KB_DICT_CREATION_FAILED;
        }
        PyObject *opTypeValue = Py_BuildValue("s", opType->second.c_str());
        PyObject *returnType = Py_BuildValue("s", "str");
        PyObject *searchType = nullptr;
        auto found = config.find("search_type");
        bool built = found != config.end();
        if (built) {
            searchType = Py_BuildValue("s", found->second.c_str());
        } else {
            // One reference on None kept per search without a search type, as the library keeps it.
            searchType = Py_None;
            Py_INCREF(searchType);
        }
        if (opTypeValue == nullptr || returnType == nullptr || searchType == nullptr) {
            Py_XDECREF(opTypeValue);
            Py_XDECREF(returnType);
            if (built) {
                Py_XDECREF(searchType);
            }
            Py_DECREF(dict);
            return CONVERSION_FAILED;
        }
        (void)PyDict_SetItemString(dict, "op_type", opTypeValue);
        (void)PyDict_SetItemString(dict, "return_type", returnType);
        (void)PyDict_SetItemString(dict, "search_type", searchType);
        Py_DECREF(opTypeValue);
        Py_DECREF(returnType);
        if (built) {
            Py_DECREF(searchType);
        }
        task = PyObject_CallMethod(g_module, "ovra_kb_search_async", "sO", keyword.c_str(), dict);
        const char *text = nullptr;
        bool accepted = task != nullptr && PyArg_Parse(task, "s", &text) != 0 && text != nullptr && text[0] != '\0';
        Py_DECREF(dict);
        if (!accepted) {
            if (task == nullptr) {
                PyErr_Print();
            }
            Py_XDECREF(task);
            return CALL_FAILED;
        }
    }
    for (;;) {
        {
            Gil gil;
            PyObject *reply = PyObject_CallMethod(g_module, "ovra_kb_search_get", "O", task);
            if (reply == nullptr) {
                PyErr_Print();
                Py_DECREF(task);
                return CALL_FAILED;
            }
            PyObject *finished = PyTuple_GetItem(reply, 0);
            // One reference on the flag kept per poll, as the library keeps it.
            Py_INCREF(finished);
            int truth = PyObject_IsTrue(finished);
            if (truth != 0) {
                if (truth == 1) {
                    MirrorAppendRows(PyTuple_GetItem(reply, 1), results);
                }
                Py_DECREF(task);
                Py_DECREF(reply);
                return truth == 1 ? SUCCESS : KEY_MISSING;
            }
            Py_DECREF(reply);
        }
        SleepOnePollInterval();
    }
}

std::uint32_t MirrorInitFinalize(const StrMap &sysConfig, const StrMap &loadConfig)
{
    {
        Gil gil;
        PyObject *sysDict = PyDict_New();
        PyObject *soc = Py_BuildValue("s", sysConfig.at("soc_version").c_str());
        PyObject *cores = Py_BuildValue("s", sysConfig.at("core_num").c_str());
        (void)PyDict_SetItemString(sysDict, "soc_version", soc);
        (void)PyDict_SetItemString(sysDict, "core_num", cores);
        Py_DECREF(soc);
        Py_DECREF(cores);
        PyObject *loadDict = PyDict_New();
        PyObject *bank = Py_BuildValue("s", loadConfig.at("op_bank_path").c_str());
        (void)PyDict_SetItemString(loadDict, "op_bank_path", bank);
        Py_DECREF(bank);
        // Both dictionaries are kept, as the library keeps them.
        PyObject *reply = PyObject_CallMethod(g_module, "ovra_kb_init", "OO", sysDict, loadDict);
        if (reply == nullptr) {
            PyErr_Print();
            return CALL_FAILED;
        }
        bool zero = MirrorParsesAsZero(reply);
        Py_DECREF(reply);
        if (!zero) {
            return CALL_FAILED;
        }
    }
    Gil gil;
    PyObject *reply = PyObject_CallMethod(g_module, "ovra_kb_finalize", "");
    if (reply == nullptr) {
        PyErr_Print();
        return CALL_FAILED;
    }
    Py_DECREF(reply);
    return SUCCESS;
}

}  // namespace

void AttachCApi()
{
    Gil gil;
    g_module = PyImport_ImportModule(KB_MODULE);
    if (g_module == nullptr) {
        PyErr_Print();
    }
    g_names = {PyUnicode_InternFromString("ovra_kb_init"),
               PyUnicode_InternFromString("ovra_kb_finalize"),
               PyUnicode_InternFromString("ovra_kb_write"),
               PyUnicode_InternFromString("ovra_kb_delete"),
               PyUnicode_InternFromString("ovra_kb_search_async"),
               PyUnicode_InternFromString("ovra_kb_search_get"),
               PyUnicode_InternFromString("op_type"),
               PyUnicode_InternFromString("return_type"),
               PyUnicode_InternFromString("search_type"),
               PyUnicode_InternFromString("soc_version"),
               PyUnicode_InternFromString("core_num"),
               PyUnicode_InternFromString("op_bank_path"),
               PyUnicode_InternFromString("str")};
}

void DetachCApi()
{
    Gil gil;
    for (PyObject **name : {&g_names.init, &g_names.finalize, &g_names.write, &g_names.erase, &g_names.searchAsync,
                            &g_names.searchGet, &g_names.opType, &g_names.returnType, &g_names.searchType,
                            &g_names.socVersion, &g_names.coreNum, &g_names.opBankPath, &g_names.str}) {
        Py_CLEAR(*name);
    }
    Py_CLEAR(g_module);
}

const Bridge &CApiBridge()
{
    static const Bridge bridge = {"capi", Write, Erase, Search, InitFinalize};
    return bridge;
}

const Bridge &CApiMirrorBridge()
{
    static const Bridge bridge = {"capi_mirror", MirrorWrite, MirrorErase, MirrorSearch, MirrorInitFinalize};
    return bridge;
}

}  // namespace OvraBench
