// A plug-in host's way to use libovra_kb: load it at run time, resolve the five functions by
// name into std::function objects of the matching signatures, and call them.
//   dlopen_consumer [LIBRARY] [BANK_DIR]
#include <dlfcn.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "ovra_kb/ovra_kb_api.h"

namespace {

using Rows = std::vector<OvraKb::StrMap>;

struct KnowledgeBase {
    std::function<std::uint32_t(const OvraKb::StrMap &, const OvraKb::StrMap &)> init;
    std::function<std::uint32_t()> finalize;
    std::function<std::uint32_t(const std::string &, const OvraKb::StrMap &, Rows &)> search;
    std::function<std::uint32_t(const std::string &, const std::string &, const OvraKb::StrMap &, const bool &)> write;
    std::function<std::uint32_t(const std::string &, const OvraKb::StrMap &, const bool &)> remove;
};

// Resolves `name` as a function of type Function (taken from the header's declaration with
// decltype, which does not link against the library).
template <typename Function>
bool Resolve(void *library, const char *name, std::function<Function> &out)
{
    void *symbol = dlsym(library, name);
    if (symbol == nullptr) {
        std::fprintf(stderr, "dlopen_consumer: %s is missing: %s\n", name, dlerror());
        return false;
    }
    out = reinterpret_cast<Function *>(symbol);
    return true;
}

bool Load(void *library, KnowledgeBase &kb)
{
    return Resolve<decltype(OvraKbInit)>(library, "OvraKbInit", kb.init) &&
           Resolve<decltype(OvraKbFinalize)>(library, "OvraKbFinalize", kb.finalize) &&
           Resolve<decltype(OvraKbSearch)>(library, "OvraKbSearch", kb.search) &&
           Resolve<decltype(OvraKbWrite)>(library, "OvraKbWrite", kb.write) &&
           Resolve<decltype(OvraKbDelete)>(library, "OvraKbDelete", kb.remove);
}

bool Step(const char *name, std::uint32_t status)
{
    std::printf("%-8s status %u\n", name, status);
    return status == 0;
}

}  // namespace

int main(int argc, char **argv)
{
    const char *path = argc > 1 ? argv[1] : "libovra_kb.so.0";
    const std::string bank = argc > 2 ? argv[2] : "/tmp/ovra-kb-dlopen";
    void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "dlopen_consumer: cannot load %s: %s\n", path, dlerror());
        return 1;
    }
    KnowledgeBase kb;
    if (!Load(library, kb)) {
        return 1;
    }
    const OvraKb::StrMap op = {{"op_type", "Conv2D"}};
    bool ok = Step("init", kb.init({{"soc_version", "soc-a1"}, {"core_num", "8"}}, {{"op_bank_path", bank}}));
    ok = ok && Step("write", kb.write("k3x3", "im2col for 3x3 kernels", op, true));
    Rows rows;
    ok = ok && Step("search", kb.search("k3x3", op, rows)) && rows.size() == 1;
    for (const OvraKb::StrMap &row : rows) {
        std::printf("  %s: %s\n", row.at("keyword").c_str(), row.at("knowledge").c_str());
    }
    ok = ok && Step("delete", kb.remove("k3x3", op, true));
    ok = Step("finalize", kb.finalize()) && ok;
    // The library stays loaded: the Python runtime it started may still run threads of its own.
    return ok ? 0 : 1;
}
