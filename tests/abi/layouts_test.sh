#!/bin/sh
# Compares the records of the public headers with the golden file of a machine, and sees that none is left out.
#   layouts_test.sh INCLUDE layouts.c GOLDEN PROGRAM [ARGUMENT...]
set -eu
export LC_ALL=C
include=$1
source=$2
golden=$3
shift 3
status=0

for record in $(sed -n -E -e 's/^(struct|union) ([a-z_0-9]+) \{.*/\2/p' -e 's/^} ([a-z_0-9]+);.*/\1/p' "$include"/qvlib/*.h); do
    grep -q -E "RECORD\((struct |union )?$record\)" "$source" || {
        echo "layouts_test: $record is not in layouts.c" >&2
        status=1
    }
done
if ! "$@" | diff "$golden" -; then
    echo "layouts_test: not what $(basename "$golden") says; scripts/renew-abi if it is meant to be so" >&2
    status=1
fi
exit $status
