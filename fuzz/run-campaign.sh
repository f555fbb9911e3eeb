#!/usr/bin/env bash
# Long fuzzing campaign: run-campaign.sh TARGET|all SECONDS [BUILD_DIR]. Runs each target for
# SECONDS (one a core) from fuzz/corpus/<target>, prints its executions and crashes (inputs in
# BUILD_DIR/campaign/<target>/) and exits 1 if any crashed.
set -euo pipefail
cd "$(dirname "$0")/.."
[ $# -ge 2 ] || { echo "usage: $0 TARGET|all SECONDS [BUILD_DIR]" >&2; exit 2; }
build=$(realpath -m "${3:-build-fuzz}") targets=$1
[ "$1" = all ] && targets="fuzz_parser fuzz_cmdline fuzz_upgrade"
[ -f "$build/CMakeCache.txt" ] ||
    CC=clang CXX=clang++ cmake -S . -B "$build" -DMCU_FUZZ=ON -DMCU_BUILD_TESTS=OFF >/dev/null
# shellcheck disable=SC2086 # a list of targets
cmake --build "$build" -j"$(nproc)" --target $targets >/dev/null
for t in $targets; do
    mkdir -p "$build/campaign/$t/corpus" && cp -n fuzz/corpus/"$t"/* "$build/campaign/$t/corpus/" || true
    (cd "$build/campaign/$t" && "$build/fuzz/$t" -max_total_time="$2" -timeout=25 \
        -max_len=70000 -print_final_stats=1 corpus >log.txt 2>&1) &
    while [ "$(jobs -rp | wc -l)" -ge "$(nproc)" ]; do wait -n; done
done
wait || true
status=0
for t in $targets; do
    crashes=$(find "$build/campaign/$t" -maxdepth 1 -name 'crash-*' | wc -l)
    echo "$t: $(grep -o 'number_of_executed_units: [0-9]*' "$build/campaign/$t/log.txt" | grep -o '[0-9]*') executions, $crashes crashes"
    [ "$crashes" = 0 ] || status=1
done
exit $status
