#!/usr/bin/env bash
# Builds the benchmarks as a Release build in build/bench and runs them:
# version requests against the daemon, a bare fork-per-connection server and
# the same server appending the request's log line (rates, latency, server
# CPU per request, idle footprint, the listening process around a long run
# of sequential requests), then streaming a 1 GiB .perf work file (in a
# temporary directory, removed afterwards) against bare sendfile, and the
# application-data selection over a directory of 100,000 files against a
# plain readdir pass. They print figures only.
#
#   scripts/bench.sh [request_bench options]   e.g. --seconds 3 --requests 10000 --port 17800
#
# As root the request benchmark runs in a PID namespace of its own, so the
# agent's process searches see only what it started, and measures each
# server's CPU in a cgroup of its own.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

build=build/bench
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKOVA_TESTS=OFF -DKOVA_BENCH=ON
cmake --build "$build" --target request_bench perf_stream_bench appdata_select_bench

echo "load average: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) CPUs"
if [ "$(id -u)" -eq 0 ] && command -v unshare >/dev/null; then
  # A shell in between: the agent detaches only from a parent that is not
  # the namespace's first process.
  unshare --pid --fork --mount-proc -- sh -c '"$@"; exit $?' sh "$build/bench/request_bench" "$@"
else
  echo "(not root: the request benchmark runs in this PID namespace)"
  "$build/bench/request_bench" "$@"
fi
"$build/bench/perf_stream_bench"
"$build/bench/appdata_select_bench"
