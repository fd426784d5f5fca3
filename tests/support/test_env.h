#ifndef OVRA_KB_TESTS_TEST_ENV_H
#define OVRA_KB_TESTS_TEST_ENV_H

#include <cstdint>
#include <initializer_list>
#include <map>
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
// Directory of the Python test packages (tests/pypkgs).
std::string PackagesDir();
// Directory of the build's test fixtures (stub libraries).
std::string FixturesBinaryDir();

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
std::string ReadFile(const std::string &path);
std::vector<std::string> ReadLines(const std::string &path);
void PrependToPath(const std::string &dir);

// Puts `python` first on the search path under the name python3 (through a symlink in `dir`).
void PutPythonFirstOnPath(const TempDir &dir, const std::string &python);
// Puts a python3 that appends one line to `counterFile` for each run and then runs `python`.
void PutCountingPythonFirstOnPath(const TempDir &dir, const std::string &python, const std::string &counterFile);
// PYTHONPATH made of the support module and the named package directories of tests/pypkgs, in order.
void UsePackages(std::initializer_list<std::string> packages);

// PYTHONPATH holding the reference knowledge-base package (python/).
void UseReferencePackage();
// Version of the test interpreter as major * 100 + minor (311 for 3.11), and its full version text.
int TestPythonVersion();
std::string TestPythonVersionText();
// The resident set of this process, in bytes.
long ResidentBytes();
// Whether AddressSanitizer watches this build: its quarantine keeps freed memory resident for a while.
constexpr bool UnderAddressSanitizer()
{
#if defined(__SANITIZE_ADDRESS__)
    return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
    return true;
#else
    return false;
#endif
#else
    return false;
#endif
}
// First line printed by a shell command, without its line end.
std::string FirstLineOf(const std::string &command);

// The scripted test packages: what the module answers (a JSON script) and what it received.
struct RecordedCall {
    std::int64_t nanoseconds = 0;
    std::uint64_t thread = 0;
    std::string call;  // name(repr of each argument)
};

class Scripted {
  public:
    explicit Scripted(const TempDir &dir);
    // Replaces the script: a JSON object from function name to a list of Python expressions.
    void SetScript(const std::string &json) const;
    std::vector<RecordedCall> Calls() const;
    // Only the calls of one function, as text.
    std::vector<std::string> CallsOf(const std::string &function) const;
    // The texts of the module's note(...) lines, in order.
    std::vector<std::string> Notes() const;
    void ClearRecord() const;

  private:
    std::string script_;
    std::string record_;
};

// Error reports the platform library kept, as (code, details).
std::vector<std::pair<std::string, OvraKb::StrMap>> ErrorReports();
void ClearErrorReports();

}  // namespace OvraTest

#endif  // OVRA_KB_TESTS_TEST_ENV_H
