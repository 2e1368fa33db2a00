#!/usr/bin/env bash
# Builds and runs the whole test suite twice: a normal build with warnings as
# errors, then an AddressSanitizer + UndefinedBehaviorSanitizer build.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
jobs=$(nproc 2>/dev/null || echo 2)

run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DTARNWICK_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  (cd "$dir" && ctest --output-on-failure -j "$jobs")
}

echo "== normal build =="
run_suite build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo
echo "== sanitizer build (ASan + UBSan) =="
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build/sanitize -DCMAKE_BUILD_TYPE=Debug -DTARNWICK_SANITIZE=ON
