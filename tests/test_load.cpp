// Eight threads run a bounded mix of write, search and delete on the reference knowledge base;
// afterwards the bank holds exactly what a model of the same operations predicts.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "ovra_kb/ovra_kb_api.h"
#include "test_env.h"

using OvraKb::StrMap;
using OvraTest::TempDir;

namespace {

using Rows = std::vector<StrMap>;
using Clock = std::chrono::steady_clock;
// (op_type, keyword) -> knowledge
using Model = std::map<std::pair<std::string, std::string>, std::string>;

constexpr int THREADS = 8;
constexpr int KEYS_PER_THREAD = 32;
const char *const OP_TYPES[] = {"MatMul", "Conv2D", "Add"};

int LoadSeconds()
{
    const char *configured = getenv("OVRA_LOAD_SECONDS");
    return configured != nullptr ? std::max(1, atoi(configured)) : 20;
}

// Fails the test loudly instead of letting a deadlock hang CI.
class Watchdog {
  public:
    explicit Watchdog(std::chrono::seconds quiet) : quiet_(quiet), thread_([this] { Watch(); }) {}
    ~Watchdog()
    {
        stop_ = true;
        thread_.join();
    }
    void Progress() { ++progress_; }

  private:
    void Watch()
    {
        long last = -1;
        auto lastChange = Clock::now();
        while (!stop_) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            long now = progress_.load();
            if (now != last) {
                last = now;
                lastChange = Clock::now();
            } else if (Clock::now() - lastChange > quiet_) {
                fprintf(stderr, "watchdog: no operation finished for %lld s after %ld operations: deadlock\n",
                        static_cast<long long>(quiet_.count()), now);
                std::abort();
            }
        }
    }
    std::chrono::seconds quiet_;
    std::atomic<long> progress_{0};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

struct Worker {
    int index;
    Model model;  // this thread's keys only: no other thread touches them
    long operations = 0;
    std::vector<std::string> failures;

    std::string OpType(int key) const { return OP_TYPES[(index + key) % 3]; }
    std::string Keyword(int key) const { return "t" + std::to_string(index) + "-k" + std::to_string(key); }

    void Fail(const std::string &what)
    {
        if (failures.size() < 10) {
            failures.push_back(what);
        }
    }

    void CheckExact(int key)
    {
        Rows rows;
        std::uint32_t status = OvraKbSearch(Keyword(key), {{"op_type", OpType(key)}}, rows);
        auto expected = model.find({OpType(key), Keyword(key)});
        if (status != 0) {
            Fail("search status " + std::to_string(status));
        } else if (expected == model.end() ? !rows.empty()
                                           : rows.size() != 1 || rows[0].at("knowledge") != expected->second) {
            Fail("exact search of " + Keyword(key) + " disagrees with the model");
        }
    }

    void CheckPrefix(int key)
    {
        // "t3-k1" also matches t3-k10..t3-k19 of the same operator type.
        const std::string prefix = "t" + std::to_string(index) + "-k" + std::to_string(key % 10);
        Rows rows;
        if (OvraKbSearch(prefix, {{"op_type", OpType(key)}, {"search_type", "prefix"}}, rows) != 0) {
            Fail("prefix search failed");
            return;
        }
        Model found;
        for (const StrMap &row : rows) {
            found[{row.at("op_type"), row.at("keyword")}] = row.at("knowledge");
        }
        Model expected;
        for (const auto &entry : model) {
            if (entry.first.first == OpType(key) && entry.first.second.compare(0, prefix.size(), prefix) == 0) {
                expected.insert(entry);
            }
        }
        if (found != expected) {
            Fail("prefix search of " + prefix + " disagrees with the model");
        }
    }

    void Run(Clock::time_point deadline, Watchdog &watchdog)
    {
        std::mt19937 random(1000 + index);
        while (Clock::now() < deadline) {
            int key = static_cast<int>(random() % KEYS_PER_THREAD);
            int choice = static_cast<int>(random() % 100);
            bool flag = random() % 4 == 0;
            if (choice < 45) {
                std::string knowledge = "v" + std::to_string(operations) + " of " + Keyword(key);
                if (OvraKbWrite(Keyword(key), knowledge, {{"op_type", OpType(key)}}, flag) == 0) {
                    model[{OpType(key), Keyword(key)}] = knowledge;
                } else {
                    Fail("write failed");
                }
            } else if (choice < 65) {
                if (OvraKbDelete(Keyword(key), {{"op_type", OpType(key)}}, flag) == 0) {
                    model.erase({OpType(key), Keyword(key)});
                } else {
                    Fail("delete failed");
                }
            } else if (choice < 95) {
                CheckExact(key);
            } else {
                CheckPrefix(key);
            }
            ++operations;
            watchdog.Progress();
        }
    }
};

TEST(Load, EightThreadsAgreeWithTheModel)
{
    TempDir dir;
    OvraTest::PutPythonFirstOnPath(dir, OvraTest::TestPython());
    OvraTest::UseReferencePackage();
    const StrMap sys = {{"soc_version", "soc-a1"}, {"core_num", "8"}};
    ASSERT_EQ(OvraKbInit(sys, {{"op_bank_path", dir.File("bank")}}), 0U);

    std::vector<Worker> workers;
    for (int i = 0; i < THREADS; ++i) {
        workers.push_back(Worker{i, {}, 0, {}});
    }
    {
        Watchdog watchdog(std::chrono::seconds(60));
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(LoadSeconds());
        std::vector<std::thread> threads;
        for (Worker &worker : workers) {
            threads.emplace_back([&worker, deadline, &watchdog] { worker.Run(deadline, watchdog); });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    }

    Model expected;
    long operations = 0;
    for (const Worker &worker : workers) {
        EXPECT_TRUE(worker.failures.empty()) << "thread " << worker.index << ": " << worker.failures.front();
        expected.insert(worker.model.begin(), worker.model.end());
        operations += worker.operations;
    }
    Model bank;
    for (const char *opType : OP_TYPES) {
        Rows rows;
        ASSERT_EQ(OvraKbSearch("", {{"op_type", opType}, {"search_type", "all"}}, rows), 0U);
        for (const StrMap &row : rows) {
            bank[{row.at("op_type"), row.at("keyword")}] = row.at("knowledge");
        }
    }
    EXPECT_EQ(bank, expected);
    EXPECT_GT(operations, 1000) << "the threads must have made real progress";
    printf("%ld operations by %d threads, %zu records at the end\n", operations, THREADS, bank.size());
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

}  // namespace
