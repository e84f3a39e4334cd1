#!/usr/bin/env bash
# Gives the service a certificate for localhost and 127.0.0.1 that browsers trust: mkcert makes a
# local certificate authority, installs it in the system's and the browsers' (NSS) trust stores
# and issues the certificate; the settings file is then pointed at it.
#
# Usage: scripts/trust-certificate.sh [settings-file [certificate-dir]]
#   settings-file    default: the system one, /etc/xdg/TIV/Tiv RFID WebSocket Service.ini
#                    (scripts/run.sh uses .local/xdg/TIV/Tiv RFID WebSocket Service.ini)
#   certificate-dir  default: the directory of the certificate the settings name now
#
# Run it as the desktop user whose browsers must trust the certificate (sudo is used where root
# is needed); under sudo, that user's browsers are served too. Environment:
#   CAROOT                 where mkcert keeps its authority (mkcert's own default otherwise)
#   TIV_SKIP_TRUST_STORES  set to 1 to leave every trust store alone and only issue the certificate
set -euo pipefail

case "${1:-}" in -h | --help) sed -n '2,/^set -euo/{/^set -euo/d;s/^# \{0,1\}//;p}' "$0"; exit 0 ;; esac

system_settings="/etc/xdg/TIV/Tiv RFID WebSocket Service.ini"
settings="${1:-$system_settings}"
unit=tiv-rfid-svc.service
cert_name=localhost-trusted.pem
key_name=localhost-trusted.key

say() { echo "trust-certificate: $*"; }
die() { echo "trust-certificate: $*" >&2; exit 1; }

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# Runs a command as root only when the path (or the folder it would be created in) is not ours.
as_writer_of() {
  local path="$1"; shift
  while [ ! -e "$path" ]; do path="$(dirname -- "$path")"; done
  if [ -w "$path" ]; then "$@"; else as_root "$@"; fi
}

