#include "commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <utility>

#include "environment.h"
#include "export_file.h"
#include "json.h"
#include "output.h"

namespace OvraCli {
namespace {

// Searching every op type at once is the reference package's extension of search type "all".
const char kEveryOpType[] = "*";
// Imports of this many records or more tell their progress, ten times over the file.
const std::size_t kProgressThreshold = 1000;

// "-" names standard input (import, write's knowledge) or standard output (export).
const char kStandardStream[] = "-";
// Editors on some systems start a UTF-8 file with it.
const char kByteOrderMark[] = "\xEF\xBB\xBF";
// The exit status of a command ended by Ctrl-C, as a shell reports a process ended by SIGINT.
const int kExitInterrupted = 130;

volatile std::sig_atomic_t gInterrupted = 0;

void NoteInterrupt(int)
{
    gInterrupted = 1;
}

// Ctrl-C ends a long import or export between two records, so that it can say what it did.
class InterruptCatcher {
  public:
    InterruptCatcher()
    {
        struct sigaction catcher = {};
        catcher.sa_handler = NoteInterrupt;
        sigemptyset(&catcher.sa_mask);
        sigaction(SIGINT, &catcher, &previous_);
    }
    ~InterruptCatcher() { sigaction(SIGINT, &previous_, nullptr); }
    InterruptCatcher(const InterruptCatcher &) = delete;
    InterruptCatcher &operator=(const InterruptCatcher &) = delete;

