#!/usr/bin/env bash
# Builds mcu_tool2 and the virtual MCU, then runs the tool's main job against
# it over a pseudo-terminal: query the versions, upgrade the firmware with a
# random 20000-byte image, and check that the MCU received it byte for byte.
# Missing Debian packages are installed first when run as root; otherwise it
# stops and prints the apt-get line to run (scripts/deps.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/deps.sh
. scripts/deps.sh
# shellcheck disable=SC2086 # a list of package names
mcu_deps_ensure demo $MCU_DEPS_DEMO
cmake -S . -B build >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)" --target mcu_tool2 vmcu >/dev/null

tmp=$(mktemp -d)
# shellcheck source=scripts/vmcu.sh
. scripts/vmcu.sh
trap 'vmcu_stop; rm -rf "$tmp"' EXIT

head -c 20000 /dev/urandom >"$tmp/app.bin"
vmcu_start "$tmp/vmcu.out" ./build/sim/vmcu --pty --image "$tmp/received.bin" --log "$tmp/vmcu.log"

set -x
./build/src/upgrade/mcu_tool2 -id 0xA -dev "$pty" --version
./build/src/upgrade/mcu_tool2 -id 0xA -dev "$pty" --upgrade "$tmp/app.bin"
set +x
cmp "$tmp/app.bin" "$tmp/received.bin"
echo "the virtual MCU holds the 20000-byte image byte for byte"
