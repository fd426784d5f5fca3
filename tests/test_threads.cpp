// Callers on threads of every kind: one that initialises and another that finalises, many
// short-lived threads Python has never seen, and threads that initialise at the same moment.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
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

// ---- Native threads keep one Python thread state for all their calls ----

// A native thread that runs the jobs it is given, one at a time, until it is stopped.
class Worker {
  public:
    Worker() : thread_([this] { Run(); }) {}
    ~Worker() { Stop(); }
    void Do(std::function<void()> job)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        job_ = std::move(job);
        changed_.notify_all();
        changed_.wait(lock, [this] { return !job_; });
    }
    void Stop()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            changed_.notify_all();
        }
        if (thread_.joinable()) {
            thread_.join();
        }
    }

  private:
    void Run()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return stopping_ || job_; });
            if (!job_) {
                return;
            }
            job_();
            job_ = nullptr;
            changed_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::function<void()> job_;
    bool stopping_ = false;
    std::thread thread_;
};

// A write with op type "count" notes the live thread states; any other notes the caller's state.
const char *const STATE_SCRIPT = R"js({"ovra_kb_write": [
  "note(live_thread_states()) if args[2]['op_type'] == 'count' else note(thread_state_serial())"]})js";

class KeptStates : public Threads {
  protected:
    void SetUp() override
    {
        Threads::SetUp();
        scripted_.SetScript(STATE_SCRIPT);
    }
    // The thread-state numbers that `calls` writes on the worker saw.
    std::set<std::string> SerialsOf(Worker &worker, int calls)
    {
        scripted_.ClearRecord();
        worker.Do([calls] {
            for (int i = 0; i < calls; ++i) {
                EXPECT_EQ(OvraKbWrite("kw", "text", OP, false), 0U);
            }
        });
        Strings notes = scripted_.Notes();
        EXPECT_EQ(notes.size(), static_cast<size_t>(calls));
        return std::set<std::string>(notes.begin(), notes.end());
    }
    long LiveThreadStates()
    {
        EXPECT_EQ(OvraKbWrite("kw", "", {{"op_type", "count"}}, false), 0U);
        return std::stol(scripted_.Notes().back());
    }
};

TEST_F(KeptStates, ANativeThreadMakesOneStateForAThousandCallsAndANewOneAfterARestart)
{
    constexpr int WORKERS = 8;
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < WORKERS; ++i) {
        workers.push_back(std::make_unique<Worker>());
    }
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    std::set<std::string> first = SerialsOf(*workers[0], 1000);
    EXPECT_EQ(first.size(), 1U) << "one thread state for all the calls of one native thread";
    std::vector<std::set<std::string>> before;
    for (auto &worker : workers) {
        before.push_back(SerialsOf(*worker, 5));
        ASSERT_EQ(before.back().size(), 1U);
    }
    EXPECT_EQ(before[0], first);
    ASSERT_EQ(OvraKbFinalize(), 0U);

    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    std::set<std::string> seen;
    for (int i = 0; i < WORKERS; ++i) {
        std::set<std::string> after = SerialsOf(*workers[i], 5);
        ASSERT_EQ(after.size(), 1U);
        EXPECT_NE(after, before[i]) << "worker " << i << " must get a fresh state from the new interpreter";
        seen.insert(after.begin(), after.end());
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(WORKERS));
    EXPECT_EQ(LiveThreadStates(), WORKERS);
    workers.resize(WORKERS / 2);  // four end while the library is up: their states go with them
    EXPECT_EQ(LiveThreadStates(), WORKERS / 2);
    ASSERT_EQ(OvraKbFinalize(), 0U);
    workers.clear();  // the others end after the interpreter is gone
}

TEST_F(KeptStates, TwoHundredThreadsThatEndLeaveNoStateBehind)
{
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    const long before = LiveThreadStates();
    for (int batch = 0; batch < 25; ++batch) {
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([] {
                for (int call = 0; call < 3; ++call) {
                    EXPECT_EQ(OvraKbWrite("kw", "text", OP, false), 0U);
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(LiveThreadStates(), before);
    ASSERT_EQ(OvraKbFinalize(), 0U);
}

TEST_F(KeptStates, AThreadThatEndsWhileAnotherFinalisesTouchesNothingOfPython)
{
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
        Worker worker;
        worker.Do([] { EXPECT_EQ(OvraKbWrite("kw", "text", OP, false), 0U); });
        std::thread ending([&worker] { worker.Stop(); });
        EXPECT_EQ(OvraKbFinalize(), 0U);
        ending.join();
    }
}

}  // namespace
