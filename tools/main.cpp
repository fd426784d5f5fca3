// ovra-kb: the knowledge base from the shell. See tools/README.md for the manual.
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "environment.h"
#include "options.h"
#include "ovra_kb/version.h"

namespace {

int Dispatch(const OvraCli::Options &options)
{
    switch (options.command) {
        case OvraCli::Command::kWrite:
            return OvraCli::RunWrite(options);
        case OvraCli::Command::kSearch:
            return OvraCli::RunSearch(options);
        case OvraCli::Command::kDelete:
            return OvraCli::RunDelete(options);
        case OvraCli::Command::kImport:
            return OvraCli::RunImport(options);
        case OvraCli::Command::kExport:
            return OvraCli::RunExport(options);
        case OvraCli::Command::kStats:
            return OvraCli::RunStats(options);
        case OvraCli::Command::kBackup:
            return OvraCli::RunBackup(options);
        case OvraCli::Command::kDemo:
            return OvraCli::RunDemo(options);
        case OvraCli::Command::kDoctor:
            return OvraCli::RunDoctor(options);
        case OvraCli::Command::kNone:
            break;
    }
    return OvraCli::kExitUsage;
}

}  // namespace

int main(int argc, char **argv)
{
    const OvraCli::ParsedCommandLine parsed =
        OvraCli::ParseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    const OvraCli::Options &options = parsed.options;
    if (!parsed.usageError.empty()) {
        std::fprintf(stderr, "ovra-kb: %s\n%s\n", parsed.usageError.c_str(),
                     OvraCli::UsageLine(options.command).c_str());
        return OvraCli::kExitUsage;
    }
    if (options.version) {
        std::printf("ovra-kb %s\nproven on %s, shared builds with the global interpreter lock\n",
                    OVRA_KB_VERSION_STRING, OvraCli::ProvenPythons().c_str());
        return 0;
    }
    if (options.help) {
        std::fputs(OvraCli::HelpText(options.command).c_str(), stdout);
        return 0;
    }
    OvraCli::ConfigureLibraryLog(options.verbose);
    return Dispatch(options);
}
