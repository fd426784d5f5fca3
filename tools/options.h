// The command line of ovra-kb: subcommands, options and their help texts.
#ifndef OVRA_KB_TOOLS_OPTIONS_H
#define OVRA_KB_TOOLS_OPTIONS_H

#include <string>
#include <vector>

namespace OvraCli {

// Exit statuses besides 0 and the library's own 2 to 6 (sysexits.h values where one fits).
constexpr int kExitProblemFound = 1;  // doctor: at least one check failed
constexpr int kExitUsage = 64;
constexpr int kExitBadData = 65;       // import: a line is not a record the knowledge base would take
constexpr int kExitNoInput = 66;       // import: the file cannot be read
constexpr int kExitCannotCreate = 73;  // export: the file cannot be written
constexpr int kExitInterrupted = 130;  // Ctrl-C, as a shell reports a process ended by SIGINT

enum class Command { kNone, kWrite, kSearch, kDelete, kImport, kExport, kStats, kBackup, kDemo, kDoctor };

struct Options {
    Command command = Command::kNone;
    std::vector<std::string> operands;
    std::string bank;  // empty: DefaultBankDir()
    std::string soc = "soc-a1";
    std::string cores = "8";
    std::string opType = "generic";
    bool opTypeGiven = false;
    std::string searchType = "exact";
    bool json = false;
    bool oneChip = false;       // export: only the chip of --soc and --cores, in lines without a chip
    std::string knowledgeFile;  // write: the knowledge is this file's content
    bool verbose = false;
    bool help = false;
    bool version = false;
};

struct ParsedCommandLine {
    Options options;
    std::string usageError;  // empty when the command line is valid
};

ParsedCommandLine ParseCommandLine(const std::vector<std::string> &args);

// "usage: ovra-kb ..." for one command, or the list of commands for Command::kNone.
std::string UsageLine(Command command);
// The full help of one command, or of the whole program for Command::kNone.
std::string HelpText(Command command);

}  // namespace OvraCli

#endif  // OVRA_KB_TOOLS_OPTIONS_H
