#!/usr/bin/env bash
# A running tiv-demo turns a second one away from its port with advice, and Ctrl-C in the
# middle of a session stops the service and removes the demo's files.
set -euo pipefail
demo="$1"
work="$(mktemp -d)"
out="$work/out"
demo_pid=""
cleanup() {
  exec 3>&- 2>/dev/null || true
  if [ -n "$demo_pid" ]; then kill -KILL "$demo_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*"
  echo "--- demo output ---"
  cat "$out"
  exit 1
}

# Waits until the output holds the text; the demo prints it once the event has happened.
wait_for() {
  local deadline=$((SECONDS + 120))
  until grep -qF -- "$1" "$out"; do
    [ "$SECONDS" -lt "$deadline" ] || fail "timed out waiting for: $1"
    kill -0 "$demo_pid" 2>/dev/null || fail "the demo ended while waiting for: $1"
    sleep 0.1
  done
}

mkfifo "$work/commands"
"$demo" --port 0 <"$work/commands" >"$out" 2>&1 &
demo_pid=$!
exec 3>"$work/commands" # held open, so the demo keeps waiting for commands
wait_for '"type":"VERSION"'
echo 'tag 1 0a0b0c0d' >&3
wait_for 'TAG 0a0b0c0d reached the client'

port="$(grep -o 'wss://127.0.0.1:[0-9]*' "$out" | head -n1 | cut -d: -f3)"
second_status=0
second="$("$demo" --port "$port" </dev/null 2>&1)" || second_status=$?
[ "$second_status" -eq 2 ] || fail "a second demo on port $port ended with $second_status: $second"
grep -qF "port $port on 127.0.0.1 is already in use" <<<"$second" || fail "no clear message: $second"
grep -qF -- "--port" <<<"$second" || fail "no advice to choose another port: $second"

kill -INT "$demo_pid"
status=0
wait "$demo_pid" || status=$?
demo_pid=""
[ "$status" -eq 0 ] || fail "exit status $status after SIGINT"
grep -qF 'Stopped; the temporary files are removed.' "$out" || fail "no orderly stop"
cert="$(sed -n 's/^and 127.0.0.1: //p' "$out")"
[ -n "$cert" ] && [ ! -e "$(dirname "$cert")" ] || fail "the certificate's directory was left behind"
echo "PASS"
