#!/usr/bin/env bash
# Builds the tool and its tests (plain; with AddressSanitizer and
# UndefinedBehaviorSanitizer; cross-compiled for AArch64 and run under
# qemu-aarch64), warnings as errors, and runs the whole suite in each build
# with CTest. The AArch64 build needs g++-aarch64-linux-gnu and qemu-user.
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

echo "== AArch64 cross build, run under qemu-aarch64"
run_suite build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
echo "== AArch64 static release binary"
bash scripts/release-arm64.sh
qemu-aarch64 build-arm64-release/src/upgrade/mcu_tool2 --calc-crc16 313233343536373839
