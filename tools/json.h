// The JSON that ovra-kb reads and writes: flat objects of strings.
#ifndef OVRA_KB_TOOLS_JSON_H
#define OVRA_KB_TOOLS_JSON_H

#include <map>
#include <string>
#include <string_view>

namespace OvraCli {

using JsonObject = std::map<std::string, std::string>;

// `text` as a JSON string literal. The text is passed through byte for byte except for the characters
// that JSON requires to be escaped, so valid UTF-8 stays readable.
std::string JsonString(const std::string &text);

// {"key": "value", ...} on one line, keys in the map's order.
std::string FormatJsonObject(const JsonObject &object);

// Parses one object whose values are all strings, from text in UTF-8 as JSON requires (Python refuses any
// other text, so an invalid byte is an error wherever it stands). On failure returns false and says why in `error`.
bool ParseJsonObject(std::string_view text, JsonObject &object, std::string &error);

}  // namespace OvraCli

#endif  // OVRA_KB_TOOLS_JSON_H
