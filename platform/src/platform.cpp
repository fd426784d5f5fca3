#include "ovra_platform/platform.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

namespace {

// A threshold above every level: nothing is written.
constexpr int LEVEL_OFF = OVRA_LEVEL_ERROR + 1;

struct LogSettings {
    int threshold = OVRA_LEVEL_WARNING;
    bool events = false;
};

int KnownThreshold(const char *text);

int ParseThreshold(const char *text)
{
    if (text == nullptr || *text == '\0') {
        return OVRA_LEVEL_WARNING;
    }
    const int level = KnownThreshold(text);
    if (level < 0) {
        // Said once, when the settings are first read: a misspelt level would otherwise hide lines silently.
        const std::string warning = std::string("ovra_platform: OVRA_LOG_LEVEL=") + text +
                                    " is unknown; use debug, info, warning, error or off (0 to 4); warning is used\n";
        (void)!write(STDERR_FILENO, warning.data(), warning.size());
        return OVRA_LEVEL_WARNING;
    }
    return level;
}

// The threshold a setting names, or -1.
int KnownThreshold(const char *text)
{
    static const struct {
        const char *name;
        int level;
    } names[] = {{"debug", OVRA_LEVEL_DEBUG},  {"info", OVRA_LEVEL_INFO},   {"warning", OVRA_LEVEL_WARNING},
                 {"warn", OVRA_LEVEL_WARNING}, {"error", OVRA_LEVEL_ERROR}, {"off", LEVEL_OFF},
                 {"none", LEVEL_OFF},          {"0", OVRA_LEVEL_DEBUG},     {"1", OVRA_LEVEL_INFO},
                 {"2", OVRA_LEVEL_WARNING},    {"3", OVRA_LEVEL_ERROR},     {"4", LEVEL_OFF}};
    for (const auto &entry : names) {
        if (strcasecmp(text, entry.name) == 0) {
            return entry.level;
        }
    }
    return -1;
}

bool ParseSwitch(const char *text)
{
    return text != nullptr && (strcmp(text, "1") == 0 || strcasecmp(text, "true") == 0 ||
                               strcasecmp(text, "yes") == 0 || strcasecmp(text, "on") == 0);
}

// Read once: the log threshold is a property of the process, and CheckLogLevel runs on hot paths.
const LogSettings &Settings()
{
    static const LogSettings settings = [] {
        LogSettings s;
        s.threshold = ParseThreshold(getenv("OVRA_LOG_LEVEL"));
        s.events = ParseSwitch(getenv("OVRA_LOG_EVENT"));
        return s;
    }();
    return settings;
}

bool LevelEnabled(int level)
{
    const LogSettings &settings = Settings();
    if (level == OVRA_LEVEL_EVENT) {
        return settings.events;
    }
    return level >= OVRA_LEVEL_DEBUG && level <= OVRA_LEVEL_ERROR && level >= settings.threshold;
}

const char *LevelName(int level)
{
    switch (level) {
        case OVRA_LEVEL_DEBUG:
            return "DEBUG";
        case OVRA_LEVEL_INFO:
            return "INFO";
        case OVRA_LEVEL_WARNING:
            return "WARNING";
        case OVRA_LEVEL_ERROR:
            return "ERROR";
        case OVRA_LEVEL_EVENT:
            return "EVENT";
        default:
            return "UNKNOWN";
    }
}

std::string Timestamp()
{
    struct timeval now {};
    gettimeofday(&now, nullptr);
    struct tm local {};
    localtime_r(&now.tv_sec, &local);
    char text[64];
    size_t len = strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    snprintf(text + len, sizeof(text) - len, ".%06ld", static_cast<long>(now.tv_usec));
    return text;
}

std::string FormatV(const char *fmt, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    int needed = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (needed < 0) {
        return std::string("<unformattable log message: ") + fmt + ">";
    }
    std::string text(static_cast<size_t>(needed) + 1, '\0');
    vsnprintf(&text[0], text.size(), fmt, args);
    text.resize(static_cast<size_t>(needed));
    return text;
}

// One write(2) per line, so that lines of concurrent threads and processes never interleave.
void WriteLine(int level, const std::string &message)
{
    std::string line =
        "[" + std::string(LevelName(level)) + "] " + Timestamp() + " pid=" + std::to_string(getpid()) + " " + message;
    if (line.empty() || line.back() != '\n') {
        line += '\n';
    }
    const char *data = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t written = write(STDERR_FILENO, data, left);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        data += written;
        left -= static_cast<size_t>(written);
    }
}

std::mutex &ReportsMutex()
{
    static std::mutex mutex;
    return mutex;
}

std::vector<ErrorManager::Report> &Reports()
{
    static std::vector<ErrorManager::Report> reports;
    return reports;
}

// A report is one line of the log like any other: line breaks in its details show as \n.
std::string OneLine(const std::string &text)
{
    std::string out;
    for (char c : text) {
        out += c == '\n' ? std::string("\\n") : c == '\r' ? std::string("\\r") : std::string(1, c);
    }
    return out;
}

std::string DescribeDetails(const std::map<std::string, std::string> &args)
{
    std::string text = "{";
    for (const auto &entry : args) {
        if (text.size() > 1) {
            text += ", ";
        }
        text += OneLine(entry.first) + ": " + OneLine(entry.second);
    }
    return text + "}";
}

}  // namespace

extern "C" int CheckLogLevel(int moduleId, int level)
{
    (void)moduleId;
    return LevelEnabled(level) ? 1 : 0;
}

extern "C" void DlogInner(int moduleId, int level, const char *fmt, ...)
{
    (void)moduleId;
    if (fmt == nullptr) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    std::string message = FormatV(fmt, args);
    va_end(args);
    WriteLine(level, message);
}

extern "C" int mmGetTid(void)
{
    return static_cast<int>(syscall(SYS_gettid));
}

ErrorManager &ErrorManager::GetInstance()
{
    static ErrorManager instance;
    return instance;
}

int ErrorManager::ReportErrMessage(std::string errCode, const std::map<std::string, std::string> &args)
{
    if (LevelEnabled(OVRA_LEVEL_ERROR)) {
        WriteLine(OVRA_LEVEL_ERROR, "error report " + errCode + " " + DescribeDetails(args));
    }
    std::lock_guard<std::mutex> lock(ReportsMutex());
    Reports().push_back(Report{std::move(errCode), args});
    return 0;
}

std::vector<ErrorManager::Report> ErrorManager::GetReports() const
{
    std::lock_guard<std::mutex> lock(ReportsMutex());
    return Reports();
}

void ErrorManager::ClearReports()
{
    std::lock_guard<std::mutex> lock(ReportsMutex());
    Reports().clear();
}
