#!/usr/bin/env bash
# Long fuzzing campaign, run-campaign.sh TARGET|all SECONDS: each target SECONDS long from its seeds,
# one a core, in build-fuzz/campaign/TARGET/ (new inputs, log, crashes); fails if any crashed.
set -euo pipefail
cd "$(dirname "$0")/.."
[ $# = 2 ] || { echo "usage: $0 TARGET|all SECONDS" >&2; exit 2; }
targets=$1 && [ "$1" = all ] && targets="fuzz_parser fuzz_cmdline fuzz_upgrade"
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DMCU_FUZZ=ON -DMCU_BUILD_TESTS=OFF >/dev/null
# shellcheck disable=SC2086 # a list of targets
cmake --build build-fuzz -j"$(nproc)" --target $targets >/dev/null
# shellcheck disable=SC2016,SC2086 # expanded by the inner shell; a list of targets
printf '%s\n' $targets | xargs -P "$(nproc)" -I{} bash -c 'mkdir -p build-fuzz/campaign/$0/corpus
    cd build-fuzz/campaign/$0 && ../../fuzz/$0 -max_total_time=$1 -timeout=25 -max_len=70000 \
        -print_final_stats=1 corpus ../../../fuzz/corpus/$0 >log.txt 2>&1; status=$?
    echo "$0: $(grep -o "executed_units: [0-9]*" log.txt | grep -o "[0-9]*") executions, $(ls | grep -c ^crash-) crashes"
    exit $status' {} "$2"
