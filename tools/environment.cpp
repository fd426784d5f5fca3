#include "environment.h"

#include <dlfcn.h>
#include <limits.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "shell.h"

namespace OvraCli {

const char *const kInterfaceModule = "oxe.common.repository_manager.interface";
const char *const kLogModule = "oxe.common.repository_manager.utils.repository_manager_log";
const char *const kBankDatabase = "ovra_kb.db";

std::string ProvenPythons()
{
    return "CPython 3." + std::to_string(kOldestProvenMinor) + " to 3." + std::to_string(kNewestProvenMinor);
}

namespace {

std::string Env(const char *name)
{
    const char *value = getenv(name);
    return value != nullptr ? value : "";
}

std::string HomeDir()
{
    const std::string home = Env("HOME");
    if (!home.empty()) {
        return home;
    }
    const passwd *entry = getpwuid(getuid());
    return entry != nullptr && entry->pw_dir != nullptr ? entry->pw_dir : "/";
}

bool IsFile(const std::string &path)
{
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

std::string RealPath(const std::string &path)
{
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) != nullptr ? resolved : path;
}

std::string ExecutablePath()
{
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : "";
}

std::string ModuleFile(const std::string &module)
{
    std::string file = module;
    for (char &c : file) {
        c = c == '.' ? '/' : c;
    }
    return file + ".py";
}

bool PathHoldsModule(const std::string &pythonPath, const std::string &module)
{
    for (const std::string &entry : SplitPath(pythonPath)) {
        if (!entry.empty() && IsFile(entry + "/" + ModuleFile(module))) {
            return true;
        }
    }
    return false;
}

// The file check answers the common case without starting an interpreter; python3 itself is asked only
// when it fails, since the package may also sit in site-packages or behind a .pth file.
bool UsersPythonPathWorks()
{
    const std::string pythonPath = LibrarySearchPath(Env("PYTHONPATH"));
    if (PathHoldsModule(pythonPath, kInterfaceModule) && PathHoldsModule(pythonPath, kLogModule)) {
        return true;
    }
    const std::string imports = std::string("import ") + kInterfaceModule + ", " + kLogModule;
    return RunShell("PYTHONPATH=" + ShellQuote(pythonPath) + " " + ChosenPython().command + " -c " +
                    ShellQuote(imports) + " >/dev/null 2>&1")
               .exitCode == 0;
}

bool RunsFromBuildTree()
{
    const std::string buildDir = RealPath(OVRA_KB_BINARY_DIR) + "/";
    return RealPath(ExecutablePath()).compare(0, buildDir.size(), buildDir) == 0;
}

std::vector<PackageFolder> PackageDirCandidates()
{
    std::vector<PackageFolder> dirs;
    const std::string own = Env("OVRA_KB_PYTHON_DIR");
    if (!own.empty()) {
        dirs.push_back({own, "OVRA_KB_PYTHON_DIR"});
    }
    const std::string installed = DirName(ExecutablePath()) + "/../share/ovra_kb/python";
    if (IsDirectory(installed)) {
        dirs.push_back({RealPath(installed), "the package installed beside ovra-kb"});
    }
    if (RunsFromBuildTree()) {
        dirs.push_back({OVRA_KB_SOURCE_PYTHON_DIR, "the source tree of ovra-kb's build"});
    }
    return dirs;
}

}  // namespace

std::string DefaultBankDir()
{
    const std::string bank = Env("OVRA_KB_BANK");
    if (!bank.empty()) {
        return bank;
    }
    const std::string dataHome = Env("XDG_DATA_HOME");
    return (dataHome.empty() ? HomeDir() + "/.local/share" : dataHome) + "/ovra-kb/bank";
}

void ConfigureLibraryLog(bool verbose)
{
    if (verbose) {
        setenv("OVRA_LOG_LEVEL", "info", 1);
        setenv("OVRA_LOG_EVENT", "1", 1);
    } else {
        setenv("OVRA_LOG_LEVEL", "off", 0);
    }
}

std::string FindOnPath(const std::string &name)
{
    for (const std::string &dir : SplitPath(Env("PATH"))) {
        const std::string candidate = (dir.empty() ? std::string(".") : dir) + "/" + name;
        if (IsFile(candidate) && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return "";
}

PythonChoice ChosenPython()
{
    PythonChoice choice;
    choice.path = Env("OVRA_KB_PYTHON");
    choice.named = !choice.path.empty();
    choice.path = choice.named ? choice.path : FindOnPath("python3");
    choice.runs = IsFile(choice.path) && access(choice.path.c_str(), X_OK) == 0;
    choice.command = choice.named ? ShellQuote(choice.path) : "python3";
    return choice;
}

PythonPathChoice ChoosePythonPath()
{
    PythonPathChoice choice;
    choice.value = Env("PYTHONPATH");
    choice.usersOwn = UsersPythonPathWorks();
    if (!choice.usersOwn) {
        choice.added = PackageDirCandidates();
        std::vector<std::string> entries;
        for (const PackageFolder &added : choice.added) {
            entries.push_back(added.folder);
        }
        if (!choice.value.empty()) {
            entries.push_back(choice.value);
        }
        choice.value = Join(entries, ":");
    }
    return choice;
}

std::string LibrarySearchPath(const std::string &pythonPath)
{
    const std::string front = Env("OVRA_KB_PYTHONPATH");
    return front.empty() || pythonPath.empty() ? front + pythonPath : front + ":" + pythonPath;
}

std::vector<std::string> SplitPath(const std::string &list)
{
    std::vector<std::string> entries;
    std::size_t start = 0;
    while (start <= list.size()) {
        const std::size_t colon = std::min(list.find(':', start), list.size());
        entries.push_back(list.substr(start, colon - start));
        start = colon + 1;
    }
    return entries;
}

std::string LibraryLastResort()
{
    Dl_info library{};
    void *const entry = dlsym(RTLD_DEFAULT, "OvraKbInit");
    if (!Env("OVRA_KB_PYTHONPATH").empty() || !Env("OVRA_KB_PYTHON").empty() || entry == nullptr ||
        dladdr(entry, &library) == 0 || library.dli_fname == nullptr) {
        return "";
    }
    return DirName(RealPath(library.dli_fname)) + "/" + OVRA_KB_PACKAGE_FROM_LIBDIR;
}

void ApplyPythonPath(const PythonPathChoice &choice)
{
    if (!choice.value.empty()) {
        setenv("PYTHONPATH", choice.value.c_str(), 1);
    }
}

void RequestReleaseMode()
{
    setenv("OVRA_KB_RELEASE_KEPT", "1", 1);
}

std::string Resolved(const std::string &path)
{
    char *real = realpath(path.c_str(), nullptr);
    const std::string resolved = real != nullptr ? real : path;
    std::free(real);
    return resolved;
}

bool IsServerUrl(const std::string &bank)
{
    return bank.rfind("postgresql://", 0) == 0 || bank.rfind("postgres://", 0) == 0;
}

std::string DirName(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

bool IsDirectory(const std::string &path)
{
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace OvraCli
