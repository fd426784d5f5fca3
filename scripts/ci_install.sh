#!/usr/bin/env bash
# Installs the built project into a scratch prefix, builds and runs the three example consumers
# and runs the ctypes example against that installed tree, checks the CMake package's version rule
# and a pkg-config file in a Debian-style library directory (from a build without tests), then
# builds the Debian package, checks what it holds (libraries in the multiarch folder, the ldconfig
# trigger and no maintainer scripts, no lintian warning), unpacks it into a scratch root and runs
# `ovra-kb demo` from there.
#   ci_install.sh BUILD_DIR
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$root/build}" && pwd)"
work="$(mktemp -d /tmp/ovra-kb-install.XXXXXX)"
trap 'rm -rf "$work"' EXIT
stage="$work/stage"
fail() { echo "ci_install: $*" >&2; exit 1; }
steps=0
step() { steps=$((steps + 1)); echo "== $*"; }

step "install into $stage"
cmake --install "$build" --prefix "$stage" >/dev/null
# lib/<triplet> where the system has multiarch library folders, else lib.
libdir="$(dirname "$(find "$stage" -name libovra_kb.so.0 -print -quit)")"
multiarch="$(dpkg-architecture -qDEB_HOST_MULTIARCH)"
[ "$libdir" = "$stage/lib/$multiarch" ] || fail "the libraries went to $libdir, not to lib/$multiarch"
[ -f "$stage/share/doc/ovra-kb/LICENSE" ] || fail "the licence is not installed"
# The consumers below set no PYTHONPATH: the installed library finds the package installed beside it.
unset PYTHONPATH OVRA_KB_PYTHONPATH

step "the installed libraries export their public functions only"
for library in libovra_kb.so libovra_kb_c.so libovra_platform.so; do
  nm -D --defined-only "$libdir/$library" | c++filt | sed 's/^[0-9a-f]* [A-Za-z] //; s/(.*//' | sort -u >"$work/$library.exports"
  echo "$library: $(tr '\n' ' ' <"$work/$library.exports")"
done
[ "$(tr '\n' ' ' <"$work/libovra_kb.so.exports")" = "OvraKbDelete OvraKbFinalize OvraKbInit OvraKbSearch OvraKbWrite " ] ||
  fail "libovra_kb.so exports other than the five entry points"
grep -vE '^OvraKbC[A-Za-z]+$' "$work/libovra_kb_c.so.exports" && fail "libovra_kb_c.so exports more than the C interface"
grep -vE '^(CheckLogLevel|DlogInner|mmGetTid|ErrorManager::(GetInstance|ReportErrMessage|GetReports|ClearReports))$' \
  "$work/libovra_platform.so.exports" && fail "libovra_platform.so exports more than its header declares"

step "consumer through find_package"
cmake -S "$root/examples/find_package" -B "$work/find_package" -G Ninja -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$work/find_package" >/dev/null
"$work/find_package/consumer" "$work/bank-find-package"

step "version rule of the CMake package"
mkdir -p "$work/version"
for wanted in 0.0.1 "$(cd "$build" && sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' CMakeCache.txt)"; do
  printf 'cmake_minimum_required(VERSION 3.20)\nproject(v NONE)\nfind_package(OvraKb %s CONFIG QUIET)\nmessage(STATUS "found=${OvraKb_FOUND}")\n' \
    "$wanted" >"$work/version/CMakeLists.txt"
  found="$(cmake -S "$work/version" -B "$work/version/build" -DOvraKb_DIR="$libdir/cmake/OvraKb" | sed -n 's/^-- found=//p')"
  rm -rf "$work/version/build"
  echo "find_package(OvraKb $wanted): found=$found"
  case "$wanted" in 0.0.1) [ "$found" != 1 ] || fail "0.0.1 must not accept another 0.x minor" ;; *) [ "$found" = 1 ] || fail "$wanted not found" ;; esac
done

step "consumer through pkg-config"
PKG_CONFIG_PATH="$libdir/pkgconfig" sh "$root/examples/pkg-config/build.sh" "$work/pkg_config_consumer"
LD_LIBRARY_PATH="$libdir" "$work/pkg_config_consumer" "$work/bank-pkg-config"

