#!/usr/bin/env bash
# The job on Debian's development release (sid): its newest g++ and CMake build the project (warnings
# are errors), and the end-to-end tests and the ovra-kb tests run on its CPython 3.14 and 3.15.
#
# It works in a chroot made with `debootstrap --variant=minbase sid` and kept between runs outside the
# clone; a run reuses it, upgrading it first when it is older than OVRA_KB_SID_REFRESH_DAYS. The chroot
# is only ever changed and used inside a private mount and PID namespace (unshare), so that its mounts
# (/proc, /dev, the source tree, a scratch /tmp) and its processes end with the job, on failure too.
# The source tree is mounted read-only; the build goes to a scratch folder inside the chroot.
#
#   ci_sid.sh                        makes or refreshes the chroot when needed, then builds and tests
#   ci_sid.sh prepare                only makes or refreshes the chroot (exit 0 ready, 77 skipped)
#   ci_sid.sh --prepared-by PID LOG  as the first form, after a `prepare` of process PID, logging to LOG,
#                                    has ended (scripts/test.sh starts it early: it waits on the network)
#
#   OVRA_KB_SID_CHROOT         the chroot (default /var/cache/ovra-kb/sid-chroot)
#   OVRA_KB_SID_MIRROR         Debian's archive (default http://deb.debian.org/debian)
#   OVRA_KB_SID_REFRESH_DAYS   age in days after which the chroot is upgraded (default 7)
#
# When the chroot cannot be made (not root, no mount namespace, no debootstrap, no network, a package
# missing from the archive), the job says what it skipped and why and exits 0: that alone fails no CI.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
chroot_dir="${OVRA_KB_SID_CHROOT:-/var/cache/ovra-kb/sid-chroot}"
mirror="${OVRA_KB_SID_MIRROR:-http://deb.debian.org/debian}"
refresh_days="${OVRA_KB_SID_REFRESH_DAYS:-7}"
versions=(3.14 3.15)
packages=(python3 g++ cmake ninja-build libgtest-dev libgmock-dev pybind11-dev)
for version in "${versions[@]}"; do
  packages+=("python$version" "libpython$version-dev")
done
stamp=.ovra-kb-sid
exit_skipped=77

mode="${1:-run}"

say() { echo "ci_sid: $*"; }

# The chroot cannot be made: `prepare` exits with its own status, a run says what did not run and passes.
skip() {
  say "SKIPPED: $*"
  [ "$mode" != prepare ] || exit "$exit_skipped"
  say "the sid build and its tests on CPython ${versions[*]} did not run"
  echo "sid: 0 passed, 0 failed, 1 skipped"
  exit 0
}

# Runs a command in a fresh private mount and PID namespace, whose mounts and processes all end when its
# first process does: that process leaves at SIGINT or SIGTERM without waiting for the command.
in_namespace() {
  unshare --mount --pid --fork --kill-child --propagation private -- \
    bash -c 'trap "exit 130" INT; trap "exit 143" TERM; "$@" & wait $!' namespace "$@"
}

