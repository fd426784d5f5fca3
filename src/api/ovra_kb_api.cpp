#include "ovra_kb/ovra_kb_api.h"

#include "common/common.h"
#include "interface/py_interface.h"

namespace PyInterface = OvraKb::PyInterface;

extern "C" std::uint32_t OvraKbInit(const OvraKb::StrMap &sysConfigMap, const OvraKb::StrMap &loadConfigMap)
{
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
    std::uint32_t status = PyInterface::OvraKbSearch(keyword, searchConfigMap, results);
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Run OvraKbSearch Error!");
    }
    return status;
}

extern "C" std::uint32_t OvraKbWrite(const std::string &keyword, const std::string &knowledge,
                                     const OvraKb::StrMap &writeConfigMap, const bool &flag)
{
    std::uint32_t status = PyInterface::OvraKbWrite(keyword, knowledge, writeConfigMap, flag);
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Run OvraKbWrite Error!");
    }
    return status;
}

extern "C" std::uint32_t OvraKbDelete(const std::string &keyword, const OvraKb::StrMap &writeConfigMap,
                                      const bool &flag)
{
    std::uint32_t status = PyInterface::OvraKbDelete(keyword, writeConfigMap, flag);
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Run OvraKbDelete Error!");
    }
    return status;
}
