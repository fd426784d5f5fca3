#ifndef OVRA_KB_INTERFACE_PY_INTERFACE_H
#define OVRA_KB_INTERFACE_PY_INTERFACE_H

#include <cstdint>
#include <string>
#include <vector>

#include "ovra_kb/ovra_kb_api.h"
#include "pywrapper/pywrapper.h"
#include "runtime/python_api.h"

namespace OvraKb {

// Checks: pure map work, no interpreter lock needed.
std::uint32_t CheckSysConfigMap(const StrMap &sysConfigMap);
std::uint32_t CheckLoadConfigMap(const StrMap &loadConfigMap);
std::uint32_t CheckSearchConfigMap(const StrMap &searchConfigMap);

// Builders: fill a dictionary the caller created; the caller holds the interpreter lock and
// passes only a map that passed its check.
std::uint32_t GetParamsFromSysConfig(const StrMap &sysConfigMap, PyObject *dict);
std::uint32_t GetParamsFromLoadConfig(const StrMap &loadConfigMap, PyObject *dict);
std::uint32_t GetParamsFromWriteConfig(const StrMap &writeConfigMap, PyObject *dict);
std::uint32_t GetParamsFromSearchConfig(const StrMap &searchConfigMap, PyObject *dict);

// Submits a search; on success `taskHandle` holds the module's task handle.
std::uint32_t OvraKbSearchReq(const std::string &keyword, const StrMap &searchConfigMap, PyObjectPtr &taskHandle);

namespace PyInterface {

std::uint32_t PyInterfaceInit();
std::uint32_t PyInterfaceDeinit();
std::uint32_t OvraKbInit(const StrMap &sysConfigMap, const StrMap &loadConfigMap);
std::uint32_t OvraKbFinalize();
std::uint32_t OvraKbWrite(const std::string &keyword, const std::string &knowledge, const StrMap &writeConfigMap,
                          const bool &flag);
std::uint32_t OvraKbDelete(const std::string &keyword, const StrMap &writeConfigMap, const bool &flag);
std::uint32_t OvraKbSearch(const std::string &keyword, const StrMap &searchConfigMap, std::vector<StrMap> &results);

}  // namespace PyInterface
}  // namespace OvraKb

#endif  // OVRA_KB_INTERFACE_PY_INTERFACE_H
