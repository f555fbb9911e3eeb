#!/usr/bin/env bash
# Builds the two AArch64 device binaries of mcu_tool2, stripped, and prints
# what each is:
#   build-android-release/src/upgrade/mcu_tool2  for Android 5.0 (API 21) and
#       later: a PIE linked against the device's own bionic (libc.so, libm.so,
#       libdl.so) through /system/bin/linker64, with Android's ident note;
#   build-arm64-release/src/upgrade/mcu_tool2    for any AArch64 Linux: static
#       (glibc), needs no library at all.
# On Android use the first: its C library is the device's, so popen() runs
# /system/bin/sh and error texts are the device's own; the static binary looks
# for /bin/sh, which Android lacks.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

# release DIR CMAKE-ARGS...: a stripped release build of the program.
release() {
    local dir=$1
    shift
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DMCU_BUILD_TESTS=OFF -DMCU_WERROR=ON "$@" >/dev/null
    cmake --build "$dir" -j"$jobs" --target mcu_tool2 >/dev/null
    aarch64-linux-gnu-strip --remove-section=.comment "$dir/src/upgrade/mcu_tool2"
    file "$dir/src/upgrade/mcu_tool2"
    echo "    $(stat -c %s "$dir/src/upgrade/mcu_tool2") bytes"
}

release build-android-release -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-android21.cmake
release build-arm64-release -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake -DMCU_STATIC=ON