# Runs a command in the chroot with a clean environment, /proc, /dev and a scratch /tmp mounted.
# Only called inside the namespace; the trap unmounts in reverse order, on failure too.
mounted=()
unmount_all() {
  local index
  for ((index = ${#mounted[@]} - 1; index >= 0; index--)); do
    umount "${mounted[index]}" 2>/dev/null || umount -l "${mounted[index]}" || true
  done
  mounted=()
}

mount_into() {
  local target="$chroot_dir$1"
  shift
  mkdir -p "$target"
  mount "$@" "$target"
  mounted+=("$target")
}

mount_system() {
  trap unmount_all EXIT
  mount_into /proc -t proc proc
  mount_into /dev --bind /dev
  mount_into /dev/pts --bind /dev/pts
  mount_into /tmp -t tmpfs -o mode=1777 tmpfs
}

in_chroot() {
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
    PYTHONDONTWRITEBYTECODE=1 chroot "$chroot_dir" "$@"
}

# ---- the namespace side (the script calls itself through unshare)

# __install DIR PACKAGES...: installs or upgrades the packages in a chroot at DIR.
inside_install() {
  chroot_dir="$1"
  shift
  mount_system
  # The chroot's name resolution is the host's.
  cp /etc/resolv.conf "$chroot_dir/etc/resolv.conf"
  # A mirror may serve a snapshot whose Release file is past its Valid-Until date; its signature is
  # still checked.
  local apt=(apt-get -y -qq -o Dpkg::Use-Pty=0 -o Acquire::Check-Valid-Until=false)
  in_chroot "${apt[@]}" update
  in_chroot "${apt[@]}" dist-upgrade
  in_chroot "${apt[@]}" install --no-install-recommends "$@"
  in_chroot "${apt[@]}" clean
}

# __test DIR: builds the tree mounted at /src into a scratch folder and runs the tests on each version.
inside_test() {
  chroot_dir="$1"
  mount_system
  mount_into /src --bind -o ro "$root"
  mount -o remount,bind,ro "$chroot_dir/src"
  local pythons="" version status=0 build=/tmp/build
  for version in "${versions[@]}"; do
    pythons+="${pythons:+;}py$version=/usr/bin/python$version"
  done
  say "toolchain: $(in_chroot g++ --version | head -n 1); $(in_chroot cmake --version | head -n 1)"
  for version in "${versions[@]}"; do
    say "interpreter py$version = /usr/bin/python$version ($(in_chroot "python$version" -VV | head -n 1))"
  done
  local started=$SECONDS
  in_chroot cmake -S /src -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOVRA_KB_BUILD_TESTS=ON \
    -DOVRA_KB_TEST_PYTHONS="$pythons" -DOVRA_KB_CLI_TEST_PYTHONS="$pythons"
  # -k 0: one run names every file the newest toolchain refuses.
  in_chroot cmake --build "$build" -j "$(nproc)" -- -k 0
  say "build took $((SECONDS - started)) s"
  # One CTest run per version, so that the log says plainly what ran on each.
  for version in "${versions[@]}"; do
    say "---- tests on CPython $version: the end-to-end tests (py$version.*) and the command's (cli.py$version.*)"
    local pattern="^(cli\\.)?py${version//./\\.}\\."
    if in_chroot ctest --test-dir "$build" -L 'e2e|cli' -R "$pattern" -j "$(nproc)" --timeout 300 \
      --output-on-failure; then
      say "CPython $version: every test passed"
    else
      say "CPython $version: tests FAILED"
      status=1
    fi
  done
  return "$status"
}

# ---- the host side

chroot_is_ready() {
  [ -f "$chroot_dir/$stamp" ] && [ "$(sed -n 2p "$chroot_dir/$stamp")" = "${packages[*]}" ]
}

chroot_is_fresh() {
  [ -n "$(find "$chroot_dir/$stamp" -mtime -"$refresh_days" 2>/dev/null)" ]
}

write_stamp() {
  printf '%s\n%s\n' "made or upgraded $(date -u '+%Y-%m-%d %H:%M UTC')" "${packages[*]}" >"$1/$stamp"
}

check_host() {
  [ "$(id -u)" -eq 0 ] || skip "the chroot needs root (debootstrap, chroot and mounts); run as root to test on sid"
  local why
  why="$(in_namespace true 2>&1)" || skip "no private mount and PID namespace here (unshare: $why)"
  mkdir -p "$(dirname "$chroot_dir")" 2>/dev/null || skip "cannot create $(dirname "$chroot_dir")"
}

install_debootstrap() {
  command -v debootstrap >/dev/null && return 0
  say "installing debootstrap"
  apt-get install -y -qq --no-install-recommends debootstrap >/dev/null 2>&1 ||
    { apt-get update -qq && apt-get install -y -qq --no-install-recommends debootstrap; } >/dev/null 2>&1 ||
    skip "debootstrap is missing and apt-get could not install it"
}

make_chroot() {
  local fresh="$chroot_dir.new" log="$chroot_dir.log" started=$SECONDS
  install_debootstrap
  rm -rf "$fresh"
  say "making $chroot_dir: debootstrap --variant=minbase sid from $mirror (log: $log)"
  if ! in_namespace debootstrap --variant=minbase sid "$fresh" "$mirror" >"$log" 2>&1; then
    tail -n 15 "$log"
    rm -rf "$fresh"
    skip "debootstrap could not make a sid chroot from $mirror (no network, or the archive refused it)"
  fi
  say "debootstrap took $((SECONDS - started)) s; installing ${packages[*]}"
  if ! in_namespace bash "$0" __install "$fresh" "${packages[@]}" >>"$log" 2>&1; then
    tail -n 15 "$log"
    rm -rf "$fresh"
    skip "the packages could not be installed in the sid chroot (no network, or one left the archive)"
  fi
  write_stamp "$fresh"
  mv "$fresh" "$chroot_dir"
  say "made $chroot_dir in $((SECONDS - started)) s"
}

refresh_chroot() {
  local log="$chroot_dir.log" started=$SECONDS
  say "upgrading $chroot_dir ($(head -n 1 "$chroot_dir/$stamp"); log: $log)"
  if in_namespace bash "$0" __install "$chroot_dir" "${packages[@]}" >"$log" 2>&1; then
    write_stamp "$chroot_dir"
    say "upgraded in $((SECONDS - started)) s"
  elif chroot_is_ready; then
    tail -n 5 "$log"
    say "the upgrade failed; the chroot is used as it is"
  else
    tail -n 15 "$log"
    skip "the packages could not be installed in the sid chroot (no network, or one left the archive)"
  fi
}

# Makes, completes or upgrades the chroot, one run at a time on this machine.
prepare() {
  check_host
  exec 9>"$chroot_dir.lock"
  flock 9
  if [ ! -d "$chroot_dir" ]; then
    make_chroot
  elif ! chroot_is_ready || ! chroot_is_fresh; then
    refresh_chroot
  else
    say "reusing $chroot_dir ($(head -n 1 "$chroot_dir/$stamp"))"
  fi
}

# Builds and tests in the chroot, holding its lock so that no other run upgrades it meanwhile.
build_and_test() {
  local started=$SECONDS status=0
  in_namespace bash "$0" __test "$chroot_dir" || status=$?
  say "build and tests took $((SECONDS - started)) s, status $status"
  return "$status"
}

case "$mode" in
  __install) shift; inside_install "$@" ;;
  __test) shift; inside_test "$@" ;;
  prepare) prepare ;;
  --prepared-by)
    while kill -0 "$2" 2>/dev/null; do sleep 2; done
    cat "$3"
    skipped="$(grep -m 1 '^ci_sid: SKIPPED: ' "$3" || true)"
    [ -z "$skipped" ] || skip "${skipped#ci_sid: SKIPPED: }"
    prepare
    build_and_test
    ;;
  run)
    prepare
    build_and_test
    ;;
  *) echo "usage: ci_sid.sh [prepare | --prepared-by PID LOG]" >&2; exit 64 ;;
esac
