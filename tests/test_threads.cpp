// Callers on threads of every kind, and signals: threads that start and stop the library together,
// short-lived threads Python has never seen, native threads that keep one Python thread state, and
// the signals of a waiting search and of the host.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <future>
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
    Strings events = LogCapture::Messages(OVRA_LEVEL_EVENT, "ovra_kb_pyfunc_mgr");
    return std::count(events.begin(), events.end(), message);
}

// Runs `work(i)` for i in [0, count) on threads that set off together, and waits for them.
void OnThreadsAtOnce(int count, const std::function<void(int)> &work)
{
    std::mutex mutex;
    std::condition_variable open;
    int waiting = count;
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            {
                std::unique_lock<std::mutex> lock(mutex);
                --waiting;
                open.notify_all();
                open.wait(lock, [&] { return waiting == 0; });
            }
            work(i);
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

// A write with op type "count" notes the live thread states; every other write makes the caller's
// thread state known to the module, which notes its name when the op type is "serial".
const char *const STATE_SCRIPT = R"js({
  "ovra_kb_search_get": ["poll_after(args[0], 3, default)"],
  "ovra_kb_write": ["note(live_thread_states()) if args[2]['op_type'] == 'count' else (note(thread_state_serial()) if args[2]['op_type'] == 'serial' else thread_state_serial() and default())"]})js";

class Threads : public ScriptedTest {
  protected:
    void SetUp() override
    {
        ScriptedTest::SetUp();
        scripted_.SetScript(STATE_SCRIPT);
    }
    long LiveThreadStates()
    {
        EXPECT_EQ(OvraKbWrite("kw", "", {{"op_type", "count"}}, false), 0U);
        return std::stol(scripted_.Notes().back());
    }
};

