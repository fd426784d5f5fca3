// The library under test, through its exported functions only.
#include "bench.h"

namespace OvraBench {
namespace {

std::uint32_t Write(const std::string &keyword, const std::string &knowledge, const StrMap &config, bool flag)
{
    return OvraKbWrite(keyword, knowledge, config, flag);
}

std::uint32_t Erase(const std::string &keyword, const StrMap &config, bool flag)
{
    return OvraKbDelete(keyword, config, flag);
}

std::uint32_t Search(const std::string &keyword, const StrMap &config, std::vector<StrMap> &results)
{
    return OvraKbSearch(keyword, config, results);
}

std::uint32_t InitFinalize(const StrMap &sysConfig, const StrMap &loadConfig)
{
    std::uint32_t status = OvraKbInit(sysConfig, loadConfig);
    if (status != OvraKb::OVRA_KB_SUCCESS) {
        return status;
    }
    return OvraKbFinalize();
}

}  // namespace

const Bridge &LibraryBridge()
{
    static const Bridge bridge = {"library", Write, Erase, Search, InitFinalize};
    return bridge;
}

}  // namespace OvraBench
