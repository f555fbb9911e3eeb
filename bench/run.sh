#!/usr/bin/env bash
# The benchmark (not a test: its figures depend on the machine). Builds the
# tool, the virtual MCU and the pty probe, then prints
#   1. the upgrade of a 256 KiB image at 115200 and 921600 baud against a vmcu
#      that paces its line (--baud): the measured time against the bound (wire
#      time of every frame both ways at 10 bits per byte plus the procedure's
#      fixed pauses), and where the excess goes on this machine;
#   2. the processor time of the tool (user + system) as a share of the wall
#      time, for a 10-second silent monitor and for the upgrades;
#   3. the system calls of one version query (with strace) against the least
#      the protocol needs, and what the others are.
# Takes about a minute. usage: bench/run.sh [--workdir DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build}
cmake -S . -B "$build" >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target mcu_tool2 vmcu pty_floor >/dev/null
tool=$PWD/$build/src/upgrade/mcu_tool2
dir=
[ "${1:-}" = --workdir ] && dir=$2 && mkdir -p "$dir"
dir=${dir:-$(mktemp -d /tmp/mcu_bench.XXXXXX)}
: >"$dir/times"
: >"$dir/upgrades"

cpu=$(sed -n '/^model name/{s/^[^:]*: //p;q}' /proc/cpuinfo)
echo "machine: nproc $(nproc), CPU ${cpu:-?}, kernel $(uname -srm)"
# Other load on the machine shows in every figure below.
echo "load average at start: $(cat /proc/loadavg)"
echo "work files: $dir"

# shellcheck source=scripts/vmcu.sh
. scripts/vmcu.sh
trap vmcu_stop EXIT
# start_vmcu TAG OPTIONS...: a vmcu on a fresh pseudo-terminal ($pty) logging
# to vmcu-TAG.log.
start_vmcu() {
    local tag=$1
    shift
    vmcu_start "$dir/vmcu-$tag.out" "$build/sim/vmcu" --pty --exit-after 0 \
        --log "$dir/vmcu-$tag.log" "$@"
}
# timed NAME COMMAND...: runs COMMAND, its output in tool-NAME.out, and
# appends "NAME wall user sys" (seconds, the command's own processor time) to
# the file times.
timed() {
    local name=$1 TIMEFORMAT="$1 %3R %3U %3S"
    shift
    { time "$@" >"$dir/tool-$name.out" 2>&1; } 2>>"$dir/times"
}

# A pseudo-random image, the same in every run.
LC_ALL=C awk 'BEGIN { srand(1); for (i = 0; i < 262144; i++) printf "%c", int(rand() * 256) }' \
    >"$dir/image.bin"
for baud in 115200 921600; do
    start_vmcu "upgrade-$baud" --baud "$baud" --image "$dir/received-$baud.bin"
    timed "upgrade-$baud" "$tool" -id 0xA -dev "$pty" -speed "$baud" --upgrade "$dir/image.bin"
    vmcu_stop
    out=$dir/tool-upgrade-$baud.out ok=NO
    grep -q successfully "$out" && ! grep -q TIMEOUT "$out" &&
        cmp -s "$dir/image.bin" "$dir/received-$baud.bin" && ok=yes
    # The vmcu logs each frame it received as "RX <hex>" and what it sent as
    # "TX <hex>"; a frame is FD, len (2), seq, compid, sysid, msgid, csum,
    # payload, CRC (2). Chunks are CMD_DOWNLOADING (D9) frames.
    awk -v baud="$baud" -v ok="$ok" '
        /^[RT]X / {
            d = substr($0, 1, 2); h = substr($0, 4); gsub(/ /, "", h); n = length(h) / 2
            frames[d]++; bytes[d] += n
            if (d == "RX" && n > 7 && substr(h, 13, 2) == "D9") { chunks++; if (n - 10 > pk) pk = n - 10 }
        }
        END { print baud, ok, frames["RX"] + 0, bytes["RX"] + 0, frames["TX"] + 0, bytes["TX"] + 0, chunks + 0, pk + 0 }
    ' "$dir/vmcu-upgrade-$baud.log" >>"$dir/upgrades"
