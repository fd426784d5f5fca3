#ifndef OVRA_KB_TESTS_LOG_FORMATS_H
#define OVRA_KB_TESTS_LOG_FORMATS_H

#include <string>

namespace OvraTest {

// The message part of a full line format ("[%s:%d][%s][Tid:%d]\"...\"\n"), or "" for another shape.
std::string MessageFormat(const std::string &format);
// Whether `format` is, character for character, one of the messages of the library's source `file`.
bool IsKnownFormat(const std::string &file, const std::string &format);
// Records a format that is not one of the file's messages; the running test fails when it ends.
void CheckFormat(const std::string &file, const std::string &format);

}  // namespace OvraTest

#endif  // OVRA_KB_TESTS_LOG_FORMATS_H
