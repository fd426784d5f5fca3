// Trim: the result is the text less its leading and trailing white space (isspace of the byte as
// unsigned char), has no white space at either end, and trimming it again changes nothing.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "pywrapper/pywrapper.h"

namespace {

bool IsSpace(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::string trimmed = text;
    OvraKb::PyWrapper::Trim(trimmed);

    std::size_t leading = 0;
    while (leading < text.size() && IsSpace(text[leading])) {
        ++leading;
    }
    FUZZ_CHECK(trimmed.size() <= text.size() - leading);
    FUZZ_CHECK(text.compare(leading, trimmed.size(), trimmed) == 0);
    for (std::size_t i = leading + trimmed.size(); i < text.size(); ++i) {
        FUZZ_CHECK(IsSpace(text[i]));
    }
    if (!trimmed.empty()) {
        FUZZ_CHECK(!IsSpace(trimmed.front()));
        FUZZ_CHECK(!IsSpace(trimmed.back()));
    }

    std::string again = trimmed;
    OvraKb::PyWrapper::Trim(again);
    FUZZ_CHECK(again == trimmed);
    return 0;
}
