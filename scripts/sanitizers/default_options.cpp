// Default options of the sanitizer runtimes, linked into every program of the sanitizer builds
// (see sanitizer_build.cmake). The runtime asks these functions before it reads ASAN_OPTIONS,
// LSAN_OPTIONS, UBSAN_OPTIONS or TSAN_OPTIONS, so the environment still has the last word; they
// matter for the processes that a test starts with an environment of its own.

#ifndef OVRA_KB_DEFAULT_ASAN_OPTIONS
#define OVRA_KB_DEFAULT_ASAN_OPTIONS ""
#endif
#ifndef OVRA_KB_DEFAULT_LSAN_OPTIONS
#define OVRA_KB_DEFAULT_LSAN_OPTIONS ""
#endif
#ifndef OVRA_KB_DEFAULT_UBSAN_OPTIONS
#define OVRA_KB_DEFAULT_UBSAN_OPTIONS ""
#endif
#ifndef OVRA_KB_DEFAULT_TSAN_OPTIONS
#define OVRA_KB_DEFAULT_TSAN_OPTIONS ""
#endif

// Called while the runtime starts, before it can serve instrumented code: left uninstrumented.
#define OVRA_KB_RUNTIME_HOOK extern "C" __attribute__((visibility("default"), used, disable_sanitizer_instrumentation))

OVRA_KB_RUNTIME_HOOK const char *__asan_default_options()
{
    return OVRA_KB_DEFAULT_ASAN_OPTIONS;
}

OVRA_KB_RUNTIME_HOOK const char *__lsan_default_options()
{
    return OVRA_KB_DEFAULT_LSAN_OPTIONS;
}

OVRA_KB_RUNTIME_HOOK const char *__ubsan_default_options()
{
    return OVRA_KB_DEFAULT_UBSAN_OPTIONS;
}

OVRA_KB_RUNTIME_HOOK const char *__tsan_default_options()
{
    return OVRA_KB_DEFAULT_TSAN_OPTIONS;
}
