#ifndef OVRA_KB_TESTS_TEST_ENV_H
#define OVRA_KB_TESTS_TEST_ENV_H

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "ovra_kb/ovra_kb_api.h"

namespace OvraTest {

using OvraKb::StrMap;
using Rows = std::vector<StrMap>;
using Strings = std::vector<std::string>;
// A configuration every test knowledge base accepts: a chip, a bank, an operator type.
inline const StrMap SYS = {{"soc_version", "soc-a1"}, {"core_num", "8"}};
inline const StrMap LOAD = {{"op_bank_path", "/tmp/ovra-bank"}};
inline const StrMap OP = {{"op_type", "Add"}};

// The Python interpreter the tests run against: $OVRA_TEST_PYTHON, else the build's default.
std::string TestPython();
int TestPythonVersion();  // 311 for 3.11
std::string TestPythonVersionText();
// The runtime library of `python` that the library is expected to load: its LIBDIR/LDLIBRARY.
std::string RuntimeLibraryPath(const std::string &python);
// Opens the test interpreter's runtime library into the global scope, as a host that embeds Python does.
void *OpenRuntimeGlobally();
std::string FixturesBinaryDir();  // the stub runtimes
std::string TestsSourceDir();     // tests/ of the source tree

// A fresh directory, removed with its contents when the object goes.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &Path() const { return path_; }
    std::string File(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

void WriteFile(const std::string &path, const std::string &text, bool executable = false);
Strings ReadLines(const std::string &path);
void PrependToPath(const std::string &dir);
// Puts `python` first on the search path under the name python3, through a script that counts its runs.
void PutPythonFirstOnPath(const TempDir &dir, const std::string &python);
size_t PythonRuns(const TempDir &dir);
// PYTHONPATH made of the support module and the named package directories of tests/pypkgs, in order.
void UsePackages(std::initializer_list<std::string> packages);
// PYTHONPATH holding the reference knowledge-base package (python/).
void UseReferencePackage();
// The scripted test packages: what the module answers (a JSON script) and what it received.
class Scripted {
  public:
    explicit Scripted(const TempDir &dir);
    // Replaces the script: a JSON object from function name to a list of Python expressions.
    void SetScript(const std::string &json) const;
    // The calls, as name(repr of each argument), and the texts of the module's note(...), in order.
    Strings Calls() const { return Record(false); }
    Strings CallsOf(const std::string &function) const;
    Strings Notes() const { return Record(true); }
    void ClearRecord() const;

  private:
    Strings Record(bool notes) const;

    std::string script_;
    std::string record_;
};

// A script that gives `answer`, a Python expression, to every call of `function`.
std::string Script(const std::string &function, const std::string &answer);

// The error reports the platform library kept.
using Reports = std::vector<std::pair<std::string, StrMap>>;
Reports ErrorReports();
void ClearErrorReports();

// A test against the scripted packages, with the test interpreter first on the search path.
class ScriptedTest : public ::testing::Test {
  protected:
    void SetUp() override;
    size_t Queries() const { return PythonRuns(dir_); }

    TempDir dir_;
    Scripted scripted_{dir_};
};

}  // namespace OvraTest

#endif  // OVRA_KB_TESTS_TEST_ENV_H
