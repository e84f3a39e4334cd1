#!/usr/bin/env bash
# Installs the npm packages of the browser tests (tests/e2e/browser, pinned by its
# package-lock.json) into that folder's node_modules. Does nothing when they are already
# there. Chromium itself is Debian's, from scripts/install-deps.sh; no browser is downloaded.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
dir="$root/tests/e2e/browser"

if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  echo "install-browser-test-deps: Node.js 20 or later with npm is needed for the browser tests" >&2
  exit 1
fi
if [ "$(node -p 'process.versions.node.split(".")[0]')" -lt 20 ]; then
  echo "install-browser-test-deps: Node.js $(node --version) is too old; 20 or later is needed" >&2
  exit 1
fi

# Test runs of several build trees may start this at once; one installs, the others wait.
exec 9<"$dir"
flock 9

stamp="$dir/node_modules/.installed-from-lock"
want="$(sha256sum "$dir/package-lock.json" | cut -d' ' -f1)"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want" ]; then
  exit 0
fi

# Never let a package fetch a browser of its own.
export PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1
(cd "$dir" && npm ci --no-audit --no-fund --loglevel=error)
echo "$want" >"$stamp"
