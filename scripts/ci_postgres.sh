#!/usr/bin/env bash
# Runs the PostgreSQL bank's tests against a throwaway server.
#
# Starts a server of its own (data folder under a temporary directory, a free port on 127.0.0.1,
# password login for a test role), builds and runs tests/postgres (through libovra_kb.so, the ovra-kb
# command and the package's unit tests, with /usr/bin/python3 first on PATH), then stops the server and
# removes its files, on failure too. Exits with the tests' status.
#
# Needs the main build (scripts/test.sh makes it; OVRA_KB_BUILD_DIR as there) and Debian's postgresql
# and python3-psycopg packages (scripts/setup.sh installs them). As root, the server runs as the
# postgres user, which cannot be root.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${OVRA_KB_BUILD_DIR:-$root/build}"
started_at=$SECONDS
export PATH="/usr/bin:/bin:$PATH"

say() { echo "ci_postgres: $*"; }

if ! /usr/bin/python3 -c 'import psycopg' 2>/dev/null; then
  say "/usr/bin/python3 cannot import psycopg; install it: apt-get install python3-psycopg" >&2
  exit 1
fi

# shellcheck source=pg_server.sh
. "$root/scripts/pg_server.sh"
work="$(mktemp -d "${TMPDIR:-/tmp}/ovra-kb-pg.XXXXXX")"
cleanup() {
  status=$?
  pg_server_stop "$work"
  rm -rf "$work"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# TLS, so that the tests can use sslmode=require and verify-full for real; the ICU database collation, which
# does not sort by code point, lets them see the bank compare keywords the way the SQLite bank does.
pg_server_start "$work" tls
if [ -n "$PG_SERVER_SSL_ROOT" ]; then
  export OVRA_KB_TEST_PG_SSL_ROOT="$PG_SERVER_SSL_ROOT"
else
  say "the server runs without TLS and the TLS tests skip"
fi
export OVRA_KB_TEST_POSTGRES_URL="$PG_SERVER_URL"
export OVRA_KB_TEST_PG_CTL="$PG_SERVER_CTL"
server_log="$PG_SERVER_LOG"

cmake -S "$root/tests/postgres" -B "$build/postgres" -G Ninja \
  -DOVRA_KB_SOURCE_DIR="$root" -DOVRA_KB_BUILD_DIR="$build" >/dev/null
cmake --build "$build/postgres" >/dev/null
status=0
ctest --test-dir "$build/postgres" -L postgres -j 2 --output-on-failure --timeout 150 || status=$?
if [ "$status" -ne 0 ]; then
  say "the server's log ends with:"
  tail -n 40 "$server_log" || true
fi
say "finished in $((SECONDS - started_at)) s, status $status"
exit "$status"
