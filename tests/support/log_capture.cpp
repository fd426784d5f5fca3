#include "log_capture.h"

#include "log_formats.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>

namespace OvraTest {
namespace {

struct Capture {
    std::mutex mutex;
    std::vector<LogLine> lines;
    std::set<int> disabled;
    size_t checks = 0;
};

Capture &State()
{
    static Capture *capture = new Capture;  // never destroyed: the library logs during static destruction
    return *capture;
}

// "[file:line][tag][Tid:n]\"message\"\n"
LogLine Parse(int module, int level, const std::string &raw)
{
    LogLine out;
    out.module = module;
    out.level = level;
    out.raw = raw;
    size_t colon = raw.find(':');
    size_t close = raw.find("][");
    if (raw.empty() || raw[0] != '[' || colon == std::string::npos || close == std::string::npos) {
        return out;
    }
    out.file = raw.substr(1, colon - 1);
    out.line = std::atoi(raw.substr(colon + 1, close - colon - 1).c_str());
    size_t tagEnd = raw.find("][Tid:", close + 2);
    if (tagEnd == std::string::npos) {
        return out;
    }
    out.tag = raw.substr(close + 2, tagEnd - close - 2);
    size_t tidEnd = raw.find("]\"", tagEnd);
    if (tidEnd == std::string::npos) {
        return out;
    }
    out.tid = std::atoi(raw.substr(tagEnd + 6, tidEnd - tagEnd - 6).c_str());
    std::string rest = raw.substr(tidEnd + 2);
    if (rest.size() >= 2 && rest.compare(rest.size() - 2, 2, "\"\n") == 0) {
        out.message = rest.substr(0, rest.size() - 2);
    }
    return out;
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

std::vector<std::string> LogCapture::Messages(int level)
{
    std::vector<std::string> out;
    for (const LogLine &line : Lines()) {
        if (line.level == level) {
            out.push_back(line.message);
        }
    }
    return out;
}

std::vector<std::string> LogCapture::Messages(int level, const std::string &file)
{
    std::vector<std::string> out;
    for (const LogLine &line : Lines()) {
        if (line.level == level && line.file == file) {
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

size_t LogCapture::Checks()
{
    std::lock_guard<std::mutex> lock(State().mutex);
    return State().checks;
}

}  // namespace OvraTest

extern "C" int CheckLogLevel(int moduleId, int level)
{
    (void)moduleId;
    OvraTest::Capture &state = OvraTest::State();
    std::lock_guard<std::mutex> lock(state.mutex);
    ++state.checks;
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
    OvraTest::LogLine line = OvraTest::Parse(moduleId, level, raw);
    line.format = fmt;
    OvraTest::CheckFormat(line.file, line.format);
    OvraTest::Capture &state = OvraTest::State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.lines.push_back(line);
}

extern "C" int mmGetTid(void)
{
    return static_cast<int>(syscall(SYS_gettid));
}
