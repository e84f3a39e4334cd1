#!/usr/bin/env bash
# Installs every system package the service and its tests need; installs only what is missing.
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  qtbase5-dev
  libwebsocketpp-dev libboost-dev libboost-system-dev
  libssl-dev openssl
  libpcsclite-dev pcscd vsmartcard-vpcd
  libgtest-dev
  util-linux procps
  chromium
)

# The browser tests run on Node.js with npm; machines that already have a node keep theirs.
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  packages+=(nodejs npm)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y --no-install-recommends "${missing[@]}"
