#!/bin/sh
# Compares what vectors.c prints with the lines of the golden file that hold for its machine.
#   formats_test.sh vectors.golden PROGRAM [ARGUMENT...]
set -eu
export LC_ALL=C
golden=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$@" >"$work/printed"
order=$(awk '$1 == "big" || $1 == "little" { print $1; exit }' "$work/printed")
grep -a -E "^(every|${order:-neither}) " "$golden" >"$work/expected"
diff -a "$work/expected" "$work/printed"
