// The smallest consumer of libovra_kb: initialise, write, search, delete, finalise.
//   quickstart [BANK_DIR]
// The knowledge-base package must be importable by the python3 on the search path
// (for example through PYTHONPATH).
#include <cstdio>
#include <string>
#include <vector>

#include "ovra_kb/ovra_kb_api.h"

namespace {

bool Report(const char *step, std::uint32_t status)
{
    std::printf("%-8s status %u\n", step, status);
    return status == OvraKb::OVRA_KB_SUCCESS;
}

}  // namespace

int main(int argc, char **argv)
{
    const std::string bank = argc > 1 ? argv[1] : "/tmp/ovra-kb-quickstart";
    const OvraKb::StrMap sysConfig = {{"soc_version", "soc-a1"}, {"core_num", "8"}};
    const OvraKb::StrMap loadConfig = {{"op_bank_path", bank}};
    const OvraKb::StrMap opConfig = {{"op_type", "MatMul"}};

    if (!Report("init", OvraKbInit(sysConfig, loadConfig))) {
        return 1;
    }
    bool ok = Report("write", OvraKbWrite("tile_m128", "split M by 128 for the cube unit", opConfig, true));
    std::vector<OvraKb::StrMap> rows;
    ok = Report("search", OvraKbSearch("tile_m128", opConfig, rows)) && ok;
    for (const OvraKb::StrMap &row : rows) {
        std::printf("  row:");
        for (const auto &entry : row) {
            std::printf(" %s=%s", entry.first.c_str(), entry.second.c_str());
        }
        std::printf("\n");
    }
    ok = Report("delete", OvraKbDelete("tile_m128", opConfig, true)) && ok;
    ok = Report("finalize", OvraKbFinalize()) && ok;
    return ok && rows.size() == 1 ? 0 : 1;
}
