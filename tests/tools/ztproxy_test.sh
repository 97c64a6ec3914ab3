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
expect_status() { # description, expected status, command...
    local what=$1 want=$2
    shift 2
    run "$@"
    [ $rc -eq "$want" ] || failed "$what: exit $rc, expected $want"
}
expect_output() { # description, expected standard output, command...
    local what=$1 want=$2
    shift 2
    run "$@"
    [ $rc -eq 0 ] && [ "$(cat "$tmp/out")" = "$want" ] || failed "$what: exit $rc, expected 0 and the output: $want"
}
expect_json() { # description, Python condition on the object d, command...
    local what=$1 condition=$2
    shift 2
    run "$@"
    [ $rc -eq 0 ] && json_holds "$condition" ||
        failed "$what: exit $rc, or the output is not one JSON object with $condition"
}
# One line on standard error that is exactly this, nothing on standard output.
expect_one_line() { # description, expected status, line
    [ $rc -eq "$2" ] && [ "$(cat "$tmp/err")" = "$3" ] && [ ! -s "$tmp/out" ] ||
        failed "$1: exit $rc, expected $2 and the line: $3"
}

net=("$ztproxy" --log-level off net --sim)
usb=("$ztproxy" --log-level off usb --sim)
sim_set_file=$(printf 'result: 0\ncallbacks: 264 (28 bytes)')
ability=$(printf 'result: 0\nability.abilityHeader: 1\nability.productType: 42')
for n in 2 3 4 5 6 7 8 9 10 11; do ability+=$'\n'"ability.ability$n: $n"; done

general() {
    expect_status "help" 0 "$ztproxy" --help
    # One version: the library's, as the CMake project names it.
    run "$ztproxy" --version
    [ "$(head -1 "$tmp/out")" = "ztproxy $(sed -n 's/^project(ztProxyProtocol VERSION \([0-9.]*\) .*/\1/p' "$top/CMakeLists.txt")" ] ||
        failed "--version"
    expect_status "no command" 2 "$ztproxy"
    usage_error "unknown command" "$ztproxy" frobnicate
    usage_error "bad log level" "$ztproxy" --log-level loud demo
    # A level the environment names wrongly is reported, not ignored.
    run env ZTPROXY_LOG_LEVEL=loud "$ztproxy" net --local 127.0.0.1 --remote 127.0.0.1 getCameraExposure
    grep -q "ZTPROXY_LOG_LEVEL=loud is no level (trace, debug, info, warn, error, off): the level stays warn" "$tmp/err" ||
        failed "no warning for ZTPROXY_LOG_LEVEL=loud"
    # Nothing listening: the plain line comes before the library's own lines.
    run "$ztproxy" net --local 127.0.0.1 --remote 127.0.0.1 getCameraExposure
    [ $rc -eq 3 ] && [ "$(head -1 "$tmp/err")" = "ztproxy: no network head came online at 127.0.0.1:42001 (from 127.0.0.1, init returned 205)" ] ||
        failed "no head: exit $rc, expected 3 and the plain line first"

    # The simulated module answers a register request by hand (magic 0x2324, type 3, sub
    # type 1), then a host request from the tool.
    start_listening module "$ztproxy" sim module
    local sim=$bg
    exec 3<>/dev/tcp/127.0.0.1/9479
    printf '\x24\x23\x00\x00\x03\x00\x00\x00\x01\x00\x00\x00\x00\x00\x00\x00' >&3
    reply=$(timeout 2 head -c 20 <&3 | od -An -tx1 | tr -d ' \n')
    exec 3>&-
    [ "$reply" = "2423000004000000010000000400000001000000" ] || { echo "FAIL: sim module reply $reply"; fail=1; }
    expect_output "ztproxy module" "$(printf 'result: 0\nversion: ZT-MOD 2.4.1')" "$ztproxy" module --remote 127.0.0.1 getFirmwareVersion
    kill -TERM $sim
    wait $sim || { echo "FAIL: sim module did not stop cleanly"; fail=1; }
    grep -q "request sendRegister (0x00001)" "$tmp/module" && grep -q "request getFirmwareVersion (0x10013)" "$tmp/module" ||
        failed "sim module did not name the requests"
}

