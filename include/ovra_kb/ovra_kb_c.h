/*
 * libovra_kb from C (C89 or later), C++, or any language that calls C functions (ctypes, Rust, Go).
 *
 * The same five operations as ovra_kb_api.h, in libovra_kb_c.so over libovra_kb.so (link
 * -lovra_kb_c -lovra_kb -lovra_platform, pkg-config ovra_kb_c, CMake OvraKb::ovra_kb_c), with plain C
 * types: configurations are arrays of OvraKbCPair with a count, texts are NUL-terminated UTF-8
 * strings, the flag is an int, and search rows come back in an OvraKbCResult that the caller
 * reads through the accessors below and releases with OvraKbCResultFree.
 *
 * Call order, users and threads are as in ovra_kb_api.h: OvraKbCInit, then any number of
 * OvraKbCSearch / OvraKbCWrite / OvraKbCDelete from any thread, then OvraKbCFinalize once for
 * each OvraKbCInit that returned OVRA_KB_C_SUCCESS (and never after a failed one). The last
 * finalisation waits for the operations other threads have in flight (a waiting search ends with
 * OVRA_KB_C_PYTHON_UNAVAILABLE). A search, write, delete or finalise made while the knowledge base
 * is down, or going down, returns OVRA_KB_C_PYTHON_UNAVAILABLE. The C and C++ functions are
 * the same operations and may be mixed in one process.
 *
 * Ownership: every pointer passed in is only read during the call; the library keeps none of
 * them. A result belongs to the caller until OvraKbCResultFree; the strings its accessors
 * return belong to the result and stay valid, unchanged, until it is freed (do not free or
 * modify them). A result does not depend on the library's state: it may be read and freed after
 * OvraKbCFinalize and on any thread; several threads may read one result at once, but none may
 * read it while another frees it.
 *
 * Misuse: a NULL where a string or an array is needed (a keyword, a knowledge text, a key or a
 * value of a pair, a pair array with a count above 0, the result pointer of a search) gives
 * OVRA_KB_C_VALUE_CONVERSION_FAILED and one error line in the log; nothing else is checked or
 * called. A pair array may be NULL when its count is 0 (an empty configuration). The
 * accessors answer 0 or NULL for a NULL result and for a row or entry out of range.
 *
 * Failures inside the library never unwind into the caller: memory exhausted while the
 * arguments or the rows are copied gives OVRA_KB_C_DICT_CREATION_FAILED, any other failure of
 * the C++ runtime (a lock that cannot be taken) OVRA_KB_C_PYTHON_CALL_FAILED, each with an
 * error line in the log.
 */
#ifndef OVRA_KB_OVRA_KB_C_H
#define OVRA_KB_OVRA_KB_C_H

#include <stddef.h>

#include "ovra_kb/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The status every operation returns: one of the OVRA_KB_C_* values below (the values of the
 * C++ functions). */
typedef unsigned int OvraKbCStatus;

#define OVRA_KB_C_SUCCESS 0u
/* A required configuration key is missing; in a search also: the module's completion flag
 * could not be tested for truth. */
#define OVRA_KB_C_CONFIG_KEY_MISSING 2u
/* The Python side could not be brought up, or is not up (a call before OvraKbCInit or after
 * the last OvraKbCFinalize). */
#define OVRA_KB_C_PYTHON_UNAVAILABLE 3u
/* A value could not be turned into a Python str (for example invalid UTF-8), or a NULL was
 * passed where a string or an array is needed. */
#define OVRA_KB_C_VALUE_CONVERSION_FAILED 4u
/* A Python dictionary could not be created, or memory ran out in this interface. */
#define OVRA_KB_C_DICT_CREATION_FAILED 5u
/* The knowledge-base module is missing, its function raised, or its answer was not the
 * expected one. */
#define OVRA_KB_C_PYTHON_CALL_FAILED 6u

/* One entry of a configuration. Both strings are NUL-terminated and must not be NULL. When a
 * key appears more than once in an array, the last pair with that key counts. */
typedef struct OvraKbCPair {
    const char *key;
    const char *value;
} OvraKbCPair;

/* The rows of one search: a list of rows, each a list of entries (key and value) ordered by key
 * (byte-wise), with each key at most once. Opaque; read it through the accessors. */
typedef struct OvraKbCResult OvraKbCResult;

/*
 * Brings the Python side up (first caller only) and initialises the knowledge base.
 *   sysConfig:  sysCount pairs; must hold "soc_version" and "core_num".
 *   loadConfig: loadCount pairs; must hold "op_bank_path".
 * Other keys are ignored. Returns 0, 2, 3, 4, 5 or 6 as OvraKbInit does (a NULL argument gives
 * 4 without bringing anything up).
 */
OVRA_KB_EXPORT OvraKbCStatus OvraKbCInit(const OvraKbCPair *sysConfig, size_t sysCount, const OvraKbCPair *loadConfig,
                          size_t loadCount);

/* Finalises the knowledge base and releases one user of the Python side; as OvraKbFinalize. */
OVRA_KB_EXPORT OvraKbCStatus OvraKbCFinalize(void);

/*
 * Searches and blocks until the knowledge base has answered.
 *   keyword:      the text searched for.
 *   searchConfig: searchCount pairs; must hold "op_type"; an optional "search_type" is passed on.
 *   result:       receives a new result on success (possibly with no rows), NULL on any failure;
 *                 free it with OvraKbCResultFree.
 * Returns 0, 2, 3, 4, 5 or 6 as OvraKbSearch does.
 */
OVRA_KB_EXPORT OvraKbCStatus OvraKbCSearch(const char *keyword, const OvraKbCPair *searchConfig, size_t searchCount,
                            OvraKbCResult **result);

/*
 * Writes one record.
 *   writeConfig: writeCount pairs; must hold "op_type".
 *   flag:        non-zero asks the knowledge base to make the record durable before returning.
 * Returns 0, 2, 3, 4, 5 or 6 as OvraKbWrite does.
 */
OVRA_KB_EXPORT OvraKbCStatus OvraKbCWrite(const char *keyword, const char *knowledge, const OvraKbCPair *writeConfig,
                           size_t writeCount, int flag);

/* Deletes one record; parameters and statuses as for OvraKbCWrite, without knowledge. */
OVRA_KB_EXPORT OvraKbCStatus OvraKbCDelete(const char *keyword, const OvraKbCPair *writeConfig, size_t writeCount, int flag);

/* The number of rows; 0 for NULL. */
OVRA_KB_EXPORT size_t OvraKbCResultRowCount(const OvraKbCResult *result);

/* The number of entries of row `row`; 0 when there is no such row. */
OVRA_KB_EXPORT size_t OvraKbCResultEntryCount(const OvraKbCResult *result, size_t row);

/* The key and the value of entry `entry` of row `row`; NULL when there is no such entry. */
OVRA_KB_EXPORT const char *OvraKbCResultKey(const OvraKbCResult *result, size_t row, size_t entry);
OVRA_KB_EXPORT const char *OvraKbCResultValue(const OvraKbCResult *result, size_t row, size_t entry);

/* The value stored under `key` in row `row`; NULL when the row, or the key in it, is absent
 * (or key is NULL). */
OVRA_KB_EXPORT const char *OvraKbCResultLookup(const OvraKbCResult *result, size_t row, const char *key);

/* Releases a result and every string it handed out. NULL is accepted and does nothing. */
OVRA_KB_EXPORT void OvraKbCResultFree(OvraKbCResult *result);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* OVRA_KB_OVRA_KB_C_H */
