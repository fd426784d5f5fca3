#include "test_env.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "log_capture.h"
#include "ovra_platform/platform.h"

namespace OvraTest {
namespace {

// The first line a shell command prints, without its line end.
std::string FirstLineOf(const std::string &command)
{
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return "";
    }
    char line[4096] = {0};
    std::string text = fgets(line, sizeof(line), pipe) != nullptr ? line : "";
    pclose(pipe);
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

// The first line that `python` prints running `program`, which holds no single quote.
std::string RunPython(const std::string &python, const std::string &program)
{
    return FirstLineOf("'" + python + "' -c '" + program + "'");
}

}  // namespace

std::string TestPython()
{
    const char *configured = getenv("OVRA_TEST_PYTHON");
    return configured != nullptr && *configured != '\0' ? configured : OVRA_TEST_DEFAULT_PYTHON;
}

int TestPythonVersion()
{
    std::string text = RunPython(TestPython(), "import sys; print(sys.version_info[0] * 100 + sys.version_info[1])");
    return text.empty() ? 0 : std::stoi(text);
}

std::string TestPythonVersionText()
{
    return RunPython(TestPython(), "import platform; print(platform.python_version())");
}

std::string RuntimeLibraryPath(const std::string &python)
{
    return RunPython(python,
                     "import sysconfig; v = sysconfig.get_config_var; print(v(\"LIBDIR\") + \"/\" + v(\"LDLIBRARY\"))");
}

void *OpenRuntimeGlobally()
{
    return dlopen(RuntimeLibraryPath(TestPython()).c_str(), RTLD_NOW | RTLD_GLOBAL);
}

std::string FixturesBinaryDir()
{
    return OVRA_TEST_FIXTURES_BINARY_DIR;
}

std::string TestsSourceDir()
{
    return OVRA_TEST_SOURCE_DIR;
}

TempDir::TempDir()
{
    const char *base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/ovra_kb_test.XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) {
        throw std::runtime_error("cannot create a temporary directory from " + pattern);
    }
    path_ = pattern;
}

// Removed without a shell: a test may have emptied PATH, and the directory must go all the same.
TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void WriteFile(const std::string &path, const std::string &text, bool executable)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
    if (executable) {
        chmod(path.c_str(), 0755);
    }
}

Strings ReadLines(const std::string &path)
{
    Strings lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

void PrependToPath(const std::string &dir)
{
    const char *current = getenv("PATH");
    std::string value = dir + (current != nullptr ? ":" + std::string(current) : std::string());
    setenv("PATH", value.c_str(), 1);
}

void PutPythonFirstOnPath(const TempDir &dir, const std::string &python)
{
    std::string bin = dir.File("python-bin");
    mkdir(bin.c_str(), 0755);
    WriteFile(bin + "/python3",
              "#!/bin/sh\necho run >> '" + dir.File("python3-runs") + "'\nexec '" + python + "' \"$@\"\n", true);
    PrependToPath(bin);
}

size_t PythonRuns(const TempDir &dir)
{
    return ReadLines(dir.File("python3-runs")).size();
}

void UsePackages(std::initializer_list<std::string> packages)
{
    std::string value = std::string(OVRA_TEST_SOURCE_DIR) + "/pypkgs/support";
    for (const std::string &package : packages) {
        value += ":" + std::string(OVRA_TEST_SOURCE_DIR) + "/pypkgs/" + package;
    }
    setenv("PYTHONPATH", value.c_str(), 1);
}

void UseReferencePackage()
{
    std::string value = std::string(OVRA_TEST_SOURCE_DIR) + "/../python";
    setenv("PYTHONPATH", value.c_str(), 1);
}

Scripted::Scripted(const TempDir &dir) : script_(dir.File("script.json")), record_(dir.File("record.txt"))
{
    setenv("OVRA_TEST_SCRIPT", script_.c_str(), 1);
    setenv("OVRA_TEST_RECORD", record_.c_str(), 1);
    SetScript("{}");
}

void Scripted::SetScript(const std::string &json) const
{
    WriteFile(script_, json);
}

// The record holds "name(args)" for a call and "note <text>" for a note.
Strings Scripted::Record(bool notes) const
{
    Strings out;
    for (const std::string &line : ReadLines(record_)) {
        const bool note = line.compare(0, 5, "note ") == 0;
        if (note == notes) {
            out.push_back(note ? line.substr(5) : line);
        }
    }
    return out;
}

Strings Scripted::CallsOf(const std::string &function) const
{
    Strings out;
    for (const std::string &call : Calls()) {
        if (call.compare(0, function.size() + 1, function + "(") == 0) {
            out.push_back(call);
        }
    }
    return out;
}

void Scripted::ClearRecord() const
{
    unlink(record_.c_str());
}

std::string Script(const std::string &function, const std::string &answer)
{
    std::string escaped;
    for (char c : answer) {
        if (c == '"' || c == '\\') {
            escaped += '\\';
        }
        escaped += c;
    }
    return "{\"" + function + "\": [\"" + escaped + "\"]}";
}

Reports ErrorReports()
{
    Reports out;
    for (const ErrorManager::Report &report : ErrorManager::GetInstance().GetReports()) {
        out.emplace_back(report.errCode, report.args);
    }
    return out;
}

void ClearErrorReports()
{
    ErrorManager::GetInstance().ClearReports();
}

void ScriptedTest::SetUp()
{
    PutPythonFirstOnPath(dir_, TestPython());
    UsePackages({"kb", "log"});
    ClearErrorReports();
    LogCapture::Clear();
}

}  // namespace OvraTest
