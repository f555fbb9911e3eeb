#!/usr/bin/env bash
# Builds and runs every test of the project, warnings as errors:
#   1. plain build: the end-to-end cases, the library tests, the 100-run upgrade soak;
#   2. AddressSanitizer + UndefinedBehaviorSanitizer build with clang's
#      source-based coverage: the same tests (without the soak, which the
#      plain build already ran), then one line with the line and branch
#      coverage of src/ (scripts/coverage.sh);
#   3. the Android build (bionic, API 21): the end-to-end cases against it
#      under qemu-aarch64 with Android's own linker and libc
#      (scripts/android-e2e.sh); then the two AArch64 device binaries
#      (scripts/release-arm64.sh), each run once;
#   4. the fuzz target over the bytes from the MCU, briefly, under libFuzzer with ASan and UBSan;
#   5. the end-to-end tests of the upgrade, monitor and raw actions with the
#      tool under valgrind memcheck;
#   6. static analysis (clang-tidy, cppcheck);
#   7. the installed tree (man page, completion, CMake package, pkg-config,
#      the example against the virtual MCU), the transcripts of
#      docs/transcripts.md, and
#      the Debian packages for amd64 and arm64.
# The Debian packages it needs are listed in scripts/deps.sh: run as root, it
# installs the missing ones first; otherwise it stops and prints the apt-get
# line to run.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)
start=$SECONDS

step() { echo; echo "== [$((SECONDS - start)) s] $*"; }

# shellcheck source=scripts/deps.sh
. scripts/deps.sh
# shellcheck disable=SC2086 # a list of package names
mcu_deps_ensure test-all $MCU_DEPS_TEST

# run_suite DIR CTEST-FILTER CMAKE-ARGS...; $targets, when set, limits the
# build to what the tests need.
run_suite() {
    local dir=$1 filter=$2; shift 2
    cmake -S . -B "$dir" -DMCU_WERROR=ON "$@" >/dev/null
    # shellcheck disable=SC2086
    cmake --build "$dir" -j"$jobs" ${targets:+--target $targets}
    # The cases mostly wait on the virtual MCU, so twice as many as cores run at once.
    # shellcheck disable=SC2086
    ctest --test-dir "$dir" -j$((2 * jobs)) --output-on-failure $filter
}

step "plain build"
run_suite build ""
tests="mcu_tool2 vmcu vmcu_spidev fixed_clock libc_words e2e_tests library_tests"
step "sanitizer and coverage build (clang: address, undefined; source-based coverage)"
rm -rf build-asan/profiles
CC=clang CXX=clang++ targets=$tests ASAN_OPTIONS=detect_leaks=1 \
    LLVM_PROFILE_FILE=$PWD/build-asan/profiles/%4m.profraw \
    run_suite build-asan "-LE soak" -DMCU_SANITIZE=ON -DMCU_COVERAGE=ON -DCMAKE_BUILD_TYPE=Debug
bash scripts/coverage.sh build-asan
step "Android build (bionic, API 21): the end-to-end cases under qemu-aarch64"
bash scripts/android-e2e.sh build
step "AArch64 device binaries: Android (bionic) and static (any AArch64 Linux)"
bash scripts/release-arm64.sh
qemu-aarch64 -L build-android/android build-android-release/src/upgrade/mcu_tool2 --calc-crc16 313233343536373839
qemu-aarch64 build-arm64-release/src/upgrade/mcu_tool2 --calc-crc16 313233343536373839
step "fuzz target (libFuzzer, ASan, UBSan)"
CC=clang CXX=clang++ run_suite build-fuzz "" -DMCU_FUZZ=ON -DMCU_BUILD_TESTS=OFF \
    -DMCU_FUZZ_SMOKE_SECONDS=5
step "valgrind memcheck of the end-to-end upgrade, monitor and raw tests"
bash scripts/valgrind-e2e.sh
step "static analysis"
bash scripts/static-analysis.sh
step "install, example, transcripts, packages"
bash scripts/check-install.sh
BUILD_DIR=build bash scripts/transcripts.sh --check
bash scripts/package.sh
step "all done"
