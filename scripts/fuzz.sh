#!/usr/bin/env bash
# Installs what the fuzz build needs (Debian packages), builds the libFuzzer
# targets with clang in build/fuzz and runs each one briefly.
#   scripts/fuzz.sh [seconds per target]   (default 20)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}

# clang and its runtime (libFuzzer, sanitizers) besides the usual build.
scripts/deps.sh clang libclang-rt-14-dev

build=build/fuzz
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DKOVA_FUZZ=ON -DKOVA_TESTS=OFF -DKOVA_BENCH=OFF -DKOVA_SANITIZE=OFF
cmake --build "$build" --target fuzz_request

# Seeds: a flags byte, then what a server sends.
corpus=$build/corpus/request
mkdir -p "$corpus"
tag() { printf '%s' "$1"; head -c $((38 - ${#1})) /dev/zero; }
{ printf '\x00\x0e\x00'; head -c 38 /dev/zero; } >"$corpus/version"
{ printf '\x00\xfe\x00'; tag GET_AGENT_OS; printf '\x00\x00'; } >"$corpus/ext_empty"
{ printf '\x00\xfe\x00'; tag '<APPDATA>'; printf '\x05\x00hello'; } >"$corpus/ext_payload"
{ printf '\x00\xfe\x00'; tag '<MERG>'; printf '\x01\x08'; } >"$corpus/ext_too_long"
{ printf '\x01\xfe\x00'; tag PERF_NODE; printf '\x0a\x00abc'; } >"$corpus/ext_short_open"

"$build/fuzz/fuzz_request" -max_total_time="$seconds" -max_len=4096 -print_final_stats=1 "$corpus"
