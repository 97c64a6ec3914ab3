#!/usr/bin/env bash
# Every installed header that declares an exported class belongs to a class the library
# was built with: a header of a left-out class would let a program compile and then fail
# to link. Arguments: the installed include folder and the library (.so or .dll).
set -euo pipefail
include=$1 lib=$2
case $lib in
    *.dll) symbols=$(x86_64-w64-mingw32-objdump -p "$lib" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p') ;;
    *) symbols=$(nm -D --defined-only "$lib") ;;
esac
fail=0 checked=0
for header in "$include"/*.h; do
    for class in $(sed -n 's/^class ZT_PROXY_API \([A-Za-z0-9_]*\).*/\1/p' "$header"); do
        checked=$((checked + 1))
        # Mangled names carry the class name after its length.
        grep -q "${#class}${class}" <<<"$symbols" ||
            { echo "$(basename "$header") declares $class, which $(basename "$lib") does not export"; fail=1; }
    done
done
[ "$checked" -gt 0 ] || { echo "no exported class found in $include"; exit 1; }
[ $fail -eq 0 ] && echo "$checked exported classes in the installed headers, all in $(basename "$lib")"
exit $fail
