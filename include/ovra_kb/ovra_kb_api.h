/*
 * libovra_kb: a blocking C++ interface to a knowledge base written in Python.
 *
 * The five functions below are exported under plain (unmangled) names; with the C interface
 * of ovra_kb_c.h they are all that libovra_kb.so exports. They take standard-library types by
 * reference, so the caller must be built with a C++17 compiler against the same C++ standard
 * library ABI as the library (libstdc++); other callers use ovra_kb_c.h.
 *
 * Call order: OvraKbInit, then any number of OvraKbSearch / OvraKbWrite / OvraKbDelete
 * from any thread, then OvraKbFinalize. Several users may each call OvraKbInit; the
 * Python side starts once and is torn down by the finalisation that matches the first
 * initialisation still outstanding. That last finalisation waits for the calls other threads
 * have in flight (a search waiting for its task ends with 3 at its next poll); calls that start
 * while it runs, or after it, return 3. A Python host may finalise from a thread that holds the
 * interpreter lock: it is given back while the finalisation waits.
 *
 * Threads: a thread cancelled (pthread_cancel) inside one of the five functions is not
 * cancelled there; cancellation is held off until the call returns and takes effect at the
 * thread's next cancellation point.
 *
 * Which Python: the library asks the interpreter that OVRA_KB_PYTHON names (a path), else the
 * python3 on the search path, where its shared runtime lies. When it starts the interpreter,
 * the folders of OVRA_KB_PYTHONPATH (separated by ':') go first on the module search path.
 * When neither variable is set and no folder of the module search path holds the
 * knowledge-base package, the folder installed beside this library
 * (<libdir>/../share/ovra_kb/python) is tried last. Without these variables, and without an
 * installed package, the library behaves as it always did.
 *
 * Called out of order, the functions return a status instead of crashing: search, write,
 * delete and finalise return 3 (after their configuration check, so a missing "op_type"
 * still gives 2) and log one error line saying that the knowledge base is not initialised,
 * when no OvraKbInit has brought the Python side up yet, or when the last OvraKbFinalize
 * has taken it down again. The order above is still the contract: the check only turns what
 * would be a crash into a status, and a caller who keeps the order never sees it.
 *
 * Signals: when this library starts the interpreter, it keeps the process's dispositions of
 * SIGINT, SIGPIPE and SIGXFSZ as the host had them (Python would install its own SIGINT
 * handler and ignore the other two), and keeps them again across the interpreter's
 * finalisation. While the library brings the Python side up or down (its python3 queries
 * included), SIGINT is blocked on the calling thread: one that arrives is held and reaches the
 * host's own disposition once the start-up or tear-down is over, as if it had not been there.
 * A multi-threaded host should block SIGINT on its other threads too (or handle it on one
 * thread of its own), since a signal sent to the process may reach any thread that does not
 * block it. A host that runs its own interpreter keeps whatever it set up.
 *
 * Nothing a call leaves behind changes a later call: a Python error left pending by a refused
 * call is discarded when the call gives back a thread state this library owns (a native
 * thread's, or the initialising thread's when the library started the interpreter). On a thread
 * state that a Python host owns, the error is left pending for the host's own code to handle.
 *
 * Memory: by default the library keeps a few Python references for the life of the process on
 * every call (the argument dictionaries of init, write and delete, the completion flags of
 * searches, the exception and error details of every failure), as knowledge-base packages may
 * expect. With OVRA_KB_RELEASE_KEPT=1 in the environment when the library brings the Python
 * side up (the first OvraKbInit, or the first after the last OvraKbFinalize), it releases each
 * of them as soon as it is done with it, and memory stays flat in a process that runs for months.
 *
 * Every function returns a status (see the OVRA_KB_* constants below); failures are also
 * written to the platform log with the Python traceback when Python raised.
 */
#ifndef OVRA_KB_OVRA_KB_API_H
#define OVRA_KB_OVRA_KB_API_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "ovra_kb/export.h"
#include "ovra_kb/version.h"

