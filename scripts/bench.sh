#!/usr/bin/env bash
# Builds the benchmarks as a Release build in build/bench and runs the
# .perf streaming benchmark (a 1 GiB work file in a temporary directory,
# removed afterwards). Arguments go to the benchmark: [MiB [runs]].
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/bench
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKOVA_TESTS=OFF -DKOVA_BENCH=ON
cmake --build "$build" --target perf_stream_bench
"$build/bench/perf_stream_bench" "$@"
