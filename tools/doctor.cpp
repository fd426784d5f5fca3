// ovra-kb doctor: checks, in the order the library needs them, what it takes to bring the knowledge base up.
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "commands.h"
#include "environment.h"
#include "json.h"
#include "output.h"
#include "runtime/python_api.h"
#include "shell.h"

namespace OvraCli {
namespace {

#define OVRA_CLI_SYMBOL_NAME(symbol, label, type) #symbol,
const char *const kEntryPoints[] = {OVRA_KB_PYTHON_API(OVRA_CLI_SYMBOL_NAME)};
#undef OVRA_CLI_SYMBOL_NAME
const std::size_t kEntryPointCount = sizeof(kEntryPoints) / sizeof(kEntryPoints[0]);

// The arguments of the queries the library runs, word for word, so that the answers are the ones it gets.
const std::string kLdLibraryArgs = " -c \"import sysconfig; print(sysconfig.get_config_var(\\\"LDLIBRARY\\\"))\"";
const std::string kLibDirArgs = " -c \"import sysconfig; print(sysconfig.get_config_var(\\\"LIBDIR\\\"))\"";
const char kIdentityArgs[] =
    " -c 'import sys, sysconfig; print(sys.executable); print(\"%d.%d.%d\" % sys.version_info[:3]); "
    "print(sysconfig.get_config_var(\"Py_GIL_DISABLED\") or 0)' 2>&1";
const int kTimingRuns = 3;
std::string InstallPython()
{
    return "install a " + ProvenPythons() +
           " built as a shared library (Debian: apt-get install python3 libpython3-dev; "
           "pyenv: PYTHON_CONFIGURE_OPTS=--enable-shared pyenv install VERSION) and put it first on PATH (or name its "
           "python3 in OVRA_KB_PYTHON)";
}

const char kSharedBuild[] =
    "install a build with a shared library (pyenv: PYTHON_CONFIGURE_OPTS=--enable-shared pyenv install VERSION; "
    "Debian: apt-get install libpython3-dev) and put it first on PATH (or name its python3 in OVRA_KB_PYTHON)";

// ok: nothing to do; warn: it works, but the text says what to mind; fix: the text says what to change.
enum class Level { kOk, kWarn, kFix };

struct Finding {
    Level level;
    std::string name;
    std::string text;
};

// How the findings reach the person: a line each as they come, a JSON array at the end, or kept unsaid.
enum class Telling { kLines, kJson, kQuiet };

class Doctor {
  public:
    Doctor(std::string bank, Telling telling)
        : bank_(std::move(bank)), telling_(telling), python_(ChosenPython()), py_(python_.command)
    {
    }

    int Run()
    {
        CheckPython();
        CheckRuntime();
        CheckModules();
        CheckBank();
        CheckReleaseMode();
        if (telling_ == Telling::kJson) {
            PrintJson();
        }
        return failures_ == 0 ? 0 : kExitProblemFound;
    }

    // The first thing that keeps the library from starting Python, as "check: what to fix", or "".
    std::string FirstPythonProblem()
    {
        CheckPython();
        CheckRuntime();
        CheckModules();
        for (const Finding &finding : findings_) {
            if (finding.level == Level::kFix) {
                return finding.name + ": " + finding.text;
            }
        }
        return "";
    }

  private:
    void Report(bool ok, const std::string &name, const std::string &text)
    {
        Report(ok ? Level::kOk : Level::kFix, name, text);
    }

    void Report(Level level, const std::string &name, const std::string &text)
    {
        findings_.push_back(Finding{level, name, text});
        failures_ += level == Level::kFix ? 1 : 0;
        if (telling_ == Telling::kLines) {
            const char *shown = level == Level::kOk ? "ok" : level == Level::kWarn ? "warn" : "fix";
            std::printf("%-4s %s: %s\n", shown, name.c_str(), text.c_str());
            std::fflush(stdout);
        }
    }

