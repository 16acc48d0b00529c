#!/usr/bin/env bash
# Installs what the build needs (Debian packages), builds the agent and its
# tests with AddressSanitizer and UndefinedBehaviorSanitizer, runs every test,
# then (as root) builds the Debian package and takes it through install,
# start, upgrade, removal and purge on this host.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

build=build/test
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKOVA_SANITIZE=ON
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"
tests/package/deb_round_trip.sh
