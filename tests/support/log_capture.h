#ifndef OVRA_KB_TESTS_LOG_CAPTURE_H
#define OVRA_KB_TESTS_LOG_CAPTURE_H

#include <string>
#include <vector>

#include "ovra_platform/platform.h"

// Test programs linked with this code define the platform's log functions themselves, so the
// library's lines land here instead of on standard error. Every line is also checked as it is
// written: module 60, the "[file:line][OVRAKB][Tid:n]" prefix with the caller's thread id, and a
// format of its own (a conversion only where the message carries a value), so that a message built
// from a shared "%s" format fails whichever test logs it.
namespace OvraTest {

struct LogLine {
    int level = -1;
    std::string file;
    std::string message;  // the text between the quotes
};

class LogCapture {
  public:
    static void Clear();
    static std::vector<LogLine> Lines();
    // Messages of one level (from one source file), in order.
    static std::vector<std::string> Messages(int level, const std::string &file = "");
    // Makes CheckLogLevel answer 0 (disabled) or 1 for `level`; every level starts enabled.
    static void SetEnabled(int level, bool enabled);
};

}  // namespace OvraTest

#endif  // OVRA_KB_TESTS_LOG_CAPTURE_H
