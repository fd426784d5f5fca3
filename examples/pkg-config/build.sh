#!/bin/sh
# A consumer of the installed library through pkg-config:
#   PKG_CONFIG_PATH=<install prefix>/<library directory>/pkgconfig sh examples/pkg-config/build.sh OUTPUT
set -eu
here=$(cd "$(dirname "$0")" && pwd)
output=${1:-consumer}
# shellcheck disable=SC2046
${CXX:-c++} -Wall -Wextra -Werror "$here/../quickstart/main.cpp" -o "$output" $(pkg-config --cflags --libs ovra_kb)
echo "built $output with $(pkg-config --modversion ovra_kb)"
