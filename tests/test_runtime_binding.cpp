// Finding the Python runtime through python3, loading it, and binding the API table.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "log_capture.h"
#include "runtime/handle_manager.h"
#include "test_env.h"

using namespace OvraTest;

namespace {

const char *const NAME_PROGRAM = "import sysconfig; print(sysconfig.get_config_var(\"LDLIBRARY\"))";
const char *const DIR_PROGRAM = "import sysconfig; print(sysconfig.get_config_var(\"LIBDIR\"))";
const char *const DIR_QUERY = "python3 -c \"import sysconfig; print(sysconfig.get_config_var(\\\"LIBDIR\\\"))\"";

OvraKb::HandleManager &Api()
{
    return OvraKb::PyApi();
}

std::vector<void *> TableEntries()
{
    std::vector<void *> entries;
#define OVRA_TEST_COLLECT(symbol, failureName, Type) entries.push_back(reinterpret_cast<void *>(Api().symbol));
    OVRA_KB_PYTHON_API(OVRA_TEST_COLLECT)
#undef OVRA_TEST_COLLECT
    return entries;
}

const Strings SYMBOLS = {
#define OVRA_TEST_NAME(symbol, failureName, Type) #symbol,
    OVRA_KB_PYTHON_API(OVRA_TEST_NAME)
#undef OVRA_TEST_NAME
};

// Those of the first `rows` entries that differ from what dlsym gives for their name in the loaded library.
Strings WronglyBoundEntries(size_t rows)
{
    Strings wrong;
    for (size_t i = 0; i < rows; ++i) {
        if (TableEntries()[i] != dlsym(Api().DlHandle(), SYMBOLS[i].c_str())) {
            wrong.push_back(SYMBOLS[i]);
        }
    }
    return wrong;
}

std::string InvalidPathLine(const std::string &path)
{
    return "Python install path[" + path +
           "] is invalid, please confirm that the environment\" \"variable [ld_library_path] or [ldconfig] has "
           "configured the path of the python\" \"library.";
}

// Puts a python3 first on the path that answers the two queries with fixed output and records its
// arguments in the file "fake-args".
void PutFakePythonFirstOnPath(const TempDir &dir, const std::string &name, const std::string &libdir,
                              const std::string &err = "")
{
    WriteFile(dir.File("name.out"), name);
    WriteFile(dir.File("dir.out"), libdir);
    WriteFile(dir.File("err.out"), err);
    mkdir(dir.File("fake-bin").c_str(), 0755);
    WriteFile(dir.File("fake-bin/python3"),
              "#!/bin/sh\nprintf '%s\\n' \"$1\" \"$2\" >> '" + dir.File("fake-args") + "'\ncat '" +
                  dir.File("err.out") + "' >&2\ncase \"$2\" in\n  *LDLIBRARY*) cat '" + dir.File("name.out") +
                  "' ;;\n  *LIBDIR*) cat '" + dir.File("dir.out") + "' ;;\nesac\n",
              true);
    PrependToPath(dir.File("fake-bin"));
}

struct DiscoveryCase {
    std::string nameOutput;
    std::string dirOutput;
    std::string stderrOutput;
    std::string name;
    std::string dir;
    Strings loadErrors;
};

TEST(Discovery, AnswersOfBothQueriesAndTheLinesOfAFailedLoad)
{
    const std::string fetchFailed = "Cannot fetch the version information of the current python.";
    const std::string badName = "Failed to get python3 [LDLIBRARY].";
    const std::string nameFailed = "Failed to get python3 lib name when trying to load library.";
    const std::string dirFailed = "Failed to get python3 lib dir when trying to load library.";
    // Longer than one read: only its first 1023 characters arrive, with no line end to remove.
    const std::string longLine = "libpython3.so" + std::string(1100, 'x') + "\n";
    const std::string cut = longLine.substr(0, 1023);
    const std::vector<DiscoveryCase> cases = {
        {"libpython3.7m.so\n", "/py\n", "", "libpython3.7m.so", "/py", {InvalidPathLine("/py/libpython3.7m.so")}},
        {"libpython3.so\r\n", "/p\r\n", "", "libpython3.so\r", "/p\r", {InvalidPathLine("/p\r/libpython3.so\r")}},
        {"None\n", "None\n", "", "", "None", {badName, nameFailed}},
        {longLine, longLine, "", cut, cut, {InvalidPathLine(cut + "/" + cut)}},
        {"libpython3.so.1.0\n", "/lib\n", "", "libpython3.so.1.0", "/lib", {InvalidPathLine("/lib/libpython3.so.1.0")}},
        {"libpython3.11.a\n", "/lib\n", "", "", "/lib", {badName, nameFailed}},
        {"libpython3.9.so\nextra\n", "/a\n/b\n", "", "libpython3.9.so", "/a", {InvalidPathLine("/a/libpython3.9.so")}},
        {"", "", "some warning\n", "", "", {fetchFailed, badName, nameFailed}},
        {"libpython3.11.so\n", "", "", "libpython3.11.so", "", {fetchFailed, dirFailed}},
    };
    for (const DiscoveryCase &c : cases) {
        SCOPED_TRACE(c.nameOutput.substr(0, 40));
        TempDir dir;
        PutFakePythonFirstOnPath(dir, c.nameOutput, c.dirOutput, c.stderrOutput);
        LogCapture::Clear();
        EXPECT_EQ(OvraKb::GetPythonLibName(), c.name);
        // The raw line, line end included, cut to the 1023 characters that one read takes.
        Strings raw;
        if (!c.nameOutput.empty()) {
            raw.push_back("line:[" + c.nameOutput.substr(0, std::min(c.nameOutput.find('\n') + 1, size_t{1023})) + "]");
        }
        EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_DEBUG, "handle_manager"), raw);
        EXPECT_EQ(OvraKb::GetPythonConfigByCmd(DIR_QUERY), c.dir);
        // The shell hands python3 exactly the two programs.
        EXPECT_EQ(ReadLines(dir.File("fake-args")), (Strings{"-c", NAME_PROGRAM, "-c", DIR_PROGRAM}));

