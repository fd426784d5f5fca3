#include "log_capture.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <regex>
#include <set>

#include "runtime/python_api.h"

namespace OvraTest {
namespace {

const std::string LINE_PREFIX = "[%s:%d][%s][Tid:%d]\"";
const std::string LINE_SUFFIX = "\"\n";

struct Capture {
    std::mutex mutex;
    std::vector<LogLine> lines;
    std::set<int> disabled;
};

Capture &State()
{
    static Capture *capture = new Capture;  // never destroyed: the library logs during static destruction
    return *capture;
}

// The messages that carry a value, the only formats with a conversion.
const std::set<std::string> &ValueMessages()
{
    static const std::set<std::string> messages = [] {
        std::set<std::string> out = {
            "Failed to run python cmd[%s].",
            "line:[%s]",
            "Load dynamic Python library[%s] successfully!",
            "Python install path[%s] is invalid, please confirm that the environment\" \"variable [ld_library_path] "
            "or [ldconfig] has configured the path of the python\" \"library.",
            "OvraKbPyfuncMgr: Enter PyObjectInit, reference_ is %lu!",
            "OvraKbPyfuncMgr: enter PyObjectDeinit function, reference_[%lu]",
            "PyParseStrList: Length of pyStrList is [%zu]."};
#define OVRA_TEST_DLSYM_FAILURE(symbol, failureName, Type) \
    out.insert("Failed to run dlsym function for " failureName ", error message: [%s].");
        OVRA_KB_PYTHON_API(OVRA_TEST_DLSYM_FAILURE)
#undef OVRA_TEST_DLSYM_FAILURE
        return out;
    }();
    return messages;
}

// What is wrong with a line, or "" when nothing is.
std::string FaultOf(int module, const std::string &format, const LogLine &line, bool parsed, int tid)
{
    if (module != 60 || !parsed || tid != static_cast<int>(syscall(SYS_gettid))) {
        return "module, tag or thread id";
    }
    if (format.size() < LINE_PREFIX.size() + LINE_SUFFIX.size() ||
        format.compare(0, LINE_PREFIX.size(), LINE_PREFIX) != 0 ||
        format.compare(format.size() - LINE_SUFFIX.size(), LINE_SUFFIX.size(), LINE_SUFFIX) != 0) {
        return "line shape";
    }
    std::string message = format.substr(LINE_PREFIX.size(), format.size() - LINE_PREFIX.size() - LINE_SUFFIX.size());
    bool ownFormat = message.find('%') == std::string::npos || ValueMessages().count(message) == 1 ||
                     (line.file == "pywrapper" && message == "%s");  // the lines of a traceback
    return ownFormat ? "" : "a format that is not a message of its own";
}

}  // namespace

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(State().mutex);
    State().lines.clear();
}

std::vector<LogLine> LogCapture::Lines()
{
    std::lock_guard<std::mutex> lock(State().mutex);
    return State().lines;
}

std::vector<std::string> LogCapture::Messages(int level, const std::string &file)
{
    std::vector<std::string> out;
    for (const LogLine &line : Lines()) {
        if (line.level == level && (file.empty() || line.file == file)) {
            out.push_back(line.message);
        }
    }
    return out;
}

void LogCapture::SetEnabled(int level, bool enabled)
{
    std::lock_guard<std::mutex> lock(State().mutex);
    if (enabled) {
        State().disabled.erase(level);
    } else {
        State().disabled.insert(level);
    }
}

}  // namespace OvraTest

extern "C" int CheckLogLevel(int moduleId, int level)
{
    (void)moduleId;
    OvraTest::Capture &state = OvraTest::State();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.disabled.count(level) == 0 ? 1 : 0;
}

extern "C" void DlogInner(int moduleId, int level, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    char *text = nullptr;
    int len = vasprintf(&text, fmt, args);
    va_end(args);
    if (len < 0) {
        return;
    }
    std::string raw(text, static_cast<size_t>(len));
    free(text);
    if (getenv("OVRA_TEST_ECHO_LOG") != nullptr) {
        fprintf(stderr, "[level %d] %s", level, raw.c_str());
    }
    // "[file:line][OVRAKB][Tid:n]\"message\"\n"; only the short prefix goes through the regex.
    static const std::regex prefix(R"(\[([^:\]]+):\d+\]\[OVRAKB\]\[Tid:(\d+)\]")");
    size_t end = raw.find("]\"");
    std::smatch match;
    bool parsed = end != std::string::npos && raw.size() >= end + 4 && raw.compare(raw.size() - 2, 2, "\"\n") == 0 &&
                  std::regex_match(raw.cbegin(), raw.cbegin() + static_cast<long>(end + 2), match, prefix);
    OvraTest::LogLine line{level, parsed ? match[1].str() : "",
                           parsed ? raw.substr(end + 2, raw.size() - end - 4) : ""};
    std::string fault = OvraTest::FaultOf(moduleId, fmt, line, parsed, parsed ? std::stoi(match[2]) : 0);
    if (!fault.empty()) {
        ADD_FAILURE() << "the library logged " << fault << ": " << raw;
    }
    OvraTest::Capture &state = OvraTest::State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.lines.push_back(line);
}

extern "C" int mmGetTid(void)
{
    return static_cast<int>(syscall(SYS_gettid));
}
