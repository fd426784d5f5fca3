// The default platform library: thresholds from its environment, kept and written error reports.
// The library reads its environment once, so each case runs this program again as a probe.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "ovra_platform/platform.h"

namespace {

using Strings = std::vector<std::string>;

void LogEveryLevel()
{
    for (int level : {0, 1, 2, 3, 16}) {
        if (CheckLogLevel(60, level) == 1) {
            DlogInner(60, level, "[probe:%d][TEST][Tid:%d]\"level %d\"\n", 1, mmGetTid(), level);
        }
    }
}

void Report()
{
    ErrorManager &manager = ErrorManager::GetInstance();
    int first = manager.ReportErrMessage("E1", {{"reason", "bank offline"}, {"op", "Add"}});
    int second = manager.ReportErrMessage("EC0010", {{"result", "two\nlines"}});
    for (const ErrorManager::Report &report : manager.GetReports()) {
        fprintf(stderr, "kept %s", report.errCode.c_str());
        for (const auto &entry : report.args) {
            fprintf(stderr, " %s=%s", entry.first.c_str(), entry.second.c_str());
        }
        fprintf(stderr, "\n");
    }
    manager.ClearReports();
    fprintf(stderr, "answers %d %d, left %zu, tid %s\n", first, second, manager.GetReports().size(),
            mmGetTid() > 0 ? "positive" : "missing");
}

// With OVRA_TEST_PROBE=levels|report the program only drives the library, before any test.
const bool PROBED = [] {
    const char *mode = getenv("OVRA_TEST_PROBE");
    if (mode != nullptr) {
        std::string(mode) == "levels" ? LogEveryLevel() : Report();
        _exit(0);
    }
    return false;
}();

// The lines the probe writes in `mode` (all to standard error), with only `environment` set for the log.
Strings RunProbe(const std::string &environment, const std::string &mode)
{
    (void)PROBED;
    char self[PATH_MAX] = {0};
    EXPECT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    const std::string command = "env -u OVRA_LOG_LEVEL -u OVRA_LOG_EVENT OVRA_TEST_PROBE=" + mode + " " + environment +
                                " '" + self + "' 2>&1 >/dev/null";
    FILE *pipe = popen(command.c_str(), "r");
    Strings lines;
    char buffer[4096];
    std::string line;
    while (pipe != nullptr && fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        line += buffer;
        if (line.back() == '\n') {
            line.pop_back();
            lines.push_back(line);
            line.clear();
        }
    }
    if (pipe != nullptr) {
        pclose(pipe);
    }
    return lines;
}

const std::string PREFIX = R"(\[(DEBUG|INFO|WARNING|ERROR|EVENT)\] \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} pid=\d+ )";

TEST(Platform, ShowsExactlyTheLevelsItsEnvironmentEnables)
{
    const std::vector<std::pair<std::string, Strings>> cases = {
        {"", {"WARNING", "ERROR"}},
        {"OVRA_LOG_LEVEL=debug", {"DEBUG", "INFO", "WARNING", "ERROR"}},
        {"OVRA_LOG_LEVEL=1", {"INFO", "WARNING", "ERROR"}},
        {"OVRA_LOG_LEVEL=ERROR", {"ERROR"}},
        {"OVRA_LOG_LEVEL=off", {}},
        {"OVRA_LOG_EVENT=1", {"WARNING", "ERROR", "EVENT"}},
        {"OVRA_LOG_LEVEL=off OVRA_LOG_EVENT=1", {"EVENT"}},
        {"OVRA_LOG_LEVEL=loud",
         {"ovra_platform: OVRA_LOG_LEVEL=loud is unknown; use debug, info, warning, error or off (0 to 4); warning "
          "is used",
          "WARNING", "ERROR"}},
    };
    const std::regex line("^" + PREFIX + R"(\[probe:1\]\[TEST\]\[Tid:\d+\]"level \d+"$)");
    for (const auto &c : cases) {
        Strings shown;
        for (const std::string &text : RunProbe(c.first, "levels")) {
            std::smatch match;
            shown.push_back(std::regex_match(text, match, line) ? match[1].str() : text);
        }
        EXPECT_EQ(shown, c.second) << c.first;
    }
}

TEST(Platform, ErrorReportsAreKeptWrittenAndCleared)
{
    // A kept report holds the line break as it was given; the log writes it as \n, keeping one line.
    const Strings kept = {"kept E1 op=Add reason=bank offline", "kept EC0010 result=two", "lines",
                          "answers 0 0, left 0, tid positive"};
    Strings lines = RunProbe("", "report");
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_TRUE(
        std::regex_match(lines[0], std::regex("^" + PREFIX + "error report E1 \\{op: Add, reason: bank offline\\}$")));
    EXPECT_TRUE(
        std::regex_match(lines[1], std::regex("^" + PREFIX + "error report EC0010 \\{result: two\\\\nlines\\}$")));
    EXPECT_EQ(Strings(lines.begin() + 2, lines.end()), kept);
    EXPECT_EQ(RunProbe("OVRA_LOG_LEVEL=off", "report"), kept) << "reports are written by the threshold, kept always";
}

}  // namespace
