#include "commands.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <utility>

#include "environment.h"
#include "export_file.h"
#include "json.h"
#include "output.h"

namespace OvraCli {

const char kStandardStream[] = "-";
volatile std::sig_atomic_t gInterrupted = 0;

namespace {

// Searching every op type at once is the reference package's extension of search type "all".
const char kEveryOpType[] = "*";

void NoteInterrupt(int)
{
    gInterrupted = 1;
}

// Holds SIGINT back on this thread while it lives: a Ctrl-C waits, pending, until it ends. The processes started
// meanwhile (the python3 queries of the library and of this command) inherit the hold, so that they finish their
// work rather than die with a traceback on the terminal.
class InterruptHold {
  public:
    InterruptHold()
    {
        sigset_t interrupt;
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGINT);
        pthread_sigmask(SIG_BLOCK, &interrupt, &previous_);
    }
    ~InterruptHold() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    InterruptHold(const InterruptHold &) = delete;
    InterruptHold &operator=(const InterruptHold &) = delete;

  private:
    sigset_t previous_;
};

// The interpreter's stop, like its start, is not cut short by a Ctrl-C (whose disposition it changes meanwhile).
CallOutcome CloseHoldingInterrupts(KbSession &session)
{
    const InterruptHold hold;
    return session.Close();
}

// A record of the searches that span the bank's chips (the reference package's extensions).
const char kEveryChip[] = "all_chips";
const char kChipCounts[] = "chips";
const char kBackup[] = "backup";

std::string Describe(const std::string &keyword, const std::string &opType)
{
    return keyword + " (op type " + opType + ")";
}

int PrintRows(const std::vector<OvraKb::StrMap> &rows, bool json)
{
    if (json) {
        std::fputs(FormatJsonArray(rows).c_str(), stdout);
    } else if (rows.empty()) {
        std::puts("no record found");
    } else {
        std::fputs(FormatTable(rows, OutputWidth()).c_str(), stdout);
    }
    return 0;
}

int CannotRead(const std::string &file)
{
    std::fprintf(stderr, "ovra-kb: cannot read %s: %s\n", file.c_str(), std::strerror(errno));
    return kExitNoInput;
}

std::string Field(const OvraKb::StrMap &row, const char *name)
{
    const auto found = row.find(name);
    return found != row.end() ? found->second : "";
}

std::string ExportLine(const OvraKb::StrMap &row, bool withChip)
{
    JsonObject record;
    for (const char *field : {"keyword", "knowledge", "op_type", "soc_version", "core_num"}) {
        record[field] = Field(row, field);
    }
    if (!withChip) {
        record.erase("soc_version");
        record.erase("core_num");
    }
    return FormatJsonObject(record) + "\n";
}

int CannotWrite(const std::string &file)
{
    std::fprintf(stderr, "ovra-kb: cannot write %s: %s\n", file.c_str(), std::strerror(errno));
    return kExitCannotCreate;
}

int WriteExport(const std::vector<OvraKb::StrMap> &rows, const Options &options)
{
    const bool toFile = !options.operands.empty() && options.operands[0] != kStandardStream;
    const std::string file = toFile ? options.operands[0] : "standard output";
    ExportFile exportFile;
    if (toFile && !exportFile.Open(file)) {
        return CannotWrite(file);
    }
    FILE *out = toFile ? exportFile.Stream() : stdout;
    for (std::size_t i = 0; i < rows.size() && gInterrupted == 0; ++i) {
        std::fputs(ExportLine(rows[i], !options.oneChip).c_str(), out);
    }
    if (gInterrupted != 0) {
        std::fprintf(stderr, "ovra-kb: interrupted: %s\n",
                     toFile ? ("nothing was written to " + file).c_str() : "the output stops short");
        return kExitInterrupted;
    }
    if (!(toFile ? exportFile.Commit() : std::fflush(stdout) == 0 && std::ferror(stdout) == 0)) {
        return CannotWrite(file);
    }
    if (toFile) {
        std::printf("exported %s to %s\n", Plural(rows.size(), "record").c_str(), file.c_str());
    }
    return 0;
}

// The commands that may make a bank that does not exist yet. Any other command on a missing bank would make an
// empty one (and its missing parents) for a mistyped path and then find nothing in it, so it is refused.
const Command kCommandsThatCreateBanks[] = {Command::kWrite, Command::kImport, Command::kDemo};

// 0 when the command may open `bank`: it exists, or the command is one that creates a bank. Otherwise says that
// there is no bank there and answers the exit status.
int RefuseMissingBank(const Options &options, const std::string &bank)
{
    const bool mayCreate = std::find(std::begin(kCommandsThatCreateBanks), std::end(kCommandsThatCreateBanks),
                                     options.command) != std::end(kCommandsThatCreateBanks);
    if (mayCreate || IsServerUrl(bank) || IsDirectory(bank)) {
        return 0;
    }
    struct stat info {};
    if (lstat(bank.c_str(), &info) == 0) {
        std::fprintf(stderr,
                     "ovra-kb: there is no bank at %s: it is not a directory; try --bank with a bank directory\n",
                     bank.c_str());
    } else {
        std::fprintf(stderr, "ovra-kb: there is no bank at %s; check --bank (only write and import create a bank)\n",
                     bank.c_str());
    }
    return kExitNoInput;
}

}  // namespace

