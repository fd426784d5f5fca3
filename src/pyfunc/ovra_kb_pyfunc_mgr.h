#ifndef OVRA_KB_PYFUNC_OVRA_KB_PYFUNC_MGR_H
#define OVRA_KB_PYFUNC_OVRA_KB_PYFUNC_MGR_H

#include <atomic>
#include <cstdint>
#include <mutex>

#include "common/singleton.h"
#include "pywrapper/pywrapper.h"
#include "runtime/python_api.h"

namespace OvraKb {

// Brings the Python side up for the first user and down after the last one.
class OvraKbPyfuncMgr : public Singleton<OvraKbPyfuncMgr> {
  public:
    virtual ~OvraKbPyfuncMgr() = default;

    bool PyObjectInit();
    void PyObjectDeinit();
    bool Init();
    const PyObjectPtr &GetOvraKbInterface() const { return ovraKbInterface_; }

    void PyEnvInit();
    void PyEnvDeinit();

    PyThreadState *SavedThreadState() const { return savedThreadState_; }
    bool PyAlreadyInited() const { return pyAlreadyInited_; }

    // Successful initialisations not yet matched by a finalisation. Changed only under
    // gInitPyFuncMtx_; atomic because the entry logs read it without that lock.
    static std::atomic<std::uint64_t> reference_;
    // Serialises start-up and tear-down; the outermost lock of the library.
    static std::mutex gInitPyFuncMtx_;

  private:
    friend class Singleton<OvraKbPyfuncMgr>;
    OvraKbPyfuncMgr();

    PyThreadState *savedThreadState_ = nullptr;
    bool pyAlreadyInited_ = false;
    PyObjectPtr ovraKbInterface_;
};

}  // namespace OvraKb

#endif  // OVRA_KB_PYFUNC_OVRA_KB_PYFUNC_MGR_H
