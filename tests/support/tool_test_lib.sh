# Helpers of the shell tests that run the ztproxy tool as a process; sourced by them.
# The sourcing script sets ztproxy (the tool), tmp (a scratch folder) and fail=0.

# Runs a command with its output in $tmp/out and $tmp/err and its exit status in $rc.
run() {
    "$@" </dev/null >"$tmp/out" 2>"$tmp/err"
    rc=$?
}
failed() {
    echo "FAIL: $*"
    echo "--- stdout:"
    cat "$tmp/out"
    echo "--- stderr:"
    cat "$tmp/err"
    fail=1
}
# Usage errors, one per line of standard input: the tool's arguments, then after "|" the
# message expected, if any. Each exits 2 with one line on standard error and nothing on
# standard output.
usage_errors() {
    local args want
    while IFS='|' read -r args want; do
        # shellcheck disable=SC2086 # the arguments are words
        run "$ztproxy" $args
        [ $rc -eq 2 ] && [ "$(wc -l <"$tmp/err")" -eq 1 ] && [ ! -s "$tmp/out" ] &&
            { [ -z "$want" ] || [ "$(cat "$tmp/err")" = "$want" ]; } ||
            failed "ztproxy $args: exit $rc, expected 2 and one line on standard error ${want:+: $want}"
    done
}
# Whether the JSON object on standard output meets a Python condition on d.
json_holds() { # condition
    python3 -c "import json, sys; d = json.load(sys.stdin); sys.exit(0 if ($1) else 1)" <"$tmp/out"
}
wait_for() { # file, fixed text: true once the file holds it (up to 5 s)
    for _ in $(seq 50); do
        grep -qF -- "$2" "$1" && return 0
        sleep 0.1
    done
    return 1
}
# Starts a process in the background, its output in $tmp/NAME, and waits until it says
# "listening"; its id in $bg.
start_listening() { # name, command...
    local name=$1
    shift
    "$@" >"$tmp/$name" 2>&1 &
    bg=$!
    wait_for "$tmp/$name" listening || { echo "FAIL: $* did not start listening"; fail=1; }
}
# Runs the given functions of the calling script side by side, each in a network namespace
# of its own (the heads' ports are fixed), by running the script again with the
# function's name as its second argument; fails when one of them does. A sanitizer build,
# many times slower, runs two at a time so that no head misses its heartbeats.
side_by_side() { # function...
    local at_once=16 piece
    ldd "$ztproxy" | grep -qE 'lib[at]san' && at_once=2
    for piece in "$@"; do
        while [ "$(jobs -rp | wc -l)" -ge $at_once ]; do wait -n; done
        (
            unshare -n sh -c 'ip link set lo up && exec "$@"' sh bash "$0" "$ztproxy" "$piece" >"$tmp/piece.$piece" 2>&1
            echo $? >"$tmp/rc.$piece"
        ) &
    done
    wait
    for piece in "$@"; do
        [ "$(cat "$tmp/rc.$piece")" = 0 ] || { echo "FAIL in $piece:"; cat "$tmp/piece.$piece"; fail=1; }
    done
}
