#!/usr/bin/env bash
# Static analysis of the tool (src/upgrade) and the virtual MCU (sim/vmcu):
# clang-tidy with .clang-tidy (sim/.clang-tidy for the simulator) and cppcheck
# with cppcheck-suppressions.txt. Any finding of either fails the script.
#
# It configures its own build directory (build-static, nothing is compiled)
# only for the compile_commands.json that both tools read.
#
# Needs: cmake, clang-tidy (the configuration is written for clang-tidy 14;
# other versions bring other checks), cppcheck (2.10 or later).
# CLANG_TIDY and CPPCHECK select other binaries.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)
dir=build-static

if [ -z "${CLANG_TIDY:-}" ]; then
    if command -v clang-tidy-14 >/dev/null; then CLANG_TIDY=clang-tidy-14; else CLANG_TIDY=clang-tidy; fi
fi
CPPCHECK=${CPPCHECK:-cppcheck}
"$CLANG_TIDY" --version | sed -n 's/^ *\(.*version.*\)/clang-tidy: \1/p' | head -1
"$CPPCHECK" --version

cmake -S . -B "$dir" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DMCU_BUILD_TESTS=ON >/dev/null
db=$dir/compile_commands.json

# The translation units analysed: the tool's and the simulator's sources
# (their headers come in through HeaderFilterRegex). The tests are not
# analysed: GoogleTest's macros are outside this code's rules.
mapfile -t files < <(ls src/upgrade/*.cpp sim/vmcu/*.cpp)

status=0

echo "== clang-tidy (${#files[@]} files)"
# WarningsAsErrors '*' makes every finding a non-zero exit; xargs then ends
# with 123.
if ! printf '%s\n' "${files[@]}" |
    xargs -P "$jobs" -n 1 "$CLANG_TIDY" -p "$dir" --quiet 2> >(grep -v '^[0-9]* warnings\? generated\.$' >&2); then
    echo "clang-tidy: findings above"
    status=1
else
    echo "clang-tidy: clean"
fi

echo "== cppcheck"
if ! "$CPPCHECK" --project="$db" \
    --file-filter='src/upgrade/*' --file-filter='sim/vmcu/*' \
    --enable=warning,style,performance,portability --inconclusive --std=c++17 \
    --inline-suppr --suppressions-list=cppcheck-suppressions.txt \
    --error-exitcode=1 -j "$jobs" -q \
    --template='{file}:{line}:{column}: {severity}: {message} [{id}]'; then
    echo "cppcheck: findings above"
    status=1
else
    echo "cppcheck: clean"
fi

exit $status
