#!/usr/bin/env bash
# Runs the Windows test programs of a cross build under wine64, each in a private network
# namespace of its own (the suites use the protocol's fixed ports), and prints how many
# tests ran. Arguments: the Windows build folder, then optional program names (ztproxy_tool
# is the tool's own test, tool_test.sh with ztproxy.exe).
# The Wine prefix lives in the build folder and is made on the first run. The C interface
# program talks to a simulated head: ZT_SIM_TOOL names the Linux ztproxy that runs it.
set -euo pipefail
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
shift
wine=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver
export WINEPREFIX=$build/wine-prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
# The library sits in the build folder; Wine looks for DLLs along WINEPATH too.
export WINEPATH="Z:${build//\//\\}"
if [ ! -f "$WINEPREFIX/system.reg" ]; then
    echo "==> making the Wine prefix $WINEPREFIX"
    "$wine" wineboot -i >/dev/null 2>&1 || true
    "$wineserver" -w
fi

programs=("$@")
if [ ${#programs[@]} -eq 0 ]; then
    for exe in "$build"/tests/windows/*.exe; do programs+=("$(basename "$exe" .exe)"); done
    programs+=(ztproxy_tool)
fi

total=0 failed=()
for name in "${programs[@]}"; do
    exe=$build/tests/windows/$name.exe
    log=$build/tests/windows/$name.log
    # A fresh Wine server per namespace: one from an earlier namespace would keep making
    # its sockets there. The watchdog ends a program that hangs.
    rc=0
    command=("$wine" "$exe")
    case $name in
        capi_tests) command=("$here/../capi/with_sim_head.sh" "${ZT_SIM_TOOL:?ZT_SIM_TOOL names the Linux ztproxy}" "$wine" "$exe") ;;
        ztproxy_tool) command=("$here/tool_test.sh" "$wine" "$build/tools/ztproxy.exe") ;;
    esac
    # Broadcasts of the UDP client go to loopback, the only link of the namespace.
    unshare -rn bash -c 'ip link set lo up && ip route add 255.255.255.255/32 dev lo &&
        timeout -k 5 ${ZT_WINE_TIMEOUT:-150} "${@:2}"; rc=$?; "$1" -k 2>/dev/null; "$1" -w; exit $rc' \
        run "$wineserver" "${command[@]}" >"$log" 2>&1 || rc=$?
    # GoogleTest programs say how many tests ran; the C program how many checks.
    ran=$(sed -n -e 's/^\[==========\] \([0-9]*\) tests\{0,1\} from .* ran\..*/\1/p' \
        -e 's/^\([0-9]*\) checks, [0-9]* failed.*/\1/p' "$log" | tail -n 1)
    ran=${ran:-0}
    total=$((total + ran))
    if [ $rc -eq 0 ]; then
        printf '%-24s %4d tests  ok\n' "$name" "$ran"
    else
        printf '%-24s %4d tests  FAILED (exit %d, see %s)\n' "$name" "$ran" "$rc" "$log"
        grep -E '^\[  FAILED  \]' "$log" | sort -u | sed 's/^/    /' || true
        failed+=("$name")
    fi
done
echo "$total tests (the C program's checks among them) run under Wine in ${#programs[@]} programs"
[ ${#failed[@]} -eq 0 ]
