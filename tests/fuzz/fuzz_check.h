#ifndef OVRA_KB_TESTS_FUZZ_FUZZ_CHECK_H
#define OVRA_KB_TESTS_FUZZ_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>

// A property of the function under test: when it does not hold, the input is a finding. abort()
// makes libFuzzer stop and keep the input as a crash artifact.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "fuzz property failed: %s (%s:%d)\n", #condition, __FILE__, __LINE__); \
            abort();                                                                               \
        }                                                                                          \
    } while (0)

#endif  // OVRA_KB_TESTS_FUZZ_FUZZ_CHECK_H
