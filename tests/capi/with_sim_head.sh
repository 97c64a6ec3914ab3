#!/usr/bin/env bash
# Runs a command while a simulated network head listens on 127.0.0.1:42001.
# Arguments: the ztproxy tool, then the command.
set -euo pipefail
ztproxy=$1
shift
log=$(mktemp)
"$ztproxy" sim head >"$log" 2>&1 &
head=$!
trap 'kill $head 2>/dev/null; wait $head 2>/dev/null; rm -f "$log"' EXIT
for _ in $(seq 100); do grep -q listening "$log" && break; sleep 0.05; done
grep -q listening "$log" || { echo "the simulated head did not start:"; cat "$log"; exit 1; }
"$@"
