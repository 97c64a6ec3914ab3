#!/usr/bin/env bash
# ztproxy sim head as a user meets it: help, bad options, a head that a host connects to
# by hand (commands, heartbeat, a streamed packet), and a clean stop. Runs inside a
# private network namespace (netns_run.sh).
set -uo pipefail
ztproxy=$1
out=/tmp/ztproxy_sim_head.$$
fail=0
check() { # description, expected status, command...
    local what=$1 want=$2
    shift 2
    "$@" >$out.check 2>&1
    local got=$?
    if [ "$got" -ne "$want" ]; then
        echo "FAIL: $what: exit $got, expected $want"
        cat $out.check
        fail=1
    fi
}
check "help" 0 "$ztproxy" sim head --help
grep -q -- "--stream-rate MBPS" $out.check || { echo "FAIL: help names no options"; fail=1; }
check "sim help names head" 0 "$ztproxy" sim --help
grep -q "sim head" $out.check || { echo "FAIL: sim help does not name head"; fail=1; }
check "port out of range" 2 "$ztproxy" sim head --port 70000
check "port not a number" 2 "$ztproxy" sim head --port 4x
check "bad address" 2 "$ztproxy" sim head --bind 300.1.1.1
check "negative rate" 2 "$ztproxy" sim head --stream-rate -3
check "missing value" 2 "$ztproxy" sim head --bind
check "unknown option" 2 "$ztproxy" sim head --loud
grep -q "unknown argument '--loud'" $out.check || { echo "FAIL: no one-line error"; fail=1; }

hex() { od -An -v -tx1 | tr -d ' \n'; }

"$ztproxy" sim head --port 42001 --stream-rate 0 >$out 2>&1 &
sim=$!
for _ in $(seq 50); do grep -q listening $out && break; sleep 0.1; done
# The four connections, in the order a host opens them.
exec 3<>/dev/tcp/127.0.0.1/42001
exec 4<>/dev/tcp/127.0.0.1/42001
exec 5<>/dev/tcp/127.0.0.1/42001
exec 6<>/dev/tcp/127.0.0.1/42001
# Program version query (type 276): status 0, version word 0x01020304.
printf '\xaa\x08\x00\x00\x00\x14\x01\xbb' >&3
reply=$(timeout 2 head -c 16 <&3 | hex)
[ "$reply" = "aa1000000014010000000004030201bb" ] || { echo "FAIL: version reply $reply"; fail=1; }
# A heartbeat on the command-data connection is answered there.
printf '\xaa\x08\x00\x00\x00\x02\x00\xbb' >&5
reply=$(timeout 2 head -c 8 <&5 | hex)
[ "$reply" = "aa080000000200bb" ] || { echo "FAIL: heartbeat answer $reply"; fail=1; }
# The stream on the data connection: 262144-byte packets of type 1280 with their tag.
packet=$(timeout 3 head -c 262144 <&4 | hex)
[ "${packet:0:14}" = "aa000004000005" ] || { echo "FAIL: packet header ${packet:0:14}"; fail=1; }
[ "${packet:14:114}" = "$(printf '0%.0s' $(seq 114))" ] || { echo "FAIL: header bytes 7-63 not zero"; fail=1; }
[ "${packet:144:8}" = "55ff00cc" ] || { echo "FAIL: packet tag ${packet:144:8}"; fail=1; }
[ "${packet: -2}" = "bb" ] || { echo "FAIL: packet tail ${packet: -2}"; fail=1; }
exec 3>&- 4>&- 5>&- 6>&-
kill -TERM $sim
wait $sim || { echo "FAIL: sim head did not stop cleanly"; fail=1; }
for line in "command connection from 127.0.0.1" "light-pen connection from 127.0.0.1" \
    "command 276, 0 payload bytes" "streaming 262144-byte packets of type 1280" "streamed " "stopped"; do
    grep -q "$line" $out || { echo "FAIL: output lacks '$line'"; fail=1; }
done
[ $fail -eq 0 ] || cat $out
rm -f $out $out.check
exit $fail