        LogCapture::Clear();
        EXPECT_FALSE(Api().LaunchDynamicLib());
        EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_ERROR, "handle_manager"), c.loadErrors);
        EXPECT_FALSE(Api().IsLoaded());
    }
    LogCapture::Clear();
    EXPECT_TRUE(Api().HandleClose()) << "a manager that never loaded closes silently";
    EXPECT_TRUE(LogCapture::Lines().empty());
}

// The test interpreter, then Debian's: the second load also shows that a closed library is bound afresh.
TEST(RealRuntime, LoadsOnceBindsEveryEntryAndReloadsAfterClose)
{
    for (const std::string &python : {TestPython(), std::string("/usr/bin/python3")}) {
        SCOPED_TRACE(python);
        if (access(python.c_str(), X_OK) != 0) {
            continue;
        }
        const std::string path = RuntimeLibraryPath(python);
        TempDir dir;
        PutPythonFirstOnPath(dir, python);
        LogCapture::Clear();
        ASSERT_TRUE(Api().LaunchDynamicLib());
        ASSERT_TRUE(Api().LaunchDynamicLib());
        EXPECT_EQ(PythonRuns(dir), 2U) << "a second load must not ask python3 again";
        ASSERT_TRUE(Api().InitOvraKbFuncs());
        ASSERT_TRUE(Api().InitOvraKbFuncs());
        EXPECT_EQ(
            LogCapture::Messages(OVRA_LEVEL_EVENT, "handle_manager"),
            (Strings{"Start to load dynamic python lib!", "Load dynamic Python library[" + path + "] successfully!",
                     "Start to load dynamic python lib!", "Start to run init functions to load dynamic python lib!",
                     "Init functions of loading dynamic python lib end!",
                     "Start to run init functions to load dynamic python lib!"}));
        EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_INFO, "handle_manager"),
                  (Strings{"Dynamic python lib has already heen loaded!", "Dynamic python lib has been inited!"}));
        EXPECT_EQ(TableEntries().size(), 47U);
        EXPECT_EQ(WronglyBoundEntries(47), Strings{});
        EXPECT_EQ(Api().Py_IsInitialized(), 0);

        ASSERT_TRUE(Api().HandleClose());
        EXPECT_FALSE(Api().IsLoaded());
        EXPECT_FALSE(Api().IsInited());
        EXPECT_EQ(Api().DlHandle(), nullptr);
    }
}

