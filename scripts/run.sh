#!/usr/bin/env bash
# Installs what is missing, builds the service and runs it in the foreground with a local
# configuration kept under .local/ in this checkout (settings, certificate, logs).
# Extra arguments are passed to the service (for example --help or daemon).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${TIV_BUILD_DIR:-$root/build}"

bash "$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build" >/dev/null
cmake --build "$build" --target tiv-rfid-svc -j"$(nproc)"

local_dir="$root/.local"
config_dir="$local_dir/xdg"
mkdir -p "$config_dir/TIV" "$local_dir/log"

cert="$local_dir/localhost.pem"
key="$local_dir/localhost.key"
if [ ! -s "$cert" ] || [ ! -s "$key" ]; then
  echo "Creating a self-signed certificate for localhost in $local_dir"
  openssl req -x509 -newkey rsa:2048 -nodes -days 825 -subj "/CN=localhost" \
    -addext "subjectAltName=IP:127.0.0.1,DNS:localhost" \
    -keyout "$key" -out "$cert" 2>/dev/null
fi

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

# The service waits for PC/SC by itself, but a machine without a running pcscd would
# never see a reader: start the system one when nothing listens on its socket.
if [ -z "${PCSCLITE_CSOCK_NAME:-}" ] && [ ! -S /run/pcscd/pcscd.comm ] && command -v pcscd >/dev/null; then
  if [ "$(id -u)" -eq 0 ]; then pcscd || true; else sudo pcscd || true; fi
fi

echo "Settings: $settings"
echo "Logs:     $local_dir/log/"
echo "Serving wss://127.0.0.1:$(sed -n 's/^port=//p' "$settings" | head -n1); stop with Ctrl-C."
export XDG_CONFIG_DIRS="$config_dir"
exec "$build/app/tiv-rfid-svc" "$@"
