#!/usr/bin/env bash
# The library exports the plain message functions unmangled and, beyond them, only the
# log controls and the members of its exported classes: no helper and nothing of the
# libraries it is built from.
set -euo pipefail
lib=$1
names=$(nm -D --defined-only "$lib" | awk '{print $3}')
fail=0
for f in zt_msg_create zt_msg_is_avalible zt_msg_get_msg_type zt_msg_get_sub_type zt_msg_get_data \
         zt_msg_get_data_len zt_msg_get_full_size zt_msg_release \
         zt_embedded_msg_create zt_embedded_msg_is_avalible zt_embedded_msg_get_msg_type \
         zt_embedded_msg_get_data zt_embedded_msg_get_data_len zt_embedded_msg_get_full_size \
         zt_embedded_msg_release ztProxyVersion; do
    grep -qx "$f" <<<"$names" || { echo "missing unmangled export: $f"; fail=1; }
done
stray=$(c++filt <<<"$names" | grep -vE '^(zt_msg_|zt_embedded_msg_|ztc_|ztLog|ztProxyVersion$)|^(vtable for |typeinfo for |typeinfo name for )?(zt[A-Z][A-Za-z0-9_]*|TThreadC<void>)(::|$)' || true)
if [ -n "$stray" ]; then
    echo "exported but not part of the interface:"
    echo "$stray"
    fail=1
fi
exit $fail
