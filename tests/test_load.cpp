// Eight threads run a random mix of write, delete and search on the reference knowledge base for
// OVRA_LOAD_SECONDS (20 by default); every search agrees with a model of the same operations, and so
// does the bank afterwards. A deadlock shows as the test's time-out.
#include <gtest/gtest.h>

#include <atomic>
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

// One thread's keys, which no other thread touches, so that its model is exact at every moment.
// Returns the number of operations; a disagreement is added to `failures`.
long RunMix(int index, Clock::time_point deadline, Model &model, std::atomic<int> &failures)
{
    std::mt19937 random(1000 + index);
    long operations = 0;
    for (; Clock::now() < deadline; ++operations) {
        const int key = static_cast<int>(random() % 32);
        const int choice = static_cast<int>(random() % 100);
        const bool flag = random() % 4 == 0;
        const StrMap config = {{"op_type", OP_TYPES[(index + key) % 3]}};
        const std::pair<std::string, std::string> id = {config.at("op_type"),
                                                        "t" + std::to_string(index) + "-k" + std::to_string(key)};
        Rows rows;
        bool ok = true;
        if (choice < 45) {
            model[id] = "v" + std::to_string(operations) + " of " + id.second;
            ok = OvraKbWrite(id.second, model[id], config, flag) == 0;
        } else if (choice < 65) {
            model.erase(id);
            ok = OvraKbDelete(id.second, config, flag) == 0;
        } else {
            const auto stored = model.find(id);
            ok = OvraKbSearch(id.second, config, rows) == 0 &&
                 (stored == model.end() ? rows.empty() : rows.size() == 1 && rows[0].at("knowledge") == stored->second);
        }
        failures += ok ? 0 : 1;
    }
    return operations;
}

TEST(Load, EightThreadsAgreeWithTheModel)
{
    TempDir dir;
    PutPythonFirstOnPath(dir, TestPython());
    UseReferencePackage();
    ASSERT_EQ(OvraKbInit(SYS, {{"op_bank_path", dir.File("bank")}}), 0U);
    const char *seconds = getenv("OVRA_LOAD_SECONDS");
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(seconds != nullptr ? atoi(seconds) : 20);
    std::vector<Model> models(8);
    std::vector<long> operations(8);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&, i] { operations[i] = RunMix(i, deadline, models[i], failures); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);

    Model expected;
    for (const Model &model : models) {
        expected.insert(model.begin(), model.end());
    }
    Rows bank;
    for (const char *opType : OP_TYPES) {
        ASSERT_EQ(OvraKbSearch("", {{"op_type", opType}, {"search_type", "all"}}, bank), 0U);
    }
    Model stored;
    for (const StrMap &row : bank) {
        stored[{row.at("op_type"), row.at("keyword")}] = row.at("knowledge");
    }
    EXPECT_EQ(stored, expected);
    long total = 0;
    for (long count : operations) {
        total += count;
    }
    EXPECT_GT(total, 1000) << "the threads must have made real progress";
    printf("%ld operations by 8 threads, %zu records at the end\n", total, bank.size());
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

}  // namespace
