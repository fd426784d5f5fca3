// The reference knowledge-base package through the library, where only a process of its own can show it: two
// users of one process, records that outlive the interpreter, and eight threads at once. (The command's tests
// make the round trips through the library, one process per command.)
#include <dlfcn.h>
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
// Set on a thread, the next PyDict_New that the library itself makes there fails, as without memory.
thread_local bool tFailLibraryDict = false;
}  // namespace

namespace OvraKb {
struct PyObject;
}

// This program exports PyDict_New (ENABLE_EXPORTS) and forwards every call to the runtime's. The library binds
// it only when it finds the runtime in the global scope already, as it does after OpenRuntimeGlobally(). It has the
// type that the library calls it through, which the function sanitizer checks.
extern "C" OvraKb::PyObject *PyDict_New()
{
    using Real = OvraKb::PyObject *(*)();
    static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "PyDict_New"));
    if (tFailLibraryDict) {
        Dl_info caller{};
        if (dladdr(__builtin_return_address(0), &caller) != 0 && caller.dli_fname != nullptr &&
            std::string(caller.dli_fname).find("libovra_kb") != std::string::npos) {
            tFailLibraryDict = false;
            return nullptr;
        }
    }
    return real();
}

namespace {

// A stored record, as searches give it: the chip of SYS and the record's own fields.
StrMap Row(const std::string &opType, const std::string &keyword, const std::string &knowledge)
{
    StrMap row = SYS;
    row.insert({{"keyword", keyword}, {"knowledge", knowledge}, {"op_type", opType}});
    return row;
}

Rows Search(const std::string &keyword, const StrMap &config)
{
    Rows rows;
    EXPECT_EQ(OvraKbSearch(keyword, config, rows), 0U) << keyword;
    return rows;
}

class ReferenceKb : public ::testing::Test {
  protected:
    void SetUp() override
    {
        PutPythonFirstOnPath(dir_, TestPython());
        UseReferencePackage();
        ClearErrorReports();
    }
    std::uint32_t Init() { return OvraKbInit(SYS, {{"op_bank_path", dir_.File("bank")}}); }

