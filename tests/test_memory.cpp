// What stays alive: the library keeps some Python references on purpose (the argument dictionaries of
// init, write and delete, one reference on each completion flag a search reads, and the formatted lines
// and upload dictionary of each captured exception, with the exception itself). N operations of each
// kind leave exactly those behind, and nothing else grows with N. (The reference kept on None by each
// search without a search type is counted in test_python_side: here the interpreter's own use blurs it.)
// On the reference package, what those references hold stays small, and release mode keeps nothing.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "ovra_kb/ovra_kb_api.h"
#include "test_env.h"

using namespace OvraTest;

namespace {

constexpr int N = 40;
// The interpreter's own caches come and go by a few objects between two measurements; a leak of
// even one object per operation shows as N or more.
constexpr long NOISE = 24;

// The module keeps every dictionary it receives, so that their counts can be read at the end, answers
// each search's first poll with False and its second with True, and answers a write with op_type
// "measure" by noting the interpreter's counts.
const char *const SCRIPT = R"js({
  "ovra_kb_init": ["state.setdefault('kept', []).extend(args) or 0"],
  "ovra_kb_write": ["note('%d %d %d %d' % (tracked_objects(state['kept']), traceback_line_lists(), sys.getrefcount(False), sys.getrefcount(True))) if args[2]['op_type'] == 'measure' else (fail(RuntimeError({'errCode': 'E_MEM'})) if args[0] == 'fail' else (state['kept'].append(args[2]) or 0))"],
  "ovra_kb_delete": ["state['kept'].append(args[1]) or 0"],
  "ovra_kb_search_async": ["state['kept'].append(args[1]) or default()"],
  "ovra_kb_search_get": ["poll_after(args[0], 1, default)"],
  "ovra_kb_finalize": ["note(' '.join(str(n) for n in extra_refs(state['kept']) + extra_refs(state.get('uploads', []))))"],
  "get_py_exception_dict": ["state.setdefault('uploads', []).append({'errCode': 'E_MEM'}) or state['uploads'][-1]"]
})js";

// The interpreter's counts, as the measuring write notes them.
struct Counts {
    long tracked = 0;
    long tracebackLists = 0;
    long falseRefs = 0;
    long trueRefs = 0;
};

using Memory = ScriptedTest;

TEST_F(Memory, OperationsKeepOnlyWhatTheyKeepOnPurposeAndNothingGrowsBeyond)
{
    auto measure = [this] {
        EXPECT_EQ(OvraKbWrite("measure", "", {{"op_type", "measure"}}, false), 0U);
        Counts c;
        std::istringstream(scripted_.Notes().back()) >> c.tracked >> c.tracebackLists >> c.falseRefs >> c.trueRefs;
        return c;
    };
    auto successes = [](int rounds) {
        for (int i = 0; i < rounds; ++i) {
            Rows rows;
            ASSERT_EQ(OvraKbWrite("kw", "text", OP, i % 2 == 0), 0U);
            ASSERT_EQ(OvraKbSearch("kw", OP, rows), 0U);
            ASSERT_EQ(OvraKbSearch("kw", {{"op_type", "Add"}, {"search_type", "exact"}}, rows), 0U);
            ASSERT_EQ(OvraKbDelete("kw", OP, false), 0U);
        }
    };
    auto failures = [] {
        for (int i = 0; i < N; ++i) {
            ASSERT_EQ(OvraKbWrite("fail", "text", OP, true), 6U);
        }
    };
    scripted_.SetScript(SCRIPT);
    ASSERT_EQ(OvraKbInit(SYS, LOAD), 0U);
    successes(2);  // warm-up: first-use caches of the interpreter
    const Counts start = measure();
    successes(N);
    const Counts afterSuccesses = measure();
    failures();  // the interpreter settles its caches of tracebacks during the first batch
    const Counts settled = measure();
    failures();
    const Counts afterFailures = measure();
    failures();
    const Counts afterMore = measure();

    // Beyond the kept argument dictionaries (which the collector follows from CPython 3.14 on; before, it
    // leaves dictionaries of strings alone), nothing it follows may grow with the number of successful
    // operations.
    EXPECT_LE(std::labs(afterSuccesses.tracked - start.tracked), NOISE) << "objects grew beyond the ones kept";
    EXPECT_EQ(afterSuccesses.tracebackLists, start.tracebackLists);
    if (TestPythonVersion() < 312) {  // False and True are immortal from 3.12 on: their counts say nothing
        EXPECT_EQ(afterSuccesses.falseRefs - start.falseRefs, 2 * N);
        EXPECT_EQ(afterSuccesses.trueRefs - start.trueRefs, 2 * N);
    }
    // Per failure the same objects stay (lines, the exception and its traceback): two equal batches
    // leave the same number behind.
    EXPECT_EQ(afterFailures.tracebackLists - settled.tracebackLists, N);
    EXPECT_EQ(afterMore.tracebackLists - afterFailures.tracebackLists, N);
    const long first = afterFailures.tracked - settled.tracked;
    const long second = afterMore.tracked - afterFailures.tracked;
    EXPECT_GE(first, N);
    EXPECT_LE(std::labs(second - first), NOISE)
        << "per failure " << first / double(N) << " then " << second / double(N);

    // The references beyond the module's own, in the order the module kept the dictionaries: init's two, per
    // round those of write, search, search and delete (not those of the measuring writes), one upload
    // dictionary per failure. The library keeps one on each dictionary but a search's.
    ASSERT_EQ(OvraKbFinalize(), 0U);
    std::istringstream extras(scripted_.Notes().back());
    std::string kept;
    for (int extra = 0; extras >> extra;) {
        kept += std::to_string(extra);
    }
    std::string expected = "11";
    for (int round = 0; round < 2 + N; ++round) {
        expected += "1001";
    }
    EXPECT_EQ(kept, expected + std::string(3 * N, '1'));
}

