#!/usr/bin/env bash
# Installs what is missing, builds the service and runs it in the foreground with a local
# configuration kept under .local/ in this checkout (settings, certificate, logs).
# Extra arguments are passed to the service (for example --help).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${TIV_BUILD_DIR:-$root/build}"
case "$build" in /*) ;; *) build="$root/$build" ;; esac

bash "$root/scripts/install-deps.sh"
# A new build tree gets the service alone; one that scripts/test.sh configured keeps its tests.
if [ -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" >/dev/null
else
  cmake -S "$root" -B "$build" -DTIV_BUILD_TESTS=OFF >/dev/null
fi
cmake --build "$build" --target tiv-rfid-svc -j"$(nproc)"

local_dir="$root/.local"
config_dir="$local_dir/xdg"
mkdir -p "$config_dir/TIV" "$local_dir/log"

cert="$local_dir/localhost.pem"
key="$local_dir/localhost.key"
sh "$root/packaging/tiv-rfid-svc-ensure-certificate" "$cert" "$key"

settings="$config_dir/TIV/Tiv RFID WebSocket Service.ini"
if [ ! -f "$settings" ]; then
  cat >"$settings" <<INI
[service]
port=8036
certfile=$cert
keyfile=$key
logpath=$local_dir/log/
INI
fi

as_root() { if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi; }

# The service waits for PC/SC by itself, but a machine without a running pcscd would never
# show a reader: start the system's one when nothing serves its socket, and stop it again
# when this script ends.
pcscd_pid=""
stop_pcscd() {
  if [ -n "$pcscd_pid" ]; then
    as_root kill -TERM "$pcscd_pid" 2>/dev/null || true
    wait "$pcscd_pid" 2>/dev/null || true
    echo "Stopped the pcscd started for this run."
  fi
}
trap stop_pcscd EXIT
if [ -z "${PCSCLITE_CSOCK_NAME:-}" ] && [ ! -S /run/pcscd/pcscd.comm ] && command -v pcscd >/dev/null; then
  # In the foreground (-f) it stays our direct child (sudo passes the stop on), so its id is
  # known for the stop.
  if [ "$(id -u)" -eq 0 ]; then
    pcscd -f >"$local_dir/pcscd.log" 2>&1 &
  else
    sudo pcscd -f >"$local_dir/pcscd.log" 2>&1 &
  fi
  pcscd_pid=$!
  for _ in $(seq 50); do
    [ -S /run/pcscd/pcscd.comm ] && break
    kill -0 "$pcscd_pid" 2>/dev/null || { pcscd_pid=""; break; }
    sleep 0.1
  done
  if [ -n "$pcscd_pid" ]; then
    echo "Started pcscd for this run (log: $local_dir/pcscd.log)"
  else
    echo "Could not start pcscd (see $local_dir/pcscd.log); the service waits for one."
  fi
fi

echo "Settings: $settings"
echo "Logs:     $local_dir/log/"
echo "Serving wss://127.0.0.1:$(sed -n 's/^port=//p' "$settings" | head -n1); stop with Ctrl-C."
# Not exec'd: the trap above must run once the service has stopped. Ctrl-C reaches the
# service directly, as part of the terminal's foreground group.
status=0
XDG_CONFIG_DIRS="$config_dir" "$build/app/tiv-rfid-svc" "$@" || status=$?
exit "$status"