usage() {
    run "$ztproxy" net --help
    [ $rc -eq 0 ] && grep -q "^  setCameraExposure EXPOSURE_US" "$tmp/out" && grep -q "getTemp  *(network only)" "$tmp/out" ||
        failed "net --help lists no commands"
    run "$ztproxy" usb --help
    [ $rc -eq 0 ] && grep -q "^  getImageSize  *-> width height" "$tmp/out" && ! grep -q "getTemp" "$tmp/out" ||
        failed "usb --help lists a network-only command, or no commands"
    "$ztproxy" net --commands | cut -d' ' -f1 | sort >"$tmp/net.names"
    "$ztproxy" usb --commands | cut -d' ' -f1 | sort >"$tmp/usb.names"
    [ "$(comm -23 "$tmp/net.names" "$tmp/usb.names" | tr '\n' ' ')" = \
        "getHardwareFrameRateType getRGFFile getTemp preheatRKWithTrigger switchHardwareFrameRate " ] &&
        [ -z "$(comm -13 "$tmp/net.names" "$tmp/usb.names")" ] ||
        { echo "FAIL: usb --commands is not net --commands without the network-only commands"; fail=1; }
    # Bad input: refused before anything is connected (the value parsers have tests of
    # their own; here each kind of refusal once).
    usage_error "net without an address" "$ztproxy" net sendTrigger
    usage_error "net --sim with an address" "$ztproxy" net --sim --remote 127.0.0.1 sendTrigger
    usage_error "net with a bad address" "$ztproxy" net --local 127.0.0.1 --remote 300.1.1.1 sendTrigger
    usage_error "unknown device command" "${net[@]}" frobnicate
    grep -qF "ztproxy: unknown device command 'frobnicate'" "$tmp/err" || failed "unknown command not named"
    run "${net[@]}" setCameraExposure
    expect_one_line "too few arguments" 2 "ztproxy: setCameraExposure takes 1 argument, 0 given (usage: setCameraExposure EXPOSURE_US)"
    usage_error "too many arguments" "${net[@]}" sendTrigger 1
    run "${net[@]}" setCameraExposure fast
    expect_one_line "bad argument" 2 "ztproxy: setCameraExposure: EXPOSURE_US 'fast' is not a number (usage: setCameraExposure EXPOSURE_US)"
    usage_error "network-only command on usb" "${usb[@]}" getTemp
    usage_error "usb with a bad vendor id" "$ztproxy" usb --vid zz getImageSize
    grep -qF "'zz' is not a hexadecimal number" "$tmp/err" || failed "the bad vendor id is not named"
    usage_error "sim head port out of range" "$ztproxy" sim head --port 70000
    usage_error "module without an address" "$ztproxy" module sendTrigger
}

replies() {
    # GNU style: options after the command, --name=value, --log-level anywhere, "--".
    expect_output "options after the command" "$(printf 'result: 0\nwidth: 1280\nheight: 1024')" \
        "$ztproxy" net getImageSize --sim --log-level=off
    expect_output "words after --" "result: 0" "$ztproxy" net --sim --log-level off setWifi -- --ssid pass
    # Replies handed to the data callback: decoded temperatures, a SET file kept whole.
    expect_output "getTemp decoded" "$(printf 'result: 0\ncallbacks: 256 (13 bytes)\ntemperatures: 36.5 41')" \
        "${net[@]}" getTemp
    run "${net[@]}" setCameraExposure 5 --save "$tmp/nothing"
    [ $rc -eq 1 ] && grep -q "nothing to save" "$tmp/err" || failed "--save with no reply to keep: exit $rc"
    expect_json "json program version" 'd == {"command": "getRKProgramVersion", "result": 0, "major": 1, "minor": 2, "revision": 3, "build": 4}' \
        "${net[@]}" --json getRKProgramVersion
    expect_json "json SET file" 'd == {"command": "getSETFile", "result": 0, "callbacks": [{"code": 264, "length": 28}]}' \
        "${net[@]}" --json getSETFile 1
}

