// The subcommands of ovra-kb. Each answers the process's exit status.
#ifndef OVRA_KB_TOOLS_COMMANDS_H
#define OVRA_KB_TOOLS_COMMANDS_H

#include <signal.h>

#include <csignal>
#include <cstddef>
#include <functional>
#include <string>

#include "knowledge_base.h"
#include "options.h"

namespace OvraCli {

int RunWrite(const Options &options);
int RunSearch(const Options &options);
int RunDelete(const Options &options);
int RunImport(const Options &options);
int RunExport(const Options &options);
int RunStats(const Options &options);
int RunBackup(const Options &options);
int RunDemo(const Options &options);
int RunDoctor(const Options &options);

// What keeps the library from starting Python, as doctor finds it ("check: fix"), or "" when it finds nothing.
std::string FirstPythonProblem();

// The bank of --bank, or the default one.
std::string BankDir(const Options &options);

// "-" names standard input (import, write's knowledge) or standard output (export).
extern const char kStandardStream[];
// "standard input" for "-", else the operand itself.
std::string ShownFile(const std::string &operand);
// "1 record", "2 records".
std::string Plural(std::size_t count, const char *noun);

// Set when Ctrl-C (SIGINT) reached an InterruptCatcher.
extern volatile std::sig_atomic_t gInterrupted;

// While it lives, Ctrl-C only sets gInterrupted, so that a command can stop where it is safe and say what it did.
class InterruptCatcher {
  public:
    InterruptCatcher();
    ~InterruptCatcher();
    InterruptCatcher(const InterruptCatcher &) = delete;
    InterruptCatcher &operator=(const InterruptCatcher &) = delete;

  private:
    struct sigaction previous_ = {};
};

// How a command meets Ctrl-C once the knowledge base is up: it ends at once, as any program does, or its body
// watches gInterrupted and stops between two steps (import, export).
enum class InterruptHandling { kEndAtOnce, kBetweenSteps };

// Opens a session for the options, runs `body` with it and closes it; the first failure gives the exit status.
// Ctrl-C while the knowledge base starts is held until it is up, then ends the command with one line (exit 130).
int WithSession(const Options &options, const std::string &bank, const std::function<int(KbSession &)> &body,
                InterruptHandling handling = InterruptHandling::kEndAtOnce);

}  // namespace OvraCli

#endif  // OVRA_KB_TOOLS_COMMANDS_H
