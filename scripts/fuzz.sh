#!/usr/bin/env bash
# Installs what the fuzz build needs (Debian packages), builds the libFuzzer
# target with clang in build/fuzz and runs it.
#   scripts/fuzz.sh [seconds] [executions] [jobs]
# seconds: how long to run (default 20; 0 with executions: no time limit);
# executions: stop after that many inputs, in all; jobs: fuzzing processes
# side by side on one corpus (default 1), each taking its share of the
# executions, with its log in build/fuzz/jobs/fuzz-N.log.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
runs=${2:-}
jobs=${3:-1}

# clang and its runtime (libFuzzer, sanitizers) besides the usual build.
scripts/deps.sh clang libclang-rt-14-dev

build=build/fuzz
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DKOVA_FUZZ=ON -DKOVA_TESTS=OFF -DKOVA_BENCH=OFF -DKOVA_SANITIZE=OFF
cmake --build "$build" --target fuzz_request

# Seeds: a flags byte, then what a server sends; one for each request a
# handler parses. The harness's install tree holds data for 5 March 2024
# (this host's own, and the node "nodehost" as Linux, ESX and VMS files)
# and a registered application directory, ~/appdata, of web logs.
corpus=$build/corpus/request
mkdir -p "$corpus"
le16() { printf "\\x$(printf %02x $(($1 & 255)))\\x$(printf %02x $((($1 >> 8) & 255)))"; }
zeros() { head -c "$1" /dev/zero; }
field() { printf '%s' "$1"; zeros $(($2 - ${#1})); }          # text in a fixed field
request() { le16 "$1"; field "${2:-}" 38; }                   # the 40-byte request
extended() { request 254 "$1"; le16 ${#2}; printf '%s' "$2"; } # tag, length, payload
seed() { local name=$1 flags=$2; shift 2; { printf "\\x$flags"; "$@"; } >"$corpus/$name"; }

seed version 00 request 14
seed os 00 request 16
seed terminate 00 request 7
seed perf 00 eval 'le16 1; field 05-Mar-2024:00:00 18; field 05-Mar-2024:23:59 18; le16 7'
seed perf_remote_kept 0c eval 'le16 1; field 05-Mar-2024:00:00 18; field 05-Mar-2024:23:59 18; le16 7'
seed raw 00 eval 'le16 8; le16 29; zeros 36; printf qdtl_nodehost_2024Mar05.zud-1'
seed raw_mode1 00 eval 'le16 13; le16 4; zeros 36; printf qdtv'
seed memory_file 00 eval 'request 2; le16 6; le16 1; le16 0; le16 10; zeros 532 | tr "\\0" m'
seed dc_start 00 eval 'le16 3; le16 120; le16 5; zeros 34'
seed dc_stop 00 request 4
seed status 02 request 6
seed rta_start 00 eval 'le16 9; le16 20; le16 2101; le16 0; le16 5; le16 0; zeros 28'
seed rta_stop 00 request 10
seed sorlex_start 00 request 18
seed sorlex_stop 00 request 19
seed sorlex_status 00 request 20
seed config 00 request 15
seed merge 00 eval 'request 254 "<MERG>"; le16 36; field 05-Mar-2024:00:00 18; field 05-Mar-2024:23:59 18'
seed merge_kept 0e eval 'request 254 "<MERG>"; le16 36; field 05-Mar-2024:00:00 18; field 05-Mar-2024:23:59 18'
seed perf_node 00 eval 'request 254 PERF_NODE; le16 83; field 05-Mar-2024:00:00 18; field 05-Mar-2024:23:59 18; le16 30; field nodehost 32; printf "Red Hat Linux"'
seed perf_node_esx 12 eval 'request 254 PERF_NODE; le16 80; field 05-Mar-2024:00:00 18; field 05-Mar-2024:23:59 18; le16 30; field nodehost 32; printf "VMware ESX"'
# Application data: day, purge age, by date, by suffix, suffix, then the
# directory and pattern ("~" is the harness's tree).
appdata() { request 254 "<APPDATA>"; le16 $((36 + ${#5})); field 05-Mar-2024:00:00 18; le16 "$1"; le16 "$2"
            le16 "$3"; field "$4" 12; printf '%s' "$5"; }
seed appdata 00 appdata -1 1 0 "" "~/appdata/web"
seed appdata_suffix_purged 20 appdata 3 0 1 .log "~/appdata/web*"
seed appdata_unregistered 00 appdata -1 0 0 "" /etc/passwd
seed sysconfig_node 00 extended SYSCONFIG_NODE nodehost
seed dcstat_node 00 eval 'request 254 DCSTAT_NODE; le16 192; field nodehost 64; field "VMware ESX" 64; field nodehost.example 64'
seed dcstop_node 00 eval 'request 254 DCSTOP_NODE; le16 128; field nodehost 64; field "VMware ESX" 64'
seed dcstart_node 00 eval 'request 254 DCSTART_NODE; le16 320; field nodehost 64; field "VMware ESX" 64; field 10.1.1.5 64; field 300 64; field 5 64'
seed update 00 eval 'extended "<UPDATE_DATA>" "<UPDATE_DATA> patch.tar.gz 10 00112233445566778899aabbccddeeff /opt/upd"; printf 0123456789'
seed disk_space 00 extended "<DISKSPACE>" /tmp/a/b
seed agent_version 00 extended GET_AGENT_VERSION ""
seed agent_release 00 extended GET_AGENT_RELEASE ""
seed memory_node 00 extended MEMORY_NODE ""
seed unknown_tag 00 extended NO_SUCH_TAG payload
seed ext_too_long 00 eval 'request 254 "<MERG>"; le16 2049'
seed ext_short_open 01 eval 'request 254 PERF_NODE; le16 10; printf abc'

# Requests look processes up by name: in a PID namespace of its own (when
# this runs as root) the fuzzer can only ever find itself. Elsewhere the
# harness's collector lock file, which names no process, keeps the stop
# request from searching.
ns=()
if [ "$(id -u)" -eq 0 ] && unshare --pid --fork --mount-proc true 2>/dev/null; then
  ns=(unshare --pid --fork --mount-proc --)
fi
limits=(-max_total_time="$seconds")
[ -z "$runs" ] || limits+=(-runs="$(((runs + jobs - 1) / jobs))")
if [ "$jobs" -gt 1 ]; then
  # Each job's output goes to fuzz-N.log in the working directory.
  mkdir -p "$build/jobs"
  rm -f "$build"/jobs/fuzz-*.log
  limits+=(-jobs="$jobs" -workers="$jobs")
fi
# A small quarantine keeps the fuzzer's memory small, and with it the cost
# of the fork that each component or tool request makes. The agent's own
# messages on standard output and error are dropped (-close_fd_mask);
# libFuzzer and the sanitizers report on a descriptor of their own.
export ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=16}
# Run from the build directory, where a finding's input is written.
top=$PWD
workdir=$build
[ "$jobs" -le 1 ] || workdir=$build/jobs
cd "$workdir"
"${ns[@]}" "$top/$build/fuzz/fuzz_request" "${limits[@]}" -max_len=4096 -close_fd_mask=3 -print_final_stats=1 \
  "$top/$corpus"
if [ "$jobs" -gt 1 ]; then
  total=$(awk '/^stat::number_of_executed_units/ { n += $2 } END { print n + 0 }' fuzz-*.log)
  echo "fuzz: $jobs jobs, $total executions in all, no finding"
fi
