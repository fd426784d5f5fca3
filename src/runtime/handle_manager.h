#ifndef OVRA_KB_RUNTIME_HANDLE_MANAGER_H
#define OVRA_KB_RUNTIME_HANDLE_MANAGER_H

#include <atomic>
#include <mutex>
#include <string>
#include <type_traits>

#include "common/singleton.h"
#include "runtime/python_api.h"

namespace OvraKb {

// First line printed by the shell command `cmd` (line feed removed), or "" on any failure.
std::string GetPythonConfigByCmd(std::string cmd);
// LDLIBRARY of the python3 on the search path when it names a shared library, else "".
std::string GetPythonLibName();

// Owns the Python runtime's shared library for the process and the table of its C-API entry points.
class HandleManager : public Singleton<HandleManager> {
  public:
    // The Python API table: one typed pointer per entry, named after the C-API symbol it holds.
#define OVRA_KB_DECLARE_API_ENTRY(symbol, failureName, Type) std::add_pointer_t<Type> symbol = nullptr;
    OVRA_KB_PYTHON_API(OVRA_KB_DECLARE_API_ENTRY)
#undef OVRA_KB_DECLARE_API_ENTRY

    virtual ~HandleManager();

    bool LaunchDynamicLib();
    bool HandleClose();
    bool InitOvraKbFuncs();

    bool IsLoaded() const
    {
        return isLoaded_;
    }
    bool IsInited() const
    {
        return isInited_;
    }
    void *DlHandle() const
    {
        return dlHandle_;
    }

  private:
    friend class Singleton<HandleManager>;
    HandleManager() = default;

    void *dlHandle_ = nullptr;
    std::mutex handleMtx_;
    bool isLoaded_ = false;
    // Atomic because the operations' not-initialised guard reads it without the mutex.
    std::atomic<bool> isInited_{false};
};

// The process's handle manager, whose table every Python call goes through.
inline HandleManager &PyApi()
{
    return Singleton<HandleManager>::Instance();
}

}  // namespace OvraKb

#endif  // OVRA_KB_RUNTIME_HANDLE_MANAGER_H
