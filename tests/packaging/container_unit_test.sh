#!/usr/bin/env bash
# The package on plain Debian 12 under a real systemd: a minimal tree booted with systemd-nspawn,
# the .deb installed in it with its dependencies from Debian's mirror, its unit checked against
# tiv-demo's private pcscd on this machine (unit_checks.sh), then purged.
#
#   tests/packaging/container_unit_test.sh <build-dir>
#
# The tree (debootstrap minbase with systemd) is made once under .local/container/ in the
# checkout; each run boots it with a throw-away overlay, so it stays as debootstrap left it.
# Downloaded packages are kept beside it. Skips (77), saying why, where no container can boot
# or the mirror is out of reach. TIV_DEBIAN_MIRROR names another mirror.
if [ $# -eq 1 ]; then
  set -- "$(cd "$1" && pwd)" "$(cd "$(dirname "$0")/../.." && pwd)" "" "$1/tools/demo/tiv-demo"
fi
source "$(dirname "$0")/lib.sh"
source "$(dirname "$0")/unit_checks.sh"
demo="$4"
mirror="${TIV_DEBIAN_MIRROR:-http://deb.debian.org/debian}"
cache="$source_dir/.local/container"
tree="$cache/bookworm"
# What the tree is made of; another list makes a new tree.
recipe="minbase bookworm $mirror systemd,systemd-sysv,dbus"

[ "$(id -u)" -eq 0 ] || skip "booting a container needs root"
for tool in systemd-nspawn debootstrap nsenter unshare python3; do
  command -v "$tool" >/dev/null || skip "$tool is missing (scripts/install-deps.sh --container)"
done
[ -x "$demo" ] || skip "no tiv-demo in $build_dir (configure with -DTIV_BUILD_TESTS=ON)"
# CAP_SYS_ADMIN is bit 21.
[ $(( 0x$(awk '/^CapEff/ { print $2 }' /proc/self/status) >> 21 & 1 )) -eq 1 ] ||
  skip "no CAP_SYS_ADMIN: systemd-nspawn cannot mount the container's file systems"
case "$(stat -f -c %T /sys/fs/cgroup 2>/dev/null)" in
  cgroup2fs) ;;
  tmpfs) [ -d /sys/fs/cgroup/systemd ] || skip "no cgroup hierarchy for systemd under /sys/fs/cgroup" ;;
  *) skip "no cgroup file system on /sys/fs/cgroup" ;;
esac
[ -w /sys/fs/cgroup ] || skip "/sys/fs/cgroup is read-only: the container's systemd needs a cgroup of its own"
out="$(unshare --mount --pid --uts --ipc --fork true 2>&1)" || skip "cannot make namespaces: $out"
out="$(python3 -c 'import sys, urllib.request; urllib.request.urlopen(sys.argv[1], timeout=20)' \
  "$mirror/dists/bookworm/InRelease" 2>&1 | tail -1)" || skip "Debian's mirror $mirror is out of reach: $out"

# Several runs may start at once: one makes the tree, the others wait for it.
make_tree() {
  [ "$(cat "$tree/.tiv-recipe" 2>/dev/null)" != "$recipe" ] || return 0
  echo "making the Debian 12 tree in $tree (once; a few minutes)"
  rm -rf -- "$tree.new"
  # shellcheck disable=SC2086 # the recipe's words are debootstrap's arguments
  set -- $recipe
  debootstrap --variant="$1" --include="$4" "$2" "$tree.new" "$3" >"$tmp/debootstrap.log" 2>&1 ||
    { tail -20 "$tmp/debootstrap.log"; return 1; }
  # As an installed Debian 12 has them: security fixes and point updates.
  printf 'deb %s bookworm main\ndeb %s bookworm-updates main\ndeb %s-security bookworm-security main\n' \
    "$mirror" "$mirror" "$mirror" >"$tree.new/etc/apt/sources.list"
  chroot "$tree.new" apt-get update -q >>"$tmp/debootstrap.log" 2>&1 || { tail -20 "$tmp/debootstrap.log"; return 1; }
  echo "$recipe" >"$tree.new/.tiv-recipe"
  rm -rf -- "$tree"
  mv -- "$tree.new" "$tree"
}
mkdir -p "$cache/archives/partial"
exec 8>"$cache/lock"
flock 8
make_tree || { echo "FAIL could not make the tree" >&2; exit 1; }
flock -u 8

nspawn_pid=""
exited() { ! kill -0 "$nspawn_pid" 2>/dev/null; }
poweroff() {
  [ -n "$nspawn_pid" ] || return 0
  # systemd-nspawn passes SIGTERM on as a clean power-off.
  kill -TERM "$nspawn_pid" 2>/dev/null || return 0
  within_a_minute exited || kill -KILL "$nspawn_pid" 2>/dev/null || true
  wait "$nspawn_pid" 2>/dev/null || true
}
cleanup() {
  [ "$failures" -eq 0 ] || [ -z "${leader:-}" ] || unit_journal
  poweroff
  stop_demo
  rm -rf "${run_dir:-}" "$tmp"
}

build_deb
trap cleanup EXIT
# A container left running would outlive the test: an interrupted run powers it off too.
trap 'exit 130' INT
trap 'exit 143' TERM
start_demo "$demo"
# Shares this machine's network (the client and the blocker reach the service on 127.0.0.1) and,
# through a bind, the demo's pcscd socket.
systemd-nspawn --boot --directory="$tree" --volatile=overlay --machine="tiv-unit-$$" \
  --keep-unit --register=no --bind-ro="$deb:/srv/$(basename "$deb")" --bind="$run_dir" \
  --bind="$cache/archives:/var/cache/apt/archives" </dev/null >"$tmp/boot.log" 2>&1 &
nspawn_pid=$!
leader=""
booted() {
  ! exited || return 0
  [ -n "$leader" ] || leader="$(pgrep -P "$nspawn_pid" -x systemd)" || return 1
  case "$(nsenter -t "$leader" -a systemctl is-system-running 2>/dev/null)" in
    running | degraded) ;; *) return 1 ;;
  esac
}
within_a_minute booted || true
if exited; then
  nspawn_pid=""
  skip "the container did not boot: $(grep -v '^$' "$tmp/boot.log" | tail -1)"
fi
[ -n "$leader" ] || skip "the container's systemd did not start within a minute"
on_target() { nsenter -t "$leader" -a "$@"; }
target_root="/proc/$leader/root"
state="$(on_target systemctl is-system-running || true)"
check "the container boots ($state; $(on_target systemctl --version | head -1))" test "$state" = running -o "$state" = degraded
[ "$state" = running ] || on_target systemctl --failed --no-legend >&2

write_admin_settings
# Stale package lists (a newer point release on the mirror) are read again once.
install_deb() {
  on_target env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
    "/srv/$(basename "$deb")"
}
{ install_deb || { on_target apt-get update -q && install_deb; }; } >"$tmp/apt.log" 2>&1 ||
  { cat "$tmp/apt.log"; exit 1; }
echo "installed with $(grep -c '^Setting up' "$tmp/apt.log") packages; $(grep -o 'Need to get .* of archives' "$tmp/apt.log" || echo 'all of them cached')"
check_installed_unit
echo quit >&3
finish
