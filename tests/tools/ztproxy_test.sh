#!/usr/bin/env bash
# The ztproxy tool as a user meets it, inside a private network namespace (netns_run.sh).
# Usage: ztproxy_test.sh ZTPROXY PART, PART one of basics, demo, stream. A part runs its
# pieces side by side, each in a network namespace of its own (the heads' ports are fixed).
set -uo pipefail
ztproxy=$1
top=$(cd "$(dirname "$0")/../.." && pwd)
fail=0
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
export LC_ALL=C

. "$top/tests/support/tool_test_lib.sh"
# Rows of standard input, "status|standard output|arguments|line the head logs": runs the
# command given with each row's arguments. The output is whole, \n for a line break, "-"
# for any; the head's line (in $tmp/head), when given, must come.
expect_rows() { # command...
    local status want args line
    while IFS='|' read -r status want args line; do
        # shellcheck disable=SC2086 # the arguments are words
        run "$@" $args
        [ $rc -eq "$status" ] && { [ "$want" = - ] || [ "$(cat "$tmp/out")" = "$(printf '%b' "$want")" ]; } ||
            failed "$args: exit $rc, expected $status and the output: $want"
        [ -z "$line" ] || wait_for "$tmp/head" "$line" || failed "$args: the head did not log '$line'"
    done
}
# A PNG image of 1280 x 1024 pixels: its signature and the size in its header.
frame_png() {
    [ "$(od -An -tx1 -N24 "$1" | tr -d ' \n')" = 89504e470d0a1a0a0000000d494844520000050000000400 ]
}

general() {
    run "$ztproxy" --version
    [ "$(head -1 "$tmp/out")" = "ztproxy $(sed -n 's/^project(ztProxyProtocol VERSION \([0-9.]*\) .*/\1/p' "$top/CMakeLists.txt")" ] ||
        failed "--version"
    run env ZTPROXY_LOG_LEVEL=loud "$ztproxy" net --local 127.0.0.1 --remote 127.0.0.1 getCameraExposure
    grep -q "ZTPROXY_LOG_LEVEL=loud is no level (trace, debug, info, warn, error, off): the level stays warn" "$tmp/err" ||
        failed "no warning for ZTPROXY_LOG_LEVEL=loud"
    # Nothing listening: exit 3, the plain line before the library's own lines.
    [ $rc -eq 3 ] && [ "$(sed -n 2p "$tmp/err")" = "ztproxy: no network head came online at 127.0.0.1:42001 (from 127.0.0.1, init returned 205)" ] ||
        failed "no head: exit $rc, expected 3 and the plain line first"
    run "$ztproxy"
    [ $rc -eq 2 ] || failed "no command: exit $rc, expected 2"
    usage_errors <<LIST
frobnicate|ztproxy: unknown command 'frobnicate' (see ztproxy --help)
--log-level loud demo
net sendTrigger
net --sim --remote 127.0.0.1 sendTrigger
net --local 127.0.0.1 --remote 300.1.1.1 sendTrigger|ztproxy: net: --remote '300.1.1.1' is not an IPv4 address (such as 192.168.1.20)
net --sim frobnicate|ztproxy: unknown device command 'frobnicate' (see ztproxy net --help)
net --sim setCameraExposure|ztproxy: setCameraExposure takes 1 argument, 0 given (usage: setCameraExposure EXPOSURE_US)
net --sim sendTrigger 1
net --sim setCameraExposure fast|ztproxy: setCameraExposure: EXPOSURE_US 'fast' is not a number (usage: setCameraExposure EXPOSURE_US)
usb --sim getTemp
usb --vid zz getImageSize|ztproxy: usb: vendor id (--vid) 'zz' is not a hexadecimal number from 0 to ffff (such as 1d6b)
sim head --port 70000
module sendTrigger
demo --png
demo --fast
stream
stream --sim-net --sim-usb
stream --sim-net --seconds 2s
stream --sim-net --save-every 5 --out $tmp/missing
LIST
    run "$ztproxy" net --help
    grep -q "^  setCameraExposure EXPOSURE_US" "$tmp/out" && grep -q "^  getImageSize  *-> width height" "$tmp/out" &&
        grep -q "getTemp  *(network only)" "$tmp/out" || failed "net --help lists no commands"
    # usb --commands: net's without the network head's own.
    [ "$(comm -3 <("$ztproxy" net --commands | cut -d' ' -f1 | sort) <("$ztproxy" usb --commands | cut -d' ' -f1 | sort) | tr '\n' ' ')" = \
        "getHardwareFrameRateType getRGFFile getTemp preheatRKWithTrigger switchHardwareFrameRate " ] ||
        failed "usb --commands is not net --commands without the network-only commands"
}

