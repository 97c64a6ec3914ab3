#!/usr/bin/env bash
# The README's example host programs: the network ones (C++ and C) against `ztproxy sim
# head`, the USB one without a device (its one-line refusal). Runs inside a private network namespace
# (netns_run.sh), since the head's port is fixed.
set -uo pipefail
ztproxy=$1 network_host=$2 network_host_c=$3 usb_host=${4:-}
out=$(mktemp -d)
trap 'kill "$sim" 2>/dev/null; wait 2>/dev/null; rm -rf "$out"' EXIT
fail=0

"$ztproxy" sim head --stream-rate 0 >"$out/sim" 2>&1 &
sim=$!
for _ in $(seq 50); do grep -q listening "$out/sim" && break; sleep 0.1; done

if ! timeout 30 "$network_host" 127.0.0.1 127.0.0.1 >"$out/net" 2>&1; then
    echo "FAIL: network_host did not succeed"
    fail=1
fi
for want in "head online" "exposure 2500.0" "image 1280x1024" "firmware "; do
    grep -q "^$want" "$out/net" || { echo "FAIL: network_host printed no '$want'"; fail=1; }
done
[ $fail -eq 0 ] || cat "$out/net"

if ! timeout 30 "$network_host_c" 127.0.0.1 127.0.0.1 >"$out/c" 2>&1 ||
    [ "$(cat "$out/c")" != "$(printf 'head online\nexposure 2500.0\nimage 1280x1024')" ]; then
    echo "FAIL: network_host_c"
    cat "$out/c"
    fail=1
fi

if [ -n "$usb_host" ]; then
    timeout 30 "$usb_host" dead beef >"$out/usb" 2>&1
    rc=$?
    if [ $rc -ne 1 ] || [ "$(cat "$out/usb")" != "no USB scanner head dead:beef" ]; then
        echo "FAIL: usb_host without a device: exit $rc"
        cat "$out/usb"
        fail=1
    fi
fi
exit $fail
