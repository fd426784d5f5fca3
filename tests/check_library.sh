#!/bin/sh
# Checks the built libraries' linkage: the library exports the five entry points and nothing else, the C
# interface's library every function that include/ovra_kb/ovra_kb_c.h declares and nothing else, the platform
# library the functions of its header and nothing else; the platform functions are left to the platform library,
# no Python library is needed and no Python headers are used.
#   check_library.sh LIBRARY C_LIBRARY PLATFORM_LIBRARY COMPILE_COMMANDS_JSON LIBRARY_SOURCE_DIR
set -u
lib=$1
c_lib=$2
platform=$3
commands=$4
sources=$5
status=0
fail() { echo "FAIL: $*"; status=1; }
exported() { nm -D --defined-only "$1" | c++filt | sed 's/^[0-9a-f]* [A-Za-z] //; s/(.*//' | sort -u | tr '\n' ' '; }

expected="OvraKbDelete OvraKbFinalize OvraKbInit OvraKbSearch OvraKbWrite "
[ "$(exported "$lib")" = "$expected" ] || fail "the library exports [$(exported "$lib")], not [$expected]"
expected=$(grep -o 'OvraKbC[A-Za-z]*(' "$sources/../include/ovra_kb/ovra_kb_c.h" | tr -d '(' | sort -u | tr '\n' ' ')
[ "$(exported "$c_lib")" = "$expected" ] || fail "the C library exports [$(exported "$c_lib")], not [$expected]"
expected=$(printf '%s\n' CheckLogLevel DlogInner mmGetTid ErrorManager::GetInstance ErrorManager::ReportErrMessage \
    ErrorManager::GetReports ErrorManager::ClearReports | sort | tr '\n' ' ')
[ "$(exported "$platform")" = "$expected" ] || fail "the platform library exports [$(exported "$platform")], not [$expected]"

undefined=$(nm -D --undefined-only "$lib" | c++filt)
for symbol in CheckLogLevel DlogInner mmGetTid 'ErrorManager::GetInstance()' 'ErrorManager::ReportErrMessage('; do
    printf '%s\n' "$undefined" | grep -qF "$symbol" || fail "$symbol is not left undefined"
done
nm -D --defined-only "$lib" | c++filt | grep -E ' (CheckLogLevel|DlogInner|mmGetTid|ErrorManager::)' &&
    fail "the library defines a platform function itself"

readelf -d "$c_lib" | grep NEEDED | grep -q 'libovra_kb\.so' || fail "the C library does not need libovra_kb.so"
needed=$(readelf -d "$lib" | grep NEEDED)
printf '%s\n' "$needed" | grep -q 'libovra_platform\.so' || fail "libovra_platform.so is not needed"
printf '%s\n' "$needed" | grep -qi python && fail "a Python library is needed: $needed"

# The compile commands of the library's own sources (their "file" lies under LIBRARY_SOURCE_DIR).
library_commands=$(grep -B2 -F "\"file\": \"$sources/" "$commands" | grep '"command"')
[ -n "$library_commands" ] || fail "no compile command of $sources found in $commands"
printf '%s\n' "$library_commands" | grep -iE 'python[0-9.]*/|include/python' &&
    fail "a Python include directory appears in the library's compile commands"

[ $status -eq 0 ] && echo "library linkage ok"
exit $status
