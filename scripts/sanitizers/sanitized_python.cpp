// The Python interpreter of the sanitizer builds' host tests.
//
// Those tests run this project's library inside a Python process. The library is instrumented and
// needs the sanitizer runtime in that process, but a stock python3 carries none, and the runtime
// cannot be brought in later: clang links it statically into executables, and its shared form does
// not survive being preloaded (ThreadSanitizer's crashes before main). So this program, built with
// the runtime like every program of those builds, loads the runtime library of Python named by
// OVRA_KB_PYTHON_RUNTIME into the global scope and hands its command line to Py_BytesMain: it is
// that interpreter, with the sanitizer runtime linked in. Started with argv[0] set to the real
// interpreter's path, it finds the same standard library and reports the same sys.executable.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
    const char *runtime = getenv("OVRA_KB_PYTHON_RUNTIME");
    if (runtime == nullptr || *runtime == '\0') {
        fprintf(stderr, "sanitized python: OVRA_KB_PYTHON_RUNTIME names no Python runtime library\n");
        return 2;
    }
    void *handle = dlopen(runtime, RTLD_NOW | RTLD_GLOBAL);
    if (handle == nullptr) {
        fprintf(stderr, "sanitized python: cannot load %s: %s\n", runtime, dlerror());
        return 2;
    }
    using BytesMain = int (*)(int, char **);
    auto bytesMain = reinterpret_cast<BytesMain>(dlsym(handle, "Py_BytesMain"));
    if (bytesMain == nullptr) {
        fprintf(stderr, "sanitized python: %s has no Py_BytesMain (Python 3.8 or later is needed)\n", runtime);
        return 2;
    }
    return bytesMain(argc, argv);
}