    TempDir dir_;
};

// Two users of one process: whichever way the second one's initialisation fails, it finalises nothing
// (only an OvraKbInit that returned 0 is owed an OvraKbFinalize), and the first one's session goes on.
TEST_F(ReferenceKb, AFailedInitialiseLeavesAnotherUsersSessionAlone)
{
    struct Refusal {
        const char *label;
        StrMap sys;
        std::string bank;
        std::uint32_t status;
        const char *code;           // the package's code, when the package was asked at all
        bool noDictionary = false;  // the library's first dictionary fails (status 5)
    };
    const std::string bank = dir_.File("b");
    const std::string blocker = dir_.File("plain_file");
    WriteFile(blocker, "");
    const Refusal refusals[] = {
        {"missing core_num", {{"soc_version", "soc-b2"}}, bank, 2, ""},
        {"core_num not UTF-8", {{"soc_version", "soc-b2"}, {"core_num", "\xff"}}, bank, 4, ""},
        {"core_num abc", {{"soc_version", "soc-b2"}, {"core_num", "abc"}}, bank, 6, "OVRA_KB_E002"},
        {"bank unusable", {{"soc_version", "soc-b2"}, {"core_num", "16"}}, blocker, 6, "OVRA_KB_E003"},
        {"no dictionary", {{"soc_version", "soc-b2"}, {"core_num", "16"}}, bank, 5, "", true},
    };
    // Status 5 needs the library bound to this program's PyDict_New, through the global scope.
    ASSERT_NE(OpenRuntimeGlobally(), nullptr) << dlerror();
    ASSERT_EQ(Init(), 0U);
    for (const Refusal &refusal : refusals) {
        SCOPED_TRACE(refusal.label);
        ClearErrorReports();
        // The second user is a thread of its own: the error a refused value leaves pending stays with it.
        std::uint32_t status = 99;
        std::thread([&] {
            tFailLibraryDict = refusal.noDictionary;
            status = OvraKbInit(refusal.sys, {{"op_bank_path", refusal.bank}});
            tFailLibraryDict = false;
        }).join();
        EXPECT_EQ(status, refusal.status);
        const auto reports = ErrorReports();
        EXPECT_EQ(reports.empty() ? std::string() : reports.back().first, refusal.code);
        EXPECT_EQ(OvraKbWrite(refusal.label, "written by the first user", OP, true), 0U);
        EXPECT_EQ(Search(refusal.label, OP), Rows{Row("Add", refusal.label, "written by the first user")});
    }
    EXPECT_EQ(OvraKbFinalize(), 0U);
    // The rule's cost: the failed initialisations keep the Python side up. The package answers, and says that
    // nobody initialised it; and a finalisation that matches no initialisation of the package closes nothing.
    ClearErrorReports();
    EXPECT_EQ(OvraKbWrite("late", "x", OP, true), 6U);
    const auto reports = ErrorReports();
    EXPECT_EQ(reports.empty() ? std::string() : reports.back().first, "OVRA_KB_E007");
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

TEST_F(ReferenceKb, RecordsOutliveTheInterpreter)
{
    const std::string version = TestPythonVersionText();
    if (version == "3.12.0" || version == "3.12.1") {
        // Evidence: examples in the README; `import datetime` (which sqlite3 needs) after
        // Py_Finalize and a new Py_Initialize aborts this runtime with a double free.
        GTEST_SKIP() << "CPython " << version << " cannot import datetime in a restarted interpreter";
    }
    ASSERT_EQ(Init(), 0U);
    ASSERT_EQ(OvraKbWrite("durable", "flushed", {{"op_type", "Conv"}}, true), 0U);
    ASSERT_EQ(OvraKbWrite("batched", "written with flag 0", {{"op_type", "Conv"}}, false), 0U);
    ASSERT_EQ(OvraKbFinalize(), 0U);

    ASSERT_EQ(Init(), 0U) << "a second start of the interpreter in the same process";
    EXPECT_EQ(Search("", {{"op_type", "Conv"}, {"search_type", "all"}}),
              (Rows{Row("Conv", "batched", "written with flag 0"), Row("Conv", "durable", "flushed")}));
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

// Eight threads run a random mix of write, delete and search for OVRA_LOAD_SECONDS (3 by default), each on
// keywords of its own, so that its model of what it did is exact: every search must agree with it. A deadlock
// shows as the test's time-out.
TEST_F(ReferenceKb, EightThreadsAtOnceAgreeWithTheirModels)
{
    ASSERT_EQ(Init(), 0U);
    const char *seconds = getenv("OVRA_LOAD_SECONDS");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds ? atoi(seconds) : 3);
    std::atomic<long> operations{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(1000 + t);
            std::map<std::string, std::string> model;  // keyword -> knowledge
            for (long n = 0; std::chrono::steady_clock::now() < deadline; ++n, ++operations) {
                const int key = static_cast<int>(random() % 32);
                const std::string keyword = "t" + std::to_string(t) + "-k" + std::to_string(key);
                const StrMap config = {{"op_type", key % 3 == 0 ? "MatMul" : key % 3 == 1 ? "Conv2D" : "Add"}};
                const int choice = static_cast<int>(random() % 100);
                const bool flag = random() % 4 == 0;
                Rows rows;
                bool ok = true;
                if (choice < 45) {
                    model[keyword] = "v" + std::to_string(n);
                    ok = OvraKbWrite(keyword, model[keyword], config, flag) == 0;
                } else if (choice < 65) {
                    model.erase(keyword);
                    ok = OvraKbDelete(keyword, config, flag) == 0;
                } else {
                    ok = OvraKbSearch(keyword, config, rows) == 0 &&
                         (model.count(keyword) == 0 ? rows.empty()
                                                    : rows.size() == 1 && rows[0].at("knowledge") == model[keyword]);
                }
                failures += ok ? 0 : 1;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_GT(operations.load(), 100) << "the threads must have made real progress";
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

}  // namespace
