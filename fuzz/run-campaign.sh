#!/usr/bin/env bash
# Long fuzzing campaign: run-campaign.sh TARGET|all SECONDS [BUILD_DIR]
# Builds the targets if needed, runs each for SECONDS (as many at once as
# there are cores) over a working corpus seeded from fuzz/corpus/<target>,
# and prints each target's executions and crashes; crash inputs land in
# BUILD_DIR/campaign/<target>/. Exit status 1 when any target crashed.
set -euo pipefail
cd "$(dirname "$0")/.."
all=(fuzz_parser fuzz_hex fuzz_cmdline fuzz_upgrade)
[ $# -ge 2 ] || { echo "usage: $0 TARGET|all SECONDS [BUILD_DIR]   (${all[*]})" >&2; exit 2; }
seconds=$2 build=${3:-build-fuzz}
if [ "$1" = all ]; then targets=("${all[@]}"); else targets=("$1"); fi
[ -f "$build/CMakeCache.txt" ] ||
    CC=clang CXX=clang++ cmake -S . -B "$build" -DMCU_FUZZ=ON -DMCU_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}" >/dev/null
for t in "${targets[@]}"; do
    dir=$build/campaign/$t
    mkdir -p "$dir/corpus" && cp -n fuzz/corpus/"$t"/* "$dir/corpus/" 2>/dev/null || true
    (cd "$dir" && "$OLDPWD/$build/fuzz/$t" -max_total_time="$seconds" -timeout=25 -max_len=70000 \
        -print_final_stats=1 corpus >log.txt 2>&1) &
    while [ "$(jobs -rp | wc -l)" -ge "$(nproc)" ]; do wait -n; done
done
wait || true
status=0
for t in "${targets[@]}"; do
    log=$build/campaign/$t/log.txt
    crashes=$(ls "$build/campaign/$t" | grep -c '^crash-' || true)
    echo "$t: $(grep -m1 -o 'stat::number_of_executed_units: [0-9]*' "$log" | grep -o '[0-9]*$') executions, $crashes crashes"
    [ "$crashes" = 0 ] || status=1
done
exit $status
