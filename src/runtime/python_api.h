#ifndef OVRA_KB_RUNTIME_PYTHON_API_H
#define OVRA_KB_RUNTIME_PYTHON_API_H

#include <sys/types.h>
#include <cstdint>

// This library carries its own declarations of the Python C-API it uses: the runtime is
// found and bound at run time, never included or linked.
namespace OvraKb {

// Python objects stay opaque; only the reference count (the object's first field) is touched.
struct PyObject;
struct PyThreadState;
struct PyModuleDef;
using Py_ssize_t = ssize_t;
enum PyGILState_STATE { PyGILState_LOCKED, PyGILState_UNLOCKED };

// The 47 entries of the Python API table, in binding order:
//   X(symbol looked up, name in the failure line, type of what the symbol addresses)
// Rows 1 to 3 address objects; the others are functions with the C-API signature.
#define OVRA_KB_PYTHON_API(X)                                                                              \
    X(_Py_TrueStruct, "Py_True", PyObject)                                                                 \
    X(_Py_FalseStruct, "Py_False", PyObject)                                                               \
    X(_Py_NoneStruct, "Py_None", PyObject)                                                                 \
    X(PyDict_New, "PyDict_New", PyObject *())                                                              \
    X(PyObject_Str, "PyObject_Str", PyObject *(PyObject *))                                                \
    X(PyArg_Parse, "PyArg_Parse", int(PyObject *, const char *, ...))                                      \
    X(PyArg_ParseTuple, "PyArg_ParseTuple", int(PyObject *, const char *, ...))                            \
    X(Py_BuildValue, "Py_BuildValue", PyObject *(const char *, ...))                                       \
    X(PyObject_CallFunction, "PyObject_CallFunction", PyObject *(PyObject *, const char *, ...))           \
    X(PyObject_CallMethod, "PyObject_CallMethod", PyObject *(PyObject *, const char *, const char *, ...)) \
    X(PyDict_GetItem, "PyDict_GetItem", PyObject *(PyObject *, PyObject *))                                \
    X(PyDict_GetItemString, "PyDict_GetItemString", PyObject *(PyObject *, const char *))                  \
    X(PyDict_Keys, "PyDict_Keys", PyObject *(PyObject *))                                                  \
    X(PyErr_Fetch, "PyErr_Fetch", void(PyObject **, PyObject **, PyObject **))                             \
    X(PyErr_NormalizeException, "PyErr_NormalizeException", void(PyObject **, PyObject **, PyObject **))   \
    X(PyErr_Print, "PyErr_Print", void())                                                                  \
    X(PyEval_InitThreads, "PyEval_InitThreads", void())                                                    \
    X(PyEval_RestoreThread, "PyEval_RestoreThread", void(PyThreadState *))                                 \
    X(PyEval_SaveThread, "PyEval_SaveThread", PyThreadState *())                                           \
    X(PyImport_GetModuleDict, "PyImport_GetModuleDict", PyObject *())                                      \
    X(PyImport_AddModule, "PyImport_AddModule", PyObject *(const char *))                                  \
    X(PyModule_Create2, "PyModule_Create2", PyObject *(PyModuleDef *, int))                                \
    X(PyEval_ThreadsInitialized, "PyEval_ThreadsInitialized", int())                                       \
    X(Py_Finalize, "Py_Finalize", void())                                                                  \
    X(PyGILState_Check, "PyGILState_Check", int())                                                         \
    X(PyGILState_Ensure, "PyGILState_Ensure", PyGILState_STATE())                                          \
    X(PyImport_ImportModule, "PyImport_ImportModule", PyObject *(const char *))                            \
    X(Py_Initialize, "Py_Initialize", void())                                                              \
    X(PyList_GetItem, "PyList_GetItem", PyObject *(PyObject *, Py_ssize_t))                                \
    X(Py_IsInitialized, "Py_IsInitialized", int())                                                         \
    X(PyList_New, "PyList_New", PyObject *(Py_ssize_t))                                                    \
    X(PyList_SetItem, "PyList_SetItem", int(PyObject *, Py_ssize_t, PyObject *))                           \
    X(PyList_Size, "PyList_Size", Py_ssize_t(PyObject *))                                                  \
    X(PyObject_Call, "PyObject_Call", PyObject *(PyObject *, PyObject *, PyObject *))                      \
    X(PyObject_GetAttrString, "PyObject_GetAttrString", PyObject *(PyObject *, const char *))              \
    X(PyObject_HasAttrString, "PyObject_HasAttrString", int(PyObject *, const char *))                     \
    X(PyObject_IsTrue, "PyObject_IsTrue", int(PyObject *))                                                 \
    X(PyTuple_GetItem, "PyTuple_GetItem", PyObject *(PyObject *, Py_ssize_t))                              \
    X(PyTuple_New, "PyTuple_New", PyObject *(Py_ssize_t))                                                  \
    X(PyTuple_SetItem, "PyTuple_SetItem", int(PyObject *, Py_ssize_t, PyObject *))                         \
    X(PyTuple_Size, "PyTuple_Size", Py_ssize_t(PyObject *))                                                \
    X(PyUnicode_AsUTF8, "PyUnicode_AsUTF8", const char *(PyObject *))                                      \
    X(PyUnicode_FromString, "PyUnicode_FromString", PyObject *(const char *))                              \
    X(PyGILState_Release, "PyGILState_Release", void(PyGILState_STATE))                                    \
    X(PyDict_SetItemString, "PyDict_SetItemString", int(PyObject *, const char *, PyObject *))             \
    X(PyDict_SetItem, "PyDict_SetItem", int(PyObject *, PyObject *, PyObject *))                           \
    X(_Py_Dealloc, "_Py_Dealloc", void(PyObject *))

// The reference count, a signed 64-bit integer at the start of every Python object.
inline std::int64_t &RefCount(PyObject *obj)
{
    return *reinterpret_cast<std::int64_t *>(obj);
}

}  // namespace OvraKb

#endif  // OVRA_KB_RUNTIME_PYTHON_API_H
