#!/usr/bin/env bash
# Runs end-to-end tests with the tool under valgrind memcheck: every tool run
# must end without a memory error and without a definite or indirect leak
# (the test harness puts MCU_TOOL_WRAPPER in front of the tool and fails a
# test on a valgrind report). Builds the plain configuration in build/.
#
#   bash scripts/valgrind-e2e.sh              # upgrade, monitor, raw and debug actions
#   bash scripts/valgrind-e2e.sh 'E2e/.*_tty_' # any CTest name pattern
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)
# By title: the upgrades, the monitors, the raw sends and writes, the debug commands.
cases='the_image_arrives|a_lost_chunk|a_chunk_time_out|the_largest_chunks|many_small_chunks'
cases+='|the_monitor_prints|sigterm_ends|ctrl_c_ends|an_endless_monitor'
cases+='|raw_frame__header|raw_message_with|a_raw_frame_whose|statistics_query|clear_statistics'
cases+='|flood_test_of'
pattern=${1:-^E2e/Cases\.Transcript/($cases)}

if ! command -v valgrind >/dev/null; then
    echo "valgrind not found; install it with: apt-get install -y valgrind" >&2
    exit 2
fi
# Valgrind cannot run a sanitized tool, so this build has no sanitizers.
cmake -S . -B build -DMCU_WERROR=ON -DMCU_SANITIZE=OFF >/dev/null
cmake --build build -j"$jobs"

export MCU_TOOL_WRAPPER="valgrind --error-exitcode=99 --leak-check=full \
--errors-for-leak-kinds=definite,indirect --show-leak-kinds=definite,indirect \
--track-fds=no -q"
# The tool mostly waits on the virtual MCU, so twice as many tests as cores
# run at once.
ctest --test-dir build -R "$pattern" -j$((2 * jobs)) --output-on-failure --no-tests=error
