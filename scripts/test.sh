#!/usr/bin/env bash
# Installs what is missing, builds everything and runs the whole test suite.
# TIV_BUILD_DIR and TIV_CMAKE_ARGS choose another build, e.g. a sanitizer one:
#   TIV_BUILD_DIR=build-asan TIV_CMAKE_ARGS=-DTIV_SANITIZE_ADDRESS=ON scripts/test.sh
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${TIV_BUILD_DIR:-$root/build}"
case "$build" in /*) ;; *) build="$root/$build" ;; esac

bash "$root/scripts/install-deps.sh" --tests
# shellcheck disable=SC2086
cmake -S "$root" -B "$build" -DTIV_BUILD_TESTS=ON ${TIV_CMAKE_ARGS:-} >/dev/null
cmake --build "$build" -j"$(nproc)"
# Qt 5's own locks are invisible to ThreadSanitizer; known false reports are listed here.
export TSAN_OPTIONS="suppressions=$root/tests/tsan.supp ${TSAN_OPTIONS:-}"
ctest --test-dir "$build" --output-on-failure -j2 --timeout 300
