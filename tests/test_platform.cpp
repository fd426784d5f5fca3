// The default platform library: thresholds from its environment, error reports kept and written.
// The library reads its environment once, so each case runs this program again as a probe.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "ovra_platform/platform.h"

namespace {

using Strings = std::vector<std::string>;

// With OVRA_TEST_PROBE set the program only drives the library, before any test: a line at every level
// the threshold lets through, an error report, and then (not through the log) what the manager kept.
const bool PROBED = [] {
    if (getenv("OVRA_TEST_PROBE") == nullptr) {
        return false;
    }
    for (int level : {0, 1, 2, 3, 16}) {
        if (CheckLogLevel(60, level) == 1) {
            DlogInner(60, level, "[probe:%d][TEST][Tid:%d]\"level %d\"\n", 1, mmGetTid(), level);
        }
    }
    ErrorManager &manager = ErrorManager::GetInstance();
    const int answer = manager.ReportErrMessage("EC0010", {{"result", "two\nlines"}, {"op", "Add"}});
    const std::vector<ErrorManager::Report> kept = manager.GetReports();
    manager.ClearReports();
    fprintf(stderr, "answer %d, kept %s %s, left %zu, tid %s\n", answer, kept.at(0).errCode.c_str(),
            kept.at(0).args.at("result") == "two\nlines" ? "as given" : "changed", manager.GetReports().size(),
            mmGetTid() > 0 ? "positive" : "missing");
    _exit(0);
}();

// The lines the probe writes (all to standard error), with only `environment` set for the log.
Strings RunProbe(const std::string &environment)
{
    (void)PROBED;
    char self[PATH_MAX] = {0};
    EXPECT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    const std::string command =
        "env -u OVRA_LOG_LEVEL -u OVRA_LOG_EVENT OVRA_TEST_PROBE=1 " + environment + " '" + self + "' 2>&1 >/dev/null";
    FILE *pipe = popen(command.c_str(), "r");
    Strings lines;
    char buffer[4096];
    while (pipe != nullptr && fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        lines.emplace_back(buffer, strcspn(buffer, "\n"));
    }
    if (pipe != nullptr) {
        pclose(pipe);
    }
    return lines;
}

// Each line as its level, "report" for the error report's line; a line of another shape as it is.
TEST(Platform, WritesExactlyTheLevelsItsEnvironmentEnablesAndKeepsReportsAlways)
{
    const std::string prefix =
        R"(^\[(DEBUG|INFO|WARNING|ERROR|EVENT)\] \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} pid=\d+ )";
    const std::regex level(prefix + R"(\[probe:1\]\[TEST\]\[Tid:\d+\]"level \d+"$)");
    // The report keeps its line break as given; the log writes it as \n, keeping one line.
    const std::regex report(prefix + R"(error report EC0010 \{op: Add, result: two\\nlines\}$)");
    const std::string kept = "answer 0, kept EC0010 as given, left 0, tid positive";
    const std::vector<std::pair<std::string, Strings>> cases = {
        {"", {"WARNING", "ERROR", "report", kept}},
        {"OVRA_LOG_LEVEL=debug", {"DEBUG", "INFO", "WARNING", "ERROR", "report", kept}},
        {"OVRA_LOG_LEVEL=1", {"INFO", "WARNING", "ERROR", "report", kept}},
        {"OVRA_LOG_LEVEL=ERROR", {"ERROR", "report", kept}},
        {"OVRA_LOG_LEVEL=off", {kept}},
        {"OVRA_LOG_EVENT=1", {"WARNING", "ERROR", "EVENT", "report", kept}},
        {"OVRA_LOG_LEVEL=off OVRA_LOG_EVENT=1", {"EVENT", kept}},
        {"OVRA_LOG_LEVEL=loud",
         {"ovra_platform: OVRA_LOG_LEVEL=loud is unknown; use debug, info, warning, error or off (0 to 4); warning "
          "is used",
          "WARNING", "ERROR", "report", kept}},
    };
    for (const auto &c : cases) {
        Strings shown;
        for (const std::string &text : RunProbe(c.first)) {
            std::smatch match;
            shown.push_back(std::regex_match(text, match, level) ? match[1].str()
                            : std::regex_match(text, report)     ? "report"
                                                                 : text);
        }
        EXPECT_EQ(shown, c.second) << c.first;
    }
}

}  // namespace
