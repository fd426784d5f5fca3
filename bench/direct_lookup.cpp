// The exact search of the reference bank made from Python in this process, beside the library's: "package" calls
// the package's two entry points (ovra_kb_search_async, then ovra_kb_search_get on the handle), "sqlite3" runs
// the package's own query on a sqlite3 connection of its own to the same database. Each search is one call of a
// Python function under the interpreter lock, taken and given back as every bridge does; the rows stay Python
// objects (a row is counted, not converted).
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include "bench.h"
#include "python_gil.h"

namespace OvraBench {
namespace {

const char *const LOOKUPS = R"py(
import os, sqlite3
from oxe.common.repository_manager import interface as _kb
from oxe.common.repository_manager.storage.sqlite_backend import DB_FILE_NAME, SQL_EXACT

_conn = sqlite3.connect(os.path.join(BANK, DB_FILE_NAME), isolation_level=None, check_same_thread=False)
_config = {"op_type": "MatMul", "return_type": "str", "search_type": None}
_scope = (SOC_VERSION, CORE_NUM, "MatMul")

def sqlite3_exact(keyword):
    return _conn.execute(SQL_EXACT, _scope + (keyword,)).fetchall()

def package_exact(keyword):
    return _kb.ovra_kb_search_get(_kb.ovra_kb_search_async(keyword, dict(_config)))[1]
)py";

PyObject *g_namespace = nullptr;
PyObject *g_sqlite3Exact = nullptr;
PyObject *g_packageExact = nullptr;

std::uint32_t CallLookup(PyObject *function, const std::string &keyword, std::vector<StrMap> &results)
{
    Gil gil;
    PyObject *text = PyUnicode_FromStringAndSize(keyword.data(), static_cast<Py_ssize_t>(keyword.size()));
    PyObject *rows = text != nullptr ? PyObject_CallFunctionObjArgs(function, text, nullptr) : nullptr;
    Py_XDECREF(text);
    if (rows == nullptr || !PyList_Check(rows)) {
        PyErr_Print();
        Py_XDECREF(rows);
        return OvraKb::OVRA_KB_PYTHON_CALL_FAILED;
    }
    results.resize(static_cast<size_t>(PyList_GET_SIZE(rows)));
    Py_DECREF(rows);
    return OvraKb::OVRA_KB_SUCCESS;
}

std::uint32_t Sqlite3Search(const std::string &keyword, const StrMap &, std::vector<StrMap> &results)
{
    return CallLookup(g_sqlite3Exact, keyword, results);
}

std::uint32_t PackageSearch(const std::string &keyword, const StrMap &, std::vector<StrMap> &results)
{
    return CallLookup(g_packageExact, keyword, results);
}

}  // namespace

bool AttachDirectLookup(const std::string &bank, const StrMap &sysConfig)
{
    Gil gil;
    g_namespace = PyDict_New();
    bool ready = g_namespace != nullptr && PyDict_SetItemString(g_namespace, "__builtins__", PyEval_GetBuiltins()) == 0;
    for (const auto &item : {std::make_pair("BANK", bank), std::make_pair("SOC_VERSION", sysConfig.at("soc_version")),
                             std::make_pair("CORE_NUM", sysConfig.at("core_num"))}) {
        PyObject *value = PyUnicode_FromString(item.second.c_str());
        ready = ready && value != nullptr && PyDict_SetItemString(g_namespace, item.first, value) == 0;
        Py_XDECREF(value);
    }
    PyObject *done = ready ? PyRun_String(LOOKUPS, Py_file_input, g_namespace, g_namespace) : nullptr;
    if (done == nullptr) {
        PyErr_Print();
        return false;
    }
    Py_DECREF(done);
    g_sqlite3Exact = PyDict_GetItemString(g_namespace, "sqlite3_exact");
    g_packageExact = PyDict_GetItemString(g_namespace, "package_exact");
    return g_sqlite3Exact != nullptr && g_packageExact != nullptr;
}

void DetachDirectLookup()
{
    Gil gil;
    PyObject *closed =
        g_namespace != nullptr ? PyRun_String("_conn.close()", Py_eval_input, g_namespace, g_namespace) : nullptr;
    Py_XDECREF(closed);
    PyErr_Clear();
    g_sqlite3Exact = g_packageExact = nullptr;
    Py_CLEAR(g_namespace);
}

const Bridge &Sqlite3LookupBridge()
{
    static const Bridge bridge = {"sqlite3", nullptr, nullptr, Sqlite3Search, nullptr};
    return bridge;
}

const Bridge &PackageLookupBridge()
{
    static const Bridge bridge = {"package", nullptr, nullptr, PackageSearch, nullptr};
    return bridge;
}

}  // namespace OvraBench
