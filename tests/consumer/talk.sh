#!/usr/bin/env bash
# Lets the README's client talk to the README's server. Usage: talk.sh SERVER CLIENT
set -euo pipefail
log=$(mktemp)
"$1" 0 >"$log" 2>/dev/null &
server=$!
trap 'kill "$server" 2>/dev/null || true; rm -f "$log"' EXIT
for _ in $(seq 200); do
  port=$(sed -n 's/^listening on //p' "$log")
  [[ -z $port ]] || break
  kill -0 "$server"
  sleep 0.05
done
reply=$(timeout 20 "$2" 127.0.0.1 "$port" 2>/dev/null | grep -F '"command":"get_state"')
echo "reply: $reply"
