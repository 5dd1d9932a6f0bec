#!/usr/bin/env bash
# Checks that the C library exports exactly the functions of quelworks_c.h, each listed in
# quelworks_c.def, and nothing else (no C++ name).
#
#   check-exports.sh LIBRARY HEADER DEF
#
# LIBRARY is libquelworks_c.so (read with nm) or quelworks_c.dll (read with objdump -p).
set -euo pipefail
lib=$1
header=$2
def=$3
work=$(mktemp -d /tmp/qw-exports.XXXXXX)
trap 'rm -rf "$work"' EXIT

grep -o 'QW_CALL qw_[a-z0-9_]*(' "$header" | sed 's/QW_CALL //; s/($//' | sort >"$work/header"
awk '/^EXPORTS/ {on = 1; next} on && NF {print $1}' "$def" | sort >"$work/def"
case "$lib" in
*.dll)
    objdump=$(command -v x86_64-w64-mingw32-objdump || command -v objdump)
    "$objdump" -p "$lib" |
        awk '/\[Ordinal\/Name Pointer\] Table/ {on = 1; next}
             on && /^[[:space:]]*\[/ {print $NF; next}
             {on = 0}' |
        sort >"$work/exported"
    ;;
*)
    nm -D --defined-only "$lib" | awk '$2 ~ /^[TtWwDdBbRr]$/ {print $3}' | sed 's/@.*//' |
        sort >"$work/exported"
    ;;
esac

status=0
if [ ! -s "$work/exported" ]; then
    echo "check-exports: no exports read from $lib" >&2
    exit 1
fi
if grep -v '^qw_' "$work/exported" >"$work/foreign"; then
    echo "check-exports: $lib exports names outside the C interface:" >&2
    head -20 "$work/foreign" >&2
    status=1
fi
if ! diff -u "$work/header" "$work/exported" >"$work/diff1"; then
    echo "check-exports: exports differ from the header's functions (- header, + library):" >&2
    cat "$work/diff1" >&2
    status=1
fi
if ! diff -u "$work/header" "$work/def" >"$work/diff2"; then
    echo "check-exports: quelworks_c.def differs from the header's functions (- header, + def):" >&2
    cat "$work/diff2" >&2
    status=1
fi
[ "$status" -eq 0 ] && echo "$lib exports the $(wc -l <"$work/exported") functions of the header, nothing else"
exit "$status"
