#!/usr/bin/env bash
# Builds the programs of README and manual against an installed tree, through find_package and through pkg-config,
# and lets them talk. Usage: link_and_talk.sh PREFIX WORK_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
prefix=$1
work=$2
libdir=$(dirname "$(find "$prefix" -name libtcp_com.so)")
mkdir "$work/samples"
"$here/extract_samples.sh" "$work/samples"

echo "== find_package"
cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DSAMPLES_DIR="$work/samples" -DCMAKE_CXX_FLAGS="${CXXFLAGS-}" >/dev/null
grep -qF "tcp_com_DIR:PATH=$prefix" "$work/cmake/CMakeCache.txt"  # and not one of this machine's
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