done
floor=$("$build/bench/pty_floor")

# Table 1 and where the excess goes; the fixed pauses are 0.1 s before step 1,
# 1 s after step 2 and 0.01 s after every chunk.
awk -v floor="$floor" '
    FILENAME ~ /times$/ { wall[$1] = $2; next }
    {
        k++; w = wall["upgrade-" $1]; wire = ($4 + $6) * 10 / $1; bound = wire + 1.1 + $7 * 0.01
        per = $7 > 0 ? 1000 / $7 : 1000
        split($1 "|" $7 " x " $8 "|" $3 " / " $4 "|" $5 " / " $6 "|" sprintf("%.3f", wire) "|" \
            sprintf("%.3f", bound - wire) "|" sprintf("%.3f", bound) "|" sprintf("%.3f", w) "|" \
            sprintf("%.4f", w / bound) "|" sprintf("%.3f", (w - bound) * per) "|" \
            (w / bound <= 1.02 ? "yes" : "NO") "|" $2, col, "|")
        for (r in col) cell[r, k] = col[r]
        split(floor, f, " "); fl = bound + $7 * (f[1] + f[2])
        at[k] = sprintf("    at %6d: bound + chunks x (both) = %.3f s, ratio %.4f; measured leaves " \
            "%+.3f ms per chunk unexplained", $1, fl, fl / bound, (w - fl) * per)
    }
    END {
        printf "\n1. Upgrade of a 262144-byte image (vmcu --baud N, default upgrade parameters)\n"
        rows = split("line rate (baud)|chunks x pksize (last chunk shorter)|frames / bytes tool -> MCU|" \
            "frames / bytes MCU -> tool|wire time, 10 bits per byte (s)|" \
            "fixed pauses 0.1 + 1 + chunks x 0.01 (s)|bound (s)|measured, tool start to exit (s)|" \
            "ratio measured / bound (goal <= 1.02)|excess per chunk (ms)|goal met|" \
            "upgrade succeeded, image received intact", label, "|")
        for (r = 1; r <= rows; r++) {
            printf "  %-44s", label[r]
            for (i = 1; i <= k; i++) printf " %16s", cell[r, i]
            print ""
        }
        printf "\n  Where the excess goes (measured on this machine, per chunk):\n"
        printf "    a 10 ms pause of the tool ends late by          %7.3f ms\n", f[1] * 1000
        printf "    pty round trip, 250 B out / 10 B back, unpaced  %7.3f ms\n", f[2] * 1000
        for (i = 1; i <= k; i++) print at[i]
    }' "$dir/times" "$dir/upgrades"

start_vmcu monitor
timed monitor "$tool" -id 0xA -dev "$pty" --monitor ff --timeout 10
vmcu_stop
awk '
    BEGIN {
        printf "\n2. Processor time of the tool (user + system)\n"
        printf "  %-34s %9s %9s %9s %10s\n", "run", "wall s", "user s", "sys s", "share"
    }
    { line[$1] = sprintf("%9.3f %9.3f %9.3f %9.3f%%", $2, $3, $4, ($3 + $4) * 100 / $2) }
    $1 == "monitor" { share = ($3 + $4) / $2 }
    $1 != "monitor" { ups[++k] = $1 }
    END {
        printf "  %-34s %s\n", "silent monitor, --timeout 10", line["monitor"]
        for (i = 1; i <= k; i++) printf "  %-34s %s\n", "upgrade at " substr(ups[i], 9), line[ups[i]]
        printf "  silent monitor goal < 0.5%%: %s\n", share < 0.005 ? "met" : "NOT met"
    }' "$dir/times"

