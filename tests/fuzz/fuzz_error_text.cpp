// libFuzzer target of the error-text functions (StringSplit, Trim, ParseStrMap, DealWithError): every
// input must keep the properties below. Byte 0 chooses the split's separator length (1 + bits 0-1) and
// how many entries its output holds before the call (bits 2-3); the separator's bytes follow; the rest
// is the text that every function gets.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "pywrapper/pywrapper.h"

// A property that does not hold makes the input a finding: abort() has libFuzzer keep it as a crash.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "fuzz property failed: %s (%s:%d)\n", #condition, __FILE__, __LINE__); \
            abort();                                                                               \
        }                                                                                          \
    } while (0)

namespace {

using OvraKb::StrMap;
namespace PyWrapper = OvraKb::PyWrapper;

const char *const SPACES = " \t\n\v\f\r";  // isspace in the C locale

// The pieces, joined with the separator, give the text back (less a trailing separator, whose empty
// piece is dropped); no piece holds the separator; earlier entries of the output stay.
void CheckSplit(const std::string &text, const std::string &separator, std::size_t earlier)
{
    std::vector<std::string> out(earlier, "earlier");
    FUZZ_CHECK(PyWrapper::StringSplit(text, separator, out) == out.size());
    FUZZ_CHECK(out.size() >= earlier && std::count(out.begin(), out.begin() + earlier, "earlier") == long(earlier));
    std::string joined;
    for (std::size_t i = earlier; i < out.size(); ++i) {
        FUZZ_CHECK(out[i].find(separator) == std::string::npos);
        joined += (i > earlier ? separator : "") + out[i];
    }
    if (joined == text) {
        FUZZ_CHECK(text.empty() ? out.size() == earlier : out.size() > earlier && !out.back().empty());
    } else {
        FUZZ_CHECK(joined + separator == text && out.size() > earlier);
    }
}

// The text less its leading and trailing white space.
void CheckTrim(const std::string &text)
{
    std::string trimmed = text;
    PyWrapper::Trim(trimmed);
    const std::size_t first = text.find_first_not_of(SPACES);
    FUZZ_CHECK(trimmed ==
               (first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(SPACES) - first + 1)));
}

// True exactly when the text has a "{" and, after it but not right after it, the first "}"; false
// leaves the map as it was; each entry read is trimmed, holds no quote, comma or colon, and comes from
// the text between the braces; entries already in the map and not read stay.
void CheckParse(const std::string &text)
{
    StrMap out = {{" kept ", "value"}};  // no entry read can have this key: it is not trimmed
    const bool found = PyWrapper::ParseStrMap(text, out);
    const std::size_t left = text.find('{');
    const std::size_t right = text.find('}');
    FUZZ_CHECK(found == (left != std::string::npos && right != std::string::npos && right > left + 1));
    FUZZ_CHECK(out.at(" kept ") == "value" && (found || out.size() == 1));
    if (!found) {
        return;
    }
    std::string body = text.substr(left + 1, right - left - 1);
    body.erase(std::remove(body.begin(), body.end(), '\''), body.end());
    FUZZ_CHECK(out.size() - 1 <= static_cast<std::size_t>(std::count(body.begin(), body.end(), ',')) + 1);
    for (const auto &entry : out) {
        for (const std::string *piece : {&entry.first, &entry.second}) {
            if (entry.first != " kept ") {
                FUZZ_CHECK(piece->empty() || (std::string(SPACES).find(piece->front()) == std::string::npos &&
                                              std::string(SPACES).find(piece->back()) == std::string::npos));
                FUZZ_CHECK(piece->find_first_of("',:") == std::string::npos && body.find(*piece) != std::string::npos);
            }
        }
    }
}

// Text without "RuntimeError" gives "EC0010" and exactly {"result": text}; otherwise the code and details
// are what ParseStrMap reads: its "errCode" entry as the code and the other entries as details, or,
// without such an entry, "EC0010" with those entries and "result" set to the text.
void CheckDeal(const std::string &text)
{
    StrMap details;
    const std::string code = PyWrapper::DealWithError(text, details);
    StrMap parsed;
    if (text.find("RuntimeError") != std::string::npos && PyWrapper::ParseStrMap(text, parsed) &&
        parsed.count("errCode") == 1) {
        FUZZ_CHECK(code == parsed.at("errCode"));
        parsed.erase("errCode");
    } else {
        FUZZ_CHECK(code == "EC0010");
        parsed["result"] = text;
    }
    FUZZ_CHECK(details == parsed);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::size_t separatorLength = size > 0 ? 1 + (data[0] & 0x3U) : 0;
    if (size < 1 + separatorLength) {
        return 0;
    }
    const std::string separator(reinterpret_cast<const char *>(data + 1), separatorLength);
    const std::string text(reinterpret_cast<const char *>(data + 1 + separatorLength), size - 1 - separatorLength);
    CheckSplit(text, separator, (data[0] >> 2) & 0x3U);
    CheckTrim(text);
    CheckParse(text);
    CheckDeal(text);
    return 0;
}
