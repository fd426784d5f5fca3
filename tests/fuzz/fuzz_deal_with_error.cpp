// DealWithError: text without "RuntimeError" gives "EC0010" and exactly {"result": text}; otherwise
// the code and details are what ParseStrMap reads from the text: its "errCode" entry as the code
// and the other entries as details, or, without such an entry, "EC0010" with those entries and
// "result" set to the text. The code is never empty unless the text's errCode entry is blank.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "pywrapper/pywrapper.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    OvraKb::StrMap details;
    const std::string code = OvraKb::PyWrapper::DealWithError(text, details);

    if (text.find("RuntimeError") == std::string::npos) {
        FUZZ_CHECK(code == "EC0010");
        FUZZ_CHECK(details == (OvraKb::StrMap{{"result", text}}));
        return 0;
    }
    OvraKb::StrMap parsed;
    const bool found = OvraKb::PyWrapper::ParseStrMap(text, parsed);
    const auto errCode = parsed.find("errCode");
    if (found && errCode != parsed.end()) {
        FUZZ_CHECK(code == errCode->second);
        parsed.erase(errCode);
        FUZZ_CHECK(details == parsed);
        return 0;
    }
    FUZZ_CHECK(!code.empty());
    FUZZ_CHECK(code == "EC0010");
    parsed["result"] = text;
    FUZZ_CHECK(details == parsed);
    return 0;
}
