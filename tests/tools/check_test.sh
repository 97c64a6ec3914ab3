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

    run "$ztproxy" --log-level error check --sim-usb --seconds 2 --json
    [ $rc -eq 0 ] && json_holds 'd["ok"] and d["link"] == "usb" and d["failed"] == [] and d["offline_events"] == 0
        and len(d["commands"]) == 20 and all(c["ok"] and c["result"] == 0 for c in d["commands"])
        and "getTemp" not in [c["command"] for c in d["commands"]]
        and [c["values"] for c in d["commands"] if c["command"] == "getRKProgramVersion"] == [{"major": 1, "minor": 2, "revision": 3, "build": 4}]
        and d["stream"]["frames"] > 0 and d["stream"]["dropped"] == 0' ||
        failed "check --sim-usb --json: exit $rc, expected 0 and 20 queries answered, frames without a drop"

    # The USB head's presets: a status reply where a value belongs fails the query.
    run "$ztproxy" --log-level off check --sim-usb --seconds 1 --json --status getCameraGain=-3 --status 4=0
    [ $rc -eq 1 ] && json_holds 'not d["ok"] and d["failed"] == ["getCameraGain", "getImageSize"]
        and sum(1 for c in d["commands"] if c["ok"]) == 18' &&
        grep -qx "ztproxy: check: 2 of 20 queries failed: getCameraGain, getImageSize" "$tmp/err" ||
        failed "check --sim-usb with status presets: exit $rc, expected 1 naming getCameraGain and getImageSize"
}

# A head in a process of its own that answers some queries wrongly: check names the
# failing rows and exits 1; the head names every command it saw, and none of them changes
# anything on it.
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
    # The unanswered query took the host's whole wait.
    grep -Eq "^getFirmwareDate +-1 +[4-9][0-9]{3}\.[0-9] ms  FAILED$" "$tmp/out" ||
        failed "the unanswered getFirmwareDate did not wait for its time-out"
    # A negative status reply fails a setting, and the value behind it stays.
    run "${host[@]}" setLedExposure 7.5
    [ $rc -eq 1 ] && grep -qx "result: -1" "$tmp/out" || failed "setLedExposure against status -2: exit $rc, expected 1"
    run "${host[@]}" getLedExposure
    [ $rc -eq 0 ] && grep -qx "exposure: 20" "$tmp/out" || failed "getLedExposure after a refused setting: exit $rc"
    kill -TERM "$head"
    wait "$head" || { echo "FAIL: sim head did not stop cleanly"; fail=1; }
    # The presets as the head lists them; a status reply overrides the value of its type.
    grep -qx "preset: getCameraGain (19): status reply -3" "$tmp/head" &&
        grep -qx "preset: getCameraFrameRate or getPeriod (17): status reply 5" "$tmp/head" &&
        grep -qx "preset: getFirmwareDate (29): no reply" "$tmp/head" &&
        grep -qx "preset: getCameraExposure (8): value 12.5" "$tmp/head" &&
        grep -qx "command 19, 0 payload bytes (getCameraGain)" "$tmp/head" &&
        grep -qx "command 17, 0 payload bytes (getCameraFrameRate or getPeriod)" "$tmp/head" &&
        grep -qx "command 9, 4 payload bytes (setLedExposure)" "$tmp/head" ||
        { echo "FAIL: sim head did not name its presets and commands"; cat "$tmp/head"; fail=1; }
    # Up to the host's first setting, the head saw queries only.
    local names
    names=$(sed -n 's/^command [0-9]*, [0-9]* payload bytes (\(.*\))$/\1/p' "$tmp/head" | sed '/^setLedExposure$/,$d')
    [ "$(echo "$names" | wc -l)" -ge 22 ] && ! echo "$names" | grep -qv "^get" ||
        { echo "FAIL: check sent a command that is no query:"; echo "$names"; fail=1; }
}

