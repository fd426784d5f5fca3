// The knowledge base as the commands use it: one session per process, and failures told in one line.
#ifndef OVRA_KB_TOOLS_KNOWLEDGE_BASE_H
#define OVRA_KB_TOOLS_KNOWLEDGE_BASE_H

#include <cstdint>
#include <string>
#include <vector>

#include "ovra_kb/ovra_kb_api.h"
#include "ovra_platform/platform.h"

namespace OvraCli {

struct KbSettings {
    std::string bank;
    std::string soc;
    std::string cores;
    bool verbose = false;
};

// One library call: its status and, when it failed, the error report it made (if it made one).
struct CallOutcome {
    std::uint32_t status = OvraKb::OVRA_KB_SUCCESS;
    bool hasReport = false;
    ErrorManager::Report report;

    bool Ok() const { return status == OvraKb::OVRA_KB_SUCCESS; }
};

// Writes the one line that says what a failed call means and what to try, and answers its exit status.
// `opType` is the op type the call was given: an empty one explains status 2. `where` (for example
// FILE:LINE) goes in front of the explanation.
int ReportFailure(const CallOutcome &outcome, const std::string &opType, const std::string &where = "");

class KbSession {
  public:
    explicit KbSession(KbSettings settings) : settings_(std::move(settings)) {}
    ~KbSession();
    KbSession(const KbSession &) = delete;
    KbSession &operator=(const KbSession &) = delete;

    // Finds the package, then initialises the library for the bank and the chip.
    CallOutcome Open();
    // Initialises for another chip of the same bank, then finalises once for the previous one (in this order,
    // so that the library's users never drop to none, which would stop the interpreter): later calls work on
    // that chip.
    CallOutcome SwitchChip(const std::string &soc, const std::string &cores);
    // Finalises once for every initialisation that succeeded and was not undone, and only for those: a refused
    // one is owed nothing, and finalising for it could end another user's session.
    CallOutcome Close();

    // An empty `opType` is left out of the configuration, so the library answers status 2.
    CallOutcome Write(const std::string &keyword, const std::string &knowledge, const std::string &opType,
                      bool durable);
    CallOutcome Delete(const std::string &keyword, const std::string &opType);
    CallOutcome Search(const std::string &keyword, const std::string &opType, const std::string &searchType,
                       std::vector<OvraKb::StrMap> &rows);

  private:
    CallOutcome Initialise(const std::string &soc, const std::string &cores);

    KbSettings settings_;
    int initialised_ = 0;
};

}  // namespace OvraCli

#endif  // OVRA_KB_TOOLS_KNOWLEDGE_BASE_H