namespace OvraKb {

/* An ordered map from string to string (keys ordered byte-wise). Configuration maps,
 * error details and every search result row have this type. */
using StrMap = std::map<std::string, std::string>;

/* Status values returned by every function of this header. */
constexpr std::uint32_t OVRA_KB_SUCCESS = 0U;
/* A required configuration key is missing; in a search also: the module's completion
 * flag could not be tested for truth. */
constexpr std::uint32_t OVRA_KB_CONFIG_KEY_MISSING = 2U;
/* The Python side (runtime library, API table, interpreter, modules) could not be brought up. */
constexpr std::uint32_t OVRA_KB_PYTHON_UNAVAILABLE = 3U;
/* A configuration value could not be turned into a Python str (for example invalid UTF-8). */
constexpr std::uint32_t OVRA_KB_VALUE_CONVERSION_FAILED = 4U;
/* A Python dictionary could not be created. */
constexpr std::uint32_t OVRA_KB_DICT_CREATION_FAILED = 5U;
/* The knowledge-base module is missing, its function raised, or its answer was not the expected one. */
constexpr std::uint32_t OVRA_KB_PYTHON_CALL_FAILED = 6U;

}  // namespace OvraKb

extern "C" {

/*
 * Brings the Python side up (first caller only; later callers are counted) and calls the
 * knowledge base's "ovra_kb_init".
 *   sysConfigMap:  must hold "soc_version" and "core_num" (both passed to Python as text).
 *   loadConfigMap: must hold "op_bank_path".
 * Other keys are ignored. Returns 0; 3 when Python could not be brought up (the module is
 * then not called); 2 for a missing key; 4 for a value that is not valid UTF-8; 5; or 6 when
 * the module raised or answered anything but the integer 0. Only an OvraKbInit that returned
 * 0 is matched by an OvraKbFinalize: after a failed one, do not finalise (that would take back
 * another user's initialisation); the failed call leaves the Python side up until the process
 * ends.
 */
OVRA_KB_EXPORT std::uint32_t OvraKbInit(const OvraKb::StrMap &sysConfigMap, const OvraKb::StrMap &loadConfigMap);

/*
 * Calls the knowledge base's "ovra_kb_finalize"; only if that succeeded, releases one user
 * of the Python side (the last user stops the interpreter this library started and unloads
 * the runtime it loaded). Returns 0, or 6 when the module is missing or raised; the Python
 * side then stays up and a later call tries again. Returns 3 when the Python side is not up.
 */
OVRA_KB_EXPORT std::uint32_t OvraKbFinalize();

/*
 * Searches the knowledge base and blocks until the module reports completion.
 *   keyword:         handed to the module unchanged (up to its first NUL byte).
 *   searchConfigMap: must hold "op_type"; an optional "search_type" is passed on (None when absent).
 *   results:         one StrMap per result row is appended; rows already present are kept in front.
 * Returns 0 (also when the module's result list is empty or not a list); 2 for a missing
 * "op_type" or a completion flag whose truth test raised; 3 when the Python side is not up;
 * 4; 5; or 6 when the module is missing, raised, or answered the request with anything but a
 * non-empty str.
 */
OVRA_KB_EXPORT std::uint32_t OvraKbSearch(const std::string &keyword, const OvraKb::StrMap &searchConfigMap,
                           std::vector<OvraKb::StrMap> &results);

/*
 * Writes one record.
 *   keyword, knowledge: handed to the module unchanged (each up to its first NUL byte).
 *   writeConfigMap:     must hold "op_type"; other keys are ignored.
 *   flag:               passed as the integer 1 (true) or 0 (false); the reference knowledge
 *                       base makes the record durable before returning when it is true.
 * Returns 0; 2 for a missing "op_type"; 3 when the Python side is not up; 4; 5; or 6 when
 * the module is missing, raised, or answered anything but the integer 0.
 */
OVRA_KB_EXPORT std::uint32_t OvraKbWrite(const std::string &keyword, const std::string &knowledge,
                          const OvraKb::StrMap &writeConfigMap, const bool &flag);

/*
 * Deletes one record; parameters and statuses as for OvraKbWrite, without knowledge.
 */
OVRA_KB_EXPORT std::uint32_t OvraKbDelete(const std::string &keyword, const OvraKb::StrMap &writeConfigMap, const bool &flag);

}  // extern "C"

#endif  // OVRA_KB_OVRA_KB_API_H
