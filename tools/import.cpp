// ovra-kb import: every line of the file is checked as the knowledge base would check it before the first write;
// then the records are written in the order of the file. Neither reading holds more than one line in memory.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "commands.h"
#include "environment.h"
#include "json.h"

namespace OvraCli {
namespace {

// Imports of this many records or more tell their progress while they write, ten times over the file.
const std::size_t kProgressThreshold = 1000;
// Checking a file of this many bytes or more tells its progress too, ten times; standard input, whose size is not
// known, tells it every kCheckProgressLines lines.
const long long kCheckProgressBytes = 64LL << 20;
const std::size_t kCheckProgressLines = 1000000;
// Editors on some systems start a UTF-8 file with it.
const char kByteOrderMark[] = "\xEF\xBB\xBF";

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
    bool ownOpType = false;  // from the line rather than --op-type
    bool ownChip = false;    // from the line rather than --soc and --cores
};

// The import's file, read twice: once to check every line, once to write the records. A file that cannot be read
// again (standard input, a pipe) is copied to an unnamed temporary file during the first reading.
class ImportFile {
  public:
    explicit ImportFile(const std::string &operand) : operand_(operand), shown_(ShownFile(operand)) {}
    ~ImportFile()
    {
        if (in_ != nullptr && in_ != stdin) {
            std::fclose(in_);
        }
        if (copy_ != nullptr && copy_ != in_) {
            std::fclose(copy_);
        }
        std::free(buffer_);
    }
    ImportFile(const ImportFile &) = delete;
    ImportFile &operator=(const ImportFile &) = delete;

    const std::string &Shown() const { return shown_; }
    std::size_t Line() const { return line_; }

    // 0, or the exit status after saying why the file cannot be read.
    int Open();
    // The next line, without its line end (nor the byte order mark that may start the file); false at the end.
    bool NextLine(std::string_view &text);
    // Once NextLine answered false: 0 at the end of the file, or the exit status after saying why it stopped.
    int Ended() const { return readError_ != 0 ? CannotRead(readError_) : 0; }
    // Starts the second reading; 0, or the exit status after saying why it cannot.
    int Rewind();
    // The progress of the first reading worth telling now, or "".
    std::string CheckProgress();

  private:
    int CannotRead(int error) const;
    int CannotCopy(int error) const;

