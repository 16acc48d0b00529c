#!/usr/bin/env bash
# Checks what the package ships, installed into a staging directory: the
# manual pages, the SMF manifest, the systemd unit, the shell syntax of the
# maintainer scripts and the completion, and the completion's reading of
# kovaget --help. A missing tool is a skip (exit 77 when nothing failed).
#   tests/package/lint.sh SOURCE_DIR BUILD_DIR
set -uo pipefail
src=$1
build=$2
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
failed=0
skipped=0

fail() { echo "FAILED: $*"; failed=1; }
# have TOOL: true when installed, else counts a skip.
have() {
  command -v "$1" >/dev/null && return 0
  echo "skipped: $1 is not installed (scripts/deps.sh installs it)"
  skipped=1
  return 1
}
# quiet WHAT COMMAND...: the command must succeed and print nothing.
quiet() {
  local what=$1 out
  shift
  out=$("$@" 2>&1) || fail "$what: exit $?: $out"
  [ -z "$out" ] || fail "$what: $out"
}

DESTDIR=$stage cmake --install "$build" --prefix /usr >/dev/null || fail "cmake --install"
man=$stage/usr/share/man
have makewhatis && makewhatis "$man"

for page in "$src"/docs/man/kovaagent.8 "$src"/docs/man/kovaget.1; do
  # With -W style, cross references are looked up in the staged pages.
  have mandoc && quiet "mandoc -T lint $page" mandoc -T lint -W style -M "$man" "$page"
  have groff && quiet "groff -ww $page" groff -ww -mandoc -z "$page"
done

have xmllint && quiet "xmllint kovaagent.xml" xmllint --noout "$src/packaging/smf/kovaagent.xml"

if have systemd-analyze; then
  sed -e "s|/opt/vantrel/bin/|$stage/opt/vantrel/bin/|g" -e "s|/usr/lib/kovaagent/|$stage/usr/lib/kovaagent/|g" \
    "$src/packaging/systemd/kovaagent.service" >"$stage/kovaagent.service"
  MANPATH=$man quiet "systemd-analyze verify" systemd-analyze verify "$stage/kovaagent.service"
fi

for script in "$src"/packaging/debian/{postinst,prerm,postrm} "$src/packaging/systemd/kovaagent-pidfile"; do
  quiet "sh -n $script" sh -n "$script"
done
quiet "bash -n completion" bash -n "$src/packaging/bash-completion/kovaget"

# The completion's own reading of the command names.
commands=$(bash -c 'source "$1" && _kovaget_commands "$2"' completion \
  "$src/packaging/bash-completion/kovaget" "$stage/usr/bin/kovaget")
for command in version status perf config opcode ext; do
  grep -qx "$command" <<<"$commands" || fail "the completion does not find '$command' in kovaget --help"
done

[ "$failed" = 0 ] || exit 1
[ "$skipped" = 0 ] || exit 77
echo "packaging lint: clean"
