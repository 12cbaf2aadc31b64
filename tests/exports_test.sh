#!/bin/sh
# Holds the built library against its export list, in both directions, and checks its name and what it needs.
#   exports_test.sh LIBRARY VERSION_SCRIPT [sanitized]
set -eu
export LC_ALL=C
library=$1
script=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0

fail()
{
    echo "exports_test: $1" >&2
    status=1
}

sed -e 's/#.*//' -e '/local:/,$d' -e 's/.*{//' -e 's/global://' "$script" | tr ';' '\n' | tr -d ' \t' |
    grep . | sort > "$work/listed"
nm -D --defined-only --with-symbol-versions "$library" | awk '$2 != "A" { print $3 }' | sort > "$work/versioned"
sed 's/@.*//' "$work/versioned" | sort > "$work/exported"

[ -s "$work/listed" ] || fail "no names in $script"
for name in $(comm -23 "$work/listed" "$work/exported"); do fail "$name is listed but not exported"; done
for name in $(comm -13 "$work/listed" "$work/exported"); do fail "$name is exported but not listed"; done
for name in $(grep -v '@@QVLIB_1\.0$' "$work/versioned"); do fail "$name has not the version QVLIB_1.0"; done

readelf -d "$library" | grep -q 'SONAME.*\[libqvlib\.so\.1\]' || fail "the library's name is not libqvlib.so.1"
if [ "${3:-}" != sanitized ]; then
    for needed in $(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
        case $needed in
        libc.so.*) ;;
        *) fail "the library needs $needed" ;;
        esac
    done
fi
exit $status
