#!/usr/bin/env bash
# Builds the static AArch64 release binary of mcu_tool2 with Debian's cross
# compiler: build-arm64-release/src/upgrade/mcu_tool2, no shared libraries
# needed, ready to copy to a device.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build-arm64-release \
    -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake \
    -DCMAKE_BUILD_TYPE=Release -DMCU_STATIC=ON -DMCU_BUILD_TESTS=OFF -DMCU_WERROR=ON >/dev/null
cmake --build build-arm64-release -j"$(nproc 2>/dev/null || echo 2)" --target mcu_tool2
aarch64-linux-gnu-strip build-arm64-release/src/upgrade/mcu_tool2
file build-arm64-release/src/upgrade/mcu_tool2
