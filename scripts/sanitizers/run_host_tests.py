"""Runs the host tests of a sanitizer build: the CTest tests whose Python interpreter loads this
project's instrumented library into its own process.

    run_host_tests.py BUILD_DIR SANITIZED_PYTHON REGEX

Each test selected by REGEX (a CTest -R expression) runs as CTest would run it (its command, its
ENVIRONMENT, WORKING_DIRECTORY and TIMEOUT), except that its interpreter is executed through
SANITIZED_PYTHON (scripts/sanitizers/sanitized_python.cpp) with argv[0] still naming the real
interpreter, and OVRA_KB_PYTHON_RUNTIME naming that interpreter's runtime library. The last line is
"N passed, N failed"; the exit status is 1 when a test failed or none was selected.
"""
import json
import os
import subprocess
import sys


def runtime_library(python):
    query = ("import sysconfig; v = sysconfig.get_config_var; "
             "print((v('LIBDIR') or '') + '/' + (v('LDLIBRARY') or ''))")
    return subprocess.check_output([python, "-c", query], universal_newlines=True).strip()


def main():
    build, launcher, regex = sys.argv[1:4]
    listing = subprocess.check_output(["ctest", "--test-dir", build, "--show-only=json-v1", "-R", regex],
                                      universal_newlines=True)
    tests = json.loads(listing).get("tests", [])
    passed, failed = 0, 0
    for test in tests:
        name = test["name"]
        command = test["command"]
        properties = {p["name"]: p["value"] for p in test.get("properties", [])}
        env = dict(os.environ)
        for item in properties.get("ENVIRONMENT", []):
            key, _, value = item.partition("=")
            env[key] = value
        env["OVRA_KB_PYTHON_RUNTIME"] = runtime_library(command[0])
        timeout = float(properties.get("TIMEOUT", 300))
        print("host test %s: %s" % (name, " ".join(command)), flush=True)
        try:
            status = subprocess.run(command, executable=launcher, env=env, timeout=timeout,
                                    cwd=properties.get("WORKING_DIRECTORY", build)).returncode
        except subprocess.TimeoutExpired:
            print("host test %s: timed out after %g s" % (name, timeout), flush=True)
            status = None
        if status == 0:
            passed += 1
        else:
            failed += 1
            print("host test %s: FAILED (status %s)" % (name, status), flush=True)
    if not tests:
        print("no test matches %r in %s" % (regex, build), flush=True)
    print("%d passed, %d failed" % (passed, failed), flush=True)
    return 0 if tests and failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
