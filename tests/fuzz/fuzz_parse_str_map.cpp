// ParseStrMap: true exactly when the text has a "{" and, after it but not right after it, the first
// "}"; false leaves the map as it was; each entry read is trimmed, holds no quote, comma or colon,
// and comes from the text between the braces; entries already in the map and not read stay.
#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "pywrapper/pywrapper.h"

namespace {

// Trim removes leading white space, so no entry read can have this key.
const char *const KEPT_KEY = " kept ";

bool Trimmed(const std::string &s)
{
    return s.empty() || (std::isspace(static_cast<unsigned char>(s.front())) == 0 &&
                         std::isspace(static_cast<unsigned char>(s.back())) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    OvraKb::StrMap out = {{KEPT_KEY, "value"}};
    const bool found = OvraKb::PyWrapper::ParseStrMap(text, out);

    const std::size_t left = text.find('{');
    const std::size_t right = text.find('}');
    const bool braces = left != std::string::npos && right != std::string::npos && right > left + 1;
    FUZZ_CHECK(found == braces);
    FUZZ_CHECK(out.count(KEPT_KEY) == 1 && out.at(KEPT_KEY) == "value");
    if (!found) {
        FUZZ_CHECK(out.size() == 1);
        return 0;
    }
    std::string body = text.substr(left + 1, right - left - 1);
    body.erase(std::remove(body.begin(), body.end(), '\''), body.end());
    const std::size_t pairs = static_cast<std::size_t>(std::count(body.begin(), body.end(), ',')) + 1;
    FUZZ_CHECK(out.size() - 1 <= pairs);
    for (const auto &entry : out) {
        if (entry.first == KEPT_KEY) {
            continue;
        }
        for (const std::string *piece : {&entry.first, &entry.second}) {
            FUZZ_CHECK(Trimmed(*piece));
            FUZZ_CHECK(piece->find_first_of("',:") == std::string::npos);
            FUZZ_CHECK(body.find(*piece) != std::string::npos);
        }
    }
    return 0;
}
