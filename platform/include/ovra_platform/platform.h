/*
 * The platform interfaces that libovra_kb.so calls: log, thread id and error manager.
 *
 * libovra_kb.so only declares these symbols and resolves them at load time from
 * libovra_platform.so. A deployment may install its own platform library under that
 * name, exporting the same four C functions and the two ErrorManager members with
 * this exact ABI; the accessors marked "default implementation" below are extras of
 * the library built by this project and are not required of a replacement.
 *
 * Default implementation, environment:
 *   OVRA_LOG_LEVEL   debug | info | warning | error | off   (default: warning)
 *                    also accepted as 0 | 1 | 2 | 3 | 4; another value is said once on
 *                    standard error and warning is used
 *   OVRA_LOG_EVENT   1 to also show event lines (start and end of main steps; default: hidden)
 * Lines go to standard error, one write per line:
 *   [LEVEL] YYYY-MM-DD HH:MM:SS.uuuuuu pid=<pid> <message>
 * An error report (at level error) is the line
 *   [ERROR] YYYY-MM-DD HH:MM:SS.uuuuuu pid=<pid> error report <code> {<key>: <value>, ...}
 * with line breaks in keys and values written as \n.
 */
#ifndef OVRA_PLATFORM_PLATFORM_H
#define OVRA_PLATFORM_PLATFORM_H

#include <map>
#include <string>
#include <vector>

/* The levels of the log interface. */
enum OvraLogLevel {
    OVRA_LEVEL_DEBUG = 0,
    OVRA_LEVEL_INFO = 1,
    OVRA_LEVEL_WARNING = 2,
    OVRA_LEVEL_ERROR = 3,
    OVRA_LEVEL_EVENT = 16,
};

extern "C" {

/* 1 when a line of `level` (an OvraLogLevel) for module `moduleId` is to be written, 0 otherwise. */
int CheckLogLevel(int moduleId, int level);

/* Writes one formatted line. */
void DlogInner(int moduleId, int level, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

/* The calling thread's kernel thread id. */
int mmGetTid(void);

}  // extern "C"

class ErrorManager {
  public:
    static ErrorManager &GetInstance();

    /* Reports one error: a code and its details. Answers 0, or -1 on failure. */
    int ReportErrMessage(std::string errCode, const std::map<std::string, std::string> &args);

    /* Default implementation: every report made so far in this process, oldest first. */
    struct Report {
        std::string errCode;
        std::map<std::string, std::string> args;
    };
    std::vector<Report> GetReports() const;
    /* Default implementation: forget the reports made so far. */
    void ClearReports();

    ErrorManager(const ErrorManager &) = delete;
    ErrorManager &operator=(const ErrorManager &) = delete;

  private:
    ErrorManager() = default;
};

#endif  // OVRA_PLATFORM_PLATFORM_H
