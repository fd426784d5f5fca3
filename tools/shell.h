// Running shell commands, as the library does when it asks python3 about itself, and reading their answers.
#ifndef OVRA_KB_TOOLS_SHELL_H
#define OVRA_KB_TOOLS_SHELL_H

#include <string>
#include <vector>

namespace OvraCli {

struct ShellResult {
    bool ran = false;   // false when no shell could be started
    int exitCode = -1;  // the command's exit status; -1 when it did not exit normally
    std::string output;
};

// Runs `command` through /bin/sh with this process's environment and collects its standard output.
ShellResult RunShell(const std::string &command);

// `text` as one shell word.
std::string ShellQuote(const std::string &text);

// `text` without trailing line breaks and blanks.
std::string TrimRight(std::string text);

// The last non-empty line of `text`.
std::string LastLine(const std::string &text);

// The lines of `text`, without their line ends.
std::vector<std::string> SplitLines(const std::string &text);

// The items with `separator` between them.
std::string Join(const std::vector<std::string> &items, const std::string &separator);

}  // namespace OvraCli

#endif  // OVRA_KB_TOOLS_SHELL_H
