#!/usr/bin/env bash
# Checks what `cmake --install` delivers, from the installed tree only:
#  - the manual page renders without a warning;
#  - the bash completion registers its function for mcu_tool2;
#  - pkg-config describes the library, and a program compiled with its flags
#    links and runs;
#  - the example examples/softver, configured with nothing but
#    -DCMAKE_PREFIX_PATH=<staging dir>, builds with find_package(mcu_tool2)
#    and reads the software version from the installed virtual MCU (on a
#    pseudo-terminal, and on the component's default device in a private
#    mount namespace when run as root);
#  - the installed tool talks SPI to the installed vmcu through the installed
#    spidev emulation library.
# Needs man-db, groff-base and pkg-config (scripts/deps.sh: installed with
# apt-get when missing and root).
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)
build=${BUILD_DIR:-build-install}

tmp=$(mktemp -d)
stage=$tmp/stage
# shellcheck source=scripts/vmcu.sh
. scripts/vmcu.sh
trap 'vmcu_stop; rm -rf "$tmp"' EXIT

fail() {
    echo "check-install: FAIL: $*" >&2
    exit 1
}
ok() { echo "check-install: ok: $*"; }

# shellcheck source=scripts/deps.sh
. scripts/deps.sh
# shellcheck disable=SC2086 # a list of package names
mcu_deps_ensure check-install $MCU_DEPS_INSTALL_CHECK

echo "== build and install into $stage"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DMCU_BUILD_TESTS=ON >/dev/null
cmake --build "$build" -j"$jobs" --target mcu_tool2 mcu_tool2_lib vmcu vmcu_spidev mcu_tool2_man \
    >/dev/null
cmake --install "$build" --prefix "$stage" >/dev/null
for f in bin/mcu_tool2 bin/vmcu lib/mcu_tool2/libvmcu_spidev.so lib/libmcu_tool2.a \
    include/mcu_tool2/mcu_tool2.h include/mcu_tool2/utils.h \
    lib/cmake/mcu_tool2/mcu_tool2Config.cmake lib/cmake/mcu_tool2/mcu_tool2ConfigVersion.cmake \
    lib/cmake/mcu_tool2/mcu_tool2Targets.cmake lib/pkgconfig/mcu_tool2.pc \
    share/man/man1/mcu_tool2.1.gz share/bash-completion/completions/mcu_tool2; do
    [ -e "$stage/$f" ] || fail "not installed: $f"
done
ok "installed files present"

echo "== manual page"
warnings=$(MANWIDTH=80 man --warnings -l "$stage/share/man/man1/mcu_tool2.1.gz" 2>&1 >/dev/null)
[ -z "$warnings" ] || fail "man page warnings:"$'\n'"$warnings"
page=$(MANWIDTH=80 man -l "$stage/share/man/man1/mcu_tool2.1.gz" 2>/dev/null)
for section in NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS" EXAMPLES FILES; do
    grep -q "^$section" <<<"$page" || fail "man page lacks section $section"
done
# Every option of the tool is documented.
for opt in -id -dev -speed --reset --upgrade --upgrade-fw --version --sendraw --writeraw \
    --extra-crc --calc-crc16 --calc-crc32 --hex-dump --date --help --dd --ddd --get-sn \
    --get-stts --clear-stts --loopback --monitor --timeout --flood-test --length \
    --interval --pattern --ignore-seq --get-timeretry; do
    grep -q -- "^ *$opt\b" <<<"$page" || grep -q -- ", $opt\b" <<<"$page" ||
        fail "man page does not describe $opt"
done
ok "man page renders without warnings and lists every option"

echo "== bash completion"
completion=$stage/share/bash-completion/completions/mcu_tool2
reg=$(bash -c "source '$completion'; complete -p mcu_tool2")
[ "$reg" = "complete -F _mcu_tool2 mcu_tool2" ] || fail "completion registers: $reg"
words=$(bash -c "source '$completion'; COMP_WORDS=(mcu_tool2 --get-t); COMP_CWORD=1;
    _mcu_tool2; echo \"\${COMPREPLY[*]}\"")
[ "$words" = "--get-timeretry" ] || fail "completion of --get-t gives '$words'"
ok "$reg"

echo "== pkg-config"
export PKG_CONFIG_PATH=$stage/lib/pkgconfig
flags=$(pkg-config --cflags --libs mcu_tool2)
echo "pkg-config --cflags --libs mcu_tool2: $flags"
[ "$(pkg-config --modversion mcu_tool2)" = "$(sed -n 's/^project(mcu_tool2 VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)" ] ||
    fail "pkg-config version"
