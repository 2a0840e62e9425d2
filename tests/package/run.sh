#!/usr/bin/env bash
# Installs the Debian packages into a root of their own, builds and runs an outside project and the tool
# from there, and removes the packages again. Usage: run.sh FOLDER_OF_THE_PACKAGES
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
packages=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root

fail() {
  echo "packages: $*" >&2
  exit 1
}

# in_root OPTION... - dpkg there. It knows of this machine's packages, so that it checks dependencies
# and whether a file belongs to somebody else; it has nothing else of this machine.
in_root() {
  dpkg --root="$root" --log="$work/history" --force-not-root --path-include='*' "$@" >"$work/dpkg.log" 2>&1 || {
    cat "$work/dpkg.log" >&2
    fail "dpkg $1 failed"
  }
}

content() { find "$root" -path "$root/var/lib/dpkg" -prune -o ! -type d -printf '/%P\n' | sort; }

echo "== install"
mkdir -p "$root/var/lib/dpkg/"{info,updates,triggers}
cp /var/lib/dpkg/status "$root/var/lib/dpkg"
cp /var/lib/dpkg/info/{format,*.list} "$root/var/lib/dpkg/info"
in_root --install "$packages"/*.deb
content >"$work/installed"
for deb in "$packages"/*.deb; do dpkg-deb --fsys-tarfile "$deb" | tar t; done | grep -v '/$' | sed 's/^\.//' |
  sort >"$work/packaged"
cmp "$work/installed" "$work/packaged" || fail "the packages' files are not those that were installed"
[[ $(wc -l <"$work/installed") -gt 30 ]] || fail "the packages are all but empty"

"$here/../consumer/link_and_talk.sh" "$root/usr" "$work"

echo "== tcpcom"
LD_LIBRARY_PATH=$(dirname "$(find "$root/usr" -name libtcp_com.so.1)")
export LD_LIBRARY_PATH
ldd "$root/usr/bin/tcpcom" | grep -qF "=> $root/usr/lib" || fail "tcpcom does not run with the packaged library"
version=$(dpkg-deb --field "$packages"/tcp-com-tools_*.deb Version)
[[ $("$root/usr/bin/tcpcom" --version) == *"$version"* ]] || fail "tcpcom is not of version $version"
printf '%s\n' '#!/bin/bash -e' "tcpcom=$root/usr/bin/tcpcom" '"$tcpcom" ping -C 3 -i 0.05 "$1:$2"' \
  '"$tcpcom" request "$1:$2" get_state' >"$work/client"
chmod +x "$work/client"
"$here/../consumer/talk.sh" "$work/cmake/command_server" "$work/client"
zcat "$root/usr/share/man/man1/tcpcom.1.gz" | grep -q '^\.TH' || fail "the manual page is none"

echo "== remove"
in_root --purge tcp-com-tools libtcp-com-dev libtcp-com1
[[ -z $(content) ]] || fail "left behind: $(content)"
[[ ! -e $root/usr/include/tcp_com ]] || fail "left behind: the folder of the headers"
echo "the packages install, link, run and leave nothing behind"
