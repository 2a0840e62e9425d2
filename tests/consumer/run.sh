#!/usr/bin/env bash
# Installs the built tree, moves it, and builds and runs an outside project against it both ways.
# Usage: run.sh BUILD_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mkdir "$work/samples"
"$here/extract_samples.sh" "$work/samples"
cmake --install "$build" --prefix "$work/built" >/dev/null
mv "$work/built" "$work/moved"  # nothing may remember where it was installed first
libdir=$(dirname "$(find "$work/moved" -name libtcp_com.so)")

echo "== find_package"
cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$work/moved" \
  -DSAMPLES_DIR="$work/samples" -DCMAKE_CXX_FLAGS="${CXXFLAGS-}" >/dev/null
cmake --build "$work/cmake" >/dev/null

echo "== pkg-config"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
read -ra flags <<<"$(pkg-config --cflags --libs tcp_com)"
mkdir "$work/pkg"
for name in server command_server client; do
  # shellcheck disable=SC2086
  g++ -std=c++17 ${CXXFLAGS-} "$work/samples/$name.cpp" -o "$work/pkg/$name" "${flags[@]}"
done

export LD_LIBRARY_PATH="$libdir"
for way in cmake pkg; do
  for server in server command_server; do
    "$here/talk.sh" "$work/$way/$server" "$work/$way/client"
  done
done

echo "== exported symbols"
# Only our namespaces and the facade's global names may be visible.
foreign=$(nm -D --defined-only -C "$libdir"/libtcp_com.so "$libdir"/libbrix_log.so |
  awk 'NF > 2 && $2 ~ /^[TDBRV]$/' |
  grep -vE ' (typeinfo (name )?for |vtable for |VTT for |guard variable for )?(brix::|TcpServerBroadcaster::|brix_json::|brix_log::|log_time::|printErr|timer$)' || true)
[[ -z $foreign ]] || {
  echo "unexpected: $foreign" >&2
  exit 1
}
