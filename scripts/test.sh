#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test.
#   scripts/test.sh            ordinary build in build/
#   scripts/test.sh --sanitize AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."

build=build
flags=()
if [ "${1:-}" = "--sanitize" ]; then
  build=build-asan
  flags=(-DKD_SANITIZE=ON -DKD_BUILD_BENCH=OFF)
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:halt_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
fi

scripts/install-deps.sh
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${flags[@]}" >/dev/null
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