# The simulated module in a process of its own, and a request of the host to it.
module() {
    start_listening module "$ztproxy" sim module
    local sim=$bg
    expect_rows "$ztproxy" module --remote 127.0.0.1 <<<'0|result: 0\nversion: ZT-MOD 2.4.1|getFirmwareVersion'
    kill -TERM $sim
    wait $sim || failed "sim module did not stop cleanly"
    grep -q "request getFirmwareVersion (0x10013)" "$tmp/module" || failed "sim module did not name the request"
    # None registers now: exit 3 once the wait is over.
    run "$ztproxy" module --remote 127.0.0.1 sendTrigger
    [ $rc -eq 3 ] && [ "$(head -1 "$tmp/err")" = "ztproxy: no device module registered at 127.0.0.1 (ports 9479 and 11300) within 5 s" ] ||
        failed "module without a module: exit $rc, expected 3 and the plain line"
}

# Commands against a simulated head in a process of its own, which logs each command's type
# and payload size, and keeps what the settings set for the queries to report.
net() {
    printf 'simulated SET file' >"$tmp/file"
    start_listening head "$ztproxy" sim head
    local head=$bg rows
    rows=$(
        cat <<LIST
0|result: 0|setCameraExposure 12.5|command 7, 4 payload bytes
0|result: 0\nexposure: 12.5|getCameraExposure
0|result: 0|setSystemId 0x5A5400000000BEEF|command 271, 8 payload bytes
0|result: 0\nsystemId: 6508827361457258223|getSystemId
0|result: 0|setCameraROI roi -1 2 640 480|command 11, 12 payload bytes
0|result: 0\nname: roi\nx: -1\ny: 2\nwidth: 640\nheight: 480|getCameraROI
0|result: 0|setWifi -- --ssid pass1|command 278, 13 payload bytes
0|result: 0\nssid: --ssid\npassword: pass1|getWifi
0|result: 0|setQRBarCenter qr true 10 20 30 40|command 26, 12 payload bytes
0|result: 0|setRegisterValue 1 0x10 0a0B0c|command 774, 15 payload bytes
0|result: 0|sendSETFile $tmp/file|command 263, 18 payload bytes
0|result: 0|sendLazerCMD 1 255 -3|command 318, 9 payload bytes
0|result: 0|syncTime2Device 2024-11-15T09:30:00.000000+08:00|command 354, 32 payload bytes
0|-|getLightpenVersion LP01|command 344, 20 payload bytes
0|result: 0\nwidth: 1280\nheight: 1024|getImageSize --sn=ZT-WIRE
0|result: 0\ncallbacks: 256 (13 bytes)\ntemperatures: 36.5 41|getTemp
0|{"command":"getRKProgramVersion","result":0,"major":1,"minor":2,"revision":3,"build":4}|--json getRKProgramVersion
0|{"command":"getSETFile","result":0,"callbacks":[{"code":264,"length":28}]}|--json getSETFile 1
1|result: 0|setCameraExposure 5 --save $tmp/nothing
LIST
    )
    usage_errors <<<"--log-level off net --local 127.0.0.1 --remote 127.0.0.1 setCameraExposure 1e99"
    expect_rows "$ztproxy" --log-level off net --local 127.0.0.1 --remote 127.0.0.1 <<<"$rows"
    kill -TERM $head
    wait $head || failed "sim head did not stop cleanly"
    # One connection set per command, and none for the refused argument.
    [ "$(grep -c "^command-data connection from 127.0.0.1:[0-9]*$" "$tmp/head")" -eq "$(wc -l <<<"$rows")" ] ||
        { echo "FAIL: the head did not see one host per command"; cat "$tmp/head"; fail=1; }
}

