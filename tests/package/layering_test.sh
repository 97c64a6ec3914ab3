#!/usr/bin/env bash
# The folders under src/ depend one way: a file includes headers only from its own folder
# and from folders below it. Folders of the same level (the shared codecs, the three links)
# never include each other.
set -euo pipefail
src=$1
level() {
    case $1 in
        platform) echo 0 ;;
        foundation) echo 1 ;;
        codec | image) echo 2 ;;
        commands) echo 3 ;;
        module_proxy | network | usb) echo 4 ;;
        capi) echo 5 ;;
        *) echo "" ;;
    esac
}
bad=0
while IFS= read -r line; do
    file=${line%%:*}
    rest=${line#*:}
    rest=${rest#*:}
    from=${file#"$src"/}
    from=${from%%/*}
    to=$(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([a-z_]*\)\/.*/\1/p' <<<"$rest")
    [ -n "$to" ] && [ "$to" != "$from" ] || continue
    lf=$(level "$from") lt=$(level "$to")
    if [ -z "$lf" ] || [ -z "$lt" ]; then
        echo "unknown folder in: $line"
        bad=1
    elif [ "$lt" -ge "$lf" ]; then
        echo "$from (level $lf) includes $to (level $lt): $line"
        bad=1
    fi
done < <(grep -rn '^[[:space:]]*#[[:space:]]*include[[:space:]]*"[a-z_]*/' "$src")
exit "$bad"
