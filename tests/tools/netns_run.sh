#!/usr/bin/env bash
# Runs a command in a private network namespace with only its own loopback, so that it
# can use the protocol's fixed ports while other tests run.
set -euo pipefail
exec unshare -rn sh -c 'ip link set lo up && exec "$@"' sh "$@"
