// Finding the Python runtime through python3, loading it, and binding the API table.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "log_capture.h"
#include "runtime/handle_manager.h"
#include "test_env.h"

using OvraTest::LogCapture;
using OvraTest::TempDir;

namespace {

const char *const NAME_PROGRAM = "import sysconfig; print(sysconfig.get_config_var(\"LDLIBRARY\"))";
const char *const DIR_PROGRAM = "import sysconfig; print(sysconfig.get_config_var(\"LIBDIR\"))";
const char *const DIR_QUERY = "python3 -c \"import sysconfig; print(sysconfig.get_config_var(\\\"LIBDIR\\\"))\"";
const char *const INVALID_PATH_LINE =
    "Python install path[%s] is invalid, please confirm that the environment\" \"variable [ld_library_path] or "
    "[ldconfig] has configured the path of the python\" \"library.";

OvraKb::HandleManager &Api()
{
    return OvraKb::PyApi();
}

// Every entry of the table, in binding order.
std::vector<void *> TableEntries()
{
    std::vector<void *> entries;
#define OVRA_KB_COLLECT(symbol, failureName, Type) entries.push_back(reinterpret_cast<void *>(Api().symbol));
    OVRA_KB_PYTHON_API(OVRA_KB_COLLECT)
#undef OVRA_KB_COLLECT
    return entries;
}

std::vector<std::string> TableSymbols()
{
    return {
#define OVRA_KB_NAME(symbol, failureName, Type) #symbol,
        OVRA_KB_PYTHON_API(OVRA_KB_NAME)
#undef OVRA_KB_NAME
    };
}

std::string Sprintf(const char *format, const std::string &arg)
{
    char buffer[2048];
    snprintf(buffer, sizeof(buffer), format, arg.c_str());
    return buffer;
}

// A python3 first on the path that answers the two queries with fixed output and records its arguments.
class FakePython {
  public:
    FakePython(const TempDir &dir, const std::string &nameOutput, const std::string &dirOutput,
               const std::string &stderrOutput = "")
        : argsFile_(dir.File("fake-args.txt"))
    {
        std::string bin = dir.File("fake-bin");
        OvraTest::WriteFile(dir.File("name.out"), nameOutput);
        OvraTest::WriteFile(dir.File("dir.out"), dirOutput);
        OvraTest::WriteFile(dir.File("err.out"), stderrOutput);
        (void)system(("mkdir -p '" + bin + "'").c_str());
        OvraTest::WriteFile(bin + "/python3",
                            "#!/bin/sh\n"
                            "printf '%s\\n' \"$1\" \"$2\" >> '" +
                                argsFile_ +
                                "'\n"
                                "cat '" +
                                dir.File("err.out") +
                                "' >&2\n"
                                "case \"$2\" in\n"
                                "  *LDLIBRARY*) cat '" +
                                dir.File("name.out") +
                                "' ;;\n"
                                "  *LIBDIR*) cat '" +
                                dir.File("dir.out") +
                                "' ;;\n"
                                "esac\n",
                            true);
        OvraTest::PrependToPath(bin);
    }
    std::vector<std::string> Arguments() const { return OvraTest::ReadLines(argsFile_); }