# The frames of the simulated heads, saved as 8-bit images: laser lines at full
# brightness, markers of white dots in black rings, and the floor dark, each at the
# exact level the 16-bit pixels were made for.
scan_frames() {
    mkdir "$tmp/frames"
    run "$ztproxy" --log-level off stream --sim-net --seconds 1 --save-every 5 --out "$tmp/frames"
    [ $rc -eq 0 ] && [ -f "$tmp/frames/frame-000005.png" ] || failed "stream --save-every: exit $rc, no frame saved"
    python3 - "$tmp/frames/frame-000005.png" <<'PY' || { echo "FAIL: the saved frame does not show a scan"; fail=1; }
import itertools, struct, sys, zlib
d = open(sys.argv[1], "rb").read()
pos, idat, w, h = 8, b"", 0, 0
while pos < len(d):
    n, kind = struct.unpack(">I4s", d[pos:pos + 8])
    body = d[pos + 8:pos + 8 + n]
    if kind == b"IHDR":
        w, h, depth, colour = struct.unpack(">IIBB", body[:10])
        assert depth == 8 and colour == 0, "not 8-bit grey"
    elif kind == b"IDAT":
        idat += body
    pos += 12 + n
raw, rows, prev = zlib.decompress(idat), [], bytearray(w)
for y in range(h):
    f, line = raw[y * (w + 1)], bytearray(raw[y * (w + 1) + 1:(y + 1) * (w + 1)])
    if f == 1:  # the filter the image writer uses; the others pixel by pixel
        line = bytearray(itertools.accumulate(line, lambda a, b: (a + b) & 0xFF))
    elif f != 0:
        for x in range(w):
            a = line[x - 1] if x else 0
            b, c = prev[x], prev[x - 1] if x else 0
            p = a + b - c
            pred = [0, a, b, (a + b) // 2, a if abs(p - a) <= min(abs(p - b), abs(p - c)) else b if abs(p - b) <= abs(p - c) else c][f]
            line[x] = (line[x] + pred) & 0xFF
    rows.append(line)
    prev = line
count = [0] * 256
for line in rows:
    for v in line:
        count[v] += 1
total = w * h
# Laser cores, marker dots and rings, and a dark floor under most of the picture.
assert 0.005 * total < count[255] < 0.1 * total, count[255]
assert count[235] > 30 * 100 and count[6] > 30 * 100, (count[235], count[6])
assert sum(count[:40]) > 0.4 * total
# Across a row through the middle, the lines over the dome lie closer together than over the floor.
mid = [x for x in range(1, w) if rows[h // 2][x] == 255 and rows[h // 2][x - 1] != 255]
gaps = [b - a for a, b in zip(mid, mid[1:])]
assert len(mid) >= 6 and min(gaps) < 0.8 * max(gaps), mid
PY
}

# Every reply late by the preset delay: the times in the table show it.
slow_head() {
    run "$ztproxy" --log-level off check --sim-net --delay 150 --seconds 1 --json
    [ $rc -eq 0 ] && json_holds 'd["ok"] and all(150 <= c["ms"] < 2000 for c in d["commands"] if c["command"] != "getCurDeviceAbilityInfo")' ||
        failed "check --sim-net --delay 150: exit $rc, expected 0 and every exchange at least 150 ms"
}

# No head at all: exit 3 with the plain line first.
no_head() {
    run "$ztproxy" check --local 127.0.0.1 --remote 127.0.0.1
    [ $rc -eq 3 ] && [ ! -s "$tmp/out" ] &&
        [ "$(head -1 "$tmp/err")" = "ztproxy: no network head came online at 127.0.0.1:42001 (from 127.0.0.1, init returned 205)" ] ||
        failed "check without a head: exit $rc, expected 3 and the plain line"
}

# Bad options are refused with what was expected, before anything listens or connects.
bad_input() {
    local line
    while IFS='|' read -r line; do
        # shellcheck disable=SC2086 # the options are words
        usage_error "sim head $line" "$ztproxy" sim head $line
    done <<'LIST'
--status getCameraGain
--status frobnicate=1
--set setCameraGain=1
--set getCameraGain=fast
--set getCameraExposure=inf
--no-reply 70000
--delay -5
--delay
LIST
    run "$ztproxy" sim head --status getCameraGain
    [ "$(cat "$tmp/err")" = "ztproxy: sim head: --status NAME=CODE: 'getCameraGain' is not NAME=CODE (see ztproxy sim head --help)" ] ||
        failed "the form of --status is not named"
    run "$ztproxy" sim head --set setCameraGain=1
    grep -qF "setCameraGain reports no value the simulated head keeps (those are: getImageSize, getScanDataSource, getCameraExposure," "$tmp/err" ||
        failed "--set of a setting does not list the values"
    run "$ztproxy" sim head --no-reply 70000
    grep -qF "'70000' is not a device command (a method name such as getCameraGain, or a type code from 0 to 65535)" "$tmp/err" ||
        failed "--no-reply with a bad code does not say what was expected"
    run "$ztproxy" sim head --set getCameraGain=fast
    grep -qF "getCameraGain value 'fast' is not a whole number" "$tmp/err" || failed "--set with a bad value does not name it"

    usage_error "check without a head" "$ztproxy" check
    usage_error "check with two heads" "$ztproxy" check --sim-net --sim-usb
    usage_error "check with presets on a real head" "$ztproxy" check --local 127.0.0.1 --remote 127.0.0.1 --status 19=1
    usage_error "check with a delay on the USB head" "$ztproxy" check --sim-usb --delay 10
    usage_error "check for no time" "$ztproxy" check --sim-net --seconds 0
    usage_error "check with a bad address" "$ztproxy" check --local 127.0.0.1 --remote 300.1.1.1
    run "$ztproxy" check --help
    [ $rc -eq 0 ] && grep -q -- "--seconds N" "$tmp/out" && grep -q -- "--status NAME=CODE" "$tmp/out" &&
        grep -q "getCameraExposure (fraction)" "$tmp/out" || failed "check --help names no options or presets"
    run "$ztproxy" sim head --help
    [ $rc -eq 0 ] && grep -q -- "--no-reply NAME" "$tmp/out" || failed "sim head --help names no presets"
}

case ${2:-} in
"") side_by_side sim_heads wrong_head scan_frames slow_head no_head bad_input ;;
sim_heads | wrong_head | scan_frames | slow_head | no_head | bad_input) "$2" ;;
*) echo "unknown piece: $2" >&2; exit 2 ;;
esac
exit $fail
