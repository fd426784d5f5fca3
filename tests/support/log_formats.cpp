// Every message the library may write, by source file, exactly as its format string must read
// between the line prefix and the closing quote. Each line the library hands to DlogInner is
// checked against this table when it is logged, so a message assembled from a shared "%s" format,
// or literals joined without their quote-space-quote sequences, fail whichever test logs them.
#include "log_formats.h"

#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <set>

#include "runtime/python_api.h"

namespace OvraTest {
namespace {

const char *const LINE_PREFIX = "[%s:%d][%s][Tid:%d]\"";
const char *const LINE_SUFFIX = "\"\n";

std::set<std::string> DlsymFailures()
{
    std::set<std::string> out;
#define OVRA_TEST_DLSYM_FAILURE(symbol, failureName, Type) \
    out.insert("Failed to run dlsym function for " failureName ", error message: [%s].");
    OVRA_KB_PYTHON_API(OVRA_TEST_DLSYM_FAILURE)
#undef OVRA_TEST_DLSYM_FAILURE
    return out;
}

const std::map<std::string, std::set<std::string>> &Catalogue()
{
    static const std::map<std::string, std::set<std::string>> catalogue = [] {
        std::map<std::string, std::set<std::string>> out = {
            {"ovra_kb_api",
             {"Run PyInterfaceInit Error!", "Run OvraKbInit Error!", "Run OvraKbFinalize Error!",
              "Run PyInterfaceDeinit Error!", "Run OvraKbSearch Error!", "Run OvraKbWrite Error!",
              "Run OvraKbDelete Error!"}},
            {"handle_manager",
             {"Failed to run python cmd[%s].", "Cannot fetch the version information of the current python.",
              "line:[%s]", "Failed to get python3 [LDLIBRARY].", "Start to load dynamic python lib!",
              "Dynamic python lib has already heen loaded!",
              "Failed to get python3 lib name when trying to load library.",
              "Failed to get python3 lib dir when trying to load library.",
              "Python install path[%s] is invalid, please confirm that the environment\" \"variable "
              "[ld_library_path] or [ldconfig] has configured the path of the python\" \"library.",
              "Load dynamic Python library[%s] successfully!",
              "Failed to close the handle because it is already a nullptr.", "Failed to close current handle.",
              "Release dynamic python lib failed!", "Start to run init functions to load dynamic python lib!",
              "Dynamic python lib has been inited!", "Init functions of loading dynamic python lib end!"}},
            {"ovra_kb_pyfunc_mgr",
             {"OVRA_KB_Py has already been initialized.", "Start to run Py_IsInitialized now.",
              "Start to run PyEval_ThreadsInitialized now.", "Start to run PyEval_SaveThread now.",
              "OvraKbPyfuncMgr: Enter PyObjectInit, reference_ is %lu!",
              "PyObjectInit: PyObject has been initialized, no need to re-initialize!",
              "PyObjectInit: Load python error", "PyObjectInit: Init python funcs error",
              "PyObjectInit: Import repository_manager_log error",
              "PyObjectInit: pyPrintFunc or pyUploadFunc is nullptr.", "PyObjectInit: Run Init error.",
              "OvraKbPyfuncMgr: Run PyObjectInit successfully!", "OVRA_KB import ovraKbInterface_ error",
              "OvraKbPyfuncMgr: enter PyObjectDeinit function, reference_[%lu]", "PyObject does not need to deinit",
              "OvraKbPyfuncMgr: PyObjectDeinit function end successfully!"}},
            {"pywrapper",
             {"PyParseStrList: pyStrList is nullptr or vstr is empty.", "PyParseStrList: Length of pyStrList is [%zu].",
              "PydictToMap: pyObj is nullptr.", "pyUniques is nullptr or is not List.",
              "pyUnique is nullptr or is not string!", "pyVal is nullptr or is not string!",
              "pUnique or pVal is nullptr!.", "PylistToVec: pyObj is nullptr.", "PylistToVec: pyKbMap is nullptr.",
              "PylistToVec: mapTmp is empty.", "Import module traceback failed.", "%s",
              "Failed to upload errcode message.", "Report error message failed.", "PyErrMsgTuple is nullptr.",
              "Failed to parse pyErrMsgTuple.", "PyErrDict or pyOpName is nullptr.",
              "PyUnicode_AsUTF8 return nullptr."}},
            {"py_interface",
             {"CheckSysConfigMap: Check sysConfigMap Failed!", "CheckLoadConfigMap: Check loadConfigMap Failed!",
              "CheckSearchConfigMap: Check searchConfigMap Failed!",
              "GetSysConfigParams: Py_BuildValue returns nullptr!",
              "GetLoadConfigParams: Py_BuildValue returns nullptr!",
              "GetParamsFromWriteConfig: Py_BuildValue returns nullptr!",
              "GetParamsFromSearchConfig: Py_BuildValue returns nullptr!", "PyObjectInit of OvraKbPyfuncMgr Error!",
              "OvraKbInit: create new pydict failed.", "Failed to call ovra_kb_init.",
              "Failed to call ovra_kb_finalize.", "OvraKbWrite: create new pydict failed.",
              "OvraKbDelete: create new pydict failed.", "Failed to call ovra_kb_write.",
              "Failed to call ovra_kb_delete.", "OvraKbSearch: create new pydict failed.",
              "Failed to call ovra_kb_search_async, pyRes is nullptr.",
              "Failed to call ovra_kb_search_async, pyRes.get() is invalid.", "Failed to call OvraKbSearchReq.",
              "Failed to call ovra_kb_search_get.", "ovra_kb_search_get check res failed.",
              // Calls made out of order, before the first initialisation or after the last finalisation.
              "OvraKbSearch: the knowledge base is not initialised, call OvraKbInit first.",
              "OvraKbWrite: the knowledge base is not initialised, call OvraKbInit first.",
              "OvraKbDelete: the knowledge base is not initialised, call OvraKbInit first.",
              "OvraKbFinalize: the knowledge base is not initialised, call OvraKbInit first."}},
        };
        for (const std::string &failure : DlsymFailures()) {
            out["handle_manager"].insert(failure);
        }
        return out;
    }();
    return catalogue;
}

struct Mismatches {
    std::mutex mutex;
    std::vector<std::string> seen;
};

Mismatches &Recorded()
{
    static Mismatches *mismatches = new Mismatches;  // the library logs during static destruction
    return *mismatches;
}

// Fails the test in which a line with an unknown format was logged.
class FormatCheck : public ::testing::EmptyTestEventListener {
    void OnTestEnd(const ::testing::TestInfo &) override
    {
        std::vector<std::string> seen;
        {
            std::lock_guard<std::mutex> lock(Recorded().mutex);
            seen.swap(Recorded().seen);
        }
        for (const std::string &mismatch : seen) {
            ADD_FAILURE() << "the library logged a format that is not one of its messages: " << mismatch;
        }
    }
};

const bool FORMAT_CHECK_INSTALLED = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new FormatCheck);
    return true;
}();

}  // namespace

std::string MessageFormat(const std::string &format)
{
    const std::string prefix = LINE_PREFIX;
    const std::string suffix = LINE_SUFFIX;
    if (format.size() < prefix.size() + suffix.size() || format.compare(0, prefix.size(), prefix) != 0 ||
        format.compare(format.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return std::string();
    }
    return format.substr(prefix.size(), format.size() - prefix.size() - suffix.size());
}

bool IsKnownFormat(const std::string &file, const std::string &format)
{
    auto messages = Catalogue().find(file);
    return messages != Catalogue().end() && messages->second.count(MessageFormat(format)) == 1;
}

void CheckFormat(const std::string &file, const std::string &format)
{
    (void)FORMAT_CHECK_INSTALLED;
    if (!IsKnownFormat(file, format)) {
        std::lock_guard<std::mutex> lock(Recorded().mutex);
        Recorded().seen.push_back(file + ": " + format);
    }
}

}  // namespace OvraTest
