// The C interface: checks and converts the C arguments, calls the C++ entry point of the same name, and
// converts the rows back. Nothing thrown below it may unwind into a C caller.
#include "ovra_kb/ovra_kb_c.h"

#include <cxxabi.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "common/common.h"
#include "ovra_kb/ovra_kb_api.h"

using OvraKb::StrMap;

struct OvraKbCResult {
    using Entry = std::pair<std::string, std::string>;
    using Row = std::vector<Entry>;  // ordered by key, as the StrMap it came from
    std::vector<Row> rows;
};

namespace {

static_assert(sizeof(OvraKbCStatus) == sizeof(std::uint32_t), "a status is 32 bits wide");
static_assert(OVRA_KB_C_SUCCESS == OvraKb::OVRA_KB_SUCCESS &&
                  OVRA_KB_C_CONFIG_KEY_MISSING == OvraKb::OVRA_KB_CONFIG_KEY_MISSING &&
                  OVRA_KB_C_PYTHON_UNAVAILABLE == OvraKb::OVRA_KB_PYTHON_UNAVAILABLE &&
                  OVRA_KB_C_VALUE_CONVERSION_FAILED == OvraKb::OVRA_KB_VALUE_CONVERSION_FAILED &&
                  OVRA_KB_C_DICT_CREATION_FAILED == OvraKb::OVRA_KB_DICT_CREATION_FAILED &&
                  OVRA_KB_C_PYTHON_CALL_FAILED == OvraKb::OVRA_KB_PYTHON_CALL_FAILED,
              "the C statuses are the C++ ones");

bool Given(const char *text)
{
    return text != nullptr;
}

bool Given(const OvraKbCPair *pairs, size_t count)
{
    return count == 0 || (pairs != nullptr && std::all_of(pairs, pairs + count, [](const OvraKbCPair &pair) {
                              return pair.key != nullptr && pair.value != nullptr;
                          }));
}

OvraKbCStatus RefuseNull(const char *function)
{
    OVRA_KB_LOG(OVRA_LEVEL_ERROR, "%s: a NULL argument where a string or an array is needed; nothing was done.",
                function);
    return OVRA_KB_C_VALUE_CONVERSION_FAILED;
}

StrMap ToMap(const OvraKbCPair *pairs, size_t count)
{
    StrMap map;
    for (size_t i = 0; i < count; ++i) {
        map[pairs[i].key] = pairs[i].value;  // a repeated key: the last pair counts
    }
    return map;
}

// Moves the rows' strings into a result; the caller owns it.
std::unique_ptr<OvraKbCResult> ToResult(std::vector<StrMap> &rows)
{
    std::unique_ptr<OvraKbCResult> result(new OvraKbCResult);
    result->rows.reserve(rows.size());
    for (StrMap &row : rows) {
        OvraKbCResult::Row &out = result->rows.emplace_back();
        out.reserve(row.size());
        while (!row.empty()) {
            StrMap::node_type node = row.extract(row.begin());
            out.emplace_back(std::move(node.key()), std::move(node.mapped()));
        }
    }
    return result;
}

// Runs `call` and turns whatever it throws into a status and an error line.
template <typename Call>
OvraKbCStatus Guard(const char *function, Call call)
{
    try {
        return call();
    } catch (abi::__forced_unwind &) {
        throw;  // a cancelled thread unwinds on to its cleanup handlers
    } catch (const std::bad_alloc &) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "%s: out of memory; the call returns 5.", function);
        return OVRA_KB_C_DICT_CREATION_FAILED;
    } catch (const std::exception &error) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "%s: %s; the call returns 6.", function, error.what());
        return OVRA_KB_C_PYTHON_CALL_FAILED;
    } catch (...) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "%s: an unknown exception; the call returns 6.", function);
        return OVRA_KB_C_PYTHON_CALL_FAILED;
    }
}

const OvraKbCResult::Row *RowOf(const OvraKbCResult *result, size_t row)
{
    return result != nullptr && row < result->rows.size() ? &result->rows[row] : nullptr;
}