# The emulated USB head, opened by its descriptors (the tool adds the preload itself).
usb() {
    expect_rows "$ztproxy" --log-level off usb <<LIST
0|1d6b:5a01 bus 001 address 001 serial ZTSIM0001|--sim --list
0|result: 0|--sim setCameraROI roi 0 0 640 480
0|result: 0\nability.abilityHeader: 1\nability.productType: 42\nability.ability2: 2\nability.ability3: 3\nability.ability4: 4\nability.ability5: 5\nability.ability6: 6\nability.ability7: 7\nability.ability8: 8\nability.ability9: 9\nability.ability10: 10\nability.ability11: 11|--sim getCurDeviceAbilityInfo
0|result: 0\ncallbacks: 264 (28 bytes)\nsaved: $tmp/set (28 bytes)|--sim getSETFile 1 --save $tmp/set
3||--vid 0x1234 --pid 0x5678 sendTrigger
LIST
    grep -aq "SET file" "$tmp/set" || failed "getSETFile --save: the file does not hold the SET file"
}

# A head that takes no reply: Ctrl-C while the command waits ends it with 130.
interrupted() {
    start_listening head "$ztproxy" sim head --no-reply getCameraGain
    "$ztproxy" --log-level off net --local 127.0.0.1 --remote 127.0.0.1 getCameraGain </dev/null >"$tmp/out" 2>"$tmp/err" &
    local tool=$!
    wait_for "$tmp/head" "command 19, 0 payload bytes" || failed "the head saw no getCameraGain"
    kill -INT $tool
    wait $tool
    rc=$?
    [ $rc -eq 130 ] && [ "$(cat "$tmp/err")" = "ztproxy: interrupted" ] ||
        failed "Ctrl-C: exit $rc, expected 130 and the line"
    kill -TERM $bg
}

demo() {
    run timeout 60 "$ztproxy" --log-level error demo --png "$tmp/demo.png"
    [ $rc -eq 0 ] || failed "demo: exit $rc, expected 0 within 60 s"
    local section
    for section in "module proxy" "network head" "USB head"; do
        grep -qx "  $section: every step went as expected" "$tmp/out" || failed "demo: $section did not go as expected"
    done
    # The USB link hands back the head's status word.
    grep -Eq '^  sendTrigger \(the head answers status 5\) +5$' "$tmp/out" || failed "demo: status word not shown"
    grep -qF "getOriImageData -> PNG                       $tmp/demo.png (1280 x 1024, 8 bits)" "$tmp/out" &&
        frame_png "$tmp/demo.png" || failed "demo: no 1280 x 1024 PNG image at the path shown"
}

