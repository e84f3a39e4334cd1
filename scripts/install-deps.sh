#!/usr/bin/env bash
# Installs the Debian packages that are missing, and nothing else.
#
#   scripts/install-deps.sh           what building and running the service needs
#   scripts/install-deps.sh --demo    that, plus what the demo builds and runs with: GoogleTest
#                                     (the demo's build tree holds the tests), unshare, and the
#                                     virtual-reader driver unpacked under .local/vpcd/ (never
#                                     installed into the system)
#   scripts/install-deps.sh --tests   that, plus the rest of the test stack: Chromium with its
#                                     WebDriver and python3 for the browser tests, mkcert
#   scripts/install-deps.sh --container   the demo set, plus python3, debootstrap and
#                                     systemd-nspawn: tests/packaging/container_unit_test.sh
#                                     boots a Debian 12 container and installs the package in it
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

set_name="${1:-}"
case "$set_name" in
  "" | --demo | --tests | --container) ;;
  *) echo "usage: $0 [--demo | --tests | --container]" >&2; exit 2 ;;
esac

packages=(
  cmake g++ make pkg-config
  qtbase5-dev
  libwebsocketpp-dev libboost-dev libboost-system-dev
  libssl-dev openssl
  libpcsclite-dev pcscd
)
if [ -n "$set_name" ]; then
  # util-linux: unshare, setpriv and flock for the private pcscd.
  packages+=(libgtest-dev util-linux)
fi
if [ "$set_name" = --container ]; then
  packages+=(python3 debootstrap systemd-container)
fi
if [ "$set_name" = --tests ]; then
  # mkcert for the test of scripts/trust-certificate.sh, which leaves every trust store alone.
  packages+=(chromium python3 mkcert)
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

missing=()
for p in "${packages[@]}"; do
  installed "$p" || missing+=("$p")
done
updated=false
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  $SUDO apt-get update -q
  updated=true
  $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi

[ -n "$set_name" ] || exit 0

# The virtual-reader driver: Debian's package would hand the system's pcscd two readers that
# listen on TCP ports. The tests load the driver into their private pcscd from this copy.
# A machine that has the package installed already keeps it; the tests use it there.
vpcd_dir="$root/.local/vpcd"
driver="$vpcd_dir/usr/lib/pcsc/drivers/serial/libifdvpcd.so"
if ! installed vsmartcard-vpcd && [ ! -e "$driver" ]; then
  mkdir -p "$root/.local"
  # Test runs of several build trees may start this at once; one unpacks, the others wait.
  exec 9>"$root/.local/vpcd.lock"
  flock 9
  if [ ! -e "$driver" ]; then
    $updated || $SUDO apt-get update -q
    work="$(mktemp -d)"
    trap 'rm -rf -- "$work"' EXIT
    # As root, apt would otherwise hand the download to its sandbox user, who cannot write here.
    sandbox=(); if [ "$(id -u)" -eq 0 ]; then sandbox=(-o APT::Sandbox::User=root); fi
    (cd "$work" && apt-get download -q "${sandbox[@]}" vsmartcard-vpcd)
    rm -rf -- "$vpcd_dir.new"
    dpkg-deb -x "$work"/vsmartcard-vpcd_*.deb "$vpcd_dir.new"
    rm -rf -- "$vpcd_dir"
    mv -- "$vpcd_dir.new" "$vpcd_dir"
    echo "Unpacked the virtual-reader driver into $vpcd_dir (not installed into the system)"
  fi
fi
