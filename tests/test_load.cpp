// Eight threads run a random mix of write, delete and search on the reference knowledge base for
// OVRA_LOAD_SECONDS (20 by default); afterwards the bank holds exactly what a model of the same
// operations predicts. A deadlock shows as the test's time-out.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <random>
#include <thread>

#include "ovra_kb/ovra_kb_api.h"
#include "test_env.h"

using namespace OvraTest;

namespace {

using Clock = std::chrono::steady_clock;
// (op_type, keyword) -> knowledge
using Model = std::map<std::pair<std::string, std::string>, std::string>;

const char *const OP_TYPES[] = {"MatMul", "Conv2D", "Add"};

Model ModelOf(const Rows &rows)
{
    Model model;
    for (const StrMap &row : rows) {
        model[{row.at("op_type"), row.at("keyword")}] = row.at("knowledge");
    }
    return model;
}

// One thread's keys: no other thread touches them, so its model is exact at every moment.
struct Worker {
    int index;
    Model model;
    long operations = 0;
    std::vector<std::string> failures;

    void Check(bool ok, const std::string &what)
    {
        if (!ok && failures.size() < 10) {
            failures.push_back(what);
        }
    }

    void Run(Clock::time_point deadline)
    {
        std::mt19937 random(1000 + index);
        while (Clock::now() < deadline) {
            const int key = static_cast<int>(random() % 32);
            const int choice = static_cast<int>(random() % 100);
            const bool flag = random() % 4 == 0;
            const std::string opType = OP_TYPES[(index + key) % 3];
            const std::string keyword = "t" + std::to_string(index) + "-k" + std::to_string(key);
            Rows rows;
            if (choice < 45) {
                const std::string knowledge = "v" + std::to_string(operations) + " of " + keyword;
                Check(OvraKbWrite(keyword, knowledge, {{"op_type", opType}}, flag) == 0, "write failed");
                model[{opType, keyword}] = knowledge;
            } else if (choice < 65) {
                Check(OvraKbDelete(keyword, {{"op_type", opType}}, flag) == 0, "delete failed");
                model.erase({opType, keyword});
            } else {
                Check(OvraKbSearch(keyword, {{"op_type", opType}}, rows) == 0, "search failed");
                const auto stored = model.find({opType, keyword});
                Check(stored == model.end() ? rows.empty()
                                            : rows.size() == 1 && rows[0].at("knowledge") == stored->second,
                      "search of " + keyword + " disagrees with the model");
            }
            ++operations;
        }
    }
};

TEST(Load, EightThreadsAgreeWithTheModel)
{
    TempDir dir;
    PutPythonFirstOnPath(dir, TestPython());
    UseReferencePackage();
    ASSERT_EQ(OvraKbInit(SYS, {{"op_bank_path", dir.File("bank")}}), 0U);
    const char *seconds = getenv("OVRA_LOAD_SECONDS");
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(seconds != nullptr ? atoi(seconds) : 20);
    std::vector<Worker> workers;
    for (int i = 0; i < 8; ++i) {
        workers.push_back(Worker{i, {}, 0, {}});
    }
    std::vector<std::thread> threads;
    for (Worker &worker : workers) {
        threads.emplace_back([&worker, deadline] { worker.Run(deadline); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }

    Model expected;
    long operations = 0;
    for (const Worker &worker : workers) {
        EXPECT_EQ(worker.failures, std::vector<std::string>{}) << "thread " << worker.index;
        expected.insert(worker.model.begin(), worker.model.end());
        operations += worker.operations;
    }
    Rows bank;
    for (const char *opType : OP_TYPES) {
        ASSERT_EQ(OvraKbSearch("", {{"op_type", opType}, {"search_type", "all"}}, bank), 0U);
    }
    EXPECT_EQ(ModelOf(bank), expected);
    EXPECT_GT(operations, 1000) << "the threads must have made real progress";
    printf("%ld operations by 8 threads, %zu records at the end\n", operations, bank.size());
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

}  // namespace
