// Callers on threads of every kind: one that initialises and another that finalises, many
// short-lived threads Python has never seen, and threads that initialise at the same moment.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "log_capture.h"
#include "ovra_kb/ovra_kb_api.h"
#include "test_env.h"

using namespace OvraTest;

namespace {

long CountEvents(const std::string &message)
{
    std::vector<std::string> events = LogCapture::Messages(OVRA_LEVEL_EVENT, "ovra_kb_pyfunc_mgr");
    return std::count(events.begin(), events.end(), message);
}

long StartUps()
{
    return CountEvents("OvraKbPyfuncMgr: Run PyObjectInit successfully!");
}

long TearDowns()
{
    return CountEvents("OvraKbPyfuncMgr: PyObjectDeinit function end successfully!");
}

// Lets a group of threads pass together.
class StartLine {
  public:
    explicit StartLine(int count) : waiting_(count) {}
    void Arrive()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (--waiting_ == 0) {
            open_.notify_all();
            return;
        }
        open_.wait(lock, [this] { return waiting_ == 0; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable open_;
    int waiting_;
};

class Threads : public ::testing::Test {
  protected:
    void SetUp() override
    {
        OvraTest::PutCountingPythonFirstOnPath(dir_, OvraTest::TestPython(), counter_);
        OvraTest::UsePackages({"kb", "log"});
    }
    size_t Queries() const { return OvraTest::ReadLines(counter_).size(); }

    TempDir dir_;
    std::string counter_ = dir_.File("python3-runs.txt");
    OvraTest::Scripted scripted_{dir_};
};

TEST_F(Threads, InitialiseOnOneThreadFinaliseOnAnotherThenStartAgain)
{
    for (int cycle = 0; cycle < 2; ++cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        std::uint32_t initStatus = 99;
        std::thread([&] { initStatus = OvraKbInit(SYS, LOAD); }).join();
        ASSERT_EQ(initStatus, 0U);
        std::uint32_t writeStatus = 99;
        std::thread([&] { writeStatus = OvraKbWrite("kw", "text", OP, true); }).join();
        EXPECT_EQ(writeStatus, 0U);
        std::uint32_t finalizeStatus = 99;
        std::thread([&] { finalizeStatus = OvraKbFinalize(); }).join();
        EXPECT_EQ(finalizeStatus, 0U);
        EXPECT_EQ(StartUps(), cycle + 1);
        EXPECT_EQ(TearDowns(), cycle + 1);
    }
}

TEST_F(Threads, ManyShortLivedThreadsPythonHasNeverSeen)
{
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    constexpr int BATCHES = 25;
    constexpr int PER_BATCH = 8;
    std::atomic<int> failures{0};
    for (int batch = 0; batch < BATCHES; ++batch) {
        std::vector<std::thread> threads;
        for (int t = 0; t < PER_BATCH; ++t) {
            threads.emplace_back([batch, t, &failures] {
                const std::string keyword = "b" + std::to_string(batch) + "t" + std::to_string(t);
                Rows rows;
                bool ok = OvraKbWrite(keyword, keyword + " text", OP, false) == 0 &&
                          OvraKbSearch(keyword, OP, rows) == 0 && rows.size() == 1 &&
                          rows[0].at("knowledge") == keyword + " text" && OvraKbDelete(keyword, OP, false) == 0;
                if (!ok) {
                    ++failures;
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_search_async").size(), static_cast<size_t>(BATCHES * PER_BATCH));
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

TEST_F(Threads, ThreadsInitialisingAtTheSameMomentStartPythonOnce)
{
    constexpr int CALLERS = 6;
    StartLine line(CALLERS);
    std::vector<std::uint32_t> statuses(CALLERS, 99);
    std::vector<std::thread> threads;
    for (int i = 0; i < CALLERS; ++i) {
        threads.emplace_back([&, i] {
            line.Arrive();
            statuses[i] = OvraKbInit(SYS, LOAD);
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(statuses, std::vector<std::uint32_t>(CALLERS, 0U));
    EXPECT_EQ(StartUps(), 1);
    EXPECT_EQ(Queries(), 2U) << "python3 is asked once for the name and once for the directory";
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_init").size(), static_cast<size_t>(CALLERS));

    threads.clear();
    StartLine finishLine(CALLERS);
    for (int i = 0; i < CALLERS; ++i) {
        threads.emplace_back([&, i] {
            finishLine.Arrive();
            statuses[i] = OvraKbFinalize();
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(statuses, std::vector<std::uint32_t>(CALLERS, 0U));
    EXPECT_EQ(TearDowns(), 1);
}

TEST_F(Threads, SearchesWaitingOnSeveralThreadsLeaveTheLockToEachOther)
{
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    // Each search finishes 50 ms after its first poll; run serially they would take 400 ms.
    scripted_.SetScript(R"js({"ovra_kb_search_get": ["finish_after_ms(args[0], 50, (True, [{'k': args[0]}]))"]})js");
    constexpr int SEARCHERS = 8;
    std::vector<Rows> results(SEARCHERS);
    std::vector<std::uint32_t> statuses(SEARCHERS, 99);
    auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < SEARCHERS; ++i) {
        threads.emplace_back([&, i] { statuses[i] = OvraKbSearch("kw", OP, results[i]); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(statuses, std::vector<std::uint32_t>(SEARCHERS, 0U));
    std::vector<std::string> handles;
    for (const Rows &rows : results) {
        ASSERT_EQ(rows.size(), 1U);
        handles.push_back(rows[0].at("k"));
    }
    std::sort(handles.begin(), handles.end());
    EXPECT_EQ(std::unique(handles.begin(), handles.end()), handles.end()) << "each search gets its own task's rows";
    // Run one after another the searches would need at least 8 x 50 ms.
    EXPECT_LT(elapsed, std::chrono::milliseconds(390)) << "the waits of the searches must overlap";
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

}  // namespace