usb() {
    # The emulated USB head, opened by its descriptors (the tool adds the preload itself).
    expect_output "usb --sim --list" "1d6b:5a01 bus 001 address 001 serial ZTSIM0001" "$ztproxy" usb --sim --list
    expect_output "usb setCameraROI" "result: 0" "${usb[@]}" setCameraROI roi 0 0 640 480
    expect_output "usb getCurDeviceAbilityInfo" "$ability" "${usb[@]}" getCurDeviceAbilityInfo
    expect_output "getSETFile --save" "$(printf '%s\nsaved: %s (28 bytes)' "$sim_set_file" "$tmp/set")" \
        "${usb[@]}" getSETFile 1 --save "$tmp/set"
    [ "$(wc -c <"$tmp/set")" -eq 28 ] && grep -aq "SET file" "$tmp/set" ||
        failed "getSETFile --save: the file does not hold the SET file"
    run "$ztproxy" usb --vid 0x1234 --pid 0x5678 sendTrigger
    [ $rc -eq 3 ] && [ "$(wc -l <"$tmp/err")" -eq 1 ] && grep -q "^ztproxy: no USB device 1234:5678" "$tmp/err" &&
        [ ! -s "$tmp/out" ] || failed "usb without such a device: exit $rc, expected 3 and one line"
}

# The commands on the wire to a simulated head in a process of its own, which logs each
# command's type and payload size.
wire() {
    printf 'simulated SET file' >"$tmp/file"
    start_listening head "$ztproxy" sim head
    local head=$bg host=("$ztproxy" --log-level off net --local 127.0.0.1 --remote 127.0.0.1 --sn ZT-WIRE)
    usage_error "bad argument with a head" "${host[@]}" setCameraExposure 1e99
    local line want args
    while IFS='|' read -r line want args; do
        # shellcheck disable=SC2086 # the arguments are words
        run "${host[@]}" $args
        [ $rc -eq 0 ] && { [ "$want" = "-" ] || [ "$(cat "$tmp/out")" = "$want" ]; } ||
            failed "net $args: exit $rc, expected 0 and the output: $want"
        wait_for "$tmp/head" "$line" || { echo "FAIL: net $args: the head did not log '$line'"; fail=1; }
    done <<LIST
command 7, 4 payload bytes|result: 0|setCameraExposure 12.5
command 271, 8 payload bytes|result: 0|setSystemId 0x5A5400000000BEEF
command 11, 12 payload bytes|result: 0|setCameraROI roi -1 2 640 480
command 26, 12 payload bytes|result: 0|setQRBarCenter qr true 10 20 30 40
command 774, 15 payload bytes|result: 0|setRegisterValue 1 0x10 0a0B0c
command 278, 11 payload bytes|result: 0|setWifi ssid pass1
command 263, 18 payload bytes|result: 0|sendSETFile $tmp/file
command 318, 9 payload bytes|result: 0|sendLazerCMD 1 255 -3
command 354, 32 payload bytes|result: 0|syncTime2Device 2024-11-15T09:30:00.000000+08:00
command 344, 20 payload bytes|-|getLightpenVersion LP01
LIST
    kill -TERM $head
    wait $head || { echo "FAIL: sim head did not stop cleanly"; fail=1; }
    # One connection set per command, and none for the refused argument.
    [ "$(grep -c "^command-data connection from 127.0.0.1:[0-9]*$" "$tmp/head")" -eq 10 ] ||
        { echo "FAIL: the head did not see one host per command"; cat "$tmp/head"; fail=1; }
}

# A head that takes one connection and then none: Ctrl-C while connecting lets the connect
# finish, sends nothing and exits 130. Without a module the host never registers.
offline() {
    start_listening stuck python3 -c '
import socket, time
s = socket.socket()
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(("127.0.0.1", 42001))
s.listen(0)
print("listening", flush=True)
time.sleep(120)'
    local stuck=$bg host=("$ztproxy" --log-level off net --local 127.0.0.1 --remote 127.0.0.1)
    "${host[@]}" sendTrigger </dev/null >"$tmp/out" 2>"$tmp/err" &
    local tool=$!
    # Interrupted once its connect is under way.
    for _ in $(seq 50); do ss -tn state syn-sent | grep -q ":42001" && break; sleep 0.1; done
    kill -INT $tool
    wait $tool
    rc=$?
    expect_one_line "Ctrl-C" 130 "ztproxy: interrupted"
    kill $stuck
    run "$ztproxy" module --remote 127.0.0.1 sendTrigger
    [ $rc -eq 3 ] && [ "$(head -1 "$tmp/err")" = "ztproxy: no device module registered at 127.0.0.1 (ports 9479 and 11300) within 5 s" ] ||
        failed "module without a module: exit $rc, expected 3 and the plain line"
}

# Width and height from a PNG file's header; fails when it is no PNG header.
png_size() {
    python3 -c '
import struct, sys
d = open(sys.argv[1], "rb").read(33)
if d[:8] != b"\x89PNG\r\n\x1a\n" or d[12:16] != b"IHDR":
    sys.exit(1)
print("%d %d" % struct.unpack(">II", d[16:24]))' "$1"
}

