#!/usr/bin/env bash
# Tries the service without hardware: installs what is missing, builds the service and the
# demo, then runs the demo. It starts a private PC/SC daemon with two virtual readers and the
# service, shows what a client receives, and reads commands that lay virtual tags and cards on
# the readers (type help). Arguments go to the demo, e.g. --port 8037; commands may be piped in:
#   printf 'tag 0 04a10b7f\nquit\n' | scripts/demo.sh
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${TIV_BUILD_DIR:-$root/build}"
case "$build" in /*) ;; *) build="$root/$build" ;; esac

# Build chatter goes to stderr, so piped output shows only the demo.
bash "$root/scripts/install-deps.sh" --demo >&2
# The demo is built with the test tools (a tree that scripts/run.sh made has them off).
cmake -S "$root" -B "$build" -DTIV_BUILD_TESTS=ON >/dev/null
cmake --build "$build" --target tiv-demo tiv-rfid-svc -j"$(nproc)" >&2
exec "$build/tools/demo/tiv-demo" "$@"
