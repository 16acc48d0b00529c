#!/bin/sh
# Lays out a demo install tree in DIR from a build directory:
#   bin (the stand-in collector, real-time agent, search agent, extraction
#   and analysis tools, and the agent itself when it has been built), data,
#   logs, tmp, tmp/update, outgoing, settings, update, mwa.
# Usage: demo/make-install-tree.sh DIR [BUILD_DIR]   (BUILD_DIR: ./build)
set -eu

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
  echo "usage: $0 DIR [BUILD_DIR]" >&2
  exit 2
fi
root=$1
build=${2:-build}
standins="$build/demo/bin"

for program in vorn_monitor kovarta sorlexagent kovaperf vorn_analyze; do
  if [ ! -x "$standins/$program" ]; then
    echo "$0: $standins/$program not found; build the demo targets first" >&2
    exit 1
  fi
done

for dir in bin data logs tmp tmp/update outgoing settings update mwa; do
  mkdir -p "$root/$dir"
done
# Copies, not links: each tree's programs are found by their own path.
for program in vorn_monitor kovarta sorlexagent kovaperf vorn_analyze; do
  cp "$standins/$program" "$root/bin/$program"
done
if [ -x "$build/src/kovaagent" ]; then
  cp "$build/src/kovaagent" "$root/bin/kovaagent"
fi
echo "$root"