// OVRA_KB_PYTHON names the interpreter of both queries, wherever it lies: the python3 on the path is not asked.
TEST(RealRuntime, TheInterpreterThatTheDeploymentNamesAnswersBothQueries)
{
    TempDir dir;
    PutFakePythonFirstOnPath(dir, "libpython3.so\n", "/nowhere\n");
    const std::string folder = dir.File("it's a folder");
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    ASSERT_EQ(symlink(TestPython().c_str(), (folder + "/python").c_str()), 0);
    setenv("OVRA_KB_PYTHON", (folder + "/python").c_str(), 1);
    LogCapture::Clear();
    ASSERT_TRUE(Api().LaunchDynamicLib());
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_EVENT, "handle_manager").back(),
              "Load dynamic Python library[" + RuntimeLibraryPath(TestPython()) + "] successfully!");
    EXPECT_EQ(access(dir.File("fake-args").c_str(), F_OK), -1) << "the python3 on the path was asked";
    ASSERT_TRUE(Api().HandleClose());
    unsetenv("OVRA_KB_PYTHON");
}

// Stub runtimes that lack the first, a middle and the last entry of the table.
TEST(IncompleteRuntime, FailsAtTheMissingRowAndLooksUpNothingAfterIt)
{
    const std::vector<std::pair<std::string, std::string>> missing = {
        {"_Py_TrueStruct", "Py_True"}, {"PyModule_Create2", "PyModule_Create2"}, {"_Py_Dealloc", "_Py_Dealloc"}};
    for (const auto &symbol : missing) {
        SCOPED_TRACE(symbol.first);
        TempDir dir;
        PutFakePythonFirstOnPath(dir, "libstub_python_without_" + symbol.first + ".so\n", FixturesBinaryDir() + "\n");
        ASSERT_TRUE(Api().LaunchDynamicLib());
        void *const marker = reinterpret_cast<void *>(0x5a5a);  // later rows must keep it: they are not looked up
        size_t index = 0;
#define OVRA_TEST_MARK(entry, failureName, Type)                       \
    if (index++ > 0) {                                                 \
        Api().entry = reinterpret_cast<decltype(Api().entry)>(marker); \
    }
        OVRA_KB_PYTHON_API(OVRA_TEST_MARK)
#undef OVRA_TEST_MARK
        for (int attempt = 0; attempt < 2; ++attempt) {
            LogCapture::Clear();
            EXPECT_FALSE(Api().InitOvraKbFuncs());
            EXPECT_FALSE(Api().IsInited());
            Strings errors = LogCapture::Messages(OVRA_LEVEL_ERROR, "handle_manager");
            ASSERT_EQ(errors.size(), 1U);
            EXPECT_EQ(errors[0].rfind("Failed to run dlsym function for " + symbol.second + ", error message: [", 0),
                      0U);
            EXPECT_NE(errors[0].find("undefined symbol: " + symbol.first + "]."), std::string::npos) << errors[0];
        }
        std::vector<void *> entries = TableEntries();
        const size_t failed = std::find(entries.begin(), entries.end(), nullptr) - entries.begin();
        ASSERT_LT(failed, entries.size());
        EXPECT_EQ(SYMBOLS[failed], symbol.first);
        EXPECT_EQ(WronglyBoundEntries(failed), Strings{});
        EXPECT_EQ(std::count(entries.begin() + failed + 1, entries.end(), marker),
                  static_cast<long>(entries.size() - failed - 1));
        ASSERT_TRUE(Api().HandleClose());
    }
}

}  // namespace
