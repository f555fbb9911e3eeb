#!/usr/bin/env bash
# Builds the tool, the virtual MCU and the benchmark driver, then runs the
# benchmark: upgrade time against the line-rate bound at 115200 and 921600
# baud, processor share of a silent monitor and of the upgrades, and the
# system calls of one version query (needs strace). Takes about a minute.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build}
cmake -S . -B "$build" >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target mcu_tool2 vmcu mcu_bench >/dev/null
exec "$build/bench/mcu_bench" --tool "$build/src/upgrade/mcu_tool2" --vmcu "$build/sim/vmcu" \
    --strace "$(command -v strace || true)" "$@"
