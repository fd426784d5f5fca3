// ovra-kb demo: the knowledge base at work on a fresh bank, each step told with the command that does it.
#include <dirent.h>
#include <ftw.h>
#include <stdlib.h>

#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "environment.h"
#include "output.h"
#include "shell.h"

namespace OvraCli {
namespace {

struct DemoRecord {
    const char *opType;
    const char *keyword;
    const char *knowledge;
};

const DemoRecord kRecords[] = {
    {"MatMul", "m128_n128_k64", "tile 128x128, k-step 64, double-buffer A and B"},
    {"MatMul", "m128_n256_k64", "tile 128x256, k-step 64, keep B resident in L1"},
    {"MatMul", "m64_n64_k32", "tile 64x64, k-step 32, for small batches"},
    {"Conv2D", "n1_c64_h56_w56", "img2col, split H by 8, reuse the weights across W"},
    {"Conv2D", "n1_c128_h28_w28", "img2col, split C by 2, fuse bias and ReLU"},
};

struct SearchStep {
    const char *what;
    const char *args;  // of the equivalent command
    const char *keyword;
    const char *opType;
    const char *searchType;
};

const SearchStep kSearches[] = {
    {"Exact search: the record whose keyword is m128_n128_k64", "m128_n128_k64 --op-type MatMul", "m128_n128_k64",
     "MatMul", "exact"},
    {"Prefix search: the MatMul records whose keyword starts with m128_", "m128_ --type prefix --op-type MatMul",
     "m128_", "MatMul", "prefix"},
    {"All records of every op type", "--type all --op-type '*'", "", "*", "all"},
};
const SearchStep kListMatMul = {"", "--type all --op-type MatMul", "", "MatMul", "all"};

const char kIndent[] = "     ";

bool IsEmptyDirectory(const std::string &path)
{
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr) {
        return false;
    }
    int entries = 0;
    while (readdir(dir) != nullptr) {
        ++entries;
    }
    closedir(dir);
    return entries <= 2;  // "." and ".."
}

std::string MakeTemporaryBank()
{
    const char *tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/ovra-kb-demo.XXXXXX";
    return mkdtemp(&pattern[0]) != nullptr ? pattern : "";
}

void RemoveTree(const std::string &path)
{
    nftw(
        path.c_str(), [](const char *file, const struct stat *, int, FTW *) { return remove(file); }, 16,
        FTW_DEPTH | FTW_PHYS);
}

void Step(int number, const std::string &what)
{
    std::printf("\n%d. %s\n", number, what.c_str());
}

void ShowCommand(const std::string &args)
{
    std::printf("%s$ ovra-kb %s\n", kIndent, args.c_str());
}

void ShowRows(const std::vector<OvraKb::StrMap> &rows)
{
    const std::size_t indent = sizeof(kIndent) - 1;
    const std::size_t width = OutputWidth();
    const std::string table = FormatTable(rows, width > indent ? width - indent : width);
    std::size_t start = 0;
    for (std::size_t end = table.find('\n'); end != std::string::npos; end = table.find('\n', start)) {
        std::printf("%s%s\n", kIndent, table.substr(start, end - start).c_str());
        start = end + 1;
    }
}

int WriteAll(KbSession &kb)
{
    Step(1, "Write " + std::to_string(sizeof(kRecords) / sizeof(kRecords[0])) + " records under two op types");
    for (const DemoRecord &record : kRecords) {
        ShowCommand(std::string("write ") + record.keyword + " " + ShellQuote(record.knowledge) + " --op-type " +
                    record.opType);
        const CallOutcome written = kb.Write(record.keyword, record.knowledge, record.opType, true);
        if (!written.Ok()) {
            return ReportFailure(written, record.opType);
        }
    }
    return 0;
}

int SearchAndShow(KbSession &kb, const SearchStep &step)
{
    ShowCommand(std::string("search ") + step.args);
    std::vector<OvraKb::StrMap> rows;
    const CallOutcome found = kb.Search(step.keyword, step.opType, step.searchType, rows);
    if (!found.Ok()) {
        return ReportFailure(found, step.opType);
    }
    ShowRows(rows);
    return 0;
}

int DeleteOne(KbSession &kb, int number)
{
    Step(number, "Delete m64_n64_k32, then list the MatMul records again");
    ShowCommand("delete m64_n64_k32 --op-type MatMul");
    const CallOutcome deleted = kb.Delete("m64_n64_k32", "MatMul");
    if (!deleted.Ok()) {
        return ReportFailure(deleted, "MatMul");
    }
    return SearchAndShow(kb, kListMatMul);
}

int RunSteps(KbSession &kb)
{
    int status = WriteAll(kb);
    int number = 2;
    for (const SearchStep &step : kSearches) {
        if (status != 0) {
            return status;
        }
        Step(number++, step.what);
        status = SearchAndShow(kb, step);
    }
    return status != 0 ? status : DeleteOne(kb, number);
}

std::string Closing(int status, bool temporary, const std::string &bank)
{
    if (status != 0) {
        return "The demo stopped at the failure above.";
    }
    return temporary ? "Done; the temporary bank is removed." : "Done; the records stay in " + bank + ".";
}

}  // namespace

int RunDemo(const Options &options)
{
    const bool temporary = options.bank.empty();
    if (!temporary && IsDirectory(options.bank) && !IsEmptyDirectory(options.bank)) {
        std::fprintf(stderr, "ovra-kb: demo needs a fresh bank, and %s is not empty\n%s\n", options.bank.c_str(),
                     UsageLine(Command::kDemo).c_str());
        return kExitUsage;
    }
    const std::string bank = temporary ? MakeTemporaryBank() : options.bank;
    if (bank.empty()) {
        std::perror("ovra-kb: cannot create a temporary bank");
        return kExitCannotCreate;
    }
    std::printf("ovra-kb demo: a fresh bank at %s, for %s with %s cores.\n", bank.c_str(), options.soc.c_str(),
                options.cores.c_str());
    std::printf("Each step shows the ovra-kb command that does the same on the bank of --bank.\n");
    const int status = WithSession(options, bank, RunSteps);
    if (temporary) {
        RemoveTree(bank);
    }
    std::printf("\n%s\n", Closing(status, temporary, bank).c_str());
    return status;
}

}  // namespace OvraCli