demo() {
    usage_error "demo --png without a path" "$ztproxy" demo --png
    usage_error "demo with an unknown argument" "$ztproxy" demo --fast
    run timeout 60 "$ztproxy" --log-level error demo --png "$tmp/demo.png"
    [ $rc -eq 0 ] || failed "demo: exit $rc, expected 0 within 60 s"
    local section
    for section in "module proxy" "network head" "USB head"; do
        grep -qx "  $section: every step went as expected" "$tmp/out" || failed "demo: $section did not go as expected"
    done
    # The USB link hands back the head's status word; the stream is counted whole.
    grep -Eq '^  sendTrigger \(the head answers status 5\) +5$' "$tmp/out" || failed "demo: status word not shown"
    grep -Eq '^  stream +100 frames in [0-9.]+ s: [0-9.]+ frames/s, [0-9.]+ MB/s, CPU [0-9]+ % of one core$' "$tmp/out" ||
        failed "demo: no USB stream summary"
    grep -qF "getOriImageData -> PNG                       $tmp/demo.png (1280 x 1024, 8 bits)" "$tmp/out" ||
        failed "demo: the image path is not shown"
    [ "$(png_size "$tmp/demo.png")" = "1280 1024" ] || failed "demo: $tmp/demo.png is not a 1280 x 1024 PNG image"
}

stream_sim() {
    local sim=("$ztproxy" --log-level off stream)
    run "$ztproxy" stream --help
    [ $rc -eq 0 ] && grep -q -- "--save-every N" "$tmp/out" || failed "stream --help"
    usage_error "stream without a source" "$ztproxy" stream
    usage_error "stream with two sources" "${sim[@]}" --sim-net --sim-usb
    usage_error "stream for a while" "${sim[@]}" --sim-net --seconds 2s
    usage_error "stream into a missing folder" "${sim[@]}" --sim-net --save-every 5 --out "$tmp/missing"
    run "${sim[@]}" --vid 1234 --pid 5678
    [ $rc -eq 3 ] && [ "$(wc -l <"$tmp/err")" -eq 1 ] && grep -q "^ztproxy: no USB device 1234:5678" "$tmp/err" &&
        [ ! -s "$tmp/out" ] || failed "stream without such a device: exit $rc, expected 3 and one line"
    expect_json "stream --sim-net" 'd["frames"] > 0 and d["dropped"] == 0 and d["saved"] == 0 and d["bytes"] >= d["frames"] * 2621440' \
        "${sim[@]}" --sim-net --seconds 2 --json
    mkdir "$tmp/frames"
    expect_json "stream --sim-usb" 'd["frames"] > 0 and d["dropped"] == 0 and d["saved"] == d["frames"] // 5 and d["saved"] > 0' \
        "${sim[@]}" --sim-usb --seconds 2 --json --save-every 5 --out "$tmp/frames"
    local saved png
    saved=$(python3 -c 'import json, sys; print(json.load(sys.stdin)["saved"])' <"$tmp/out")
    [ "$(find "$tmp/frames" -name 'frame-*.png' | wc -l)" -eq "$saved" ] && [ -f "$tmp/frames/frame-000005.png" ] ||
        failed "stream --save-every 5: the files are not the $saved saved"
    for png in "$tmp"/frames/frame-*.png; do
        [ "$(png_size "$png")" = "1280 1024" ] || failed "stream: $png is not a 1280 x 1024 PNG image"
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
    expect_json "stream --start trigger" 'd["frames"] > 0 and d["saved"] == d["frames"] // 2' \
        "${real[@]}" --start trigger --json --save-every 2 --out "$tmp/frames"
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
    [ $rc -eq 0 ] && python3 -c 'import json, sys; d = json.load(sys.stdin); sys.exit(0 if d["seconds"] < 10 and d["frames"] > 0 else 1)' <"$tmp/out" ||
        failed "stream interrupted: exit $rc, expected 0 and a summary of a few seconds"
}

case ${2:-} in
basics) side_by_side general usage replies usb wire offline ;;
demo) demo ;;
stream) side_by_side stream_sim stream_head stream_interrupted ;;
general | usage | replies | usb | wire | offline | stream_sim | stream_head | stream_interrupted) "$2" ;;
*) echo "unknown part: ${2:-}" >&2; exit 2 ;;
esac
exit $fail
