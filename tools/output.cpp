#include "output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "json.h"

namespace OvraCli {
namespace {

const char kEllipsis[] = "\xE2\x80\xA6";
const std::size_t kGap = 2;
// The last column keeps at least this many columns however wide the others are.
const std::size_t kMinLastWidth = 10;

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

// Every column but the last is padded to its width; the last is cut to what is left of the line.
std::string TableLine(const std::vector<std::string> &cells, const std::vector<std::size_t> &widths,
                      std::size_t lastWidth)
{
    std::string line;
    for (std::size_t i = 0; i + 1 < cells.size(); ++i) {
        line += PadToWidth(cells[i], widths[i]) + std::string(kGap, ' ');
    }
    return line + (lastWidth == 0 ? cells.back() : CutToWidth(cells.back(), lastWidth)) + "\n";
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

std::string FormatTable(const std::vector<OvraKb::StrMap> &rows, std::size_t width,
                        const std::vector<std::string> &columns)
{
    std::vector<std::size_t> widths;
    std::size_t used = 0;
    for (std::size_t i = 0; i + 1 < columns.size(); ++i) {
        widths.push_back(ColumnWidth(rows, columns[i].c_str()));
        used += widths.back() + kGap;
    }
    const std::size_t lastWidth = width == 0 ? 0 : std::max(kMinLastWidth, width > used ? width - used : 0);
    std::string table = TableLine(columns, widths, lastWidth);
    for (const OvraKb::StrMap &row : rows) {
        std::vector<std::string> cells;
        for (const std::string &column : columns) {
            cells.push_back(Cell(row, column.c_str()));
        }
        table += TableLine(cells, widths, lastWidth);
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
