#!/usr/bin/env bash
# ztproxy check and the presets of ztproxy sim head, run as processes inside a private
# network namespace (netns_run.sh). Usage: check_test.sh ZTPROXY
# Each piece runs in a namespace of its own, side by side with the others.
set -uo pipefail
ztproxy=$1
fail=0
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
export LC_ALL=C
# shellcheck source=../support/tool_test_lib.sh
. "$(dirname "$0")/../support/tool_test_lib.sh"

# A row of the table: the query, its result, and the start of its value.
has_row() { # query, result, value
    grep -Eq "^$1 +$2 +[0-9.]+ ms  $3" "$tmp/out"
}

# Both simulated heads answer every query and stream without a drop.
sim_heads() {
    run "$ztproxy" --log-level error check --sim-net --seconds 2
    [ $rc -eq 0 ] && [ ! -s "$tmp/err" ] && has_row getCameraGain 0 "gain=1$" &&
        has_row getCameraSN 0 "sns=ZTSIMCAM0, ZTSIMCAM1$" && has_row getTemp 0 "callbacks=256 \(13 bytes\)  temperatures=36.5 41$" &&
        has_row getFirmwareVersion 0 "version=1-2-10-3$" && has_row getImageSize 0 "width=1280  height=1024$" &&
        grep -Eq "^frames received [1-9][0-9]*, dropped 0$" "$tmp/out" && grep -qx "offline events: 0" "$tmp/out" &&
        grep -qx "queries: 22 answered, 0 failed" "$tmp/out" ||
        failed "check --sim-net: exit $rc, expected 0, every query answered and frames without a drop"

    # The USB head, two of whose queries get a status reply where a value belongs.
    run "$ztproxy" --log-level off check --sim-usb --seconds 2 --json --status getCameraGain=-3 --status 4=0
    [ $rc -eq 1 ] && json_holds 'not d["ok"] and d["link"] == "usb" and d["failed"] == ["getCameraGain", "getImageSize"]
        and len(d["commands"]) == 20 and sum(1 for c in d["commands"] if c["ok"] and c["result"] == 0) == 18
        and "getTemp" not in [c["command"] for c in d["commands"]]
        and [c["values"] for c in d["commands"] if c["command"] == "getRKProgramVersion"] == [{"major": 1, "minor": 2, "revision": 3, "build": 4}]
        and d["stream"]["frames"] > 0 and d["stream"]["dropped"] == 0 and d["offline_events"] == 0' &&
        grep -qx "ztproxy: check: 2 of 20 queries failed: getCameraGain, getImageSize" "$tmp/err" ||
        failed "check --sim-usb with status presets: exit $rc, expected 1 naming getCameraGain and getImageSize"
}

# A head in a process of its own that answers some queries wrongly: check names the
# failing rows and exits 1; the head names its presets and every command it saw.
wrong_head() {
    start_listening head "$ztproxy" sim head --status getCameraGain=-3 --no-reply getFirmwareDate \
        --set getSystemId=0x5A54 --set getCameraExposure=12.5 --set 19=7 --status 17=5 --status setLedExposure=-2
    local head=$bg host=("$ztproxy" --log-level off net --local 127.0.0.1 --remote 127.0.0.1)
    run "$ztproxy" --log-level off check --local 127.0.0.1 --remote 127.0.0.1 --seconds 1
    [ $rc -eq 1 ] && has_row getCameraGain -1 "FAILED$" && has_row getCameraFrameRate -1 "FAILED$" &&
        has_row getPeriod -1 "FAILED$" && has_row getSystemId 0 "systemId=23124$" &&
        has_row getCameraExposure 0 "exposure=12.5$" && has_row getLedExposure 0 "exposure=20$" &&
        grep -qx "frames received 0, dropped - (known for simulated heads only)" "$tmp/out" &&
        grep -qx "queries: 18 answered, 4 failed (getCameraGain, getCameraFrameRate, getPeriod, getFirmwareDate)" "$tmp/out" &&
        [ "$(cat "$tmp/err")" = "ztproxy: check: 4 of 22 queries failed: getCameraGain, getCameraFrameRate, getPeriod, getFirmwareDate" ] ||
        failed "check against a head with wrong replies: exit $rc, expected 1 and the four failing queries named"
    # A negative status reply fails a setting: exit 1.
    run "${host[@]}" setLedExposure 7.5
    [ $rc -eq 1 ] && grep -qx "result: -1" "$tmp/out" || failed "setLedExposure against status -2: exit $rc, expected 1"
    kill -TERM "$head"
    wait "$head" || { echo "FAIL: sim head did not stop cleanly"; fail=1; }
    # The presets as the head lists them; a status reply overrides the value of its type.
    grep -qx "preset: getCameraFrameRate or getPeriod (17): status reply 5" "$tmp/head" &&
        grep -qx "preset: getFirmwareDate (29): no reply" "$tmp/head" &&
        grep -qx "preset: getCameraExposure (8): value 12.5" "$tmp/head" &&
        grep -qx "command 9, 4 payload bytes (setLedExposure)" "$tmp/head" ||
        { echo "FAIL: sim head did not name its presets and commands"; cat "$tmp/head"; fail=1; }
}

# Every reply late by the preset delay: the times in the table show it.
slow_head() {
    run "$ztproxy" --log-level off check --sim-net --delay 150 --seconds 1 --json
    [ $rc -eq 0 ] && json_holds 'd["ok"] and all(150 <= c["ms"] < 2000 for c in d["commands"] if c["command"] != "getCurDeviceAbilityInfo")' ||
        failed "check --sim-net --delay 150: exit $rc, expected 0 and every exchange at least 150 ms"
}

# Bad options are refused with what was expected, before anything listens or connects.
bad_input() {
    usage_errors <<'LIST'
sim head --status getCameraGain|ztproxy: sim head: --status NAME=CODE: 'getCameraGain' is not NAME=CODE (see ztproxy sim head --help)
sim head --status frobnicate=1
sim head --set setCameraGain=1|ztproxy: sim head: --set NAME=VALUE: setCameraGain reports no value the simulated head keeps (those are: getImageSize, getScanDataSource, getCameraExposure, getLedExposure, getTriggerMode, getFirmwareVersion, getCameraFrameRate, getPeriod, getCameraGain, getFirmwareDate, getBandWidth, getMaster, getHardwareSyncMode, getSystemId, getRKProgramVersion, getHardwareFrameRateType) (see ztproxy sim head --help)
sim head --set getCameraGain=fast|ztproxy: sim head: --set NAME=VALUE: getCameraGain value 'fast' is not a whole number from 0 to 4294967295 (see ztproxy sim head --help)
sim head --set getCameraExposure=inf
sim head --no-reply 70000|ztproxy: sim head: --no-reply NAME: '70000' is not a device command (a method name such as getCameraGain, or a type code from 0 to 65535) (see ztproxy sim head --help)
sim head --delay -5
sim head --delay
check
check --sim-net --sim-usb
check --local 127.0.0.1 --remote 127.0.0.1 --status 19=1
check --sim-usb --delay 10
check --sim-net --seconds 0
check --local 127.0.0.1 --remote 300.1.1.1
LIST
}

case ${2:-} in
"") side_by_side sim_heads wrong_head slow_head bad_input ;;
sim_heads | wrong_head | slow_head | bad_input) "$2" ;;
*) echo "unknown piece: $2" >&2; exit 2 ;;
esac
exit $fail