step "C program through pkg-config: the C interface's test, built as C99 against the installed header"
# shellcheck disable=SC2046
${CC:-cc} -std=c99 -Wall -Wextra -Werror "$root/tests/test_c_api.c" -o "$work/c_consumer" \
  $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs ovra_kb_c)
LD_LIBRARY_PATH="$libdir" "$work/c_consumer"

step "a build without tests, installed with a Debian-style library directory"
cmake -S "$root" -B "$work/light" -G Ninja -DCMAKE_BUILD_TYPE=Release -DOVRA_KB_BUILD_TESTS=OFF \
  -DCMAKE_INSTALL_PREFIX=/usr >"$work/light.log"
if grep -qiE 'gtest|test interpreters' "$work/light.log"; then fail "a build without tests looked for GoogleTest or interpreters"; fi
cmake --build "$work/light" -j "$(nproc)" >/dev/null
DESTDIR="$work/light-root" cmake --install "$work/light" >/dev/null
pc_dir="$work/light-root/usr/lib/$multiarch/pkgconfig"
flags="$(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs ovra_kb)"
echo "pkg-config: $flags"
case "$flags" in *-std=* | *rpath*) fail "the .pc file forces a language standard or an rpath" ;; esac
PKG_CONFIG_PATH="$pc_dir" sh "$root/examples/pkg-config/build.sh" "$work/light_consumer"
LD_LIBRARY_PATH="$work/light-root/usr/lib/$multiarch" PYTHONPATH="$work/light-root/usr/share/ovra_kb/python" \
  "$work/light_consumer" "$work/bank-light"

step "consumer through dlopen"
cmake -S "$root/examples/dlopen" -B "$work/dlopen" -G Ninja -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$work/dlopen" >/dev/null
"$work/dlopen/dlopen_consumer" "$libdir/libovra_kb.so.0" "$work/bank-dlopen"

step "Python host through ctypes and the C interface"
# Without PYTHONPATH: the example takes the package installed beside the library.
env -u PYTHONPATH python3 "$root/examples/ctypes/kb_ctypes.py" "$libdir/libovra_kb_c.so.0" "$work/bank-ctypes"
[ -f "$stage/include/ovra_kb/ovra_kb_c.h" ] || fail "the C header is not installed"

step "Debian package"
(cd "$build" && cpack -G DEB -B "$work/package" >/dev/null)
deb="$(ls "$work"/package/*.deb)"
info="$(dpkg-deb --info "$deb")"
grep -E 'Package|Version|Section|Depends' <<<"$info"
grep -q 'Depends:.*libpython3-dev' <<<"$info" || fail "the package does not depend on the Python runtime it loads"
# The package's own overrides explain what one package for library, headers and command (section devel) entails.
if command -v lintian >/dev/null; then
  lintian --fail-on error,warning "$deb" || fail "lintian finds errors or warnings in the package"
fi
dpkg-deb -e "$deb" "$work/control"
[ "$(cat "$work/control/triggers")" = "activate-noawait ldconfig" ] || fail "the package lacks the ldconfig trigger"
for script in preinst postinst prerm postrm; do
  [ ! -e "$work/control/$script" ] || fail "the package has a $script script; the ldconfig trigger is all it needs"
done
dpkg-deb -x "$deb" "$work/root"
if ls "$work"/root/usr/lib/*.so* >/dev/null 2>&1; then fail "libraries in /usr/lib, not in /usr/lib/$multiarch"; fi
for path in usr/share/doc/ovra-kb/copyright usr/share/doc/ovra-kb/LICENSE usr/share/doc/ovra-kb/changelog.gz \
  usr/share/doc/ovra-kb/ovra-kb.md usr/share/man/man1/ovra-kb.1.gz usr/share/bash-completion/completions/ovra-kb; do
  [ -f "$work/root/$path" ] || fail "the package lacks /$path"
done
for binary in "$work"/root/usr/bin/ovra-kb "$work/root/usr/lib/$multiarch"/libovra_*.so.*.*; do
  [[ "$(file "$binary")" == *", stripped"* ]] || fail "$binary is not stripped"
done
unset PYTHONPATH
"$work/root/usr/bin/ovra-kb" --version
"$work/root/usr/bin/ovra-kb" demo --bank "$work/bank-deb"
echo "install: $steps passed, 0 failed"
