#!/usr/bin/env bash
# Runs every action of mcu_tool2 against the virtual MCU and writes the
# transcripts into docs/transcripts.md, between the lines
#   <!-- transcripts:begin -->  and  <!-- transcripts:end -->
#   scripts/transcripts.sh           rewrite the transcripts
#   scripts/transcripts.sh --check   fail when they differ from what the
#                                    program prints today
# What varies from run to run is normalised: the vmcu's pseudo-terminal is
# shown as /dev/ttyVMCU, the build stamp as "Build <date> <time>", source
# line numbers in diagnostics as "#", elapsed times as "#.###" and trace time
# stamps as <T>. The clock action runs with the wall clock frozen at
# 1700000000.123456 s (the test suite's preload library).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
mode="write"
case ${1:-} in
    --check) mode=check ;;
    "") ;;
    *)
        echo "usage: $0 [--check]" >&2
        exit 2
        ;;
esac

build=${BUILD_DIR:-build-transcripts}
cmake -S . -B "$build" >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" \
    --target mcu_tool2 vmcu vmcu_spidev fixed_clock >/dev/null
tool=$root/$build/src/upgrade/mcu_tool2
vmcu=$root/$build/sim/vmcu
shim=$root/$build/sim/libvmcu_spidev.so
clock=$root/$build/tests/libfixed_clock.so
shown_shim=/usr/local/lib/mcu_tool2/libvmcu_spidev.so

tmp=$(mktemp -d)
# shellcheck source=scripts/vmcu.sh
. scripts/vmcu.sh
trap 'vmcu_stop; rm -rf "$tmp"' EXIT

# The commands run in $tmp with mcu_tool2 found on the PATH, as an operator
# types them.
mkdir "$tmp/bin" "$tmp/work"
ln -s "$tool" "$tmp/bin/mcu_tool2"
export PATH=$tmp/bin:$PATH
cd "$tmp/work"
# A 2000-byte firmware image and a small file for the CRC-32.
awk 'BEGIN { for (i = 0; i < 2000; i++) printf "%c", 65 + i % 26 }' >app.bin
printf '1234' >digits.txt

# The run's own paths, then what varies from run to run (scripts/normalise.sed).
normalise() {
    local sed_pty=(-e 's#@@@##')
    [ -n "$pty" ] && sed_pty=(-e "s#$pty#/dev/ttyVMCU#g")
    sed -E "${sed_pty[@]}" -e "s#$tmp/work/##g" -e "s#$tmp#/tmp#g" -f "$root/scripts/normalise.sed"
}

out=$tmp/transcripts.md
: >"$out"
# Environment given to a command but not shown with it.
hidden_env=()

