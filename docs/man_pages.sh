#!/bin/sh
# man_pages.sh DIRECTORY [COMPRESSED]: makes of Doxygen's man pages those that are installed, compressed for ON.
set -eu
cd "$1"

# Pages of files and of enumerations without a name, and links that have the names of fields: "next", "data". A
# field's leads to a record, which is described on the facility's page and has none of its own.
rm -f ./*.h.3 ./@*.3
fields=
for page in *.3; do
    target=$(sed -n '1s,^\.so man3/,,p' "$page")
    [ -z "$target" ] || grep -q -s '^\.TH' "$target" || fields="$fields $page"
done
# shellcheck disable=SC2086 # words are wanted
[ -z "$fields" ] || rm $fields

# "NAME, NAME \- purpose" on one line, which is what whatis and apropos read.
sed -i '/^\.SH NAME$/ { n; N; N; s/^[^ ]* \\- \(.*\)\n\.PP\n \\- \(.*[^ ]\) *$/\1 \\- \2/; }' ./*.3

if [ "${2-}" = ON ]; then
    gzip -9n ./*.3
fi