    std::string operand_;
    std::string shown_;
    FILE *in_ = nullptr;
    FILE *copy_ = nullptr;  // standard input's copy, written during the first reading
    struct stat opened_ {};
    char *buffer_ = nullptr;
    std::size_t capacity_ = 0;
    std::size_t line_ = 0;
    int readError_ = 0;
    int toldTenths_ = 0;
};

FILE *UnnamedTemporaryFile()
{
    const char *dir = std::getenv("TMPDIR");
    std::string name = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/ovra-kb-import.XXXXXX";
    const int fd = mkstemp(&name[0]);
    if (fd < 0) {
        return nullptr;
    }
    unlink(name.c_str());
    FILE *file = fdopen(fd, "w+b");
    if (file == nullptr) {
        close(fd);
    }
    return file;
}

int ImportFile::Open()
{
    in_ = operand_ == kStandardStream ? stdin : std::fopen(operand_.c_str(), "rb");
    if (in_ == nullptr || fstat(fileno(in_), &opened_) != 0) {
        return CannotRead(errno);
    }
    if (S_ISREG(opened_.st_mode)) {
        return 0;
    }
    copy_ = UnnamedTemporaryFile();
    return copy_ != nullptr ? 0 : CannotCopy(errno);
}

bool ImportFile::NextLine(std::string_view &text)
{
    errno = 0;
    const ssize_t length = getline(&buffer_, &capacity_, in_);
    if (length < 0) {
        readError_ = std::ferror(in_) ? (errno != 0 ? errno : EIO) : 0;
        return false;
    }
    if (copy_ != nullptr && copy_ != in_ && std::fwrite(buffer_, 1, static_cast<std::size_t>(length), copy_) == 0) {
        readError_ = errno;
        return false;
    }
    text = std::string_view(buffer_, static_cast<std::size_t>(length));
    if (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
    }
    if (++line_ == 1 && text.compare(0, sizeof(kByteOrderMark) - 1, kByteOrderMark) == 0) {
        text.remove_prefix(sizeof(kByteOrderMark) - 1);
    }
    return true;
}

bool SameFile(const struct stat &before, const struct stat &now)
{
    return before.st_dev == now.st_dev && before.st_ino == now.st_ino && before.st_size == now.st_size &&
           before.st_mtim.tv_sec == now.st_mtim.tv_sec && before.st_mtim.tv_nsec == now.st_mtim.tv_nsec;
}

int ImportFile::Rewind()
{
    line_ = 0;
    if (copy_ != nullptr) {
        if (std::fflush(copy_) != 0 || std::ferror(copy_)) {
            return CannotCopy(errno);
        }
        if (in_ != stdin) {
            std::fclose(in_);
        }
        in_ = copy_;
    }
    // A file still being written (or replaced) while it was checked is not the file that was checked.
    struct stat now {};
    if (copy_ == nullptr && (fstat(fileno(in_), &now) != 0 || !SameFile(opened_, now))) {
        std::fprintf(stderr,
                     "ovra-kb: %s changed while it was checked; nothing was written (import it again once "
                     "it is complete)\n",
                     shown_.c_str());
        return kExitBadData;
    }
    return std::fseek(in_, 0, SEEK_SET) == 0 ? 0 : CannotRead(errno);
}

std::string ImportFile::CheckProgress()
{
    if (copy_ != nullptr) {
        return line_ % kCheckProgressLines == 0 ? "checked " + Plural(line_, "line") + " of " + shown_ : "";
    }
    const long long size = opened_.st_size;
    const int tenths = size >= kCheckProgressBytes ? static_cast<int>(ftello(in_) * 10 / size) : 0;
    if (tenths <= toldTenths_ || tenths >= 10) {
        return "";
    }
    toldTenths_ = tenths;
    return "checked " + std::to_string(tenths * 10) + "% of " + shown_;
}

int ImportFile::CannotRead(int error) const
{
    std::fprintf(stderr, "ovra-kb: cannot read %s: %s\n", shown_.c_str(), std::strerror(error));
    return kExitNoInput;
}

int ImportFile::CannotCopy(int error) const
{
    std::fprintf(stderr, "ovra-kb: cannot keep a copy of %s in TMPDIR to read it twice: %s; import a file instead\n",
                 shown_.c_str(), std::strerror(error));
    return kExitCannotCreate;
}

bool IsBlank(std::string_view text)
{
    return text.find_first_not_of(" \t\r") == std::string_view::npos;
}

bool RecordFromLine(std::string_view text, const Options &options, Record &record, std::string &error)
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
    record.keyword = std::move(object["keyword"]);
    record.knowledge = std::move(object["knowledge"]);
    record.ownOpType = object.count("op_type") != 0;
    record.opType = record.ownOpType ? std::move(object["op_type"]) : options.opType;
    record.ownChip = object.count("soc_version") != 0;
    record.chip = record.ownChip ? Chip{std::move(object["soc_version"]), std::move(object["core_num"])}
                                 : Chip{options.soc, options.cores};
    return true;
}

// The characters that Python's str.strip() takes away (those of str.isspace()), in UTF-8.
const char *const kPythonSpaces[] = {"\t",           "\n",           "\v",           "\f",           "\r",
                                     "\x1c",         "\x1d",         "\x1e",         "\x1f",         " ",
                                     "\xc2\x85",     "\xc2\xa0",     "\xe1\x9a\x80", "\xe2\x80\x80", "\xe2\x80\x81",
                                     "\xe2\x80\x82", "\xe2\x80\x83", "\xe2\x80\x84", "\xe2\x80\x85", "\xe2\x80\x86",
                                     "\xe2\x80\x87", "\xe2\x80\x88", "\xe2\x80\x89", "\xe2\x80\x8a", "\xe2\x80\xa8",
                                     "\xe2\x80\xa9", "\xe2\x80\xaf", "\xe2\x81\x9f", "\xe3\x80\x80"};

std::string_view PythonStripped(std::string_view text)
{
    for (bool cut = true; cut;) {
        cut = false;
        for (std::string_view space : kPythonSpaces) {
            if (text.size() >= space.size() && text.substr(0, space.size()) == space) {
                text.remove_prefix(space.size());
                cut = true;
            }
            if (text.size() >= space.size() && text.substr(text.size() - space.size()) == space) {
                text.remove_suffix(space.size());
                cut = true;
            }
        }
    }
    return text;
}