// ---- The reference package: bytes kept per call ----

// Evaluates a Python expression in the interpreter the library started, on this thread, through the runtime's
// own functions (the library put them in the process's global scope); its value as an integer.
long long PythonInteger(const std::string &expression)
{
    struct Runtime {
        int (*ensure)() = reinterpret_cast<int (*)()>(dlsym(RTLD_DEFAULT, "PyGILState_Ensure"));
        void (*release)(int) = reinterpret_cast<void (*)(int)>(dlsym(RTLD_DEFAULT, "PyGILState_Release"));
        void *(*run)(const char *, int, void *, void *) =
            reinterpret_cast<void *(*)(const char *, int, void *, void *)>(dlsym(RTLD_DEFAULT, "PyRun_String"));
        void *(*newDict)() = reinterpret_cast<void *(*)()>(dlsym(RTLD_DEFAULT, "PyDict_New"));
        long long (*asLongLong)(void *) = reinterpret_cast<long long (*)(void *)>(dlsym(RTLD_DEFAULT, "PyLong_AsLongLong"));
        void (*decRef)(void *) = reinterpret_cast<void (*)(void *)>(dlsym(RTLD_DEFAULT, "Py_DecRef"));
        void (*print)() = reinterpret_cast<void (*)()>(dlsym(RTLD_DEFAULT, "PyErr_Print"));
    };
    static const Runtime py;
    constexpr int EVAL_INPUT = 258;  // Py_eval_input
    int state = py.ensure();
    void *globals = py.newDict();
    void *value = py.run(expression.c_str(), EVAL_INPUT, globals, globals);
    long long out = value != nullptr ? py.asLongLong(value) : -1;
    if (value == nullptr) {
        py.print();
    }
    py.decRef(value);
    py.decRef(globals);
    py.release(state);
    return out;
}

// Most bytes of Python memory that one call of each outcome may leave behind.
struct KeptGoals {
    const char *mode;
    bool release;
    long failedConversion;
    long write;
    long refusal;
    long refusalFrom314;  // CPython 3.14's frames are larger (304 bytes against 3.13's 288)
};

class KeptBytes : public ::testing::TestWithParam<KeptGoals> {};

TEST_P(KeptBytes, PerCallStayWithinTheGoalsOfTheMode)
{
    const KeptGoals &goals = GetParam();
    TempDir bank;
    UseReferencePackage();
    setenv("OVRA_KB_RELEASE_KEPT", goals.release ? "1" : "0", 1);
    ASSERT_EQ(OvraKbInit(SYS, {{"op_bank_path", bank.Path()}}), 0U);
    const StrMap notUtf8 = {{"op_type", "\xff"}};
    const StrMap refused = {{"op_type", "*"}};  // every op type: a value only a search may ask for
    int serial = 0;
    struct Batch {
        const char *outcome;
        int calls;
        std::uint32_t status;
        const StrMap *config;
        long goal;
    };
    const Batch batches[] = {
        {"failed conversion", 20000, 4, &notUtf8, goals.failedConversion},
        {"successful write", 20000, 0, &OP, goals.write},
        {"refused write", 5000, 6, &refused, TestPythonVersion() >= 314 ? goals.refusalFrom314 : goals.refusal}};
    auto run = [&](const Batch &batch, int calls) {
        for (int i = 0; i < calls; ++i) {
            ASSERT_EQ(OvraKbWrite("k" + std::to_string(serial++), "tile 128x128", *batch.config, false), batch.status);
        }
    };
    const char *const traced = "__import__('gc').collect() * 0 + __import__('tracemalloc').get_traced_memory()[0]";
    ASSERT_EQ(PythonInteger("__import__('tracemalloc').start() or 0"), 0);
    for (const Batch &batch : batches) {
        run(batch, 200);  // first-use caches of the interpreter and the package
        const long long before = PythonInteger(traced);
        run(batch, batch.calls);
        // Half a byte a call is the interpreter's own caches settling; a kept object is sixteen bytes or more.
        const double perCall = double(PythonInteger(traced) - before) / batch.calls;
        EXPECT_LE(perCall, batch.goal + 0.5) << batch.outcome << " in " << goals.mode << " mode";
        RecordProperty(std::string(batch.outcome) + " bytes", std::to_string(perCall));
    }
    EXPECT_EQ(OvraKbFinalize(), 0U);
}

// A refusal keeps its exception, traceback and formatted lines: about 1.1 KB of CPython's own objects (1.2 KB from
// 3.14 on), made as small as the package can make them (an empty dictionary is 64 bytes). Release mode keeps
// nothing.
INSTANTIATE_TEST_SUITE_P(Modes, KeptBytes,
                         ::testing::Values(KeptGoals{"default", false, 0, 80, 1152, 1216},
                                           KeptGoals{"release", true, 0, 32, 32, 32}),
                         [](const ::testing::TestParamInfo<KeptGoals> &info) { return info.param.mode; });

}  // namespace
