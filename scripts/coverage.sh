#!/usr/bin/env bash
# Line and branch coverage of src/ (clang's source-based coverage) from the
# profiles that the tests of a coverage build wrote:
#   scripts/coverage.sh BUILD
# BUILD is configured with CC=clang CXX=clang++ -DMCU_COVERAGE=ON and its
# tests run with LLVM_PROFILE_FILE=BUILD/profiles/%4m.profraw. Prints one
# line; the report per file goes to BUILD/coverage.txt and the lines no test
# ran, file by file, to BUILD/coverage-unrun.txt.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: $0 BUILD}
data=$build/coverage.profdata
llvm-profdata merge -sparse "$build"/profiles/*.profraw -o "$data"
# The program, and the test programs that call the library in-process.
binaries=("$build/src/upgrade/mcu_tool2" -object "$build/tests/e2e_tests"
    -object "$build/tests/library_tests")
llvm-cov report "${binaries[@]}" -instr-profile="$data" src/upgrade >"$build/coverage.txt"
llvm-cov show "${binaries[@]}" -instr-profile="$data" src/upgrade |
    awk '/^\/.*:$/ { file = $0 } /^ *[0-9]+\| *0\|/ { print file " " $0 }' |
    sed "s#^$PWD/##" >"$build/coverage-unrun.txt"
awk '$1 == "TOTAL" {
    printf "coverage of src/: lines %s (%d of %d), branches %s (%d of %d)\n",
        $10, $8 - $9, $8, $13, $11 - $12, $11 }' "$build/coverage.txt"
