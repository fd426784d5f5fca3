#ifndef OVRA_KB_COMMON_COMMON_H
#define OVRA_KB_COMMON_COMMON_H

#include <cstdint>

#include "ovra_kb/ovra_kb_api.h"
#include "ovra_platform/platform.h"

namespace OvraKb {

// This library's module number in the platform log.
constexpr int OVRA_KB_LOG_MODULE = 60;

}  // namespace OvraKb

// OVRA_KB_SOURCE_NAME is the base name of the source file being compiled; the build defines it.
#ifndef OVRA_KB_SOURCE_NAME
#error "OVRA_KB_SOURCE_NAME must name the source file (set by the build)"
#endif

// Writes one line through the platform log when the platform enables `level` for this library.
#define OVRA_KB_LOG(level, fmt, ...)                                                                                  \
    do {                                                                                                              \
        if (CheckLogLevel(::OvraKb::OVRA_KB_LOG_MODULE, (level)) == 1) {                                              \
            DlogInner(::OvraKb::OVRA_KB_LOG_MODULE, (level), "[%s:%d][%s][Tid:%d]\"" fmt "\"\n", OVRA_KB_SOURCE_NAME, \
                      __LINE__, "OVRAKB", mmGetTid(), ##__VA_ARGS__);                                                 \
        }                                                                                                             \
    } while (0)

#endif  // OVRA_KB_COMMON_COMMON_H
