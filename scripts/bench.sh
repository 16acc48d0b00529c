#!/usr/bin/env bash
# Builds the benchmarks as a Release build in build/bench and runs them:
# version requests against the running daemon and a bare fork-per-connection
# server, then streaming a 1 GiB .perf work file (in a temporary directory,
# removed afterwards) against bare sendfile, and the application-data selection
# over a directory of 100,000 files against a plain readdir pass. They print
# figures only.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

build=build/bench
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKOVA_TESTS=OFF -DKOVA_BENCH=ON
cmake --build "$build" --target request_bench perf_stream_bench appdata_select_bench
"$build/bench/request_bench" 5
"$build/bench/perf_stream_bench"
"$build/bench/appdata_select_bench"