// Python's int() reads no number of more digits than this (CPython 3.11 on, and the releases given the limit).
const std::size_t kLongestNumber = 4300;

bool IsPositiveNumber(std::string_view text)
{
    text = PythonStripped(text);
    return !text.empty() && text.size() <= kLongestNumber &&
           text.find_first_not_of("0123456789") == std::string_view::npos &&
           text.find_first_not_of('0') != std::string_view::npos;
}

// SQLite's limit on the length of a row, the most a bank directory stores as one record.
const unsigned long long kLongestRow = 1000000000ULL;

unsigned long long VarintLength(unsigned long long value)
{
    unsigned long long length = 1;
    for (; value >= 0x80 && length < 9; value >>= 7) {
        ++length;
    }
    return length;
}

// The length of the record as the bank directory stores it: a header of each text's type and length, then the texts.
unsigned long long RowLength(const Record &record)
{
    unsigned long long header = 1;
    unsigned long long texts = 0;
    for (const std::string *text :
         {&record.chip.soc, &record.chip.cores, &record.opType, &record.keyword, &record.knowledge}) {
        header += VarintLength(2 * text->size() + 13);
        texts += text->size();
    }
    return header + texts;
}

// What the knowledge base would refuse in `record`, or "": the reference package's own checks, a NUL character,
// and the longest row of a bank directory. (Invalid UTF-8, which Python refuses, fails the line's parse.)
std::string RecordFault(const Record &record, bool directoryBank)
{
    const std::string opType = record.ownOpType ? "the op_type" : "--op-type (the line has no op_type)";
    const std::string soc = record.ownChip ? "the soc_version" : "--soc (the line has no chip)";
    const std::string cores = record.ownChip ? "the core_num" : "--cores (the line has no chip)";
    const std::pair<std::string, const std::string *> texts[] = {{"the keyword", &record.keyword},
                                                                 {"the knowledge", &record.knowledge},
                                                                 {opType, &record.opType},
                                                                 {soc, &record.chip.soc},
                                                                 {cores, &record.chip.cores}};
    for (const auto &text : texts) {
        // The library hands each text to Python up to its first NUL, so such a keyword would name another record.
        if (text.second->find('\0') != std::string::npos) {
            return text.first + " holds a NUL character (\\u0000), at which the knowledge base would cut the text";
        }
    }
    if (record.keyword.empty()) {
        return "the keyword is empty, and every record needs one";
    }
    if (record.opType.empty() || record.opType == "*") {
        return opType + (record.opType.empty() ? " is empty" : " is '*', which only lists records") +
               ": give the record an operator type";
    }
    if (PythonStripped(record.chip.soc).empty()) {
        return soc + " is empty: name the chip";
    }
    if (!IsPositiveNumber(record.chip.cores)) {
        return cores + " '" + record.chip.cores + "' is not a positive whole number";
    }
    if (directoryBank && RowLength(record) > kLongestRow) {
        return "the record takes " + std::to_string(RowLength(record)) + " bytes, more than a bank directory stores (" +
               std::to_string(kLongestRow) + ")";
    }
    return "";
}

// What the first reading learned: how many records there are and the chip of the first.
struct ImportPlan {
    std::size_t records = 0;
    Chip first;
};

bool ReadRecord(std::string_view text, const Options &options, bool directoryBank, Record &record, std::string &error)
{
    if (!RecordFromLine(text, options, record, error)) {
        return false;
    }
    error = RecordFault(record, directoryBank);
    return error.empty();
}

