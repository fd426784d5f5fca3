#!/usr/bin/env bash
# Installs the Debian packages that are missing.
#   setup.sh          what the build, every test and every CI job need
#   setup.sh demo     only what the library, the ovra-kb command and its demo need
set -euo pipefail

# The library builds with CMake and a C++17 compiler and loads the python3 runtime, whose shared
# library Debian ships in libpython3-dev.
packages=(cmake ninja-build g++ python3 libpython3-dev)
if [ "${1:-}" != demo ]; then
  packages+=(
    clang make pkg-config file
    libgtest-dev libgmock-dev libbenchmark-dev pybind11-dev
    postgresql python3-psycopg
    binutils valgrind dpkg-dev lintian
    libclang-rt-14-dev llvm
  )
fi

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: every package is installed"
  exit 0
fi

echo "setup: installing ${missing[*]}"
as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "setup: run as root or install sudo, to install: ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