stream_sim() {
    local sim=("$ztproxy" --log-level off stream)
    expect_rows "${sim[@]}" <<<'3||--vid 1234 --pid 5678'
    mkdir "$tmp/frames"
    run "${sim[@]}" --sim-usb --seconds 2 --json --save-every 5 --out "$tmp/frames"
    [ $rc -eq 0 ] && json_holds 'd["frames"] > 0 and d["dropped"] == 0 and d["saved"] == d["frames"] // 5 and d["saved"] > 0' &&
        [ "$(find "$tmp/frames" -name 'frame-*.png' | wc -l)" -eq "$(python3 -c 'import json, sys; print(json.load(sys.stdin)["saved"])' <"$tmp/out")" ] ||
        failed "stream --sim-usb --save-every 5: exit $rc, or the files are not those saved"
    local png
    for png in "$tmp/frames/frame-000005.png" "$tmp"/frames/frame-*.png; do
        frame_png "$png" || failed "stream: $png is not a 1280 x 1024 PNG image"
    done
    # Not a terminal: no counters, one summary line.
    run "${sim[@]}" --sim-net --seconds 1
    [ $rc -eq 0 ] && [ "$(wc -l <"$tmp/out")" -eq 1 ] &&
        grep -Eqx 'stream: [1-9][0-9]* frames in [0-9.]+ s: [0-9.]+ frames/s, [0-9.]+ MB/s, CPU [0-9]+ % of one core, dropped 0, saved 0' "$tmp/out" ||
        failed "stream --sim-net: exit $rc, expected 0 and one summary line"
}

# A head in a process of its own that streams full frames between a trigger and its stop,
# then vanishes mid-stream.
stream_head() {
    local sim=("$ztproxy" --log-level off stream)
    mkdir "$tmp/frames"
    start_listening head "$ztproxy" sim head --stream-rate 100 --stream-on trigger --full-frames
    local head=$bg real=("${sim[@]}" --local 127.0.0.1 --remote 127.0.0.1 --seconds 2)
    run "${real[@]}" --save-every 2 --out "$tmp/frames"
    [ $rc -eq 0 ] && grep -q "stream: 0 frames" "$tmp/out" &&
        [ "$(cat "$tmp/err")" = "ztproxy: nothing saved: no packet arrived; does the head stream without --start trigger?" ] ||
        failed "stream without a start: exit $rc, expected 0 frames and the hint"
    run "${real[@]}" --start trigger --json --save-every 2 --out "$tmp/frames"
    [ $rc -eq 0 ] && json_holds 'd["frames"] > 0 and d["saved"] == d["frames"] // 2' || failed "stream --start trigger: exit $rc"
    grep -q "^stream stopped" "$tmp/head" || failed "stream --start trigger did not stop the head's stream"
    # The head vanishes mid-stream: offline after five missed heartbeats, exit 1.
    "${sim[@]}" --local 127.0.0.1 --remote 127.0.0.1 --start scan --seconds 30 </dev/null >"$tmp/out" 2>"$tmp/err" &
    local tool=$!
    for _ in $(seq 50); do [ "$(grep -c "^streaming" "$tmp/head")" -eq 2 ] && break; sleep 0.1; done
    kill -KILL $head
    wait $head 2>/dev/null
    wait $tool
    rc=$?
    [ $rc -eq 1 ] && grep -Eq "^ztproxy: the head went offline after [0-9.]+ s$" "$tmp/err" ||
        failed "stream from a head that vanishes: exit $rc, expected 1 and the offline line"
}

# Ctrl-C ends the stream early, with its summary.
stream_interrupted() {
    "$ztproxy" --log-level off stream --sim-net --seconds 60 --json </dev/null >"$tmp/out" 2>"$tmp/err" &
    local tool=$!
    # Interrupted once its head streams to it, and a moment later.
    for _ in $(seq 100); do ss -tn state established | grep -q ":42001 " && break; sleep 0.1; done
    sleep 1
    kill -INT $tool
    wait $tool
    rc=$?
    [ $rc -eq 0 ] && json_holds 'd["seconds"] < 10 and d["frames"] > 0 and d["dropped"] == 0 and d["bytes"] >= d["frames"] * 2621440' ||
        failed "stream interrupted: exit $rc, expected 0 and a summary of a few seconds"
}

case ${2:-} in
basics) side_by_side general module net usb interrupted ;;
demo) demo ;;
stream) side_by_side stream_sim stream_head stream_interrupted ;;
general | module | net | usb | interrupted | stream_sim | stream_head | stream_interrupted) "$2" ;;
*) echo "unknown part: ${2:-}" >&2; exit 2 ;;
esac
exit $fail
