#!/usr/bin/env bash
# Writes the README's C++ programs, readme_NAME.cpp, into a folder.
# Usage: extract_readme.sh FOLDER
set -euo pipefail
readme=$(cd "$(dirname "$0")/../.." && pwd)/README.md
for name in server command_server client; do
  awk -v start="<!-- program: $name -->" '
    $0 == start { wanted = 1 }
    wanted && /^```$/ { exit }
    wanted && inside { print }
    wanted && /^```cpp$/ { inside = 1 }' "$readme" >"$1/readme_$name.cpp"
  [[ -s $1/readme_$name.cpp ]] || {
    echo "README.md lost its program: $name" >&2
    exit 1
  }
done
