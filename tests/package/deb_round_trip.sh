#!/usr/bin/env bash
# Builds the Debian package and takes it through a whole life on this host:
# install and the tree it lays out, the installed agent answering kovaget on
# a loopback port, a reinstall that restarts it and keeps data and settings,
# removal that stops it and keeps the tree, purge that removes the tree.
# After the build it runs in a private PID namespace. Needs root and dpkg, a
# host without the package and without /opt/vantrel (it skips otherwise),
# and leaves the host as it found it.
#   tests/package/deb_round_trip.sh [BUILD_DIR]   (default build/package)
set -euo pipefail

if [ "${1:-}" = --inside ]; then
  inside=1
  deb=$2
else
  inside=0
  cd "$(dirname "$0")/../.."
  build=${1:-build/package}
fi

root=/opt/vantrel
account=vantrel

skip() { echo "deb round trip: skipped: $*"; exit 0; }

if [ "$inside" = 0 ]; then
  [ "$(id -u)" -eq 0 ] || skip "needs root"
  command -v dpkg >/dev/null || skip "needs dpkg"
  command -v unshare >/dev/null || skip "needs unshare"
  # Two runs on one host take turns.
  exec 9>/run/lock/kovaagent-deb-test.lock
  flock -w 900 9 || skip "another run holds the lock"
  if dpkg-query -W -f='${Status}' kovaagent 2>/dev/null | grep -qv "not-installed"; then
    skip "kovaagent is installed on this host"
  fi
  [ ! -e "$root" ] || skip "$root exists on this host"

  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKOVA_TESTS=OFF -DKOVA_BENCH=OFF >/dev/null
  cmake --build "$build" --target package >/dev/null
  debs=("$build"/kovaagent_*.deb)
  [ "${#debs[@]}" -eq 1 ] || { echo "expected one package in $build, found ${#debs[@]}" >&2; exit 1; }

  made_account=0
  getent passwd "$account" >/dev/null || made_account=1
  cleanup() {
    dpkg -P kovaagent >/dev/null 2>&1 || true
    if [ "$made_account" = 1 ] && getent passwd "$account" >/dev/null; then
      userdel "$account" >/dev/null 2>&1 || true
    fi
  }
  trap cleanup EXIT
  # The namespace's first process only waits: an agent started by its own
  # parent, process 1, would not detach (as on a host's init), and a test
  # that hangs ends with its namespace.
  timeout 300 unshare --pid --fork --mount-proc --kill-child -- \
    bash -c '"$0" --inside "$1" & wait "$!"' "$0" "$(realpath "${debs[0]}")"
  echo "deb round trip: passed"
  exit 0
fi

fail() { echo "deb round trip: FAILED: $*" >&2; exit 1; }
# check WHAT COMMAND...: the command must succeed.
check() { local what=$1; shift; "$@" || fail "$what"; }
# The pid of the installed agent, when one runs (we are alone in this namespace).
agent_pid() {
  local exe
  for exe in /proc/[0-9]*/exe; do
    [ "$(readlink "$exe" 2>/dev/null)" = "$root/bin/kovaagent" ] && { basename "$(dirname "$exe")"; return 0; }
  done
  return 1
}
wait_until() {
  local i
  for i in $(seq 100); do
    "$@" && return 0
    sleep 0.1
  done
  return 1
}
no_agent() { ! agent_pid >/dev/null; }
answers() { [ "$(kovaget -p "$port" -t 2 version 2>/dev/null)" = "agent protocol version 6.0" ]; }

check "dpkg -i" dpkg -i "$deb" >/dev/null

listed=$(dpkg -L kovaagent)
for file in $root/bin/kovaagent /usr/bin/kovaget /lib/systemd/system/kovaagent.service \
  /usr/lib/kovaagent/kovaagent-pidfile /usr/share/man/man8/kovaagent.8.gz /usr/share/man/man1/kovaget.1.gz \
  /usr/share/bash-completion/completions/kovaget /usr/share/doc/kovaagent/README \
  /usr/share/doc/kovaagent/operations.md; do
  grep -qx "$file" <<<"$listed" || fail "dpkg -L does not list $file"
  [ -e "$file" ] || fail "$file not installed"
done

for dir in data logs tmp tmp/update outgoing update mwa settings; do
  want="$account 755"
  [ "$dir" = settings ] && want="$account 750"
  [ "$(stat -c '%U %a' "$root/$dir")" = "$want" ] || fail "$root/$dir is $(stat -c '%U %a' "$root/$dir"), not $want"
done
host=$(uname -n)
settings=$root/settings/kova_${host%%.*}.config
grep -qx 'KOVASERVER~127.0.0.1' "$settings" || fail "the first settings file does not register only 127.0.0.1"
grep -qx "USER~$account" "$settings" || fail "the first settings file does not name the service account"
check "-check_config on the fresh install" "$root/bin/kovaagent" -check_config >/dev/null

# A free port of the range set aside for this test.
port=
for p in $(seq 17380 17399); do
  if ! (exec 3<>"/dev/tcp/127.0.0.1/$p") 2>/dev/null; then port=$p && break; fi
done
[ -n "$port" ] || fail "no free port in 17380-17399"

"$root/bin/kovaagent" -start -port "$port" </dev/null >/dev/null 2>&1
check "the installed agent answers kovaget version" wait_until answers
pid=$(agent_pid) || fail "no agent process"
[ "$(stat -c %U "/proc/$pid")" = "$account" ] || fail "the agent does not run as $account"
echo kept >"$root/data/marker"
sum=$(md5sum <"$settings")

# Reinstall: the upgrade path stops the agent and starts it again as it was.
check "dpkg -i again" dpkg -i "$deb" >/dev/null
check "the agent is back after the reinstall" wait_until answers
[ "$(agent_pid)" != "$pid" ] || fail "the reinstall did not restart the agent"
[ "$(md5sum <"$settings")" = "$sum" ] || fail "the reinstall changed the settings file"
[ -f "$root/data/marker" ] || fail "the reinstall lost data"

check "dpkg -r" dpkg -r kovaagent >/dev/null
check "dpkg -r stops the agent" wait_until no_agent
for gone in $root/bin/kovaagent /usr/bin/kovaget /lib/systemd/system/kovaagent.service; do
  [ ! -e "$gone" ] || fail "dpkg -r left $gone"
done
[ -f "$settings" ] && [ -f "$root/data/marker" ] || fail "dpkg -r removed the tree"

check "dpkg -P" dpkg -P kovaagent >/dev/null
[ ! -e "$root" ] || fail "dpkg -P left $root: $(ls -A "$root")"