# Prints a key of the [service] section, without the quotes the settings may put around it.
ini_value() {
  awk -v key="$1" '
    /^[ \t]*\[/ { in_service = ($0 ~ /^[ \t]*\[service\][ \t]*$/); next }
    in_service {
      line = $0
      if (sub("^[ \t]*" key "[ \t]*=[ \t]*", "", line)) {
        sub(/[ \t\r]*$/, "", line)
        if (line ~ /^".*"$/) line = substr(line, 2, length(line) - 2)
        print line
        exit
      }
    }' "$settings"
}

# Writes the settings with certfile and keyfile replaced (or added), every other line kept.
ini_with_certificate() {
  awk -v cert="$1" -v key="$2" '
    function add_missing() {
      if (!cert_done) print "certfile=" cert
      if (!key_done) print "keyfile=" key
      cert_done = key_done = 1
    }
    /^[ \t]*\[/ {
      if (in_service) add_missing()
      in_service = ($0 ~ /^[ \t]*\[service\][ \t]*$/)
      if (in_service) seen = 1
      print; next
    }
    in_service && /^[ \t]*certfile[ \t]*=/ { print "certfile=" cert; cert_done = 1; next }
    in_service && /^[ \t]*keyfile[ \t]*=/ { print "keyfile=" key; key_done = 1; next }
    { print }
    END {
      if (in_service) add_missing()
      else if (!seen) { print "[service]"; add_missing() }
    }' "$settings"
}

port_in_use() {
  if command -v ss >/dev/null; then
    [ -n "$(ss -Hltn "sport = :$1" 2>/dev/null)" ]
  else
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
  fi
}

[ -f "$settings" ] || die "no settings file at '$settings' (install the service, or run scripts/run.sh once, first)"
settings="$(realpath -- "$settings")"

current_cert="$(ini_value certfile)"
current_key="$(ini_value keyfile)"
port="$(ini_value port)"
port="${port:-8036}"

if [ -n "${2:-}" ]; then
  cert_dir="$2"
elif [[ "$current_cert" == /* ]]; then
  cert_dir="$(dirname -- "$current_cert")"
else
  # A relative name depends on the service's working directory; use the settings' folder.
  cert_dir="$(dirname -- "$settings")"
fi
cert_dir="$(realpath -m -- "$cert_dir")"
# Characters the settings format would quote or escape are kept out of the paths it stores.
case "$cert_dir" in
  *[\;,=\"\\]* | *$'\n'*) die "choose a certificate directory without ; , = \" or \\ in its path: $cert_dir" ;;
esac
new_cert="$cert_dir/$cert_name"
new_key="$cert_dir/$key_name"

# The packages: mkcert always; the trust stores need certutil (NSS) and update-ca-certificates.
wanted=(mkcert)
if [ "${TIV_SKIP_TRUST_STORES:-0}" != 1 ]; then wanted+=(libnss3-tools ca-certificates); fi
missing=()
for p in "${wanted[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  say "installing ${missing[*]}"
  as_root apt-get update -q
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
fi

# Browsers look in the NSS stores of the user who runs them: under sudo that is the caller, so
# mkcert works for them, with their authority, and root only does the system store.
me="$(id -un)"
ca_user="$me"
if [ "$me" = root ] && [ -n "${SUDO_USER:-}" ] && [ "$SUDO_USER" != root ]; then
  ca_user="$SUDO_USER"
fi
as_ca_user() {
  if [ "$ca_user" = "$me" ]; then "$@"; else sudo -u "$ca_user" -H "$@"; fi
}
caroot="${CAROOT:-$(as_ca_user mkcert -CAROOT)}"
mkcert_as_ca_user() { as_ca_user env CAROOT="$caroot" mkcert "$@"; }

if [ "${TIV_SKIP_TRUST_STORES:-0}" = 1 ]; then
  say "leaving the trust stores alone (TIV_SKIP_TRUST_STORES=1)"
elif [ "$ca_user" = "$me" ]; then
  # As a plain user, mkcert asks sudo itself for the system store.
  mkcert_as_ca_user -install
else
  as_ca_user env CAROOT="$caroot" TRUST_STORES=nss mkcert -install
  env CAROOT="$caroot" TRUST_STORES=system mkcert -install
fi

work="$(as_ca_user mktemp -d)"
trap 'rm -rf -- "$work"' EXIT
# mkcert would report the temporary paths; its words are shown only when it fails.
if ! mkcert_as_ca_user -cert-file "$work/cert.pem" -key-file "$work/key.pem" \
     localhost 127.0.0.1 >"$work/mkcert.log" 2>&1; then
  cat "$work/mkcert.log" >&2
  die "mkcert could not issue the certificate"
fi

# Each file is put in place by a rename: the service reads the pair for every connection.
as_writer_of "$cert_dir" mkdir -p -- "$cert_dir"
as_writer_of "$cert_dir" install -m 600 -- "$work/key.pem" "$new_key.new"
as_writer_of "$cert_dir" install -m 644 -- "$work/cert.pem" "$new_cert.new"
if [ "$(id -u)" -eq 0 ]; then
  # Readable by whoever owns the folder (the user for run.sh); the system service reads its
  # key through the group of its folder, so the key is that group's to read as well.
  chown --reference="$cert_dir" -- "$new_key.new" "$new_cert.new"
  if [ "$(stat -c %g -- "$cert_dir")" != 0 ]; then chmod 640 -- "$new_key.new"; fi
fi
as_writer_of "$cert_dir" mv -f -- "$new_key.new" "$new_key"
as_writer_of "$cert_dir" mv -f -- "$new_cert.new" "$new_cert"
say "issued $new_cert (key: $new_key) by the authority in $caroot"

if [ "$current_cert" = "$new_cert" ] && [ "$current_key" = "$new_key" ]; then
  say "the settings already name these files; the service uses them from its next connection on"
  exit 0
fi

# The service reads its settings at start and writes them back when it stops: a running one would
# neither see the new paths nor keep them. The system service is stopped around the change.
restart=false
if [ "$settings" = "$system_settings" ] && [ -d /run/systemd/system ] &&
   systemctl is-active --quiet "$unit"; then
  say "stopping $unit while its settings change"
  as_root systemctl stop "$unit"
  restart=true
elif port_in_use "$port"; then
  die "something listens on port $port, probably the service: stop it, then run this again (the certificate is already issued)"
fi

updated="$work/settings.ini"
ini_with_certificate "$new_cert" "$new_key" >"$updated"
# Written in place, so the file keeps its owner and mode.
as_writer_of "$settings" cp -- "$updated" "$settings"
say "pointed certfile and keyfile in '$settings' at them"

if $restart; then
  as_root systemctl start "$unit"
  say "started $unit again"
fi