std::string ShownFile(const std::string &operand)
{
    return operand == kStandardStream ? "standard input" : operand;
}

std::string Plural(std::size_t count, const char *noun)
{
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

InterruptCatcher::InterruptCatcher()
{
    struct sigaction catcher = {};
    catcher.sa_handler = NoteInterrupt;
    // A read or wait that the signal comes in (the library's own, the knowledge base's) goes on rather than fail.
    catcher.sa_flags = SA_RESTART;
    sigemptyset(&catcher.sa_mask);
    sigaction(SIGINT, &catcher, &previous_);
}

InterruptCatcher::~InterruptCatcher()
{
    sigaction(SIGINT, &previous_, nullptr);
}

int WithSession(const Options &options, const std::string &bank, const std::function<int(KbSession &)> &body,
                InterruptHandling handling)
{
    if (const int missing = RefuseMissingBank(options, bank)) {
        return missing;
    }
    KbSession session(KbSettings{bank, options.soc, options.cores, options.verbose});
    auto catcher = std::make_unique<InterruptCatcher>();
    CallOutcome opened;
    {
        const InterruptHold hold;
        opened = session.Open();
    }
    if (handling == InterruptHandling::kEndAtOnce) {
        catcher.reset();  // a Ctrl-C noted until now is acted on below; a later one ends the command at once
    }
    if (gInterrupted != 0) {
        CloseHoldingInterrupts(session);
        std::fputs("ovra-kb: interrupted while the knowledge base started; nothing was changed\n", stderr);
        return kExitInterrupted;
    }
    if (!opened.Ok()) {
        return ReportFailure(opened, options.opType);
    }
    const int status = body(session);
    const CallOutcome closed = CloseHoldingInterrupts(session);
    return status == 0 && !closed.Ok() ? ReportFailure(closed, options.opType) : status;
}

std::string BankDir(const Options &options)
{
    return options.bank.empty() ? DefaultBankDir() : options.bank;
}

// The knowledge of a write: its operand, standard input for "-", or the file of --file (a command line holds
// at most 128 KiB per word).
bool ReadKnowledge(const Options &options, std::string &knowledge)
{
    const bool fromInput = options.knowledgeFile.empty() && options.operands[1] == kStandardStream;
    if (options.knowledgeFile.empty() && !fromInput) {
        knowledge = options.operands[1];
        return true;
    }
    std::ifstream file;
    if (!fromInput) {
        file.open(options.knowledgeFile, std::ios::binary);
    }
    std::istream &in = fromInput ? std::cin : file;
    knowledge.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad() && (fromInput || file.is_open());
}

int RunWrite(const Options &options)
{
    const std::string &keyword = options.operands[0];
    std::string knowledge;
    if (!ReadKnowledge(options, knowledge)) {
        return CannotRead(options.knowledgeFile.empty() ? "standard input" : options.knowledgeFile);
    }
    return WithSession(options, BankDir(options), [&](KbSession &kb) {
        const CallOutcome written = kb.Write(keyword, knowledge, options.opType, true);
        if (!written.Ok()) {
            return ReportFailure(written, options.opType);
        }
        std::printf("wrote %s\n", Describe(keyword, options.opType).c_str());
        return 0;
    });
}

int RunSearch(const Options &options)
{
    const std::string keyword = options.operands.empty() ? "" : options.operands[0];
    return WithSession(options, BankDir(options), [&](KbSession &kb) {
        std::vector<OvraKb::StrMap> rows;
        const CallOutcome found = kb.Search(keyword, options.opType, options.searchType, rows);
        return found.Ok() ? PrintRows(rows, options.json) : ReportFailure(found, options.opType);
    });
}

// The knowledge base answers a delete of a missing record with success; looking first tells the user which.
int RunDelete(const Options &options)
{
    const std::string &keyword = options.operands[0];
    return WithSession(options, BankDir(options), [&](KbSession &kb) {
        std::vector<OvraKb::StrMap> existing;
        CallOutcome outcome = kb.Search(keyword, options.opType, "exact", existing);
        if (outcome.Ok()) {
            outcome = kb.Delete(keyword, options.opType);
        }
        if (!outcome.Ok()) {
            return ReportFailure(outcome, options.opType);
        }
        std::printf("%s %s\n", existing.empty() ? "nothing to delete: no record" : "deleted",
                    Describe(keyword, options.opType).c_str());
        return 0;
    });
}

int RunExport(const Options &options)
{
    const std::string opType = options.opTypeGiven ? options.opType : kEveryOpType;
    return WithSession(
        options, BankDir(options),
        [&](KbSession &kb) {
            std::vector<OvraKb::StrMap> rows;
            const CallOutcome found = kb.Search("", opType, options.oneChip ? "all" : kEveryChip, rows);
            return found.Ok() ? WriteExport(rows, options) : ReportFailure(found, opType);
        },
        InterruptHandling::kBetweenSteps);
}

int RunStats(const Options &options)
{
    return WithSession(options, BankDir(options), [&](KbSession &kb) {
        std::vector<OvraKb::StrMap> chips;
        const CallOutcome found = kb.Search("", kEveryOpType, kChipCounts, chips);
        if (!found.Ok()) {
            return ReportFailure(found, kEveryOpType);
        }
        if (options.json) {
            std::fputs(FormatJsonArray(chips).c_str(), stdout);
            return 0;
        }
        unsigned long long total = 0;
        for (const OvraKb::StrMap &chip : chips) {
            total += std::strtoull(chip.at("records").c_str(), nullptr, 10);
        }
        if (!chips.empty()) {
            std::fputs(FormatTable(chips, OutputWidth(), {"soc_version", "core_num", "records"}).c_str(), stdout);
        }
        std::printf("%llu record%s in %zu chip%s\n", total, total == 1 ? "" : "s", chips.size(),
                    chips.size() == 1 ? "" : "s");
        return 0;
    });
}

// The copy is the package's: it knows how its bank is kept and how to copy it while writers go on.
int RunBackup(const Options &options)
{
    const std::string &directory = options.operands[0];
    return WithSession(options, BankDir(options), [&](KbSession &kb) {
        std::vector<OvraKb::StrMap> rows;
        const CallOutcome copied = kb.Search(directory, kEveryOpType, kBackup, rows);
        if (!copied.Ok()) {
            return ReportFailure(copied, kEveryOpType);
        }
        for (const OvraKb::StrMap &row : rows) {
            const std::size_t records = std::strtoull(Field(row, "records").c_str(), nullptr, 10);
            std::printf("backed up %s (%s bytes) to %s; it is a bank of its own: --bank %s\n",
                        Plural(records, "record").c_str(), Field(row, "bytes").c_str(), Field(row, "backup").c_str(),
                        directory.c_str());
        }
        return 0;
    });
}

}  // namespace OvraCli
