#!/usr/bin/env bash
# Installs the built project into a scratch prefix, builds and runs the three example consumers
# against that installed tree, then builds the Debian package, unpacks it into a scratch root and
# runs `ovra-kb demo` from there.
#   ci_install.sh BUILD_DIR
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$root/build}" && pwd)"
work="$(mktemp -d /tmp/ovra-kb-install.XXXXXX)"
trap 'rm -rf "$work"' EXIT
stage="$work/stage"

echo "== install into $stage"
cmake --install "$build" --prefix "$stage" >/dev/null
export PYTHONPATH="$stage/share/ovra_kb/python"

echo "== consumer through find_package"
cmake -S "$root/examples/find_package" -B "$work/find_package" -G Ninja -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$work/find_package" >/dev/null
"$work/find_package/consumer" "$work/bank-find-package"

echo "== consumer through pkg-config"
PKG_CONFIG_PATH="$stage/lib/pkgconfig" sh "$root/examples/pkg-config/build.sh" "$work/pkg_config_consumer"
"$work/pkg_config_consumer" "$work/bank-pkg-config"

echo "== consumer through dlopen"
cmake -S "$root/examples/dlopen" -B "$work/dlopen" -G Ninja -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$work/dlopen" >/dev/null
"$work/dlopen/dlopen_consumer" "$stage/lib/libovra_kb.so.0" "$work/bank-dlopen"

echo "== Debian package"
(cd "$build" && cpack -G DEB -B "$work/package" >/dev/null)
deb="$(ls "$work"/package/*.deb)"
dpkg-deb --info "$deb" | grep -E 'Package|Version|Depends'
dpkg-deb -x "$deb" "$work/root"
unset PYTHONPATH
"$work/root/usr/bin/ovra-kb" --version
"$work/root/usr/bin/ovra-kb" demo --bank "$work/bank-deb"
echo "install checks passed"
