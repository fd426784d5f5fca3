#ifndef OVRA_KB_PYWRAPPER_PYWRAPPER_H
#define OVRA_KB_PYWRAPPER_PYWRAPPER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ovra_kb/ovra_kb_api.h"
#include "runtime/python_api.h"

namespace OvraKb {

// Releases one reference through the API table; does nothing for null or once the interpreter
// is gone. The caller holds the interpreter lock.
void PyObjectDecRef(PyObject *obj);
// Releases every object of `objs` in order, then `extra`; neither argument is changed.
void PyObjectDecRecovery(std::vector<PyObject *> &objs, PyObject *&extra);

// Holds one owned reference (dropped by the last copy) and, after a failed call, the
// exception triple, which it does not own.
class PyObjectPtr {
  public:
    PyObjectPtr() : obj_(nullptr, PyObjectDecRef) {}
    // Takes over the one reference of `obj`.
    explicit PyObjectPtr(PyObject *obj) : obj_(obj, PyObjectDecRef) {}
    PyObjectPtr(PyObject *obj, PyObject *type, PyObject *value, PyObject *traceback)
        : obj_(obj, PyObjectDecRef), type_(type), value_(value), traceback_(traceback)
    {
    }

    PyObject *get() const { return obj_.get(); }
    PyObject *type() const { return type_; }
    PyObject *value() const { return value_; }
    PyObject *traceback() const { return traceback_; }
    // Drops the held reference; the exception members stay as they are.
    void ResetObject() { obj_ = std::shared_ptr<PyObject>(nullptr, PyObjectDecRef); }

  private:
    std::shared_ptr<PyObject> obj_;
    PyObject *type_ = nullptr;
    PyObject *value_ = nullptr;
    PyObject *traceback_ = nullptr;
};

namespace PyWrapper {

// Set at each start-up of the Python side, never released.
extern PyObject *g_pyFormatExceptionFunc;
extern PyObject *g_pyPrintExceptionFunc;
extern PyObject *g_pyUploadExceptionFunc;

void PyObjectDecRefAll(std::vector<PyObject *> &&objs);

// Release mode, for hosts that run for months: the references that the operations keep for the life of the
// process on purpose (argument dictionaries, completion flags, None, exception triples, formatted lines and
// error details) are dropped as soon as the operation is done with them. Chosen when the Python side comes up.
void SetReleaseKept(bool release);
bool ReleasesKept();
// Drops a reference that is otherwise kept on purpose, in release mode only. The caller holds the lock.
void DropKept(PyObject *obj);

// Value conversion; all of them need the interpreter lock.
std::uint32_t PyParseStrList(PyObject *pyStrList, std::vector<std::string> &vstr);
std::uint32_t PyParseStrList(const PyObjectPtr &pyStrList, std::vector<std::string> &vstr);
void PydictToMap(PyObject *pyObj, StrMap &out);
void PylistToVec(PyObject *pyObj, std::vector<StrMap> &out);

// Error text parsing: pure string work.
std::uint64_t StringSplit(const std::string &text, const std::string &separator, std::vector<std::string> &out);
void Trim(std::string &s);
bool ParseStrMap(const std::string &text, StrMap &out);
std::string DealWithError(const std::string &errorText, StrMap &details);

// Error details from the knowledge base's log module; the caller holds the interpreter lock.
void UploadPyException(const PyObjectPtr &exc, StrMap &details);
void UploadPyException(PyObject *pyErrMsgTuple, StrMap &details);

// Exception capture and guarded import; the caller holds the interpreter lock.
struct PyExceptionTriple {
    PyObject *type = nullptr;
    PyObject *value = nullptr;
    PyObject *traceback = nullptr;
};
// Takes the pending exception out of the interpreter, normalised; the caller owns the references.
PyExceptionTriple FetchNormalizedException();
void DropKept(const PyExceptionTriple &exc);
// Takes whatever error is pending out of the interpreter and releases it, so that it cannot reach a later call.
void DiscardPendingError();
PyObject *GetFormatExcetpionFunc();
std::string GetPyException(const PyObject *type, const PyObject *value, const PyObject *traceback);
std::string GetPyException();
PyObjectPtr ImportModule(const char *name);

}  // namespace PyWrapper

// Sends the details of a failed knowledge-base call to the platform error manager.
void PyErrMessageReport(const PyObjectPtr &exc);

}  // namespace OvraKb

#endif  // OVRA_KB_PYWRAPPER_PYWRAPPER_H