cat >"$tmp/crc.cpp" <<'CPP'
#include "mcu_tool2.h"
int main() { return mcu_crc16("313233343536373839") == 0 ? 0 : 1; }
CPP
# shellcheck disable=SC2046
g++ -std=c++17 $(pkg-config --cflags mcu_tool2) "$tmp/crc.cpp" -o "$tmp/crc" \
    $(pkg-config --libs mcu_tool2)
out=$("$tmp/crc")
[ "$out" = "crc16 : 0x6f91 (9 Bytes)" ] || fail "pkg-config program printed '$out'"
ok "a program built with the pkg-config flags prints: $out"

echo "== example built against the installed tree"
cmake -S examples/softver -B "$tmp/softver" -DCMAKE_PREFIX_PATH="$stage" >/dev/null
found=$(sed -n 's/^mcu_tool2_DIR:PATH=//p' "$tmp/softver/CMakeCache.txt")
[ "$found" = "$stage/lib/cmake/mcu_tool2" ] || fail "find_package found '$found'"
cmake --build "$tmp/softver" >/dev/null
ok "find_package(mcu_tool2) found $found"

# A version the build tree's defaults do not have: record 0 is 9.3.1.42.
versions=2A0103090807060504030201100F0E0D
vmcu_start "$tmp/vmcu.out" "$stage/bin/vmcu" --pty --versions "$versions"
"$tmp/softver/softver" 0xA "$pty" >"$tmp/softver.out" 2>"$tmp/softver.err" ||
    fail "softver 0xA $pty: $(cat "$tmp/softver.out" "$tmp/softver.err")"
grep -qx 'Software: V9.3.1.42' "$tmp/softver.out" || fail "softver printed: $(cat "$tmp/softver.out")"
ok "softver 0xA $pty: $(grep Software "$tmp/softver.out")"

# mcu_get_softver() uses the component's default device, /dev/ttyS2 for 0xA:
# give the process a private /dev where that name is the vmcu's pty.
if [ "$(id -u)" = 0 ] && unshare -m true 2>/dev/null; then
    mkdir "$tmp/pts"
    # shellcheck disable=SC2016 # expanded by the inner shell
    unshare -m sh -c '
        set -e
        mount --bind /dev/pts "$1"
        mount -t tmpfs -o mode=755,size=64k softver-dev /dev
        mknod -m 666 /dev/null c 1 3
        ln -s "$1/${2#/dev/pts/}" /dev/ttyS2
        exec "$3" 0xA' sh "$tmp/pts" "$pty" "$tmp/softver/softver" \
        >"$tmp/softver.out" 2>"$tmp/softver.err" ||
        fail "softver 0xA: $(cat "$tmp/softver.out" "$tmp/softver.err")"
    line=$(tail -n 1 "$tmp/softver.out")
    [ "$line" = "component 0x0a software version 9.3.1.42" ] ||
        fail "softver 0xA printed: $(cat "$tmp/softver.out")"
    grep -qx 'open /dev/ttyS2 @ 115200' "$tmp/softver.out" || fail "softver did not open /dev/ttyS2"
    ok "softver 0xA (mcu_get_softver on /dev/ttyS2): $line"
else
    echo "check-install: skipped: mcu_get_softver on the default device (needs root and unshare -m)"
fi
# Diagnostics go through the example's print function, to standard error.
"$tmp/softver/softver" 0xA "$tmp/no-such-tty" >"$tmp/softver.out" 2>"$tmp/softver.err" &&
    fail "softver on a missing device succeeded"
grep -q "^softver: mcu_tool2: mcu_open [0-9]*, open $tmp/no-such-tty fail" "$tmp/softver.err" ||
    fail "diagnostics not routed: $(cat "$tmp/softver.err")"
ok "diagnostics routed by set_print_fxn: $(head -n 1 "$tmp/softver.err")"
vmcu_stop

echo "== installed tool over SPI with the installed emulation library"
sock=$tmp/spi.sock
vmcu_start "$tmp/vmcu.out" "$stage/bin/vmcu" --spi "$sock" --versions "$versions"
out=$(LD_PRELOAD=$stage/lib/mcu_tool2/libvmcu_spidev.so VMCU_SPI_SOCKET=$sock \
    "$stage/bin/mcu_tool2" -id 0xA -dev /dev/spidev0.0 -speed 7800000 --version)
grep -qx 'Software: V9.3.1.42' <<<"$out" || fail "SPI version query printed: $out"
vmcu_stop
ok "mcu_tool2 -id 0xA -dev /dev/spidev0.0 --version: Software: V9.3.1.42"

echo "check-install: all checks passed"
