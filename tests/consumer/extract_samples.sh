#!/usr/bin/env bash
# Writes each C++ block of README and manual into a folder, as the comment before it says:
#   program: NAME      a whole program, NAME.cpp
#   inside: FUNCTION   statements of that function, all together in fragments.cc
# A block without such a comment is an error. Usage: extract_samples.sh FOLDER
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
out=$(cd "$1" && pwd)
cd "$root"
mapfile -t pages < <(find ./*.md docs -name '*.md' | sort)
{
  for header in */include/*.h tcp_com/*/include/*.h; do echo "#include \"${header##*/}\""; done
  printf '#include <%s>\n' pthread.h sched.h sys/mman.h sys/prctl.h memory mutex vector
} >"$out/fragments.cc"
awk -v out="$out" '
  FNR == 1 { mark = "" }
  file != "" && /^```$/ {
    if (kind == "inside:") print (mark ~ /^int / ? "return 0;\n}" : "}") >>file
    file = mark = ""
    next
  }
  file != "" { print >>file; next }
  /^<!-- (program|inside): .* -->$/ {
    kind = $2
    mark = substr($0, length("<!-- " kind " ") + 1)
    sub(/ -->$/, "", mark)
    next
  }
  /^```(cpp|c\+\+|cxx|C\+\+)/ {
    if (mark == "") {
      print FILENAME ":" FNR ": a C++ block without a program: or inside: comment" >"/dev/stderr"
      exit 1
    }
    file = out "/" (kind == "program:" ? mark ".cpp" : "fragments.cc")
    if (kind == "inside:") print mark ";\n" mark " {" >>file
    next
  }
  NF { mark = "" }' "${pages[@]}"