  private:
    struct sigaction previous_ = {};
};

std::string ShownFile(const std::string &operand)
{
    return operand == kStandardStream ? "standard input" : operand;
}

std::string Plural(std::size_t count, const char *noun)
{
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

// A record of the searches that span the bank's chips (the reference package's extensions).
const char kEveryChip[] = "all_chips";
const char kChipCounts[] = "chips";
const char kBackup[] = "backup";

struct Chip {
    std::string soc;
    std::string cores;
    bool operator==(const Chip &other) const { return soc == other.soc && cores == other.cores; }
};

struct Record {
    std::string keyword;
    std::string knowledge;
    std::string opType;
    Chip chip;
    std::size_t line = 0;
};

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

// The library hands each text to Python up to its first NUL, so such a keyword would name another record.
bool HoldsNoNul(const Record &record, std::string &error)
{
    const std::pair<const char *, const std::string *> fields[] = {{"keyword", &record.keyword},
                                                                   {"knowledge", &record.knowledge},
                                                                   {"op_type", &record.opType},
                                                                   {"soc_version", &record.chip.soc},
                                                                   {"core_num", &record.chip.cores}};
    for (const auto &field : fields) {
        if (field.second->find('\0') != std::string::npos) {
            error = std::string("the ") + field.first +
                    " holds a NUL character (\\u0000), which the knowledge base would cut the text at; remove it";
            return false;
        }
    }
    return true;
}

bool RecordFromLine(const std::string &text, const Options &options, Record &record, std::string &error)
{
    JsonObject object;
    if (!ParseJsonObject(text, object, error)) {
        return false;
    }
    if (object.count("keyword") == 0 || object.count("knowledge") == 0) {
        error = "a record needs \"keyword\" and \"knowledge\"";
        return false;
    }
    if (object.count("soc_version") != object.count("core_num")) {
        error = "a record with a chip needs both \"soc_version\" and \"core_num\"";
        return false;
    }
    record.keyword = object["keyword"];
    record.knowledge = object["knowledge"];
    record.opType = object.count("op_type") != 0 ? object["op_type"] : options.opType;
    record.chip = object.count("soc_version") != 0 ? Chip{object["soc_version"], object["core_num"]}
                                                   : Chip{options.soc, options.cores};
    return HoldsNoNul(record, error);
}

bool IsBlank(const std::string &text)
{
    return text.find_first_not_of(" \t\r") == std::string::npos;
}

int CannotRead(const std::string &file)
{
    std::fprintf(stderr, "ovra-kb: cannot read %s: %s\n", file.c_str(), std::strerror(errno));
    return kExitNoInput;
}

// Every line is read and checked before the first write, so that a malformed file changes nothing.
int ReadRecords(const Options &options, std::vector<Record> &records)
{
    const std::string file = ShownFile(options.operands[0]);
    std::ifstream opened;
    if (options.operands[0] != kStandardStream) {
        opened.open(options.operands[0]);
        if (!opened) {
            return CannotRead(file);
        }
    }
    std::istream &in = options.operands[0] == kStandardStream ? std::cin : opened;
    std::string text;
    for (std::size_t line = 1; std::getline(in, text); ++line) {
        Record record;
        std::string error;
        if (line == 1 && text.compare(0, sizeof(kByteOrderMark) - 1, kByteOrderMark) == 0) {
            text.erase(0, sizeof(kByteOrderMark) - 1);
        }
        if (IsBlank(text)) {
            continue;
        }
        if (!RecordFromLine(text, options, record, error)) {
            std::fprintf(stderr, "ovra-kb: %s:%zu: %s\n", file.c_str(), line, error.c_str());
            return kExitBadData;
        }
        record.line = line;
        records.push_back(record);
    }
    return in.bad() ? CannotRead(file) : 0;
}

void ShowProgress(std::size_t done, std::size_t total)
{
    const std::size_t step = total / 10;
    if (total >= kProgressThreshold && done % step == 0 && done < total) {
        std::fprintf(stderr, "ovra-kb: imported %zu of %zu records\n", done, total);
    }
}

// The records of each chip together, chips in the order the file first names them, each chip's records in
// file order: the knowledge base is initialised once more for every further chip.
std::vector<const Record *> ByChip(const std::vector<Record> &records)
{
    std::vector<Chip> chips;
    for (const Record &record : records) {
        if (std::find(chips.begin(), chips.end(), record.chip) == chips.end()) {
            chips.push_back(record.chip);
        }
    }
    std::vector<const Record *> ordered;
    for (const Chip &chip : chips) {
        for (const Record &record : records) {
            if (record.chip == chip) {
                ordered.push_back(&record);
            }
        }
    }
    return ordered;
}

// The last record is written durably: the reference package's durable commit syncs its journal, which
// makes every earlier record of the import durable as well, at the cost of one sync instead of one per record.
int WriteRecords(KbSession &kb, const Chip &sessionChip, const std::vector<Record> &records, const std::string &file)
{
    const std::vector<const Record *> ordered = ByChip(records);
    Chip current = sessionChip;
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        const Record &record = *ordered[i];
        const std::string where = file + ":" + std::to_string(record.line);
        if (!(record.chip == current)) {
            const CallOutcome switched = kb.SwitchChip(record.chip.soc, record.chip.cores);
            if (!switched.Ok()) {
                return ReportFailure(switched, record.opType, where);
            }
            current = record.chip;
        }
        // The last record, or the last before an interrupt, is durable and makes the earlier ones so.
        const bool durable = i + 1 == ordered.size() || gInterrupted != 0;
        const CallOutcome written = kb.Write(record.keyword, record.knowledge, record.opType, durable);
        if (!written.Ok()) {
            return ReportFailure(written, record.opType, where);
        }
        ShowProgress(i + 1, ordered.size());
        if (gInterrupted != 0 && i + 1 < ordered.size()) {
            std::fprintf(stderr,
                         "ovra-kb: interrupted: %s of %zu were imported, each whole, and made durable; the others "
                         "were not written (import the file again to finish: records are replaced, not doubled)\n",
                         Plural(i + 1, "record").c_str(), ordered.size());
            return kExitInterrupted;
        }
    }
    return 0;
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

}  // namespace

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

int RunImport(const Options &options)
{
    std::vector<Record> records;
    const int read = ReadRecords(options, records);
    if (read != 0) {
        return read;
    }
    const std::string file = ShownFile(options.operands[0]);
    InterruptCatcher catcher;
    return WithSession(options, BankDir(options), [&](KbSession &kb) {
        const int status = WriteRecords(kb, Chip{options.soc, options.cores}, records, file);
        if (status == 0) {
            std::printf("imported %s from %s\n", Plural(records.size(), "record").c_str(), file.c_str());
        }
        return status;
    });
}

int RunExport(const Options &options)
{
    const std::string opType = options.opTypeGiven ? options.opType : kEveryOpType;
    InterruptCatcher catcher;
    return WithSession(options, BankDir(options), [&](KbSession &kb) {
        std::vector<OvraKb::StrMap> rows;
        const CallOutcome found = kb.Search("", opType, options.oneChip ? "all" : kEveryChip, rows);
        return found.Ok() ? WriteExport(rows, options) : ReportFailure(found, opType);
    });
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
