#!/usr/bin/env bash
# The end-to-end cases against the Android build of the tool, as a device runs
# it: the tool, the spidev emulation preloaded into it, the wall-clock stand-in
# and the C library probe are built for bionic (aarch64-linux-android21,
# build-android/) and run under qemu-aarch64 with Android's own linker64 and
# libc; the virtual MCU and the case runner are the host build's (default
# build/, made by the plain build of scripts/test-all.sh).
#   scripts/android-e2e.sh [HOST_BUILD_DIR]
# Prints the cases run, passed and skipped on each link, and each reason for a
# skip: what qemu-user itself cannot show.
set -euo pipefail
cd "$(dirname "$0")/.."
host=${1:-build}
dir=build-android
fail() {
    echo "android-e2e: FAIL: $*" >&2
    exit 1
}
[ -x "$host/tests/e2e_tests" ] || fail "no host build in $host (build it first)"

cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-android21.cmake \
    -DMCU_WERROR=ON >/dev/null
cmake --build "$dir" -j"$(nproc 2>/dev/null || echo 2)" \
    --target mcu_tool2 vmcu_spidev fixed_clock libc_words
# The build rejects what an API-21 device lacks: a call to getrandom() (API 28)
# must not compile with its flags.
probe='#include <sys/random.h>
int main(void) { char b[4]; return (int)getrandom(b, sizeof b, 0); }'
if clang --target=aarch64-linux-android21 --sysroot="$dir/android/sysroot" \
    -Werror=implicit-function-declaration -fsyntax-only -x c - <<<"$probe" 2>/dev/null; then
    fail "a call to getrandom() (API 28) compiles for API 21: the build does not check the API level"
fi
echo "android-e2e: getrandom() (API 28) rejected at API 21"

root=$PWD/$dir
export MCU_TOOL=$root/src/upgrade/mcu_tool2
export MCU_TOOL_EMULATOR="qemu-aarch64 -L $root/android"
export MCU_VMCU_SPIDEV=$root/sim/libvmcu_spidev.so
export MCU_FIXED_CLOCK=$root/tests/libfixed_clock.so
export MCU_LIBC_WORDS=$root/tests/libc_words
log=$dir/e2e.log
status=0
ctest --test-dir "$host" -j4 -R '^E2e/' --output-on-failure | tee "$log" || status=$?

# Counts per link from ctest's lines ("... E2e/Cases.Transcript/NAME_tty_ ...
# Passed" or "***Skipped"), then the skip reasons the cases gave.
for link in tty spi none; do
    awk -v link="$link" '/Test +#[0-9]+: E2e\// {
        l = $0 ~ "_" link "_ " ? link : ($0 ~ /_(tty|spi)_ / ? "" : "none")
        if (l != link) next
        run++; if (/Passed/) passed++; if (/Skipped/) skipped++ }
        END { printf "android-e2e: %-4s cases %d, passed %d, skipped %d\n", link, run, passed, skipped }' "$log"
done
grep -h -A1 ': Skipped$' "$host/Testing/Temporary/LastTest.log" | grep -v -e ': Skipped$' -e '^--$' |
    sort | uniq -c | sed 's/^ */android-e2e: skipped, /'
exit "$status"
