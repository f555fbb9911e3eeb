#!/usr/bin/env bash
# Builds the tool and its tests twice (plain, and with AddressSanitizer and
# UndefinedBehaviorSanitizer), warnings as errors, and runs the whole suite
# in each build with CTest.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

run_suite() {
    local dir=$1; shift
    cmake -S . -B "$dir" -DMCU_WERROR=ON "$@" >/dev/null
    cmake --build "$dir" -j"$jobs"
    ctest --test-dir "$dir" -j"$jobs" --output-on-failure
}

echo "== plain build"
run_suite build
echo "== sanitizer build (address, undefined)"
ASAN_OPTIONS=detect_leaks=1 run_suite build-asan -DMCU_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
