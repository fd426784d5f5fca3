// StringSplit: the pieces, joined with the separator, give the text back (less a trailing separator,
// whose empty piece is dropped); no piece holds the separator; earlier entries of the output stay.
//
// Input: byte 0 chooses the separator's length (1 + bits 0-1) and the number of entries the output
// holds before the call (bits 2-3, 0 to 3); the separator's bytes follow, then the text.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "pywrapper/pywrapper.h"

namespace {

std::string Join(std::vector<std::string>::const_iterator first, std::vector<std::string>::const_iterator last,
                 const std::string &separator)
{
    std::string out;
    for (auto it = first; it != last; ++it) {
        if (it != first) {
            out += separator;
        }
        out += *it;
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 2) {
        return 0;
    }
    const std::size_t separatorLength = 1 + (data[0] & 0x3U);
    const std::size_t earlier = (data[0] >> 2) & 0x3U;
    if (size < 1 + separatorLength) {
        return 0;
    }
    const std::string separator(reinterpret_cast<const char *>(data + 1), separatorLength);
    const std::string text(reinterpret_cast<const char *>(data + 1 + separatorLength), size - 1 - separatorLength);

    std::vector<std::string> out;
    for (std::size_t i = 0; i < earlier; ++i) {
        out.push_back("earlier " + std::to_string(i));
    }
    const std::uint64_t count = OvraKb::PyWrapper::StringSplit(text, separator, out);

    FUZZ_CHECK(count == out.size());
    FUZZ_CHECK(out.size() >= earlier);
    for (std::size_t i = 0; i < earlier; ++i) {
        FUZZ_CHECK(out[i] == "earlier " + std::to_string(i));
    }
    const auto first = out.cbegin() + static_cast<std::ptrdiff_t>(earlier);
    for (auto it = first; it != out.cend(); ++it) {
        FUZZ_CHECK(it->find(separator) == std::string::npos);
    }
    const std::string joined = Join(first, out.cend(), separator);
    if (joined == text) {
        // Nothing dropped: the last piece is the non-empty rest (or the text was empty).
        FUZZ_CHECK(text.empty() ? first == out.cend() : first != out.cend() && !out.back().empty());
    } else {
        // The text ended with the separator and the empty piece after it was dropped.
        FUZZ_CHECK(joined + separator == text);
        FUZZ_CHECK(first != out.cend());
    }
    return 0;
}
