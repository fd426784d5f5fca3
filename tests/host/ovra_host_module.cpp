// A CPython extension module over init, search and finalize (write and delete take the lock as search does), for tests
// in which Python is the host process. Every call gives the interpreter lock back while the library works, as a
// well-behaved extension must: the library takes the lock itself when it needs it.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <string>
#include <vector>

#include "ovra_kb/ovra_kb_api.h"

namespace {

// Arguments: a dictionary of strings to read into `out`.
int ToStrMap(PyObject *dict, void *out)
{
    PyObject *key = nullptr;
    PyObject *value = nullptr;
    Py_ssize_t position = 0;
    if (!PyDict_Check(dict)) {
        PyErr_SetString(PyExc_TypeError, "a dict of str is expected");
        return 0;
    }
    while (PyDict_Next(dict, &position, &key, &value)) {
        const char *keyText = PyUnicode_AsUTF8(key);
        const char *valueText = PyUnicode_AsUTF8(value);
        if (keyText == nullptr || valueText == nullptr) {
            return 0;
        }
        (*static_cast<OvraKb::StrMap *>(out))[keyText] = valueText;
    }
    return 1;
}

PyObject *FromStrMap(const OvraKb::StrMap &map)
{
    PyObject *dict = PyDict_New();
    for (const auto &entry : map) {
        PyObject *value = PyUnicode_FromString(entry.second.c_str());
        PyDict_SetItemString(dict, entry.first.c_str(), value);
        Py_DECREF(value);
    }
    return dict;
}

// Runs `call` with the interpreter lock given back.
template <typename Call>
std::uint32_t Released(Call call)
{
    std::uint32_t status = 0;
    Py_BEGIN_ALLOW_THREADS
    status = call();
    Py_END_ALLOW_THREADS
    return status;
}

PyObject *Init(PyObject *, PyObject *args)
{
    OvraKb::StrMap sys;
    OvraKb::StrMap load;
    if (!PyArg_ParseTuple(args, "O&O&", ToStrMap, &sys, ToStrMap, &load)) {
        return nullptr;
    }
    return PyLong_FromUnsignedLong(Released([&] { return OvraKbInit(sys, load); }));
}

PyObject *Finalize(PyObject *, PyObject *)
{
    return PyLong_FromUnsignedLong(Released([] { return OvraKbFinalize(); }));
}

// search(keyword, config) -> (status, [row, ...])
PyObject *Search(PyObject *, PyObject *args)
{
    const char *keyword = nullptr;
    OvraKb::StrMap config;
    if (!PyArg_ParseTuple(args, "sO&", &keyword, ToStrMap, &config)) {
        return nullptr;
    }
    const std::string key = keyword;
    std::vector<OvraKb::StrMap> rows;
    std::uint32_t status = Released([&] { return OvraKbSearch(key, config, rows); });
    PyObject *list = PyList_New(0);
    for (const OvraKb::StrMap &row : rows) {
        PyObject *dict = FromStrMap(row);
        PyList_Append(list, dict);
        Py_DECREF(dict);
    }
    return Py_BuildValue("(kN)", static_cast<unsigned long>(status), list);
}

PyMethodDef g_methods[] = {
    {"init", Init, METH_VARARGS, "init(sys_config, load_config) -> status"},
    {"finalize", Finalize, METH_NOARGS, "finalize() -> status"},
    {"search", Search, METH_VARARGS, "search(keyword, config) -> (status, rows)"},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef g_module = {PyModuleDef_HEAD_INIT,
                        "ovra_host",
                        "libovra_kb for tests in a Python host",
                        -1,
                        g_methods,
                        nullptr,
                        nullptr,
                        nullptr,
                        nullptr};

}  // namespace

PyMODINIT_FUNC PyInit_ovra_host(void)
{
#if PY_VERSION_HEX < 0x03070000
    // Before 3.7 the interpreter lock exists only once threads are initialised; an extension
    // that gives the lock back around its calls has to create it first.
    PyEval_InitThreads();
#endif
    return PyModule_Create(&g_module);
}
