# shellcheck shell=bash disable=SC2034 # vpid and pty are for the scripts that source this file
# Starting and stopping a virtual MCU from a script (sourced by the demo, the
# install check, the transcripts and the benchmark).
vpid=
pty=

# vmcu_start OUT PROGRAM OPTIONS...: starts PROGRAM (a vmcu) in the background
# with its output in the file OUT and waits until it announces itself
# ("pty: /dev/pts/N" or "spi: SOCKET"); sets vpid, and pty to its
# pseudo-terminal when it has one; exits 1 when it does not start. Call it in
# the script's own shell: in a command substitution vpid would be lost and the
# vmcu left running.
vmcu_start() {
    local out=$1
    shift
    rm -f "$out"
    "$@" >"$out" 2>&1 &
    vpid=$!
    for _ in $(seq 200); do
        grep -qs '^\(pty\|spi\): ' "$out" && break
        sleep 0.05
    done
    if ! grep -qs '^\(pty\|spi\): ' "$out"; then
        echo "vmcu did not start: $(cat "$out")" >&2
        exit 1
    fi
    pty=$(sed -n 's/^pty: //p' "$out")
}

# vmcu_stop: stops the vmcu started last, if it still runs.
vmcu_stop() {
    [ -n "$vpid" ] || return 0
    kill "$vpid" 2>/dev/null || true
    wait "$vpid" 2>/dev/null || true
    vpid=
}
