#include "output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
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

// One code point of UTF-8 text, and where the next one starts.
std::uint32_t DecodeAt(const std::string &text, std::size_t &pos)
{
    const unsigned char lead = static_cast<unsigned char>(text[pos++]);
    const int extra = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
    std::uint32_t code = extra == 0 ? lead : lead & (0x3F >> extra);
    for (int i = 0; i < extra && pos < text.size() && IsContinuationByte(text[pos]); ++i) {
        code = (code << 6) | (static_cast<unsigned char>(text[pos++]) & 0x3F);
    }
    return code;
}

// Columns a code point fills on a terminal: 2 for East Asian wide and full-width characters and emoji, 0 for
// combining marks, 1 otherwise.
std::size_t ColumnsOf(std::uint32_t code)
{
    static const std::uint32_t kWide[][2] = {
        {0x1100, 0x115F}, {0x2E80, 0x303E},   {0x3041, 0x33FF},   {0x3400, 0x4DBF},  {0x4E00, 0x9FFF},
        {0xA000, 0xA4CF}, {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},   {0xFE30, 0xFE4F},  {0xFF00, 0xFF60},
        {0xFFE0, 0xFFE6}, {0x1F300, 0x1F64F}, {0x1F900, 0x1F9FF}, {0x20000, 0x3FFFD}};
    if ((code >= 0x0300 && code <= 0x036F) || (code >= 0x200B && code <= 0x200F)) {
        return 0;
    }
    for (const auto &range : kWide) {
        if (code >= range[0] && code <= range[1]) {
            return 2;
        }
    }
    return 1;
}

std::size_t DisplayWidth(const std::string &text)
{
    std::size_t width = 0;
    for (std::size_t pos = 0; pos < text.size();) {
        width += ColumnsOf(DecodeAt(text, pos));
    }
    return width;
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
    std::size_t used = 0;
    std::size_t end = 0;
    for (std::size_t pos = 0; pos < text.size();) {
        const std::size_t columns = ColumnsOf(DecodeAt(text, pos));
        if (used + columns + 1 > width) {  // one column stays for the ellipsis
            break;
        }
        used += columns;
        end = pos;
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
        line += PadToWidth(CutToWidth(cells[i], widths[i]), widths[i]) + std::string(kGap, ' ');
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
    // On a narrow line the first columns give up space too (a long keyword is cut), down to a share each.
    const std::size_t share = width == 0 ? 0 : std::max(kMinLastWidth, width / columns.size());
    std::vector<std::size_t> widths;
    std::size_t used = 0;
    for (std::size_t i = 0; i + 1 < columns.size(); ++i) {
        const std::size_t full = ColumnWidth(rows, columns[i].c_str());
        widths.push_back(width == 0 ? full : std::min(full, share));
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

std::string FormatJsonArray(const std::vector<std::string> &objects)
{
    std::string out = "[";
    for (std::size_t i = 0; i < objects.size(); ++i) {
        out += (i == 0 ? "\n  " : ",\n  ") + objects[i];
    }
    return out + (objects.empty() ? "]\n" : "\n]\n");
}

std::string FormatJsonArray(const std::vector<OvraKb::StrMap> &rows)
{
    std::vector<std::string> objects;
    for (const OvraKb::StrMap &row : rows) {
        objects.push_back(FormatJsonObject(row));
    }
    return FormatJsonArray(objects);
}

}  // namespace OvraCli
