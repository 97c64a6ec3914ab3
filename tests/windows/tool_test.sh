#!/usr/bin/env bash
# ztproxy.exe under Wine, inside the private network namespace that run_wine.sh makes: a
# simulated head in one Windows process, commands and a stream against it from others, and
# the exit statuses a script relies on. Prints "N checks, F failed".
# Usage: tool_test.sh WINE ZTPROXY_EXE
set -uo pipefail
wine=$1
ztproxy=$2
top=$(cd "$(dirname "$0")/../.." && pwd)
fail=0
checks=0
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
export LC_ALL=C

. "$top/tests/support/tool_test_lib.sh"
tool=("$wine" "$ztproxy")
host=("${tool[@]}" --log-level off net --local 127.0.0.1 --remote 127.0.0.1)
# Wine ends its lines as Windows does.
out() { tr -d '\r' <"$tmp/out"; }
failures=0
check() { # description, condition...
    checks=$((checks + 1))
    local what=$1
    shift
    "$@" || { failures=$((failures + 1)); failed "$what (exit $rc)"; }
}

run "${tool[@]}" --version
check "--version names the library" eval '[ $rc -eq 0 ] && out | grep -Eq "^ztproxy [0-9]+\.[0-9]+\.[0-9]+$"'

# No head: the connect is refused at once, and the tool says so with its own status.
run "${host[@]}" getCameraExposure
check "net without a head exits 3 with one line" \
    eval '[ $rc -eq 3 ] && [ "$(wc -l <"$tmp/err")" -eq 1 ] && grep -q "no network head came online" "$tmp/err"'
run "${tool[@]}" net --local 127.0.0.1 --remote 300.1.1.1 getCameraExposure
check "net with a bad address is a usage error naming it" eval '[ $rc -eq 2 ] && grep -q "300.1.1.1" "$tmp/err"'

# A simulated head in a Windows process of its own; every command is a new host process.
start_listening head "${tool[@]}" sim head --stream-rate 50
head=$bg
run "${host[@]}" setCameraExposure 12.5
check "net setCameraExposure" eval '[ $rc -eq 0 ] && [ "$(out)" = "result: 0" ]'
check "the head saw the setting" wait_for "$tmp/head" "command 7, 4 payload bytes"
run "${host[@]}" getCameraExposure
check "net getCameraExposure returns the setting" eval '[ $rc -eq 0 ] && out | grep -q "12.5"'
run "${tool[@]}" --log-level off stream --local 127.0.0.1 --remote 127.0.0.1 --seconds 2 --json
check "stream from the head in the other process" eval '[ $rc -eq 0 ] && json_holds "d[\"frames\"] > 0"'
kill -TERM "$head" 2>/dev/null
wait "$head" 2>/dev/null

# The simulated head inside the streaming process.
run "${tool[@]}" --log-level off stream --sim-net --seconds 2 --json
check "stream --sim-net" eval '[ $rc -eq 0 ] && json_holds "d[\"frames\"] > 0 and d[\"dropped\"] == 0"'
run "${tool[@]}" --log-level off stream --sim-net --seconds 1 --save-every 1 --out .
check "stream --save-every says this build saves no images" eval '[ $rc -ne 0 ] && grep -q "no PNG writer" "$tmp/err"'

echo "$checks checks, $failures failed"
exit $fail
