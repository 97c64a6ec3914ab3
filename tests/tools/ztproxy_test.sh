#!/usr/bin/env bash
# The ztproxy tool as a user meets it: help, errors, the demo, and the simulated module
# started and stopped. Runs inside a private network namespace (netns_run.sh).
set -uo pipefail
ztproxy=$1
fail=0
check() { # description, expected status, command...
    local what=$1 want=$2
    shift 2
    "$@" >/tmp/ztproxy_test.$$ 2>&1
    local got=$?
    if [ "$got" -ne "$want" ]; then
        echo "FAIL: $what: exit $got, expected $want"
        cat /tmp/ztproxy_test.$$
        fail=1
    fi
}
check "help" 0 "$ztproxy" --help
check "demo help" 0 "$ztproxy" demo --help
check "no command" 2 "$ztproxy"
check "unknown command" 2 "$ztproxy" frobnicate
check "unknown option" 2 "$ztproxy" --loud demo
check "bad log level" 2 "$ztproxy" --log-level loud demo
check "sim without an end" 2 "$ztproxy" sim
check "sim usb help" 0 "$ztproxy" sim usb --help
check "sim usb with a command" 2 "$ztproxy" sim usb -- true
check "demo" 0 "$ztproxy" --log-level error demo
grep -q "every step went as expected" /tmp/ztproxy_test.$$ || { echo "FAIL: demo summary missing"; fail=1; }

# The simulated module answers a host until it is stopped.
"$ztproxy" sim module >/tmp/ztproxy_sim.$$ 2>&1 &
sim=$!
for _ in $(seq 50); do grep -q listening /tmp/ztproxy_sim.$$ && break; sleep 0.1; done
# A register request by hand: magic 0x2324, type 3, sub type 1, no payload.
exec 3<>/dev/tcp/127.0.0.1/9479
printf '\x24\x23\x00\x00\x03\x00\x00\x00\x01\x00\x00\x00\x00\x00\x00\x00' >&3
reply=$(timeout 2 head -c 20 <&3 | od -An -tx1 | tr -d ' \n')
exec 3>&-
[ "$reply" = "2423000004000000010000000400000001000000" ] || { echo "FAIL: sim module reply $reply"; fail=1; }
kill -TERM $sim
wait $sim || { echo "FAIL: sim module did not stop cleanly"; fail=1; }
grep -q "request 0x00001" /tmp/ztproxy_sim.$$ || { echo "FAIL: sim module did not report the request"; fail=1; }
rm -f /tmp/ztproxy_test.$$ /tmp/ztproxy_sim.$$
exit $fail
