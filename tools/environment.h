// What ovra-kb takes from its environment: the bank, the library's log level, python3 and the package.
#ifndef OVRA_KB_TOOLS_ENVIRONMENT_H
#define OVRA_KB_TOOLS_ENVIRONMENT_H

#include <string>
#include <vector>

namespace OvraCli {

// The modules the library imports at start-up.
extern const char *const kInterfaceModule;
extern const char *const kLogModule;
// The database file of a bank directory (the reference package's SQLite bank).
extern const char *const kBankDatabase;

// The CPython versions the tests prove the library on: every 3.x from the oldest to the newest minor.
const int kOldestProvenMinor = 6;
const int kNewestProvenMinor = 15;
// "CPython 3.6 to 3.15"
std::string ProvenPythons();

// $OVRA_KB_BANK, else $XDG_DATA_HOME/ovra-kb/bank, else ~/.local/share/ovra-kb/bank.
std::string DefaultBankDir();

// With `verbose` the library logs at info level with event lines; otherwise it is silent unless the user
// chose a level, because the command reports failures itself in one line.
void ConfigureLibraryLog(bool verbose);

// The first executable called `name` in the directories of PATH, or "" when there is none.
std::string FindOnPath(const std::string &name);

// The python3 that the library asks about the runtime: $OVRA_KB_PYTHON when it is set, else the first on PATH.
struct PythonChoice {
    std::string path;     // "" when PATH has none
    bool named = false;   // by OVRA_KB_PYTHON
    bool runs = false;    // an executable file
    std::string command;  // how a shell command starts it
};
PythonChoice ChosenPython();

// A folder that the module search path holds, and why it is there.
struct PackageFolder {
    std::string folder;
    std::string why;
};

// The PYTHONPATH that lets python3 import the knowledge-base package.
struct PythonPathChoice {
    std::string value;
    bool usersOwn = false;             // OVRA_KB_PYTHONPATH, PYTHONPATH or python3's own paths already worked
    std::vector<PackageFolder> added;  // the folders this command put in front of PYTHONPATH
};
PythonPathChoice ChoosePythonPath();

// The module search path that the library gives an interpreter it starts, in front of python3's own folders:
// $OVRA_KB_PYTHONPATH, then `pythonPath`.
std::string LibrarySearchPath(const std::string &pythonPath);
// The entries of a colon-separated list of folders.
std::vector<std::string> SplitPath(const std::string &list);
// The folder that the library looks in last for a package that no folder of the search path holds: the one
// installed beside it. "" when OVRA_KB_PYTHON or OVRA_KB_PYTHONPATH is set, as the library then does not look.
std::string LibraryLastResort();

// Exports the choice: the embedded interpreter reads PYTHONPATH once, when the first OvraKbInit starts it.
void ApplyPythonPath(const PythonPathChoice &choice);

// A command makes many calls in one process: the library is asked to release the references it keeps on purpose
// (OVRA_KB_RELEASE_KEPT=1, read when it starts Python), so that memory does not grow with the calls.
void RequestReleaseMode();

bool IsDirectory(const std::string &path);
// The folder part of `path`: "." when it has none.
std::string DirName(const std::string &path);
// `path` with its symbolic links resolved, or as it is when it cannot be.
std::string Resolved(const std::string &path);
// A bank on a PostgreSQL server rather than in a directory.
bool IsServerUrl(const std::string &bank);

}  // namespace OvraCli

#endif  // OVRA_KB_TOOLS_ENVIRONMENT_H
