#include "output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "json.h"

namespace OvraCli {
namespace {

const char *const kColumns[] = {"keyword", "op_type", "knowledge"};
const char kEllipsis[] = "\xE2\x80\xA6";
const std::size_t kGap = 2;
// Knowledge keeps at least this many columns however wide the other two are.
const std::size_t kMinKnowledgeWidth = 10;

bool IsContinuationByte(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Counted in code points: every character is taken to fill one column.
std::size_t DisplayWidth(const std::string &text)
{
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return !IsContinuationByte(c); }));
}

// Line breaks and tabs would tear the table apart; they show as blanks (--json keeps them).
std::string OneLine(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; }, ' ');
    return text;
}

std::string CutToWidth(const std::string &text, std::size_t width)
{
    if (DisplayWidth(text) <= width) {
        return text;
    }
    std::size_t kept = 0;
    std::size_t end = 0;
    while (end < text.size() && kept + 1 < width) {
        ++end;
        while (end < text.size() && IsContinuationByte(text[end])) {
            ++end;
        }
        ++kept;
    }
    return text.substr(0, end) + kEllipsis;
}

std::string PadToWidth(const std::string &text, std::size_t width)
{
    const std::size_t used = DisplayWidth(text);
    return text + std::string(used < width ? width - used : 0, ' ');
}

std::string Cell(const OvraKb::StrMap &row, const char *column)
{
    const auto found = row.find(column);
    return found == row.end() ? "" : OneLine(found->second);
}

std::size_t ColumnWidth(const std::vector<OvraKb::StrMap> &rows, const char *column)
{
    std::size_t width = DisplayWidth(column);
    for (const OvraKb::StrMap &row : rows) {
        width = std::max(width, DisplayWidth(Cell(row, column)));
    }
    return width;
}

std::string TableLine(const std::string &keyword, const std::string &opType, const std::string &knowledge,
                      std::size_t keywordWidth, std::size_t opTypeWidth, std::size_t knowledgeWidth)
{
    const std::string shown = knowledgeWidth == 0 ? knowledge : CutToWidth(knowledge, knowledgeWidth);
    const std::string gap(kGap, ' ');
    return PadToWidth(keyword, keywordWidth) + gap + PadToWidth(opType, opTypeWidth) + gap + shown + "\n";
}

}  // namespace

std::size_t OutputWidth()
{
    const char *columns = getenv("COLUMNS");
    if (columns != nullptr && std::atoi(columns) > 0) {
        return static_cast<std::size_t>(std::atoi(columns));
    }
    winsize size{};
    if (isatty(STDOUT_FILENO) && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    return 0;
}

std::string FormatTable(const std::vector<OvraKb::StrMap> &rows, std::size_t width)
{
    const std::size_t keywordWidth = ColumnWidth(rows, kColumns[0]);
    const std::size_t opTypeWidth = ColumnWidth(rows, kColumns[1]);
    const std::size_t used = keywordWidth + opTypeWidth + 2 * kGap;
    const std::size_t knowledgeWidth = width == 0 ? 0 : std::max(kMinKnowledgeWidth, width > used ? width - used : 0);
    std::string table = TableLine(kColumns[0], kColumns[1], kColumns[2], keywordWidth, opTypeWidth, knowledgeWidth);
    for (const OvraKb::StrMap &row : rows) {
        table += TableLine(Cell(row, kColumns[0]), Cell(row, kColumns[1]), Cell(row, kColumns[2]), keywordWidth,
                           opTypeWidth, knowledgeWidth);
    }
    return table;
}

std::string FormatJsonArray(const std::vector<OvraKb::StrMap> &rows)
{
    std::string out = "[";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        out += (i == 0 ? "\n  " : ",\n  ") + FormatJsonObject(rows[i]);
    }
    return out + (rows.empty() ? "]\n" : "\n]\n");
}

}  // namespace OvraCli
