#include "ovra_kb/ovra_kb_api.h"

#include <pthread.h>

#include "common/common.h"
#include "interface/py_interface.h"
#include "pyfunc/ovra_kb_pyfunc_mgr.h"

namespace PyInterface = OvraKb::PyInterface;

namespace {

// A thread cancelled inside a call would leave the interpreter lock, a thread state or a mutex of this library
// behind. Cancellation is held off for the length of the call; a request that came meanwhile takes effect at the
// thread's next cancellation point after the call returns.
class CancellationHeldOff {
  public:
    CancellationHeldOff() { (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_); }
    ~CancellationHeldOff() { (void)pthread_setcancelstate(previous_, nullptr); }
    CancellationHeldOff(const CancellationHeldOff &) = delete;
    CancellationHeldOff &operator=(const CancellationHeldOff &) = delete;

  private:
    int previous_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace

extern "C" std::uint32_t OvraKbInit(const OvraKb::StrMap &sysConfigMap, const OvraKb::StrMap &loadConfigMap)
{
    CancellationHeldOff noCancellation;
    std::uint32_t status = PyInterface::PyInterfaceInit();
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Run PyInterfaceInit Error!");
        return status;
    }
    // A failure here leaves the Python side up and counted: nothing is rolled back.
    status = PyInterface::OvraKbInit(sysConfigMap, loadConfigMap);
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Run OvraKbInit Error!");
    }
    return status;
}

extern "C" std::uint32_t OvraKbFinalize()
{
    CancellationHeldOff noCancellation;
    OvraKb::Finalisation finalisation;
    std::uint32_t status = PyInterface::OvraKbFinalize();
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        // The Python side stays up so that a later call can try the module's finalisation again.
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Run OvraKbFinalize Error!");
        return status;
    }
    status = PyInterface::PyInterfaceDeinit();
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Run PyInterfaceDeinit Error!");
    }
    return status;
}

extern "C" std::uint32_t OvraKbSearch(const std::string &keyword, const OvraKb::StrMap &searchConfigMap,
                                      std::vector<OvraKb::StrMap> &results)
{
    CancellationHeldOff noCancellation;
    std::uint32_t status = PyInterface::OvraKbSearch(keyword, searchConfigMap, results);
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Run OvraKbSearch Error!");
    }
    return status;
}

extern "C" std::uint32_t OvraKbWrite(const std::string &keyword, const std::string &knowledge,
                                     const OvraKb::StrMap &writeConfigMap, const bool &flag)
{
    CancellationHeldOff noCancellation;
    std::uint32_t status = PyInterface::OvraKbWrite(keyword, knowledge, writeConfigMap, flag);
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Run OvraKbWrite Error!");
    }
    return status;
}

extern "C" std::uint32_t OvraKbDelete(const std::string &keyword, const OvraKb::StrMap &writeConfigMap,
                                      const bool &flag)
{
    CancellationHeldOff noCancellation;
    std::uint32_t status = PyInterface::OvraKbDelete(keyword, writeConfigMap, flag);
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Run OvraKbDelete Error!");
    }
    return status;
}