  private:
    std::string argsFile_;
};

std::string QueryRealPython(const std::string &python, const char *program)
{
    std::string command = "'" + python + "' -c '" + program + "'";
    FILE *pipe = popen(command.c_str(), "r");
    char line[4096] = {0};
    if (pipe == nullptr || fgets(line, sizeof(line), pipe) == nullptr) {
        if (pipe != nullptr) {
            pclose(pipe);
        }
        return "";
    }
    pclose(pipe);
    std::string text(line);
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

struct DiscoveryCase {
    const char *label;
    std::string nameOutput;
    std::string dirOutput;
    std::string stderrOutput;
    std::string expectedName;
    std::string expectedDir;
    std::vector<std::string> expectedErrors;  // of the name query
};

// Longer than one read: only its first 1023 characters arrive, with no line end to remove.
std::string LongLine()
{
    return "libpython3.so" + std::string(1100, 'x') + "\n";
}

std::vector<DiscoveryCase> DiscoveryCases()
{
    const std::string fetchFailed = "Cannot fetch the version information of the current python.";
    const std::string badName = "Failed to get python3 [LDLIBRARY].";
    return {
        {"normal", "libpython3.7m.so\n", "/opt/py/lib\n", "", "libpython3.7m.so", "/opt/py/lib", {}},
        {"crlf", "libpython3.7m.so\r\n", "/opt/py/lib\r\n", "", "libpython3.7m.so\r", "/opt/py/lib\r", {}},
        {"none", "None\n", "None\n", "", "", "None", {badName}},
        {"long_line", LongLine(), LongLine(), "", LongLine().substr(0, 1023), LongLine().substr(0, 1023), {}},
        {"versioned_so", "libpython3.so.1.0\n", "/lib\n", "", "libpython3.so.1.0", "/lib", {}},
        {"static_archive", "libpython3.11.a\n", "/lib\n", "", "", "/lib", {badName}},
        {"second_line_ignored", "libpython3.9.so\nextra\n", "/a\n/b\n", "", "libpython3.9.so", "/a", {}},
        {"stderr_only", "", "", "some warning\n", "", "", {fetchFailed, badName}},
    };
}

class Discovery : public ::testing::TestWithParam<DiscoveryCase> {};

TEST_P(Discovery, AnswersAndLogLinesOfBothQueries)
{
    const DiscoveryCase &c = GetParam();
    TempDir dir;
    FakePython fake(dir, c.nameOutput, c.dirOutput, c.stderrOutput);

    LogCapture::Clear();
    EXPECT_EQ(OvraKb::GetPythonLibName(), c.expectedName);
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_ERROR, "handle_manager"), c.expectedErrors);
    std::vector<std::string> debug = LogCapture::Messages(OVRA_LEVEL_DEBUG, "handle_manager");
    if (c.nameOutput.empty()) {
        EXPECT_TRUE(debug.empty());
    } else {
        // The raw line, line end included, cut to the 1023 characters that one read takes.
        std::string firstLine = c.nameOutput.substr(0, std::min(c.nameOutput.find('\n') + 1, size_t{1023}));
        EXPECT_EQ(debug, std::vector<std::string>{"line:[" + firstLine + "]"});
    }

    EXPECT_EQ(OvraKb::GetPythonConfigByCmd(DIR_QUERY), c.expectedDir);
    // The shell hands python3 exactly the two documented programs.
    EXPECT_EQ(fake.Arguments(), (std::vector<std::string>{"-c", NAME_PROGRAM, "-c", DIR_PROGRAM}));
}

INSTANTIATE_TEST_SUITE_P(FakePython3, Discovery, ::testing::ValuesIn(DiscoveryCases()),
                         [](const ::testing::TestParamInfo<DiscoveryCase> &info) { return info.param.label; });

TEST(DiscoveryWithoutPython, NoPython3OnThePath)
{
    TempDir dir;
    setenv("PATH", dir.Path().c_str(), 1);
    LogCapture::Clear();
    EXPECT_EQ(OvraKb::GetPythonLibName(), "");
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_ERROR, "handle_manager"),
              (std::vector<std::string>{"Cannot fetch the version information of the current python.",
                                        "Failed to get python3 [LDLIBRARY]."}));

    LogCapture::Clear();
    EXPECT_FALSE(Api().LaunchDynamicLib());
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_ERROR, "handle_manager"),
              (std::vector<std::string>{"Cannot fetch the version information of the current python.",
                                        "Failed to get python3 [LDLIBRARY].",
                                        "Failed to get python3 lib name when trying to load library."}));
    EXPECT_FALSE(Api().IsLoaded());
}