int CheckFile(ImportFile &file, const Options &options, ImportPlan &plan)
{
    const bool directoryBank = !IsServerUrl(BankDir(options));
    std::string_view text;
    std::string error;
    while (file.NextLine(text)) {
        Record record;  // one line's texts at a time, also after a long one
        if (gInterrupted != 0) {
            std::fprintf(stderr, "ovra-kb: interrupted while %s was checked; nothing was written\n",
                         file.Shown().c_str());
            return kExitInterrupted;
        }
        const std::string progress = file.CheckProgress();
        if (!progress.empty()) {
            std::fprintf(stderr, "ovra-kb: %s\n", progress.c_str());
        }
        if (IsBlank(text)) {
            continue;
        }
        if (!ReadRecord(text, options, directoryBank, record, error)) {
            std::fprintf(stderr, "ovra-kb: %s:%zu: %s; nothing was written (correct the line, then import again)\n",
                         file.Shown().c_str(), file.Line(), error.c_str());
            return kExitBadData;
        }
        if (plan.records++ == 0) {
            plan.first = record.chip;
        }
    }
    return file.Ended();
}

void ShowProgress(std::size_t done, std::size_t total)
{
    const std::size_t step = total / 10;
    if (total >= kProgressThreshold && done % step == 0 && done < total) {
        std::fprintf(stderr, "ovra-kb: imported %zu of %zu records\n", done, total);
    }
}

int ChangedSinceChecked(const ImportFile &file, const std::string &what, std::size_t written)
{
    std::fprintf(stderr,
                 "ovra-kb: %s:%zu: %s, after the file was checked; the import stopped there, after %s (import "
                 "it again once it is complete)\n",
                 file.Shown().c_str(), file.Line(), what.c_str(), Plural(written, "record").c_str());
    return kExitBadData;
}

// The records in the order of the file; the knowledge base is initialised for a record's chip when it differs from
// the one before. Every record but the last is written with flag 0: the last one's durable commit (the reference
// package syncs its journal) makes the earlier ones durable too, at the cost of one sync instead of one per record.
int WriteFile(KbSession &kb, ImportFile &file, const Options &options, const ImportPlan &plan)
{
    const bool directoryBank = !IsServerUrl(BankDir(options));
    Chip current = plan.first;
    std::size_t written = 0;
    std::string_view text;
    std::string error;
    while (written < plan.records && file.NextLine(text)) {
        Record record;
        if (IsBlank(text)) {
            continue;
        }
        if (!ReadRecord(text, options, directoryBank, record, error)) {
            return ChangedSinceChecked(file, error, written);
        }
        const std::string where = file.Shown() + ":" + std::to_string(file.Line());
        if (!(record.chip == current)) {
            const CallOutcome switched = kb.SwitchChip(record.chip.soc, record.chip.cores);
            if (!switched.Ok()) {
                return ReportFailure(switched, record.opType, where);
            }
            current = record.chip;
        }
        // The last record, or the last before an interrupt, is durable and makes the earlier ones so.
        const bool durable = written + 1 == plan.records || gInterrupted != 0;
        const CallOutcome outcome = kb.Write(record.keyword, record.knowledge, record.opType, durable);
        if (!outcome.Ok()) {
            return ReportFailure(outcome, record.opType, where);
        }
        ShowProgress(++written, plan.records);
        if (gInterrupted != 0 && written < plan.records) {
            std::fprintf(stderr,
                         "ovra-kb: interrupted: %s of %zu were imported (to line %zu), each whole, and made durable; "
                         "the others were not written (import the file again to finish: records are replaced, not "
                         "doubled)\n",
                         Plural(written, "record").c_str(), plan.records, file.Line());
            return kExitInterrupted;
        }
    }
    const int ended = written < plan.records ? file.Ended() : 0;
    if (written < plan.records) {
        return ended != 0 ? ended : ChangedSinceChecked(file, "the file ends early", written);
    }
    return 0;
}

}  // namespace

int RunImport(const Options &options)
{
    ImportFile file(options.operands[0]);
    const InterruptCatcher catcher;
    ImportPlan plan;
    int status = file.Open();
    status = status != 0 ? status : CheckFile(file, options, plan);
    status = status != 0 ? status : file.Rewind();
    if (status != 0) {
        return status;
    }
    Options opened = options;
    if (plan.records > 0) {
        opened.soc = plan.first.soc;
        opened.cores = plan.first.cores;
    }
    return WithSession(
        opened, BankDir(options),
        [&](KbSession &kb) {
            const int written = WriteFile(kb, file, options, plan);
            if (written == 0) {
                std::printf("imported %s from %s\n", Plural(plan.records, "record").c_str(), file.Shown().c_str());
            }
            return written;
        },
        InterruptHandling::kBetweenSteps);
}

}  // namespace OvraCli
