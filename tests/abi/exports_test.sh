#!/bin/sh
# Compares the symbols that a library exports, with their kind and version, with the list in both directions.
#   exports_test.sh exports.txt NM LIBRARY
set -eu
export LC_ALL=C
work=$(mktemp)
trap 'rm -f "$work"' EXIT

"$2" -D --defined-only --with-symbol-versions "$3" | awk '$2 != "A" { print $2, $3 }' | sort -k 2 >"$work"
if ! diff "$1" "$work"; then
    echo "exports_test: not what $(basename "$1") says; scripts/renew-abi if it is meant to be so" >&2
    exit 1
fi
