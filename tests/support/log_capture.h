#ifndef OVRA_KB_TESTS_LOG_CAPTURE_H
#define OVRA_KB_TESTS_LOG_CAPTURE_H

#include <string>
#include <vector>

#include "ovra_platform/platform.h"

// Test programs linked with this code define the platform's log functions themselves, so
// the library's lines land here instead of on standard error.
namespace OvraTest {

struct LogLine {
    int module = -1;
    int level = -1;
    std::string file;
    int line = 0;
    std::string tag;
    int tid = 0;
    std::string message;  // the text between the quotes
    std::string raw;      // the whole formatted line
    std::string format;   // the format string the line was written with
};

class LogCapture {
  public:
    static void Clear();
    static std::vector<LogLine> Lines();
    // Messages of one level, in order.
    static std::vector<std::string> Messages(int level);
    // Messages of one level from one source file, in order.
    static std::vector<std::string> Messages(int level, const std::string &file);
    // Makes CheckLogLevel answer 0 (disabled) or 1 for `level`; every level starts enabled.
    static void SetEnabled(int level, bool enabled);
    // Number of CheckLogLevel questions asked so far.
    static size_t Checks();
};

}  // namespace OvraTest

#endif  // OVRA_KB_TESTS_LOG_CAPTURE_H
