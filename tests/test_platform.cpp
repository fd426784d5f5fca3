// The default platform library: thresholds from its environment, whole lines, kept error reports.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Output {
    std::vector<std::string> lines;  // standard error
    std::string out;                 // standard output
};

Output RunProbe(const std::string &environment, const std::string &mode)
{
    std::string command = "env -u OVRA_LOG_LEVEL -u OVRA_LOG_EVENT " + environment + " '" + OVRA_TEST_PLATFORM_PROBE +
                          "' " + mode + " 2>&1 1>/dev/null";
    Output output;
    FILE *pipe = popen(command.c_str(), "r");
    char buffer[4096];
    std::string all;
    while (pipe != nullptr && fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        all += buffer;
    }
    if (pipe != nullptr) {
        pclose(pipe);
    }
    std::istringstream stream(all);
    std::string line;
    while (std::getline(stream, line)) {
        output.lines.push_back(line);
    }
    FILE *outPipe =
        popen(("env " + environment + " '" + OVRA_TEST_PLATFORM_PROBE + "' " + mode + " 2>/dev/null").c_str(), "r");
    while (outPipe != nullptr && fgets(buffer, sizeof(buffer), outPipe) != nullptr) {
        output.out += buffer;
    }
    if (outPipe != nullptr) {
        pclose(outPipe);
    }
    return output;
}

std::vector<std::string> LevelsShown(const Output &output)
{
    std::vector<std::string> levels;
    std::regex line(
        R"(^\[(DEBUG|INFO|WARNING|ERROR|EVENT)\] \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} pid=\d+ \[probe:1\]\[TEST\]\[Tid:\d+\]"level \d+"$)");
    for (const std::string &text : output.lines) {
        std::smatch match;
        if (std::regex_match(text, match, line)) {
            levels.push_back(match[1]);
        } else {
            levels.push_back("malformed: " + text);
        }
    }
    return levels;
}

struct ThresholdCase {
    const char *label;
    const char *environment;
    std::vector<std::string> shown;
};

class Threshold : public ::testing::TestWithParam<ThresholdCase> {};

TEST_P(Threshold, ShowsExactlyTheEnabledLevels)
{
    EXPECT_EQ(LevelsShown(RunProbe(GetParam().environment, "levels")), GetParam().shown);
}

INSTANTIATE_TEST_SUITE_P(
    Environment, Threshold,
    ::testing::Values(ThresholdCase{"default", "", {"WARNING", "ERROR"}},
                      ThresholdCase{"debug", "OVRA_LOG_LEVEL=debug", {"DEBUG", "INFO", "WARNING", "ERROR"}},
                      ThresholdCase{"numeric_info", "OVRA_LOG_LEVEL=1", {"INFO", "WARNING", "ERROR"}},
                      ThresholdCase{"error", "OVRA_LOG_LEVEL=ERROR", {"ERROR"}},
                      ThresholdCase{"off", "OVRA_LOG_LEVEL=off", {}},
                      ThresholdCase{"events", "OVRA_LOG_EVENT=1", {"WARNING", "ERROR", "EVENT"}},
                      ThresholdCase{"off_with_events", "OVRA_LOG_LEVEL=off OVRA_LOG_EVENT=1", {"EVENT"}},
                      ThresholdCase{"unknown_value",
                                    "OVRA_LOG_LEVEL=loud",
                                    {"malformed: ovra_platform: OVRA_LOG_LEVEL=loud is unknown; use debug, info, "
                                     "warning, error or off (0 to 4); warning is used",
                                     "WARNING", "ERROR"}}),
    [](const ::testing::TestParamInfo<ThresholdCase> &info) { return info.param.label; });

TEST(Lines, ConcurrentThreadsNeverInterleave)
{
    Output output = RunProbe("", "threads");
    ASSERT_EQ(output.lines.size(), 8U * 500U);
    std::regex whole(R"(^\[ERROR\] \S+ \S+ pid=\d+ thread (\d) line \d+ ([a-h])+$)");
    for (const std::string &line : output.lines) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, whole)) << line.substr(0, 120);
        EXPECT_EQ(line.find_first_of("abcdefgh", line.find(" line ")) != std::string::npos, true);
        char expected = static_cast<char>('a' + std::stoi(match[1]));
        EXPECT_EQ(line.substr(line.size() - 300), std::string(300, expected));
    }
}

TEST(ErrorReports, AreKeptPrintedAndCleared)
{
    Output output = RunProbe("", "report");
    EXPECT_EQ(output.out,
              "E1 op=Add reason=bank offline\n"
              "EC0010 result=two\nlines\n"
              "answers 0 0, left 0, tid positive\n");
    ASSERT_EQ(output.lines.size(), 2U);
    EXPECT_NE(output.lines[0].find("[ERROR] "), std::string::npos);
    EXPECT_NE(output.lines[0].find("error report E1 {op: Add, reason: bank offline}"), std::string::npos);
    EXPECT_NE(output.lines[1].find("error report EC0010 {result: two\\nlines}"), std::string::npos)
        << "a line break in a report is written as \\n, keeping the report on one line";

    EXPECT_TRUE(RunProbe("OVRA_LOG_LEVEL=off", "report").lines.empty()) << "reports follow the threshold";
}

}  // namespace
