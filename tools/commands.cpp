#include "commands.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "environment.h"
#include "json.h"
#include "output.h"

namespace OvraCli {
namespace {

// Searching every op type at once is the reference package's extension of search type "all".
const char kEveryOpType[] = "*";
// Imports of this many records or more tell their progress, ten times over the file.
const std::size_t kProgressThreshold = 1000;

struct Record {
    std::string keyword;
    std::string knowledge;
    std::string opType;
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

bool RecordFromLine(const std::string &text, const std::string &defaultOpType, Record &record, std::string &error)
{
    JsonObject object;
    if (!ParseJsonObject(text, object, error)) {
        return false;
    }
    if (object.count("keyword") == 0 || object.count("knowledge") == 0) {
        error = "a record needs \"keyword\" and \"knowledge\"";
        return false;
    }
    record.keyword = object["keyword"];
    record.knowledge = object["knowledge"];
    record.opType = object.count("op_type") != 0 ? object["op_type"] : defaultOpType;
    return true;
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
    const std::string &file = options.operands[0];
    std::ifstream in(file);
    if (!in) {
        return CannotRead(file);
    }
    std::string text;
    for (std::size_t line = 1; std::getline(in, text); ++line) {
        Record record;
        std::string error;
        if (IsBlank(text)) {
            continue;
        }
        if (!RecordFromLine(text, options.opType, record, error)) {
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

// The last record is written durably: the reference package's durable commit syncs its journal, which
// makes every earlier record of the import durable as well, at the cost of one sync instead of one per record.
int WriteRecords(KbSession &kb, const std::vector<Record> &records, const std::string &file)
{
    for (std::size_t i = 0; i < records.size(); ++i) {
        const Record &record = records[i];
        const bool durable = i + 1 == records.size();
        const CallOutcome written = kb.Write(record.keyword, record.knowledge, record.opType, durable);
        if (!written.Ok()) {
            return ReportFailure(written, record.opType, file + ":" + std::to_string(record.line));
        }
        ShowProgress(i + 1, records.size());
    }
    return 0;
}

std::string ExportLine(const OvraKb::StrMap &row)
{
    JsonObject record;
    for (const char *field : {"keyword", "knowledge", "op_type"}) {
        const auto found = row.find(field);
        record[field] = found != row.end() ? found->second : "";
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
    const bool toFile = !options.operands.empty();
    const std::string file = toFile ? options.operands[0] : "standard output";
    FILE *out = toFile ? std::fopen(file.c_str(), "w") : stdout;
    if (out == nullptr) {
        return CannotWrite(file);
    }
    for (const OvraKb::StrMap &row : rows) {
        std::fputs(ExportLine(row).c_str(), out);
    }
    const bool flushed = std::fflush(out) == 0 && std::ferror(out) == 0;
    const bool closed = !toFile || std::fclose(out) == 0;
    if (!flushed || !closed) {
        return CannotWrite(file);
    }
    if (toFile) {
        std::printf("exported %zu records to %s\n", rows.size(), file.c_str());
    }
    return 0;
}

}  // namespace

std::string BankDir(const Options &options)
{
    return options.bank.empty() ? DefaultBankDir() : options.bank;
}

int RunWrite(const Options &options)
{
    const std::string &keyword = options.operands[0];
    return WithSession(options, BankDir(options), [&](KbSession &kb) {
        const CallOutcome written = kb.Write(keyword, options.operands[1], options.opType, true);
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
    const std::string &file = options.operands[0];
    return WithSession(options, BankDir(options), [&](KbSession &kb) {
        const int status = WriteRecords(kb, records, file);
        if (status == 0) {
            std::printf("imported %zu records from %s\n", records.size(), file.c_str());
        }
        return status;
    });
}

int RunExport(const Options &options)
{
    const std::string opType = options.opTypeGiven ? options.opType : kEveryOpType;
    return WithSession(options, BankDir(options), [&](KbSession &kb) {
        std::vector<OvraKb::StrMap> rows;
        const CallOutcome found = kb.Search("", opType, "all", rows);
        return found.Ok() ? WriteExport(rows, options) : ReportFailure(found, opType);
    });
}

}  // namespace OvraCli