TEST(Loading, EmptyDirectoryAnswerFailsTheLoad)
{
    TempDir dir;
    FakePython fake(dir, "libpython3.11.so\n", "");
    LogCapture::Clear();
    EXPECT_FALSE(Api().LaunchDynamicLib());
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_ERROR, "handle_manager"),
              (std::vector<std::string>{"Cannot fetch the version information of the current python.",
                                        "Failed to get python3 lib dir when trying to load library."}));
    EXPECT_FALSE(Api().IsLoaded());
}

TEST(Loading, UnloadablePathIsReportedAndCanBeRetried)
{
    TempDir dir;
    FakePython fake(dir, "libpython3.11.so\n", "None\n");
    LogCapture::Clear();
    EXPECT_FALSE(Api().LaunchDynamicLib());
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_EVENT, "handle_manager"),
              std::vector<std::string>{"Start to load dynamic python lib!"});
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_ERROR, "handle_manager"),
              std::vector<std::string>{Sprintf(INVALID_PATH_LINE, "None/libpython3.11.so")});
    EXPECT_FALSE(Api().IsLoaded());
    EXPECT_EQ(Api().DlHandle(), nullptr);

    // A failed load is not remembered: the next attempt asks python3 again.
    EXPECT_FALSE(Api().LaunchDynamicLib());
    EXPECT_EQ(fake.Arguments().size(), 8U);
}

TEST(Closing, NeverLoadedManagerClosesSilently)
{
    LogCapture::Clear();
    EXPECT_TRUE(Api().HandleClose());
    EXPECT_TRUE(LogCapture::Lines().empty());
}

struct RuntimeCase {
    const char *label;
    std::string python;
};

class RealRuntime : public ::testing::TestWithParam<RuntimeCase> {};

TEST_P(RealRuntime, LoadsOnceBindsEveryEntryAndReloadsAfterClose)
{
    const std::string python = GetParam().python;
    if (access(python.c_str(), X_OK) != 0) {
        GTEST_SKIP() << python << " is not installed on this machine";
    }
    const std::string expectedPath =
        QueryRealPython(python, "import sysconfig; print(sysconfig.get_config_var(\"LIBDIR\"))") + "/" +
        QueryRealPython(python, "import sysconfig; print(sysconfig.get_config_var(\"LDLIBRARY\"))");
    TempDir dir;
    const std::string counter = dir.File("runs.txt");
    OvraTest::PutCountingPythonFirstOnPath(dir, python, counter);

    LogCapture::Clear();
    ASSERT_TRUE(Api().LaunchDynamicLib());
    EXPECT_EQ(OvraTest::ReadLines(counter).size(), 2U);
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_EVENT, "handle_manager"),
              (std::vector<std::string>{"Start to load dynamic python lib!",
                                        "Load dynamic Python library[" + expectedPath + "] successfully!"}));
    EXPECT_TRUE(Api().IsLoaded());
    EXPECT_FALSE(Api().IsInited());

    LogCapture::Clear();
    EXPECT_TRUE(Api().LaunchDynamicLib());
    EXPECT_EQ(OvraTest::ReadLines(counter).size(), 2U) << "a second load must not ask python3 again";
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_INFO, "handle_manager"),
              std::vector<std::string>{"Dynamic python lib has already heen loaded!"});

    LogCapture::Clear();
    ASSERT_TRUE(Api().InitOvraKbFuncs());
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_EVENT, "handle_manager"),
              (std::vector<std::string>{"Start to run init functions to load dynamic python lib!",
                                        "Init functions of loading dynamic python lib end!"}));
    std::vector<void *> entries = TableEntries();
    std::vector<std::string> symbols = TableSymbols();
    ASSERT_EQ(entries.size(), 47U);
    for (size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(entries[i], dlsym(Api().DlHandle(), symbols[i].c_str())) << "row " << i + 1 << " " << symbols[i];
    }
    EXPECT_EQ(Api().Py_IsInitialized(), 0);

    LogCapture::Clear();
    EXPECT_TRUE(Api().InitOvraKbFuncs());
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_INFO, "handle_manager"),
              std::vector<std::string>{"Dynamic python lib has been inited!"});

    ASSERT_TRUE(Api().HandleClose());
    EXPECT_FALSE(Api().IsLoaded());
    EXPECT_FALSE(Api().IsInited());
    EXPECT_EQ(Api().DlHandle(), nullptr);

    ASSERT_TRUE(Api().LaunchDynamicLib());
    EXPECT_EQ(OvraTest::ReadLines(counter).size(), 4U) << "after a close the queries run again";
    LogCapture::Clear();
    ASSERT_TRUE(Api().InitOvraKbFuncs());
    EXPECT_EQ(LogCapture::Messages(OVRA_LEVEL_EVENT, "handle_manager").back(),
              "Init functions of loading dynamic python lib end!");
    EXPECT_EQ(TableEntries()[0], dlsym(Api().DlHandle(), "_Py_TrueStruct"));
}

