#!/bin/sh
# Lays out a demo install tree in DIR from a build directory:
#   bin (the stand-in collectors, real-time agent, search agent, extraction
#   and analysis tools, and the agent itself when it has been built), data,
#   logs, tmp, tmp/update, outgoing, settings, update, mwa, and appdata: an
#   application directory (to register with -appdir) holding logs of the
#   last three days, dated in the styles that settings/date_formats.txt lists.
# Usage: demo/make-install-tree.sh DIR [BUILD_DIR]   (BUILD_DIR: ./build)
set -eu

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
  echo "usage: $0 DIR [BUILD_DIR]" >&2
  exit 2
fi
root=$1
build=${2:-build}
standins="$build/demo/bin"

for program in vorn_monitor vorn_monitor_esx kovarta sorlexagent kovaperf vorn_analyze; do
  if [ ! -x "$standins/$program" ]; then
    echo "$0: $standins/$program not found; build the demo targets first" >&2
    exit 1
  fi
done

for dir in bin data logs tmp tmp/update outgoing settings update mwa appdata; do
  mkdir -p "$root/$dir"
done
# put FROM TO: copies FROM to TO under a temporary name, then renames it into
# place, so that a copy still running from an earlier tree keeps its file.
put() {
  cp "$1" "$2.new.$$" && mv -f "$2.new.$$" "$2"
}
# Copies, not links: each tree's programs are found by their own path.
for program in vorn_monitor vorn_monitor_esx kovarta sorlexagent kovaperf vorn_analyze; do
  put "$standins/$program" "$root/bin/$program"
done
printf 'YYYYMMDD\nDD-Mmm-YYYY\n' >"$root/settings/date_formats.txt"
for ago in 0 1 2; do
  day=$(LC_ALL=C date -d "-$ago day" +%Y%m%d)
  dmy=$(LC_ALL=C date -d "-$ago day" +%d-%b-%Y)
  printf '%s webapp started\n%s webapp request served\n' "$day" "$day" >"$root/appdata/webapp_$day.log"
  printf '%s webapp trace\n' "$day" >"$root/appdata/webapp_$day.trc"
  printf '%s nightly batch done\n' "$dmy" >"$root/appdata/batch_$dmy.log"
done
if [ -x "$build/src/kovaagent" ]; then
  put "$build/src/kovaagent" "$root/bin/kovaagent"
fi
echo "$root"
