// The subcommands of ovra-kb. Each answers the process's exit status.
#ifndef OVRA_KB_TOOLS_COMMANDS_H
#define OVRA_KB_TOOLS_COMMANDS_H

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

// 0 when the command may open `bank`: it exists, or the command is one that creates a bank. Otherwise says
// that there is no bank there and answers the exit status.
int RefuseMissingBank(const Options &options, const std::string &bank);

// Opens a session for the options, runs `body` with it and closes it; the first failure gives the exit status.
template <typename Body>
int WithSession(const Options &options, const std::string &bank, Body &&body)
{
    if (const int missing = RefuseMissingBank(options, bank)) {
        return missing;
    }
    KbSession session(KbSettings{bank, options.soc, options.cores, options.verbose});
    const CallOutcome opened = session.Open();
    if (!opened.Ok()) {
        return ReportFailure(opened, options.opType);
    }
    const int status = body(session);
    const CallOutcome closed = session.Close();
    return status == 0 && !closed.Ok() ? ReportFailure(closed, options.opType) : status;
}

}  // namespace OvraCli

#endif  // OVRA_KB_TOOLS_COMMANDS_H
