// The reference knowledge-base package through the library, where only a process of its own can show it: two
// users of one process, and records that outlive the interpreter. (The command's tests make the round trips
// through the library, one process per command.)
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <thread>

#include "ovra_kb/ovra_kb_api.h"
#include "test_env.h"

using OvraKb::StrMap;
using OvraTest::TempDir;

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

using Rows = std::vector<StrMap>;

StrMap Row(const std::string &opType, const std::string &keyword, const std::string &knowledge)
{
    return {{"core_num", "8"},
            {"keyword", keyword},
            {"knowledge", knowledge},
            {"op_type", opType},
            {"soc_version", "soc-a1"}};
}

class ReferenceKb : public ::testing::Test {
  protected:
    void SetUp() override
    {
        OvraTest::PutPythonFirstOnPath(dir_, OvraTest::TestPython());
        OvraTest::UseReferencePackage();
        OvraTest::ClearErrorReports();
    }
    std::uint32_t Init() { return OvraKbInit(sys_, {{"op_bank_path", dir_.File("bank")}}); }
    Rows Search(const std::string &keyword, const std::string &opType, const char *type, std::uint32_t expected = 0)
    {
        StrMap config = {{"op_type", opType}};
        if (type != nullptr) {
            config["search_type"] = type;
        }
        Rows rows;
        EXPECT_EQ(OvraKbSearch(keyword, config, rows), expected) << keyword << " " << opType;
        return rows;
    }

    TempDir dir_;
    StrMap sys_ = {{"soc_version", "soc-a1"}, {"core_num", "8"}};
};

// Two users of one process: whichever way the second one's initialisation fails, it finalises nothing
// (only an OvraKbInit that returned 0 is owed an OvraKbFinalize), and the first one's session goes on.
TEST_F(ReferenceKb, AFailedInitialiseLeavesAnotherUsersSessionAlone)
{
    struct Refusal {
        const char *label;
        StrMap sys;
        StrMap load;
        std::uint32_t status;
        const char *code;           // the package's code, when the package was asked at all
        bool noDictionary = false;  // the library's first dictionary fails (status 5)
    };
    const std::string blocker = dir_.File("plain_file");
    OvraTest::WriteFile(blocker, "");
    const Refusal refusals[] = {
        {"missing core_num", {{"soc_version", "soc-b2"}}, {{"op_bank_path", dir_.File("b")}}, 2, ""},
        {"core_num not UTF-8",
         {{"soc_version", "soc-b2"}, {"core_num", "\xff"}},
         {{"op_bank_path", dir_.File("b")}},
         4,
         ""},
        {"core_num abc",
         {{"soc_version", "soc-b2"}, {"core_num", "abc"}},
         {{"op_bank_path", dir_.File("b")}},
         6,
         "OVRA_KB_E002"},
        {"bank unusable",
         {{"soc_version", "soc-b2"}, {"core_num", "16"}},
         {{"op_bank_path", blocker}},
         6,
         "OVRA_KB_E003"},
        {"missing op_bank_path", {{"soc_version", "soc-b2"}, {"core_num", "16"}}, {{"bank", "/tmp"}}, 2, ""},
        {"no dictionary",
         {{"soc_version", "soc-b2"}, {"core_num", "16"}},
         {{"op_bank_path", dir_.File("b")}},
         5,
         "",
         true},
    };
    // Status 5 needs the library bound to this program's PyDict_New, through the global scope.
    ASSERT_NE(OvraTest::OpenRuntimeGlobally(), nullptr) << dlerror();
    ASSERT_EQ(Init(), 0U);
    for (const Refusal &refusal : refusals) {
        SCOPED_TRACE(refusal.label);
        OvraTest::ClearErrorReports();
        // The second user is a thread of its own: the error a refused value leaves pending stays with it.
        std::uint32_t status = 99;
        std::thread([&] {
            tFailLibraryDict = refusal.noDictionary;
            status = OvraKbInit(refusal.sys, refusal.load);
            tFailLibraryDict = false;
        }).join();
        EXPECT_EQ(status, refusal.status);
        const auto reports = OvraTest::ErrorReports();
        EXPECT_EQ(reports.empty() ? std::string() : reports.back().first, refusal.code);
        EXPECT_EQ(OvraKbWrite(refusal.label, "written by the first user", {{"op_type", "Add"}}, true), 0U);
        EXPECT_EQ(Search(refusal.label, "Add", nullptr), Rows{Row("Add", refusal.label, "written by the first user")});
    }
    EXPECT_EQ(OvraKbFinalize(), 0U);
    // The rule's cost: the failed initialisations keep the Python side up. The package answers, and says that
    // nobody initialised it; and a finalisation that matches no initialisation of the package closes nothing.
    OvraTest::ClearErrorReports();
    EXPECT_EQ(OvraKbWrite("late", "x", {{"op_type", "Add"}}, true), 6U);
    const auto reports = OvraTest::ErrorReports();
    EXPECT_EQ(reports.empty() ? std::string() : reports.back().first, "OVRA_KB_E007");
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

TEST_F(ReferenceKb, RecordsOutliveTheInterpreter)
{
    const std::string version = OvraTest::TestPythonVersionText();
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
    EXPECT_EQ(Search("", "Conv", "all"),
              (Rows{Row("Conv", "batched", "written with flag 0"), Row("Conv", "durable", "flushed")}));
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

}  // namespace