INSTANTIATE_TEST_SUITE_P(Python, RealRuntime,
                         ::testing::Values(RuntimeCase{"test_python", OvraTest::TestPython()},
                                           RuntimeCase{"debian_python3", "/usr/bin/python3"}),
                         [](const ::testing::TestParamInfo<RuntimeCase> &info) { return info.param.label; });

struct MissingSymbolCase {
    std::string symbol;
    std::string failureName;
    size_t row;  // zero-based
};

class IncompleteRuntime : public ::testing::TestWithParam<MissingSymbolCase> {};

TEST_P(IncompleteRuntime, FailsAtTheMissingRowAndLooksUpNothingAfterIt)
{
    const MissingSymbolCase &c = GetParam();
    TempDir dir;
    FakePython fake(dir, "libstub_python_without_" + c.symbol + ".so\n", OvraTest::FixturesBinaryDir() + "\n");
    ASSERT_TRUE(Api().LaunchDynamicLib());

    // Later rows keep whatever they held: mark them to see that they are not looked up.
    void *const marker = reinterpret_cast<void *>(0x5a5a);
    size_t row = 0;
#define OVRA_KB_MARK_LATER(symbol, failureName, Type)                    \
    if (row++ > c.row) {                                                 \
        Api().symbol = reinterpret_cast<decltype(Api().symbol)>(marker); \
    }
    OVRA_KB_PYTHON_API(OVRA_KB_MARK_LATER)
#undef OVRA_KB_MARK_LATER

    for (int attempt = 0; attempt < 2; ++attempt) {
        LogCapture::Clear();
        EXPECT_FALSE(Api().InitOvraKbFuncs());
        EXPECT_FALSE(Api().IsInited());
        std::vector<std::string> errors = LogCapture::Messages(OVRA_LEVEL_ERROR, "handle_manager");
        ASSERT_EQ(errors.size(), 1U);
        const std::string prefix = "Failed to run dlsym function for " + c.failureName + ", error message: [";
        EXPECT_EQ(errors[0].substr(0, prefix.size()), prefix) << errors[0];
        EXPECT_NE(errors[0].find("undefined symbol: " + c.symbol), std::string::npos) << errors[0];
        EXPECT_EQ(errors[0].substr(errors[0].size() - 2), "].");

        std::vector<void *> entries = TableEntries();
        std::vector<std::string> symbols = TableSymbols();
        for (size_t i = 0; i < entries.size(); ++i) {
            if (i < c.row) {
                EXPECT_EQ(entries[i], dlsym(Api().DlHandle(), symbols[i].c_str())) << symbols[i];
            } else if (i == c.row) {
                EXPECT_EQ(entries[i], nullptr) << symbols[i];
            } else {
                EXPECT_EQ(entries[i], marker) << symbols[i];
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Stub, IncompleteRuntime,
                         ::testing::Values(MissingSymbolCase{"_Py_TrueStruct", "Py_True", 0},
                                           MissingSymbolCase{"PyModule_Create2", "PyModule_Create2", 21},
                                           MissingSymbolCase{"_Py_Dealloc", "_Py_Dealloc", 46}),
                         [](const ::testing::TestParamInfo<MissingSymbolCase> &info) { return info.param.symbol; });

}  // namespace
