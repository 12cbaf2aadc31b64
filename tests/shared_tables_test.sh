#!/bin/sh
# Holds the tables of codes and texts in pages that processes share: nothing that the loader writes to.
#   shared_tables_test.sh ARCHIVE [firmware]
# What a firmware build unpacks is the process's own. Labels of the compiler's name the place of a table that is
# listed, too.
set -eu
status=0
for member in scsi.cpp.o sfp.cpp.o; do
    work=$(mktemp)
    nm "$1" 2> /dev/null | awk -v member="$member:" '/:$/ { wanted = $0 == member } wanted && NF == 3 && $3 !~ /^\.L/' > "$work"
    grep -q ' r ' "$work" || { echo "$member has no constant tables" >&2; status=1; }
    [ "${2-}" != firmware ] || sed -i '/ b .*\(asc\|opcode\)_texts/d' "$work"
    # Daemons walk the one table of pointers.
    for name in $(awk '$2 ~ /[dDbB]/ && $3 != "standards_list" { print $3 }' "$work"); do
        echo "$member: $name is not in shared pages" >&2
        status=1
    done
    rm -f "$work"
done
exit $status