echo
echo "3. System calls of one version query (-id 0xA --version, vmcu without --baud)"
if ! command -v strace >/dev/null; then
    echo "  strace not found: skipped (apt-get install strace)"
    exit 0
fi
start_vmcu version
strace -f -o "$dir/version.strace" "$tool" -id 0xA -dev "$pty" --version >"$dir/tool-version.out" 2>&1
vmcu_stop
grep -q "Software: V" "$dir/tool-version.out" || echo "  WARNING: the version query did not answer"
awk -v pty="$pty" -v trace="$dir/version.strace" '
    BEGIN {
        # What the protocol needs on the device from its open to its close:
        # label, call name, text in its arguments, least number (a read for
        # each byte of the answer: 10 of frame and 16 of version record).
        needs = split("open|open||1;fcntl|fcntl||1;ioctl TCGETS (tcgetattr)|ioctl|TCGETS|1;" \
            "ioctl TCFLSH (tcflush)|ioctl|TCFLSH|1;ioctl TCSETS (tcsetattr)|ioctl|TCSETS|1;" \
            "write of the frame|write||1;read, one byte each|read||26;close|close||1", need, ";")
    }
    { sub(/^[0-9 ]+/, "") }
    /^[-+<]/ || !/\(/ { next }  # exit notes, signals, resumed halves
    {
        total++; name = substr($0, 1, index($0, "(") - 1); args = substr($0, index($0, "(") + 1)
        open_dev = !opened && name ~ /^open/ && index(args, pty)
        on_dev = open_dev || (fd != "" && (index(args, fd ",") == 1 || index(args, fd ")") == 1))
        what = ""
        for (i = 1; on_dev && i <= needs && what == ""; i++) {
            split(need[i], f, "|")
            if (index(name, f[2]) == 1 && (f[3] == "" || index(args, f[3]))) what = f[1]
        }
        if (name == "write" && index(args, "1,") == 1) what = "stdout"
        else if (what == "" && name ~ /^(newfstatat|fstat)$/ && index(args, "1,") == 1) what = "stdio"
        else if (what == "" && name == "exit_group") what = "exit"
        else if (what == "") what = opened ? "other " name : "startup"
        n[what]++
        if (open_dev) { fd = $NF; opened = 1 }
        else if (on_dev && name == "close") fd = ""
    }
    END {
        printf "  %-40s %7s %7s\n", "call", "least", "counted"
        least = counted = n["stdout"]
        for (i = 1; i <= needs; i++) {
            split(need[i], f, "|"); least += f[4]; counted += n[f[1]]
            printf "  %-40s %7d %7d\n", f[1], f[4], n[f[1]]
        }
        printf "  %-40s %7d %7d\n", "write to stdout (one per flushed output)", n["stdout"], n["stdout"]
        printf "  %-40s %7d %7d\n", "protocol and output, sum", least, counted
        printf "  %-40s %7s %7d\n", "all calls of the process (strace)", "", total
        printf "  difference: %d calls beyond the least:\n", total - least
        printf "    %3d process start-up: execve, dynamic loader and C/C++ runtime (mmap, openat/read/" \
            "close of libraries, mprotect, ...), malloc\047s set-up for the stdout buffer (getrandom, brk)\n", n["startup"]
        printf "    %3d stdio\047s first look at stdout (newfstatat)\n", n["stdio"]
        printf "    %3d process exit (exit_group)\n", n["exit"]
        extra = n["ioctl TCGETS (tcgetattr)"] - 1
        if (extra > 0)
            printf "    %3d ioctl TCGETS inside the C library\047s tcsetattr (it reads the settings " \
                "before and after TCSETS)\n", extra
        for (w in n) if (w ~ /^other /) printf "    %3d %s during the action\n", n[w], substr(w, 7)
        if (counted - least != (extra > 0 ? extra : 0))
            printf "    (the protocol calls differ from the least by %d)\n", counted - least
        printf "  trace: %s\n", trace
    }' "$dir/version.strace"
