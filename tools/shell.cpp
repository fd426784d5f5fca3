#include "shell.h"

#include <sys/wait.h>

#include <cstdio>

namespace OvraCli {

ShellResult RunShell(const std::string &command)
{
    ShellResult result;
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    char buffer[4096];
    std::size_t got = 0;
    while ((got = fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        result.output.append(buffer, got);
    }
    const int status = pclose(pipe);
    result.ran = status != -1;
    result.exitCode = status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string ShellQuote(const std::string &text)
{
    std::string quoted = "'";
    for (char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

std::string TrimRight(std::string text)
{
    const std::size_t end = text.find_last_not_of(" \t\r\n");
    text.erase(end == std::string::npos ? 0 : end + 1);
    return text;
}

std::string LastLine(const std::string &text)
{
    const std::string trimmed = TrimRight(text);
    const std::size_t newline = trimmed.rfind('\n');
    return newline == std::string::npos ? trimmed : trimmed.substr(newline + 1);
}

std::vector<std::string> SplitLines(const std::string &text)
{
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        lines.push_back(text.substr(start, end - start));
    }
    if (start < text.size()) {
        lines.push_back(text.substr(start));
    }
    return lines;
}

std::string Join(const std::vector<std::string> &items, const std::string &separator)
{
    std::string text;
    for (std::size_t i = 0; i < items.size(); ++i) {
        text += (i == 0 ? "" : separator) + items[i];
    }
    return text;
}

}  // namespace OvraCli
