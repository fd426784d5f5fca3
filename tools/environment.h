// What ovra-kb takes from its environment: the bank, the library's log level, python3 and the package.
#ifndef OVRA_KB_TOOLS_ENVIRONMENT_H
#define OVRA_KB_TOOLS_ENVIRONMENT_H

#include <string>

namespace OvraCli {

// The modules the library imports at start-up.
extern const char *const kInterfaceModule;
extern const char *const kLogModule;
// The database file of a bank directory (the reference package's SQLite bank).
extern const char *const kBankDatabase;

// $OVRA_KB_BANK, else $XDG_DATA_HOME/ovra-kb/bank, else ~/.local/share/ovra-kb/bank.
std::string DefaultBankDir();

// With `verbose` the library logs at info level with event lines; otherwise it is silent unless the user
// chose a level, because the command reports failures itself in one line.
void ConfigureLibraryLog(bool verbose);

// The first executable called `name` in the directories of PATH, or "" when there is none.
std::string FindOnPath(const std::string &name);

// The PYTHONPATH that lets python3 import the knowledge-base package.
struct PythonPathChoice {
    std::string value;
    bool usersOwn = false;  // the user's PYTHONPATH (or python3's own paths) already worked
};
PythonPathChoice ChoosePythonPath();

// Exports the choice: the embedded interpreter reads PYTHONPATH once, when the first OvraKbInit starts it.
void ApplyPythonPath(const PythonPathChoice &choice);

bool IsDirectory(const std::string &path);
// The folder part of `path`: "." when it has none.
std::string DirName(const std::string &path);
// `path` with its symbolic links resolved, or as it is when it cannot be.
std::string Resolved(const std::string &path);
// A bank on a PostgreSQL server rather than in a directory.
bool IsServerUrl(const std::string &bank);

}  // namespace OvraCli

#endif  // OVRA_KB_TOOLS_ENVIRONMENT_H
