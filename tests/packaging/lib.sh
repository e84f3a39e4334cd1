# shellcheck shell=bash disable=SC2034
# Shared by the packaging tests: arguments, a private temporary directory removed on exit,
# and checks that report every failure before the test ends.
set -euo pipefail

build_dir="$1"
source_dir="$2"
version="$3"
unit_name=tiv-rfid-svc.service
settings_rel="etc/xdg/TIV/Tiv RFID WebSocket Service.ini"

tmp="$(mktemp -d "${TMPDIR:-/tmp}/tiv-packaging.XXXXXX")"
trap 'rm -rf -- "$tmp"' EXIT

failures=0
check() {
  local what="$1"; shift
  if "$@"; then echo "ok   $what"; else echo "FAIL $what" >&2; failures=$((failures + 1)); fi
}
has_line() { grep -qxF -- "$2" "$1"; }
lacks() { ! grep -qF -- "$2" "$1"; }
skip() { echo "SKIP: $*"; exit 77; }
finish() {
  if [ "$failures" -ne 0 ]; then echo "$failures check(s) failed" >&2; exit 1; fi
}

# systemd-analyze needs no running systemd but wants the unit's programs to exist: the copy
# names them inside the staged tree. Any output is a complaint.
verify_unit() {
  local unit="$1" root="$2" copy="$tmp/verify/$unit_name"
  mkdir -p "$tmp/verify"
  printf '[Service]\nExecStart=/bin/true\n' >"$tmp/verify/probe.service"
  if ! command -v systemd-analyze >/dev/null ||
     [ -n "$(systemd-analyze verify --man=no "$tmp/verify/probe.service" 2>&1 || echo failed)" ]; then
    echo "note: systemd-analyze cannot verify units here; not checked"
    return 0
  fi
  sed -E "s#^(Exec[A-Za-z]*=[-+!@:]*)(/[^ ]*)#\1$root\2#" "$unit" >"$copy"
  local out
  # The unit's manual page is in the staged tree, not where man looks.
  out="$(systemd-analyze verify --man=no "$copy" 2>&1 || echo "systemd-analyze failed")"
  [ -z "$out" ] || { echo "$out" >&2; return 1; }
}

# Runs an installed binary with settings of its own, so nothing is read or logged outside $tmp.
run_version() {
  local binary="$1" xdg="$tmp/run/xdg"
  mkdir -p "$xdg/TIV"
  printf '[service]\nlogpath=%s/run/log/\n' "$tmp" >"$xdg/TIV/Tiv RFID WebSocket Service.ini"
  XDG_CONFIG_DIRS="$xdg" "$binary" --version
}

# The package, built by cpack into $tmp/cpack (its log: $tmp/cpack.log); sets deb.
build_deb() {
  cpack -G DEB --config "$build_dir/CPackConfig.cmake" -B "$tmp/cpack" >"$tmp/cpack.log" 2>&1 ||
    { cat "$tmp/cpack.log"; exit 1; }
  deb="$(find "$tmp/cpack" -maxdepth 1 -name 'tiv-rfid-svc_*.deb')"
}

lacks_any() { ! grep -qE -- "$2" "$1"; }
