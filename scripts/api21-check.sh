#!/usr/bin/env bash
# Checks that the tool uses only interfaces an Android API-21 device offers:
# every source file of the tool (src/upgrade/*.cpp) is compiled, syntax only,
# for aarch64-linux-android21 against bionic's headers
# (third_party/bionic/, unpacked into build-api21/), which hide every
# declaration newer than the target's API level. A call to such a function
# then fails as an undeclared identifier (or an implicit declaration, or an
# unguarded use of an annotated one).
#
# The C++ standard headers come from Debian's libc++ 14 (libc++ is what the
# NDK ships too); bionic's sysroot has none. libc++ includes the NDK's
# <android/ndk-version.h>, which is not part of bionic: a two-line stand-in
# in build-api21/ names a current NDK.
#
# The check proves it still has teeth on every run: a probe calling
# getrandom() (<sys/random.h>, API 28) must be rejected at API 21 and
# accepted at API 28, else the check itself fails.
#
# It checks declarations only: nothing is linked, and kernel constants
# (TCGETS2, SPI_IOC_*) carry no API level.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/deps.sh
. scripts/deps.sh
# shellcheck disable=SC2086 # a list of package names
mcu_deps_ensure api21-check $MCU_DEPS_API21
jobs=$(nproc 2>/dev/null || echo 2)
dir=build-api21
archive=third_party/bionic/bionic-api21-aarch64-headers.tar.gz
libcxx=${LIBCXX_INCLUDE:-/usr/lib/llvm-14/include/c++/v1}
if [ -z "${CLANGXX:-}" ]; then
    if command -v clang++-14 >/dev/null; then CLANGXX=clang++-14; else CLANGXX=clang++; fi
fi

fail() {
    echo "api21-check: FAIL: $*" >&2
    exit 1
}

[ -f "$libcxx/cstdint" ] || fail "no libc++ headers in $libcxx"
rm -rf "$dir"
mkdir -p "$dir/include/android"
tar -xzf "$archive" -C "$dir"
cat >"$dir/include/android/ndk-version.h" <<'EOF'
/* Stand-in for the NDK's version header, which libc++ includes on Android. */
#define __NDK_MAJOR__ 27
#define __NDK_MINOR__ 0
EOF

# compile API FILE: syntax-only compile for aarch64-linux-android<API>.
compile() {
    "$CLANGXX" --target="aarch64-linux-android$1" -std=c++17 --sysroot="$dir/sysroot" \
        -fsyntax-only -nostdinc++ -isystem "$libcxx" -isystem "$dir/include" \
        -Werror=implicit-function-declaration -Werror=unguarded-availability \
        -Isrc/upgrade "$2"
}

# The probe: a later-API function, with C++ standard headers around it.
cat >"$dir/probe.cpp" <<'EOF'
#include <cstdint>
#include <string>
#include <sys/random.h>

int main() {
    uint8_t buf[16];
    std::string s(reinterpret_cast<const char*>(buf),
                  static_cast<size_t>(getrandom(buf, sizeof buf, 0)));
    return static_cast<int>(s.size());
}
EOF
if compile 21 "$dir/probe.cpp" >"$dir/probe21.log" 2>&1; then
    fail "the probe calling getrandom() (API 28) compiles for API 21: the check has no teeth"
fi
grep -q "getrandom" "$dir/probe21.log" ||
    fail "the probe failed at API 21 for another reason:"$'\n'"$(cat "$dir/probe21.log")"
compile 28 "$dir/probe.cpp" >"$dir/probe28.log" 2>&1 ||
    fail "the probe does not compile for API 28:"$'\n'"$(cat "$dir/probe28.log")"
echo "api21-check: probe: getrandom() rejected at API 21 ($(grep -m1 -o 'error: .*' "$dir/probe21.log")), accepted at API 28"

mapfile -t files < <(ls src/upgrade/*.cpp)
[ "${#files[@]}" -gt 0 ] || fail "no source files in src/upgrade"
export -f compile
export CLANGXX libcxx dir
# shellcheck disable=SC2016 # expanded by the inner shell
if ! printf '%s\n' "${files[@]}" | xargs -P "$jobs" -I{} bash -c 'compile 21 "$1"' _ {}; then
    fail "a source file uses an interface that Android API 21 lacks (errors above)"
fi
echo "api21-check: ${#files[@]} files of src/upgrade checked against bionic at API 21: clean"
