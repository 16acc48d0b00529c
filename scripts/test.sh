#!/usr/bin/env bash
# Installs what the build needs (Debian packages), builds the agent and its
# tests with AddressSanitizer and UndefinedBehaviorSanitizer, runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(cmake ninja-build g++ libgtest-dev libgmock-dev libssl-dev libcap-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
fi

build=build/test
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKOVA_SANITIZE=ON
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"
