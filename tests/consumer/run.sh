#!/usr/bin/env bash
# Installs the built tree, moves it, and builds and runs an outside project against it both ways.
# Usage: run.sh BUILD_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/built" >/dev/null
mv "$work/built" "$work/moved"  # nothing may remember where it was installed first
"$here/link_and_talk.sh" "$work/moved" "$work"
libdir=$(dirname "$(find "$work/moved" -name libtcp_com.so)")

echo "== exported symbols"
# Only our namespaces and the facade's global names may be visible.
foreign=$(nm -D --defined-only -C "$libdir"/libtcp_com.so "$libdir"/libbrix_log.so |
  awk 'NF > 2 && $2 ~ /^[TDBRV]$/' |
  grep -vE ' (typeinfo (name )?for |vtable for |VTT for |guard variable for )?(brix::|TcpServerBroadcaster::|brix_json::|brix_log::|log_time::|printErr|timer$)' || true)
[[ -z $foreign ]] || {
  echo "unexpected: $foreign" >&2
  exit 1
}
