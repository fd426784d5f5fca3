// Search results as a person or a program reads them.
#ifndef OVRA_KB_TOOLS_OUTPUT_H
#define OVRA_KB_TOOLS_OUTPUT_H

#include <cstddef>
#include <string>
#include <vector>

#include "ovra_kb/ovra_kb_api.h"

namespace OvraCli {

// Columns for one line: $COLUMNS, else the terminal's width when standard output is one; 0 means no limit.
std::size_t OutputWidth();

// An aligned table of the named columns (by default keyword, op_type and knowledge). When `width` is not 0
// the last column is cut with an ellipsis so that each line fits.
std::string FormatTable(const std::vector<OvraKb::StrMap> &rows, std::size_t width,
                        const std::vector<std::string> &columns = {"keyword", "op_type", "knowledge"});

// A JSON array holding one object per row with every field of the row.
std::string FormatJsonArray(const std::vector<OvraKb::StrMap> &rows);
// A JSON array of objects already written as JSON, one per line.
std::string FormatJsonArray(const std::vector<std::string> &objects);

}  // namespace OvraCli

#endif  // OVRA_KB_TOOLS_OUTPUT_H
