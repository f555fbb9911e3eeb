#!/usr/bin/env bash
# Long fuzzing campaign: run-campaign.sh TARGET|all SECONDS [BUILD_DIR]
#
# Builds the fuzz targets if needed (CC=clang CXX=clang++, MCU_FUZZ=ON), then
# runs each chosen target for SECONDS over a working corpus seeded from
# fuzz/corpus/<target> (the committed seeds stay unchanged), as many at a time
# as there are cores. Crash inputs land in BUILD_DIR/campaign/<target>/.
# At the end: executions, executions per second, seconds and crashes per
# target; the exit status is 1 when any target crashed.
set -euo pipefail
cd "$(dirname "$0")/.."
all=(fuzz_parser_spi fuzz_parser_tty fuzz_hex fuzz_cmdline fuzz_upgrade)
if [ $# -lt 2 ]; then
    echo "usage: $0 TARGET|all SECONDS [BUILD_DIR]   (targets: ${all[*]})" >&2
    exit 2
fi
what=$1
seconds=$2
build=${3:-build-fuzz}
if [ "$what" = all ]; then targets=("${all[@]}"); else targets=("$what"); fi

if [ ! -f "$build/CMakeCache.txt" ]; then
    CC=clang CXX=clang++ cmake -S . -B "$build" -DMCU_FUZZ=ON -DMCU_BUILD_TESTS=OFF >/dev/null
fi
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}" >/dev/null

# Longest useful input per target: the SPI block with its three setting bytes.
max_len() {
    case $1 in
        fuzz_parser_spi) echo 531 ;;
        *) echo 4096 ;;
    esac
}

run_one() {
    local t=$1 dir=$build/campaign/$1
    mkdir -p "$dir/corpus"
    rm -f "$dir"/crash-* "$dir"/leak-* "$dir"/timeout-* "$dir"/oom-*
    cp -n fuzz/corpus/"$t"/* "$dir/corpus/" 2>/dev/null || true
    "$build/fuzz/$t" -max_total_time="$seconds" -max_len="$(max_len "$t")" -timeout=25 \
        -print_final_stats=1 -artifact_prefix="$dir/" "$dir/corpus" >"$dir/log" 2>&1 || true
}

jobs=$(nproc 2>/dev/null || echo 2)
running=0
for t in "${targets[@]}"; do
    run_one "$t" &
    running=$((running + 1))
    if [ "$running" -ge "$jobs" ]; then
        wait -n || true
        running=$((running - 1))
    fi
done
wait || true

status=0
printf '%-16s %14s %8s %8s %8s\n' target executions exec/s seconds crashes
for t in "${targets[@]}"; do
    dir=$build/campaign/$t
    execs=$(awk '/stat::number_of_executed_units/ {print $2}' "$dir/log" | tail -1)
    rate=$(awk '/stat::average_exec_per_sec/ {print $2}' "$dir/log" | tail -1)
    crashes=$(find "$dir" -maxdepth 1 \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' \
        -o -name 'oom-*' \) | wc -l)
    if [ -z "$execs" ]; then
        # A crash ends the run before the final statistics: take the last status line.
        execs=$(grep -o '^#[0-9]*' "$dir/log" | tail -1 | tr -d '#')
        rate=$(grep -o 'exec/s: [0-9]*' "$dir/log" | tail -1 | awk '{print $2}')
    fi
    secs=$(( ${rate:-0} > 0 ? ${execs:-0} / ${rate:-1} : 0 ))
    printf '%-16s %14s %8s %8s %8s\n' "$t" "${execs:-0}" "${rate:-0}" "$secs" "$crashes"
    [ "$crashes" -eq 0 ] || status=1
done
exit $status
