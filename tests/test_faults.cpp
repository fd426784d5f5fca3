// Faults of the environment: each gives its documented status and lines, and the process goes on.
// (Faults of the module functions themselves, raising or answering the wrong type, are the
// status cases of test_api.)
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>

#include "log_capture.h"
#include "ovra_kb/ovra_kb_api.h"
#include "test_env.h"

using namespace OvraTest;

namespace {

const Strings START_UP_FAILED = {"PyObjectInit of OvraKbPyfuncMgr Error!", "Run PyInterfaceInit Error!"};

Strings Concat(Strings head, const Strings &tail)
{
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// Error lines of the library, traceback lines excluded.
Strings ErrorLines()
{
    Strings out;
    for (const OvraTest::LogLine &line : LogCapture::Lines()) {
        if (line.level == OVRA_LEVEL_ERROR && line.file != "pywrapper") {
            out.push_back(line.message);
        }
    }
    return out;
}

std::string RealQuery(const char *variable)
{
    return OvraTest::FirstLineOf("'" + OvraTest::TestPython() +
                                 "' -c 'import sysconfig; print(sysconfig.get_config_var(\"" + variable + "\"))'");
}

// A python3 that answers the two queries with fixed text and runs nothing else.
void PutAnsweringPythonFirst(const TempDir &dir, const std::string &name, const std::string &libdir)
{
    std::string bin = dir.File("answering-bin");
    (void)system(("mkdir -p '" + bin + "'").c_str());
    OvraTest::WriteFile(bin + "/python3",
                        "#!/bin/sh\ncase \"$2\" in\n  *LDLIBRARY*) echo '" + name + "' ;;\n  *LIBDIR*) echo '" +
                            libdir + "' ;;\nesac\n",
                        true);
    OvraTest::PrependToPath(bin);
}

enum class Recovery { FIX_PATH_THEN_SUCCEED, STAYS_REFUSED };

struct FaultCase {
    const char *label;
    std::function<void(const TempDir &)> arrange;
    Strings lines;
    std::string reportCode;  // empty: no report
    std::string lastTracebackLine;
    Recovery recovery;
};

std::vector<FaultCase> FaultCases()
{
    const std::string noModuleKb = "ModuleNotFoundError: No module named 'oxe.common.repository_manager.interface'";
    const std::string noModuleLog = "ModuleNotFoundError: No module named 'oxe.common.repository_manager.utils'";
    const Strings loadFailed = {"PyObjectInit: Load python error"};
    return {
        {"no_python3", [](const TempDir &dir) { setenv("PATH", dir.File("nowhere").c_str(), 1); },
         Concat(Concat({"Cannot fetch the version information of the current python.",
                        "Failed to get python3 [LDLIBRARY].",
                        "Failed to get python3 lib name when trying to load library."},
                       loadFailed),
                START_UP_FAILED),
         "", "", Recovery::FIX_PATH_THEN_SUCCEED},
        {"python3_names_a_static_library",
         [](const TempDir &dir) { PutAnsweringPythonFirst(dir, "libpython3.11.a", RealQuery("LIBDIR")); },
         Concat(Concat({"Failed to get python3 [LDLIBRARY].",
                        "Failed to get python3 lib name when trying to load library."},
                       loadFailed),
                START_UP_FAILED),
         "", "", Recovery::FIX_PATH_THEN_SUCCEED},
        {"wrong_libdir",
         [](const TempDir &dir) { PutAnsweringPythonFirst(dir, RealQuery("LDLIBRARY"), "/nonexistent/lib"); },
         Concat(
             Concat({"Python install path[/nonexistent/lib/" + RealQuery("LDLIBRARY") +
                     "] is invalid, please confirm that the environment\" \"variable [ld_library_path] or [ldconfig] "
                     "has configured the path of the python\" \"library."},
                    loadFailed),
             START_UP_FAILED),
         "", "", Recovery::FIX_PATH_THEN_SUCCEED},
        {"knowledge_module_missing", [](const TempDir &) { OvraTest::UsePackages({"log"}); },
         Concat({"OVRA_KB import ovraKbInterface_ error", "PyObjectInit: Run Init error."}, START_UP_FAILED), "EC0010",
         noModuleKb + "\n", Recovery::STAYS_REFUSED},
        {"log_module_missing", [](const TempDir &) { OvraTest::UsePackages({"kb"}); },
         Concat({"PyObjectInit: Import repository_manager_log error"}, START_UP_FAILED), "EC0010", noModuleLog + "\n",
         Recovery::STAYS_REFUSED},
        {"knowledge_module_raises_at_import",
         [](const TempDir &) {
             setenv("OVRA_TEST_IMPORT_ERROR", "runtime_dict", 1);
             OvraTest::UsePackages({"variants/interface_raises", "log"});
         },
         Concat({"OVRA_KB import ovraKbInterface_ error", "PyObjectInit: Run Init error."}, START_UP_FAILED),
         "E_KB_IMPORT", "RuntimeError: {'errCode': 'E_KB_IMPORT', 'reason': 'bank offline'}\n",
         Recovery::STAYS_REFUSED},
    };
}

class Faults : public ::testing::TestWithParam<FaultCase> {
  protected:
    void SetUp() override
    {
        OvraTest::PutPythonFirstOnPath(dir_, OvraTest::TestPython());
        goodPath_ = getenv("PATH");
        OvraTest::UsePackages({"kb", "log"});
        OvraTest::ClearErrorReports();
        LogCapture::Clear();
    }
    TempDir dir_;
    std::string goodPath_;
    OvraTest::Scripted scripted_{dir_};
};

TEST_P(Faults, GiveTheirStatusAndLinesAndTheProcessGoesOn)
{
    const FaultCase &c = GetParam();
    c.arrange(dir_);
    EXPECT_EQ(OvraKbInit(SYS, LOAD), 3U);
    EXPECT_EQ(ErrorLines(), c.lines);
    auto reports = OvraTest::ErrorReports();
    if (c.reportCode.empty()) {
        EXPECT_TRUE(reports.empty());
    } else {
        ASSERT_EQ(reports.size(), 1U);
        EXPECT_EQ(reports[0].first, c.reportCode);
        Strings traceback = LogCapture::Messages(OVRA_LEVEL_ERROR, "pywrapper");
        ASSERT_FALSE(traceback.empty());
        EXPECT_EQ(traceback.back(), c.lastTracebackLine);
    }
    EXPECT_TRUE(scripted_.CallsOf("ovra_kb_init").empty()) << "the module is never called";

    LogCapture::Clear();
    if (c.recovery == Recovery::FIX_PATH_THEN_SUCCEED) {
        setenv("PATH", goodPath_.c_str(), 1);
        ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
        Rows rows;
        EXPECT_EQ(OvraKbWrite("kw", "text", OP, true), 0U);
        EXPECT_EQ(OvraKbSearch("kw", OP, rows), 0U);
        EXPECT_EQ(rows.size(), 1U);
        EXPECT_EQ(OvraKbFinalize(), 0U);
    } else {
        // The interpreter stays up without the module: every call is refused cleanly.
        EXPECT_EQ(OvraKbInit(SYS, LOAD), 3U);
        EXPECT_EQ(OvraKbWrite("kw", "text", OP, true), 6U);
        Rows rows;
        EXPECT_EQ(OvraKbSearch("kw", OP, rows), 6U);
        EXPECT_EQ(OvraKbDelete("kw", OP, true), 6U);
        EXPECT_EQ(OvraKbFinalize(), 6U);
        EXPECT_EQ(ErrorLines(), Concat(c.lines, {"Failed to call ovra_kb_write.", "Run OvraKbWrite Error!",
                                                 "Failed to call ovra_kb_search_async, pyRes is nullptr.",
                                                 "Failed to call OvraKbSearchReq.", "Run OvraKbSearch Error!",
                                                 "Failed to call ovra_kb_delete.", "Run OvraKbDelete Error!",
                                                 "Failed to call ovra_kb_finalize.", "Run OvraKbFinalize Error!"}));
        EXPECT_TRUE(scripted_.Calls().empty());
    }
}

INSTANTIATE_TEST_SUITE_P(Environment, Faults, ::testing::ValuesIn(FaultCases()),
                         [](const ::testing::TestParamInfo<FaultCase> &info) { return info.param.label; });

// ---- Signals during a search's waits ----

std::atomic<int> g_signals{0};
void CountSignal(int)
{
    ++g_signals;
}

TEST(Signals, ASignalEvery200MicrosecondsNeitherBreaksNorShortensTheWaits)
{
    TempDir dir;
    OvraTest::PutPythonFirstOnPath(dir, OvraTest::TestPython());
    OvraTest::UsePackages({"kb", "log"});
    OvraTest::Scripted scripted(dir);
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    scripted.SetScript(R"js({"ovra_kb_search_get": ["finish_after_ms(args[0], 30, (True, [{'k': 'v'}]))"]})js");

    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = CountSignal;  // no SA_RESTART: every wait is interrupted
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);

    std::atomic<bool> done{false};
    std::uint32_t status = 99;
    Rows rows;
    std::thread searcher([&] {
        status = OvraKbSearch("kw", OP, rows);
        done = true;
    });
    pthread_t target = searcher.native_handle();
    while (!done) {
        pthread_kill(target, SIGUSR1);
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    searcher.join();

    EXPECT_EQ(status, 0U);
    EXPECT_EQ(rows, (Rows{{{"k", "v"}}}));
    EXPECT_GT(g_signals.load(), 20) << "the waits must actually have been interrupted";
    size_t polls = scripted.CallsOf("ovra_kb_search_get").size();
    EXPECT_GE(polls, 2U);
    // Each wait sleeps its full millisecond despite the signals: a 30 ms task needs at most ~31 polls.
    // Waits cut short by signals arriving every 200 µs would need over a hundred.
    EXPECT_LE(polls, 40U);
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

}  // namespace