// Callers that start and stop the library together bring Python up and down once; in between, batches of
// short-lived threads each get their own rows and statuses, and leave no thread state behind.
TEST_F(Threads, ThreadsThatStartAndStopTogetherAndShortLivedThreadsInBetween)
{
    constexpr int CALLERS = 6;
    constexpr int BATCHES = 12;
    constexpr int PER_BATCH = 8;
    std::vector<std::uint32_t> statuses(CALLERS, 99);
    std::atomic<int> failures{0};
    for (int cycle = 1; cycle <= 2; ++cycle) {
        OnThreadsAtOnce(CALLERS, [&](int i) { statuses[i] = OvraKbInit(SYS, LOAD); });
        EXPECT_EQ(statuses, std::vector<std::uint32_t>(CALLERS, 0U));
        EXPECT_EQ(CountEvents("OvraKbPyfuncMgr: Run PyObjectInit successfully!"), cycle);
        if (cycle == 1) {
            EXPECT_EQ(Queries(), 2U) << "python3 is asked once for the name and once for the directory";
        }
        const long before = LiveThreadStates();
        for (int batch = 0; batch < BATCHES; ++batch) {
            OnThreadsAtOnce(PER_BATCH, [&](int t) {
                const StrMap config = {{"op_type", "Op" + std::to_string(t)}};
                const std::string keyword = "k" + std::to_string(batch);
                const std::string knowledge = "thread " + std::to_string(t) + " batch " + std::to_string(batch);
                Rows rows;
                Rows ignored;
                bool ok =
                    OvraKbWrite(keyword, knowledge, config, t % 2 == 0) == 0 &&
                    OvraKbSearch(keyword, config, rows) == 0 &&
                    rows == Rows{{{"keyword", keyword}, {"knowledge", knowledge}, {"op_type", config.at("op_type")}}} &&
                    // A refused configuration fails on its own thread without disturbing the others.
                    OvraKbSearch(keyword, {{"search_type", "exact"}}, ignored) == 2 &&
                    OvraKbDelete(keyword, config, false) == 0;
                failures += ok ? 0 : 1;
            });
        }
        EXPECT_EQ(LiveThreadStates(), before);
        OnThreadsAtOnce(CALLERS, [&](int i) { statuses[i] = OvraKbFinalize(); });
        EXPECT_EQ(statuses, std::vector<std::uint32_t>(CALLERS, 0U));
        EXPECT_EQ(CountEvents("OvraKbPyfuncMgr: PyObjectDeinit function end successfully!"), cycle);
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_init").size(), 2U * CALLERS);
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_search_async").size(), 2U * BATCHES * PER_BATCH);
}

// ---- Native threads keep one Python thread state for all their calls ----

// A native thread that runs the jobs it is given, one at a time, until it is stopped.
class Worker {
  public:
    Worker() : thread_([this] { Run(); }) {}
    ~Worker() { Stop(); }
    // Runs `job` on the worker's thread and waits until it is done.
    void Do(std::function<void()> job)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        job_ = std::move(job);
        changed_.notify_all();
        changed_.wait(lock, [this] { return !job_; });
    }
    void Stop()
    {
        if (thread_.joinable()) {
            Do([this] { stopping_ = true; });
            thread_.join();
        }
    }

  private:
    void Run()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stopping_) {
            changed_.wait(lock, [this] { return static_cast<bool>(job_); });
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

class KeptStates : public Threads {
  protected:
    // The names of the thread states that `calls` writes on the worker were made on.
    std::set<std::string> SerialsOf(Worker &worker, int calls)
    {
        scripted_.ClearRecord();
        worker.Do([calls] {
            for (int i = 0; i < calls; ++i) {
                EXPECT_EQ(OvraKbWrite("kw", "text", {{"op_type", "serial"}}, false), 0U);
            }
        });
        Strings notes = scripted_.Notes();
        EXPECT_EQ(notes.size(), static_cast<size_t>(calls));
        return std::set<std::string>(notes.begin(), notes.end());
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
    EXPECT_EQ(SerialsOf(*workers[0], 1000).size(), 1U) << "one thread state for all the calls of one native thread";
    std::vector<std::set<std::string>> before;
    for (auto &worker : workers) {
        before.push_back(SerialsOf(*worker, 3));
    }
    ASSERT_EQ(OvraKbFinalize(), 0U);

    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    std::set<std::string> seen;
    for (int i = 0; i < WORKERS; ++i) {
        std::set<std::string> after = SerialsOf(*workers[i], 3);
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

// ---- Signals ----

std::atomic<int> g_signals{0};
void CountSignal(int)
{
    ++g_signals;
}

// A search polls its task until finished, at least a millisecond apart, and appends the rows; a signal
// every 200 microseconds interrupts the waits but must neither break nor shorten them.
TEST_F(Threads, ASignalEvery200MicrosecondsNeitherBreaksNorShortensTheWaits)
{
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    // Each poll notes when it came; the task finishes once the test has seen enough signals arrive.
    const std::string finished = dir_.File("finished");
    scripted_.SetScript(Script("ovra_kb_search_get", "note(time.monotonic(), (True, [{'k': 'v'}]) if os.path.exists('" +
                                                         finished + "') else (False, []))"));
    struct sigaction action = {};
    action.sa_handler = CountSignal;  // no SA_RESTART: every wait is interrupted
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    std::atomic<bool> done{false};
    Rows rows = {{{"already", "here"}}};
    std::thread searcher([&] {
        EXPECT_EQ(OvraKbSearch("kw", OP, rows), 0U);
        done = true;
    });
    while (!done) {
        pthread_kill(searcher.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        if (g_signals > 40 && scripted_.Notes().size() >= 2) {
            WriteFile(finished, "");
        }
    }
    searcher.join();
    EXPECT_EQ(rows, (Rows{{{"already", "here"}}, {{"k", "v"}}}));
    // Each wait sleeps its full millisecond despite the signals, however busy the machine: a wait cut
    // short by a signal shows as two polls less than a millisecond apart.
    const Strings polls = scripted_.Notes();
    ASSERT_GE(polls.size(), 3U);
    EXPECT_EQ(scripted_.CallsOf("ovra_kb_search_get"), Strings(polls.size(), "ovra_kb_search_get('task-1')"));
    for (size_t i = 1; i < polls.size(); ++i) {
        const double gap = std::stod(polls[i]) - std::stod(polls[i - 1]);
        EXPECT_GE(gap, 0.001) << "poll " << i;
        EXPECT_LT(gap, 0.5) << "poll " << i << " came much later than a millisecond";
    }
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

// ---- Threads that are cancelled, and finalisations while others call ----

// Searches until it is cancelled, counting the searches it started and those that gave their row.
struct Searches {
    std::atomic<int> started{0};
    std::atomic<int> finished{0};
};

void *SearchUntilCancelled(void *counts)
{
    Searches &searches = *static_cast<Searches *>(counts);
    for (;;) {
        Rows rows;
        ++searches.started;
        if (OvraKbSearch("kw", OP, rows) == 0 && rows.size() == 1) {
            ++searches.finished;
        }
        pthread_testcancel();
    }
}

// The search in flight when the request comes finishes with its row; the thread ends at its next cancellation point.
TEST_F(Threads, AThreadCancelledInsideASearchEndsAfterItAndTheOthersGoOn)
{
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    scripted_.SetScript(Script("ovra_kb_search_get", "finish_after_ms(args[0], 40, (True, [{'k': 'v'}]))"));
    for (int round = 0; round < 3; ++round) {
        Searches searches;
        pthread_t searcher;
        ASSERT_EQ(pthread_create(&searcher, nullptr, SearchUntilCancelled, &searches), 0);
        while (searches.started < 2) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));  // inside the second search's waits
        ASSERT_EQ(pthread_cancel(searcher), 0);
        void *result = nullptr;
        ASSERT_EQ(pthread_join(searcher, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED) << "round " << round;
        EXPECT_EQ(searches.finished.load(), searches.started.load()) << "round " << round;
    }
    Rows rows;
    EXPECT_EQ(OvraKbWrite("kw", "text", OP, false), 0U);
    EXPECT_EQ(OvraKbSearch("kw", OP, rows), 0U);
    EXPECT_EQ(rows, (Rows{{{"k", "v"}}}));
    EXPECT_EQ(OvraKbDelete("kw", OP, false), 0U);
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

// The last finalisation waits for the calls in flight; a call that comes later returns 3, never a crash.
TEST_F(Threads, AFinalisationWhileEightThreadsCallLetsEachCallEndWithZeroOrThree)
{
    constexpr int CALLERS = 8;
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
        std::atomic<int> calls{0};
        std::atomic<int> others{0};
        std::vector<std::thread> callers;
        for (int t = 0; t < CALLERS; ++t) {
            callers.emplace_back([&, t] {
                const StrMap config = {{"op_type", "Op" + std::to_string(t)}};
                for (int refusals = 0; refusals < 3;) {
                    Rows rows;
                    for (std::uint32_t status : {OvraKbWrite("kw", "text", config, false),
                                                 OvraKbSearch("kw", config, rows), OvraKbDelete("kw", config, false)}) {
                        refusals += status == 3 ? 1 : 0;
                        others += status == 0 || status == 3 ? 0 : 1;
                        ++calls;
                    }
                }
            });
        }
        while (calls < 10 * CALLERS) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(OvraKbFinalize(), 0U) << "round " << round;
        for (std::thread &caller : callers) {
            caller.join();
        }
        EXPECT_EQ(others.load(), 0) << "round " << round;
    }
    EXPECT_EQ(CountEvents("OvraKbPyfuncMgr: PyObjectDeinit function end successfully!"), 3);
}

// Callers take the interpreter lock in turns, and a thread keeps its turn between calls made in a row. A thread
// that stops calling (it waits for another caller, or it has ended) must not keep the others out: each row's
// second caller gets through while the first is still waiting for it, or after the first has ended.
TEST_F(Threads, AThreadThatStopsCallingOrEndsHoldsNoOtherCallerUp)
{
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    for (bool firstEnds : {false, true}) {
        std::promise<std::uint32_t> secondDone;
        std::future<std::uint32_t> secondStatus = secondDone.get_future();
        std::uint32_t firstStatus = 99;
        std::thread first([&] {
            firstStatus = OvraKbWrite("first", "text", OP, false);
            if (!firstEnds) {
                secondStatus.wait_for(std::chrono::seconds(60));
            }
        });
        if (firstEnds) {
            first.join();
        }
        std::thread second([&] { secondDone.set_value(OvraKbWrite("second", "text", OP, false)); });
        if (secondStatus.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
            ADD_FAILURE() << "the second caller still waits (first " << (firstEnds ? "ended" : "waiting") << ")";
            std::_Exit(1);  // its thread cannot be joined
        }
        second.join();
        if (!firstEnds) {
            first.join();
        }
        EXPECT_EQ(firstStatus, 0U) << "first ends: " << firstEnds;
        EXPECT_EQ(secondStatus.get(), 0U) << "first ends: " << firstEnds;
    }
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

using Dispositions = std::vector<std::uintptr_t>;

Dispositions SignalDispositions()
{
    Dispositions out;
    for (int signal : {SIGINT, SIGPIPE, SIGXFSZ}) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        out.push_back(reinterpret_cast<std::uintptr_t>(action.sa_handler));
    }
    return out;
}

void HostHandler(int) {}

// A SIGINT that comes while the library starts Python (here from its site customisation, while Python's own
// handler is in place) is held, and reaches the host's own disposition once it is back: a host that keeps the
// default dies of it, as it would have without the start-up. The host keeps its dispositions across start and stop.
TEST_F(Threads, TheHostKeepsItsSignalDispositionsAndGetsTheInterruptOfTheStartUp)
{
    const Dispositions before = SignalDispositions();
    pid_t child = fork();
    if (child == 0) {
        // Only in this process: the library's queries run python3 processes of their own.
        WriteFile(dir_.File("sitecustomize.py"), "import os, signal\nif os.getpid() == " + std::to_string(getpid()) +
                                                     ":\n    os.kill(os.getpid(), signal.SIGINT)\n");
        setenv("PYTHONPATH", (dir_.Path() + ":" + getenv("PYTHONPATH")).c_str(), 1);
        OvraKbInit(SYS, LOAD);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << "wait status " << status;

    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    EXPECT_EQ(SignalDispositions(), before);
    for (int signal : {SIGINT, SIGPIPE, SIGXFSZ}) {
        std::signal(signal, HostHandler);
    }
    const Dispositions installedInBetween = SignalDispositions();
    EXPECT_EQ(OvraKbFinalize(), 0U);
    EXPECT_EQ(SignalDispositions(), installedInBetween);
}

}  // namespace
