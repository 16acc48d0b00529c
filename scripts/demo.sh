#!/usr/bin/env bash
# Builds the agent, lays out demo-tree/ with the stand-in collectors and
# companions, starts the agent on it and asks it what the central server
# would: versions, the configuration report, a collector start and status,
# a virtual host's collector start and status, today's logs of an
# application from its registered directory, and today's performance data.
# The agent keeps running afterwards.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

build=build/demo
tree=$PWD/demo-tree
port=${KOVA_DEMO_PORT:-16610}

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKOVA_TESTS=OFF -DKOVA_BENCH=OFF >/dev/null
cmake --build "$build"

# What an earlier run left running in the tree is stopped (each program
# finds its own copy by its lock file, or only within this tree).
if [ -x "$tree/bin/kovaagent" ]; then
  "$tree/bin/kovaagent" -rootdir "$tree" -stop >/dev/null 2>&1 || true
  "$tree/bin/vorn_monitor" -rootdir "$tree" -stop >/dev/null 2>&1 || true
  "$tree/bin/sorlexagent" -stop >/dev/null 2>&1 || true
  "$tree/bin/vorn_monitor_esx" -stop >/dev/null 2>&1 || true
  sleep 1
fi
demo/make-install-tree.sh "$tree" "$build" >/dev/null
# The virtual host whose collector the node requests below start.
[ -f "$tree/settings/vorn_esx.config" ] || printf 'HOSTNAME~esx-demo\nHOST_IP~192.0.2.10\n' >"$tree/settings/vorn_esx.config"
printf 'demo memory file\n' >"$tree/demo.memory"

get() { echo "\$ kovaget $*" | sed "s|$tree|demo-tree|g"; "$build/client/kovaget" -p "$port" "$@"; echo; }

# The search agent lives in the demo tree too.
export SORLEX_LIBRARY=$tree

echo "== starting the agent on port $port"
# The daemon keeps the standard output it was started with; a file, not
# this terminal's pipe, so that the demo's output can be piped too.
"$tree/bin/kovaagent" -rootdir "$tree" -port "$port" -appdir "$tree/appdata" >"$tree/logs/agent.out" 2>&1
for _ in $(seq 50); do grep -q started "$tree/logs/agent.out" && break; sleep 0.1; done
cat "$tree/logs/agent.out"
echo
get version
get os
get memory "$tree/demo.memory"
report=$(get config)
printf '%s\n' "$report" | sed -n 1,12p
echo "   ... (the whole report: kovaget -p $port config)"
echo
get dcstart 60 0
get status
echo "== a virtual host's collector, through the node requests"
get dcstartnode esx-demo "VMware ESX" 192.0.2.10 60 0
get dcstatnode esx-demo "VMware ESX" esx-demo.example
echo "== today's .log files of webapp from the registered application directory"
rm -rf "$tree/fetched" && mkdir -p "$tree/fetched"
get -o "$tree/fetched" appdata -d "$(LC_ALL=C date +%d-%b-%Y)" -x .log "$tree/appdata/webapp*"
get sorlexstart
get sorlexstatus
echo "== today's performance data (the agent waits ten seconds first, as the server expects)"
get perf
echo "== the agent's log: $tree/logs"
tail -n 5 "$tree"/logs/kova_*.log
echo
echo "The agent keeps running. Ask more with: $build/client/kovaget -p $port COMMAND"
echo "The collectors and the search agent run on without it, as on a host. Stop them, then the agent:"
kovaget="$build/client/kovaget -p $port"
printf '  %s\n' "$kovaget dcstop" "$kovaget dcstopnode esx-demo 'VMware ESX'" "$kovaget sorlexstop" \
  "demo-tree/bin/kovaagent -rootdir $tree -stop"
