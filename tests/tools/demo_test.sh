#!/usr/bin/env bash
# tiv-demo fed commands through a pipe: each card's message reaches the client, a card laid on
# an occupied reader replaces the one there, a second demo is turned away from the port with
# advice, and Ctrl-C stops the service and removes everything the demo made.
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
grep -qF '"event":"CONNECTED","name":"Tiv Virtual Reader 00 01","type":"READER"' "$out" \
  || fail "the greeting did not list the second reader"
printf '%s\n' 'tag 0 04a10b7f' 'acos 1 0102030405060708' '# comments and blank lines are skipped' '' >&3
wait_for '"tag_id":"04a10b7f","type":"TAG"'
wait_for '"tag_id":"0102030405060708","type":"SC"'
printf '%s\n' 'tag 0 04:A1:0B:80' 'remove 1' >&3
wait_for '"tag_id":"04a10b80","type":"TAG"'
wait_for 'took the card off reader 1'

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
log="$(sed -n "s/^The service's log: //p" "$out")"
[ -n "$cert" ] && [ -n "$log" ] || fail "the certificate or log path is not shown"
[ ! -e "$(dirname "$cert")" ] || fail "the certificate's directory was left behind"
[ ! -e "$(dirname "$(dirname "$log")")" ] || fail "the service's directory was left behind"
echo "PASS"