    // "ok" and "warning" are JSON booleans, so that a script can test them as they are (the string "false" would
    // count as true). A warning is ok: nothing needs to change for the knowledge base to work.
    void PrintJson() const
    {
        std::vector<std::string> objects;
        for (const Finding &finding : findings_) {
            objects.push_back("{\"check\": " + JsonString(finding.name) + ", \"detail\": " + JsonString(finding.text) +
                              ", \"ok\": " + (finding.level != Level::kFix ? "true" : "false") +
                              ", \"warning\": " + (finding.level == Level::kWarn ? "true" : "false") + "}");
        }
        std::fputs(FormatJsonArray(objects).c_str(), stdout);
    }

    void CheckPython();
    void DescribePython(const std::string &onPath, const std::string &executable, const std::string &version,
                        bool freeThreaded);
    void CheckRuntime();
    bool CheckConfigVar(const char *name, const std::string &args, std::string &answer);
    void CheckRuntimeFile(const std::string &file);
    void CheckModules();
    void CheckBank();
    void CheckBankDatabase();
    void CheckServerBank();
    void CheckReleaseMode();

    std::string bank_;
    Telling telling_;
    PythonChoice python_;
    std::string py_;  // starts python_ in a shell command
    std::vector<Finding> findings_;
    bool havePython_ = false;
    int failures_ = 0;
};

double MillisecondsPerRun(const std::string &command)
{
    double best = 0;
    for (int run = 0; run < kTimingRuns; ++run) {
        const auto start = std::chrono::steady_clock::now();
        RunShell(command + " >/dev/null 2>&1");
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
        best = run == 0 ? took.count() : std::min(best, took.count());
    }
    return best;
}

std::string FileStart(const std::string &path, std::size_t bytes)
{
    std::ifstream in(path, std::ios::binary);
    std::string text(bytes, '\0');
    in.read(&text[0], static_cast<std::streamsize>(bytes));
    text.resize(static_cast<std::size_t>(in.gcount()));
    return text;
}

// A version manager's shim is a script that finds and starts the real interpreter on every run.
bool IsScript(const std::string &path)
{
    return FileStart(path, 2) == "#!";
}

std::string ShimOwner(const std::string &path)
{
    return FileStart(path, 4096).find("pyenv\" exec") != std::string::npos ? "pyenv's shim" : "a script (a shim?)";
}

std::string Milliseconds(double value)
{
    return std::to_string(static_cast<long>(value + 0.5)) + " ms";
}

void Doctor::CheckPython()
{
    if (python_.path.empty()) {
        Report(false, "python3", "none on PATH; " + InstallPython());
        return;
    }
    if (!python_.runs && python_.named) {
        Report(false, "python3",
               "OVRA_KB_PYTHON names " + python_.path +
                   ", which is not an executable file; name a python3 there, or unset it to use the one on PATH");
        return;
    }
    const ShellResult identity = RunShell(py_ + kIdentityArgs);
    const std::string answer = TrimRight(identity.output);
    const std::size_t newline = answer.find('\n');
    if (identity.exitCode != 0 || newline == std::string::npos) {
        Report(false, "python3",
               python_.path + " does not run (" + LastLine(identity.output) + "); " + InstallPython());
        return;
    }
    const std::vector<std::string> lines = SplitLines(answer);
    DescribePython(python_.path, lines[0], lines.size() > 1 ? lines[1] : "", lines.size() > 2 && lines[2] == "1");
}

// "Python 3.11.7, in the proven CPython 3.6 to 3.15", or that it is newer than those.
std::string VersionAndProof(const std::string &version, int minor)
{
    return "Python " + version +
           (minor <= kNewestProvenMinor
                ? ", in the proven " + ProvenPythons()
                : ", newer than the proven " + ProvenPythons() + ": it may work, but no test shows it");
}

void Doctor::DescribePython(const std::string &onPath, const std::string &executable, const std::string &version,
                            bool freeThreaded)
{
    const int minor = std::atoi(version.c_str() + 2);
    if (version.compare(0, 2, "3.") != 0 || minor < kOldestProvenMinor) {
        Report(false, "python3",
               onPath + " is Python " + version + ", which the library cannot use; " + InstallPython());
        return;
    }
    if (freeThreaded) {
        Report(false, "python3",
               onPath + " is a free-threaded build of Python " + version + " (3." + std::to_string(minor) +
                   "t), which the library cannot load (it handles reference counts directly); install a default "
                   "build (with the global interpreter lock) and put it first on PATH");
        return;
    }
    havePython_ = true;
    const std::string described = VersionAndProof(version, minor);
    // The CPython fault of the user guide's known limits: the library's last user finalising and a new one
    // initialising in one process starts the interpreter a second time.
    const bool restartCrashes = version == "3.12.0" || version == "3.12.1";
    const std::string restartWarning =
        "; on CPython " + version +
        " a second start of the interpreter in one process crashes (a CPython fault): a program that lets the "
        "library's last user finalise and then initialises again must keep one OvraKbInit outstanding instead, or "
        "use 3.12.2 or later (ovra-kb starts it once per process)";
    const std::string why = python_.named ? ", named by OVRA_KB_PYTHON"
                                          : ", the first python3 on PATH (OVRA_KB_PYTHON would choose another)";
    if (!IsScript(onPath)) {
        const std::string real = Resolved(onPath);
        Report(restartCrashes ? Level::kWarn : Level::kOk, "python3",
               onPath + (real != onPath ? " -> " + real : "") + " (" + described + ")" + why +
                   (restartCrashes ? restartWarning : ""));
        return;
    }
    // The library starts python3 twice at start-up; through a shim each start pays the shim's own work.
    const double throughShim = MillisecondsPerRun(py_ + kLdLibraryArgs);
    const double direct = MillisecondsPerRun(ShellQuote(executable) + kLdLibraryArgs);
    Report(restartCrashes ? Level::kWarn : Level::kOk, "python3",
           onPath + " is " + ShimOwner(onPath) + " for " + executable + " (" + described + ")" + why + "; it adds " +
               Milliseconds(std::max(0.0, throughShim - direct)) + " to each of the library's two queries (" +
               Milliseconds(throughShim) + " against " + Milliseconds(direct) + " direct): " +
               (python_.named ? "name " + executable + " in OVRA_KB_PYTHON"
                              : "put " + DirName(executable) + " first on PATH") +
               " to save it" + (restartCrashes ? restartWarning : ""));
}

bool Doctor::CheckConfigVar(const char *name, const std::string &args, std::string &answer)
{
    const ShellResult result = RunShell(py_ + args);
    answer = TrimRight(result.output);
    const bool ok = result.exitCode == 0 && !answer.empty() && answer != "None";
    // The library loads only a shared library: a name without ".so" (a static archive) is refused.
    if (ok && std::string(name) == "LDLIBRARY" && answer.find(".so") == std::string::npos) {
        Report(false, name,
               answer +
                   " is a static library, which the library cannot load: python3 was built without "
                   "--enable-shared; " +
                   kSharedBuild);
        return false;
    }
    Report(ok, name, ok ? answer : "python3 gives no " + std::string(name) + "; " + InstallPython());
    return ok;
}

void Doctor::CheckRuntime()
{
    if (!havePython_) {
        for (const char *name : {"LDLIBRARY", "LIBDIR", "runtime"}) {
            Report(false, name, "not checked without a working python3; apply the python3 fix first");
        }
        return;
    }
    std::string library;
    std::string dir;
    const bool answered = CheckConfigVar("LDLIBRARY", kLdLibraryArgs, library);
    if (CheckConfigVar("LIBDIR", kLibDirArgs, dir) && answered) {
        CheckRuntimeFile(dir + "/" + library);
    } else {
        Report(false, "runtime", "not checked without LDLIBRARY and LIBDIR; apply their fix first");
    }
}

std::vector<std::string> MissingEntryPoints(void *handle)
{
    std::vector<std::string> missing;
    for (const char *name : kEntryPoints) {
        if (dlsym(handle, name) == nullptr) {
            missing.push_back(name);
        }
    }
    return missing;
}

// Loaded locally and lazily: the check must neither run the runtime's code nor lend its symbols to this process.
void Doctor::CheckRuntimeFile(const std::string &file)
{
    struct stat info {};
    if (stat(file.c_str(), &info) != 0) {
        Report(false, "runtime", file + " does not exist; " + InstallPython());
        return;
    }
    void *handle = dlopen(file.c_str(), RTLD_LAZY | RTLD_LOCAL);
    if (handle == nullptr) {
        const char *error = dlerror();
        Report(false, "runtime",
               file + " is not a loadable shared library (" + (error ? error : "?") + "); " + InstallPython());
        return;
    }
    const std::vector<std::string> missing = MissingEntryPoints(handle);
    dlclose(handle);
    Report(missing.empty(), "runtime",
           missing.empty()
               ? file + " is a shared library exporting all " + std::to_string(kEntryPointCount) + " entry points"
               : file + " lacks " + std::to_string(missing.size()) + " of the " + std::to_string(kEntryPointCount) +
                     " entry points (" + Join(missing, ", ") + "); " + InstallPython());
}

// The folder of the search path that holds `module`, from the module's file.
std::string FolderOf(const std::string &file, const std::string &module)
{
    std::string folder = file;
    for (std::size_t levels = std::count(module.begin(), module.end(), '.') + 1; levels > 0; --levels) {
        folder = DirName(folder);
    }
    return folder;
}

std::string WhyThere(const std::string &folder, const std::vector<PackageFolder> &sources)
{
    for (const PackageFolder &source : sources) {
        if (!source.folder.empty() && Resolved(source.folder) == Resolved(folder)) {
            return source.why;
        }
    }
    return "from python3's own module path";
}

// Where the library's interpreter will find each module, and why: the folders of OVRA_KB_PYTHONPATH, those
// this command puts in front of PYTHONPATH, the user's PYTHONPATH, python3's own folders, and last the package
// installed beside the library.
void Doctor::CheckModules()
{
    const std::string usersPath = std::getenv("PYTHONPATH") != nullptr ? std::getenv("PYTHONPATH") : "";
    const PythonPathChoice pythonPath = ChoosePythonPath();
    ApplyPythonPath(pythonPath);
    std::vector<PackageFolder> sources;
    for (const std::string &entry : SplitPath(LibrarySearchPath(""))) {
        sources.push_back({entry, "from OVRA_KB_PYTHONPATH"});
    }
    for (const PackageFolder &added : pythonPath.added) {
        sources.push_back({added.folder, "put in front of PYTHONPATH by ovra-kb: " + added.why});
    }
    for (const std::string &entry : SplitPath(usersPath)) {
        sources.push_back({entry, "from PYTHONPATH"});
    }
    const std::string lastResort = LibraryLastResort();
    sources.push_back({lastResort, "the package installed beside the library, which it looks in last"});
    const std::string searched = LibrarySearchPath(pythonPath.value);
    for (const char *module : {kInterfaceModule, kLogModule}) {
        if (!havePython_) {
            Report(false, module, "not checked without a working python3; apply the python3 fix first");
            continue;
        }
        const auto importFrom = [&](const std::string &path) {
            return RunShell("PYTHONPATH=" + ShellQuote(path) + " " + py_ + " -c " +
                            ShellQuote(std::string("import ") + module + " as m; print(m.__file__)") + " 2>&1");
        };
        ShellResult imported = importFrom(searched);
        if (imported.exitCode != 0 && IsDirectory(lastResort)) {
            imported = importFrom(searched.empty() ? lastResort : searched + ":" + lastResort);
        }
        const std::string folder = FolderOf(LastLine(imported.output), module);
        Report(imported.exitCode == 0, module,
               imported.exitCode == 0
                   ? "imports from " + folder + ", " + WhyThere(folder, sources)
                   : "does not import with the search path " + (searched.empty() ? "(empty)" : searched) + " (" +
                         LastLine(imported.output) + "); set OVRA_KB_PYTHONPATH to the folder that holds oxe/");
    }
}

// Writing a file is the only test that holds for every user, root included, and every file system.
bool CanCreateFileIn(const std::string &dir, std::string &why)
{
    std::string probe = dir + "/.ovra-kb-doctor.XXXXXX";
    const int fd = mkstemp(&probe[0]);
    if (fd < 0) {
        why = std::strerror(errno);
        return false;
    }
    close(fd);
    unlink(probe.c_str());
    return true;
}

std::string NearestExistingAncestor(std::string path)
{
    while (!path.empty() && access(path.c_str(), F_OK) != 0) {
        const std::size_t slash = path.find_last_of('/');
        path = slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
    }
    return path.empty() ? "." : path;
}

// The URL without its password, for showing.
std::string Redacted(const std::string &url)
{
    const std::size_t scheme = url.find("://");
    const std::size_t at = url.find('@', scheme);
    const std::size_t colon = url.find(':', scheme + 3);
    if (scheme == std::string::npos || at == std::string::npos || colon == std::string::npos || colon > at) {
        return url;
    }
    return url.substr(0, colon) + ":***" + url.substr(at);
}

// A server bank needs the driver in the python3 that the library loads, and a server that answers.
void Doctor::CheckServerBank()
{
    const std::string shown = Redacted(bank_);
    if (!havePython_) {
        Report(false, "bank", shown + " not checked without a working python3; apply the python3 fix first");
        return;
    }
    const ShellResult driver = RunShell(py_ + " -c 'import psycopg' 2>&1");
    if (driver.exitCode != 0) {
        Report(false, "bank",
               shown + " needs the PostgreSQL driver, which python3 cannot import (" + LastLine(driver.output) + "); " +
                   (Resolved(python_.path).rfind("/usr/bin/", 0) == 0
                        ? "apt-get install python3-psycopg"
                        : "python3 -m pip install \"psycopg[binary]\" for the python3 on the search path"));
        return;
    }
    // The URL travels in the environment, so that its password never shows in a process list.
    setenv("OVRA_KB_DOCTOR_URL", bank_.c_str(), 1);
    const ShellResult connected =
        RunShell(py_ +
                 " -c 'import os, psycopg; psycopg.connect(os.environ[\"OVRA_KB_DOCTOR_URL\"], "
                 "connect_timeout=5).close()' 2>&1");
    unsetenv("OVRA_KB_DOCTOR_URL");
    Report(connected.exitCode == 0, "bank",
           connected.exitCode == 0 ? shown + " answers"
                                   : shown + " does not answer (" + LastLine(connected.output) +
                                         "); check that the server runs and that the user and password are right");
}

// The bank's database, opened read-only by the python3 that the library loads, passes SQLite's quick check.
void Doctor::CheckBankDatabase()
{
    const std::string database = bank_ + "/" + kBankDatabase;
    if (access(database.c_str(), F_OK) != 0 || !havePython_) {
        return;
    }
    // A bank in use has its -wal and -shm files: the check reads through them. Otherwise the file alone is the
    // bank, read as immutable, so that the check leaves no journal files behind (a read-only connection that
    // made them could not remove them again).
    const bool live = access((database + "-wal").c_str(), F_OK) == 0 && access((database + "-shm").c_str(), F_OK) == 0;
    setenv("OVRA_KB_DOCTOR_DB", database.c_str(), 1);
    const ShellResult checked = RunShell(
        py_ +
        " -c 'import os, sqlite3, urllib.parse as u; "
        "c = sqlite3.connect(\"file:\" + u.quote(os.environ[\"OVRA_KB_DOCTOR_DB\"]) + \"?mode=ro" +
        (live ? "" : "&immutable=1") +
        "\", uri=True); "
        "r = c.execute(\"PRAGMA quick_check\").fetchone()[0]; "
        "print(r if r != \"ok\" else \"ok %d\" % c.execute(\"SELECT COUNT(*) FROM records\").fetchone()[0])' 2>&1");
    unsetenv("OVRA_KB_DOCTOR_DB");
    const std::string answer = LastLine(checked.output);
    const bool ok = checked.exitCode == 0 && answer.rfind("ok ", 0) == 0;
    // Damage shows as the check's own findings or as a DatabaseError; an OperationalError (locked, no
    // permission) says nothing about the file's soundness.
    const bool unchecked = answer.rfind("sqlite3.OperationalError", 0) == 0;
    Report(ok, "database",
           ok          ? database + " passes a quick integrity check (" + answer.substr(3) + " records)"
           : unchecked ? database + " cannot be checked (" + answer +
                             "); check its permissions and whether another process holds it locked"
                       : database + " is damaged (" + answer +
                             "); move it aside with its -wal and -shm files and import the last export into a new "
                             "bank (ovra-kb import FILE --bank DIR)");
}

void Doctor::CheckBank()
{
    if (IsServerUrl(bank_)) {
        CheckServerBank();
        return;
    }
    const std::string fix = "; try --bank with a writable directory";
    std::string why;
    if (IsDirectory(bank_)) {
        const bool ok = CanCreateFileIn(bank_, why);
        const bool holdsBank = access((bank_ + "/" + kBankDatabase).c_str(), F_OK) == 0;
        // A bank on read-only storage can still be searched and exported.
        Report(ok, "bank",
               bank_ + (ok          ? " is writable"
                        : holdsBank ? " is read-only (" + why +
                                          "): search and export work; to write, delete or import, copy it" + fix
                                    : " is not writable (" + why + ")" + fix));
        CheckBankDatabase();
        return;
    }
    if (access(bank_.c_str(), F_OK) == 0) {
        Report(false, "bank", bank_ + " is not a directory" + fix);
        return;
    }
    const std::string ancestor = NearestExistingAncestor(bank_);
    if (!IsDirectory(ancestor)) {
        Report(false, "bank", bank_ + " cannot be created: " + ancestor + " is not a directory" + fix);
        return;
    }
    const bool ok = CanCreateFileIn(ancestor, why);
    Report(ok, "bank",
           ok ? bank_ + " does not exist yet; it will be created in " + ancestor
              : bank_ + " cannot be created: " + ancestor + " is not writable (" + why + ")" + fix);
}

// Release mode is read from the environment when the library starts Python; the command turns it on for itself, so
// what is shown is the mode of the other programs started from this environment.
void Doctor::CheckReleaseMode()
{
    const char *value = std::getenv("OVRA_KB_RELEASE_KEPT");
    const std::string given = value != nullptr ? value : "";
    const std::string exact =
        "the library keeps the references it keeps on purpose, exactly, and a long-running "
        "program's memory grows with its calls";
    if (given == "1") {
        Report(Level::kOk, "release mode",
               "on (OVRA_KB_RELEASE_KEPT=1): the library releases every reference it would keep on purpose, and a "
               "long-running program's memory stays flat");
    } else if (given.empty()) {
        Report(Level::kOk, "release mode",
               "off (OVRA_KB_RELEASE_KEPT is not set): " + exact +
                   "; set OVRA_KB_RELEASE_KEPT=1 before the first OvraKbInit to release them (ovra-kb turns it on for "
                   "itself)");
    } else {
        Report(Level::kWarn, "release mode",
               "off: OVRA_KB_RELEASE_KEPT=" + given + " is not 1, so " + exact +
                   "; set it to 1 to release them, or unset it (ovra-kb turns it on for itself)");
    }
}

}  // namespace

std::string FirstPythonProblem()
{
    return Doctor("", Telling::kQuiet).FirstPythonProblem();
}

int RunDoctor(const Options &options)
{
    return Doctor(BankDir(options), options.json ? Telling::kJson : Telling::kLines).Run();
}

}  // namespace OvraCli