const OvraKbCResult::Entry *EntryOf(const OvraKbCResult *result, size_t row, size_t entry)
{
    const OvraKbCResult::Row *found = RowOf(result, row);
    return found != nullptr && entry < found->size() ? &(*found)[entry] : nullptr;
}

}  // namespace

extern "C" OvraKbCStatus OvraKbCInit(const OvraKbCPair *sysConfig, size_t sysCount, const OvraKbCPair *loadConfig,
                                     size_t loadCount)
{
    if (!Given(sysConfig, sysCount) || !Given(loadConfig, loadCount)) {
        return RefuseNull("OvraKbCInit");
    }
    return Guard("OvraKbCInit", [&] { return OvraKbInit(ToMap(sysConfig, sysCount), ToMap(loadConfig, loadCount)); });
}

extern "C" OvraKbCStatus OvraKbCFinalize(void)
{
    return Guard("OvraKbCFinalize", [] { return OvraKbFinalize(); });
}

extern "C" OvraKbCStatus OvraKbCSearch(const char *keyword, const OvraKbCPair *searchConfig, size_t searchCount,
                                       OvraKbCResult **result)
{
    if (result != nullptr) {
        *result = nullptr;
    }
    if (result == nullptr || !Given(keyword) || !Given(searchConfig, searchCount)) {
        return RefuseNull("OvraKbCSearch");
    }
    return Guard("OvraKbCSearch", [&] {
        std::vector<StrMap> rows;
        OvraKbCStatus status = OvraKbSearch(keyword, ToMap(searchConfig, searchCount), rows);
        if (status == OVRA_KB_C_SUCCESS) {
            *result = ToResult(rows).release();
        }
        return status;
    });
}

extern "C" OvraKbCStatus OvraKbCWrite(const char *keyword, const char *knowledge, const OvraKbCPair *writeConfig,
                                      size_t writeCount, int flag)
{
    if (!Given(keyword) || !Given(knowledge) || !Given(writeConfig, writeCount)) {
        return RefuseNull("OvraKbCWrite");
    }
    return Guard("OvraKbCWrite",
                 [&] { return OvraKbWrite(keyword, knowledge, ToMap(writeConfig, writeCount), flag != 0); });
}

extern "C" OvraKbCStatus OvraKbCDelete(const char *keyword, const OvraKbCPair *writeConfig, size_t writeCount, int flag)
{
    if (!Given(keyword) || !Given(writeConfig, writeCount)) {
        return RefuseNull("OvraKbCDelete");
    }
    return Guard("OvraKbCDelete", [&] { return OvraKbDelete(keyword, ToMap(writeConfig, writeCount), flag != 0); });
}

extern "C" size_t OvraKbCResultRowCount(const OvraKbCResult *result)
{
    return result != nullptr ? result->rows.size() : 0;
}

extern "C" size_t OvraKbCResultEntryCount(const OvraKbCResult *result, size_t row)
{
    const OvraKbCResult::Row *found = RowOf(result, row);
    return found != nullptr ? found->size() : 0;
}

extern "C" const char *OvraKbCResultKey(const OvraKbCResult *result, size_t row, size_t entry)
{
    const OvraKbCResult::Entry *found = EntryOf(result, row, entry);
    return found != nullptr ? found->first.c_str() : nullptr;
}

extern "C" const char *OvraKbCResultValue(const OvraKbCResult *result, size_t row, size_t entry)
{
    const OvraKbCResult::Entry *found = EntryOf(result, row, entry);
    return found != nullptr ? found->second.c_str() : nullptr;
}

extern "C" const char *OvraKbCResultLookup(const OvraKbCResult *result, size_t row, const char *key)
{
    const OvraKbCResult::Row *found = RowOf(result, row);
    if (found == nullptr || key == nullptr) {
        return nullptr;
    }
    // The entries keep the byte-wise key order of the StrMap they came from.
    auto entry = std::lower_bound(
        found->begin(), found->end(), key,
        [](const OvraKbCResult::Entry &candidate, const char *wanted) { return candidate.first < wanted; });
    return entry != found->end() && entry->first == key ? entry->second.c_str() : nullptr;
}

extern "C" void OvraKbCResultFree(OvraKbCResult *result)
{
    delete result;
}
