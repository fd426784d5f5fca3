// libFuzzer target of the error-text functions, fed as the library feeds them: the whole input is the text of
// a Python failure, which ParseStrMap and DealWithError must read keeping the properties below.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

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
    const std::string text(reinterpret_cast<const char *>(data), size);
    CheckParse(text);
    CheckDeal(text);
    return 0;
}