# transcript TITLE VMCU_OPTIONS COMMAND
#   VMCU_OPTIONS: "-" for no virtual MCU, else its options (word-split).
#   COMMAND: as shown in the document; /dev/ttyVMCU stands for the vmcu's pty
#   /tmp/vmcu.sock for its SPI socket and $shown_shim for the spidev
#   emulation library.
transcript() {
    local title=$1 vopts=$2 cmd=$3
    pty=
    if [ "$vopts" != - ]; then
        # shellcheck disable=SC2086
        vmcu_start "$tmp/vmcu.out" "$vmcu" $vopts
    fi
    local run=${cmd//\/dev\/ttyVMCU/$pty}
    run=${run//$shown_shim/$shim}
    run=${run//\/tmp\/vmcu.sock/$tmp/vmcu.sock}
    local text
    text=$(
        for e in "${hidden_env[@]}"; do export "${e?}"; done
        eval "$run" 2>&1 </dev/null
    ) || true
    vmcu_stop
    {
        printf '### %s\n\n```text\n$ %s\n' "$title" "$cmd"
        printf '%s\n' "$text" | normalise
        printf '```\n\n'
    } >>"$out"
}

# --- the transcripts, in the order of the document ------------------------

transcript "Version line (no arguments)" - "mcu_tool2"
transcript "Help" - "mcu_tool2 --help"
transcript "Software, bootloader, hardware and protocol versions" "--pty" \
    "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --version"
transcript "Versions over SPI (here through the virtual MCU's spidev emulation)" \
    "--spi $tmp/vmcu.sock" \
    "LD_PRELOAD=$shown_shim VMCU_SPI_SOCKET=/tmp/vmcu.sock mcu_tool2 -id 0xA -dev /dev/spidev0.0 --version"
transcript "Serial number" "--pty" "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --get-sn"
transcript "Reset (type 1, reboot)" "--pty" "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --reset 1"
transcript "Firmware upgrade" "--pty" "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --upgrade app.bin"
transcript "Firmware upgrade of a target already in its bootloader (steps 1 and 2 skipped)" \
    "--pty" "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --upgrade-fw app.bin"
transcript "Upgrade parameters" "--pty" \
    "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --get-timeretry; echo \"exit status \$?\""
transcript "Upgrade parameters from a target that does not answer (exit status 255)" \
    "--pty --rule DE:silent*0" \
    "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --get-timeretry; echo \"exit status \$?\""
transcript "Raw message (message id 0xD0, payload 01)" "--pty" \
    "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --sendraw D001"
# Unsolicited frames start 0.8 s after the vmcu: late enough for a tool
# started on a loaded machine to have opened the pty (what comes before is
# flushed), early enough to fall within its 2-second monitor.
transcript "Raw message, then monitor for 2 seconds" \
    "--pty --emit-start 800 --emit user=hello@500*2" \
    "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --sendraw D001 --monitor ff --timeout 2"
transcript "Raw frame (header checksum and CRC filled in by the tool)" "--pty" \
    "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --writeraw FD0100010A02D00001"
transcript "Monitor every message for 2 seconds" \
    "--pty --emit-start 800 --emit heartbeat@700*2 --emit syslog@900*1" \
    "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --monitor ff --timeout 2"
transcript "Link counters of the target" "--pty" "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --get-stts"
transcript "Clear the target's link counters" "--pty" \
    "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --clear-stts"
transcript "Message loopback on" "--pty" "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --loopback 1"
transcript "Flood test: 3 messages of 8 bytes, no pause" "--pty" \
    "mcu_tool2 -id 0xA -dev /dev/ttyVMCU --flood-test 3 --length 8 --interval 0"
transcript "Debug diagnostics (-d) and traces" "--pty" \
    "mcu_tool2 -d -id 0xA -dev /dev/ttyVMCU --version"
transcript "No target given" "--pty" "mcu_tool2 -dev /dev/ttyVMCU --version"
# This one shows the open of /dev/ttyS2 failing, as on a machine without it.
if [ -e /dev/ttyS2 ]; then
    echo "/dev/ttyS2 exists here; run this script where it does not" >&2
    exit 1
fi
transcript "-dev before -id does not count: the target's default device is opened" "--pty" \
    "mcu_tool2 -dev /dev/ttyVMCU -id 0xA --version"
transcript "CRC-16 of a message" - "mcu_tool2 --calc-crc16 313233343536373839"
transcript "CRC-32 of a file" - "mcu_tool2 --calc-crc32 digits.txt"
transcript "Hex dump of a text" - "mcu_tool2 --hex-dump 'hello, mcu_tool2'"
hidden_env=("LD_PRELOAD=$clock" MCU_FIXED_TIME=1700000000.123456)
transcript "Clock (styles 0, 1, 2)" - \
    "mcu_tool2 --date 0; mcu_tool2 --date 1; mcu_tool2 --date 2"
hidden_env=()

# --- the document --------------------------------------------------------

doc=$root/docs/transcripts.md
begin='<!-- transcripts:begin -->'
end='<!-- transcripts:end -->'
if ! grep -qx "$begin" "$doc" || ! grep -qx "$end" "$doc"; then
    echo "docs/transcripts.md lacks the lines $begin and $end" >&2
    exit 1
fi
new=$tmp/doc.md
awk -v begin="$begin" -v end="$end" -v body="$out" '
    $0 == begin { print; print ""; while ((getline line < body) > 0) print line; skip = 1; next }
    $0 == end { skip = 0 }
    !skip { print }
' "$doc" >"$new"

if [ "$mode" = check ]; then
    if ! diff -u "$doc" "$new"; then
        echo "docs/transcripts.md differs from what mcu_tool2 prints today;" \
            "run scripts/transcripts.sh" >&2
        exit 1
    fi
    echo "docs/transcripts.md is current"
else
    cp "$new" "$doc"
    echo "docs/transcripts.md written"
fi
