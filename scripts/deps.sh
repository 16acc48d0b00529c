#!/usr/bin/env bash
# Installs the Debian packages the build needs, when any is missing: the
# compiler and libraries, a JSON parser for the tests, what builds the
# Debian package (dpkg-dev, file) and what checks what it ships (mandoc,
# groff, xmllint, systemd-analyze).
set -euo pipefail
packages=(cmake ninja-build g++ libgtest-dev libgmock-dev libcap-dev libssl-dev nlohmann-json3-dev
  dpkg-dev file mandoc groff-base libxml2-utils systemd "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
