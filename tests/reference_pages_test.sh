#!/bin/sh
# Builds the API reference without a warning, installs it, and holds its man pages against the export list.
#   reference_pages_test.sh CMAKE SOURCE WORK
set -eu
export LC_ALL=C.UTF-8
cmake=$1
source=$2
work=$3
status=0

fail()
{
    echo "reference_pages_test: $1" >&2
    status=1
}

rm -rf "$work"
"$cmake" -S "$source" -B "$work/build" -G Ninja -DQVLIB_BUILD_DOCS=ON -DQVLIB_BUILD_TESTS=OFF \
    -DQVLIB_BUILD_TOOLS=OFF -DQVLIB_BUILD_EXAMPLES=OFF >/dev/null
"$cmake" --build "$work/build" --target reference >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }
if grep -E 'warning|error' "$work/log" >&2; then fail "the reference has warnings"; fi
"$cmake" --install "$work/build" --component reference --prefix "$work/installed" >/dev/null
[ -s "$work/installed/share/doc/qvlib/html/index.html" ] || fail "no HTML is installed"
cd "$work/installed/share/man"

sed -e 's/#.*//' -e '/local:/,$d' -e 's/.*{//' -e 's/global://' "$source/src/qvlib.map" | tr ';' '\n' |
    tr -d ' \t' | grep . >"$work/exported"
while read -r name; do
    page=man3/$name.3
    if [ ! -s "$page" ]; then
        fail "$name has no page"
        continue
    fi
    target=$(sed -n '1s/^\.so //p' "$page")
    [ -z "$target" ] || page=$target
    grep -q "\\\\fB$name\\\\fP\| $name[ (\\[]" "$page" || fail "the page of $name does not declare it"
done <"$work/exported"
[ "$(wc -l <"$work/exported")" -gt 200 ] || fail "no names in the export list"

# A header with an argument left out, with one that is none, or with a result left out must not pass.
refuse()
{
    mkdir -p "$work/broken/reference"
    cp -R "$source/include" "$source/docs" "$work/broken"
    sed -i "$2" "$work/broken/include/qvlib/$1"
    if (cd "$work/broken" && QVLIB_VERSION=0 QVLIB_REFERENCE=reference QVLIB_PYTHON=python3 doxygen docs/Doxyfile) \
        >"$work/log" 2>&1 || ! grep -q -e "$3" "$work/log"; then
        fail "$1 passes after: $2"
    fi
    rm -rf "$work/broken"
}
refuse log.h '/^ \* telnet_port  /d' "parameter 'telnet_port'"
refuse log.h 's/^ \* telnet_port  .*/&\n * tcp_port  none/' "'tcp_port' of command @param is not found"
refuse queue.h 's/Returns the number of occupied slots/Counts occupied slots/' 'return type of member q_queuecount'

# Each page by itself, as whoever asks for one of its names sees it.
for page in man3/*.3; do
    grep -q '^\.TH' "$page" || continue
    warnings=$(MANWIDTH=100 man --warnings --local-file "$page" 2>&1 >"$work/page")
    [ -z "$warnings" ] || fail "$page: $warnings"
    lexgrog "$page" >/dev/null || fail "$page: whatis can't read its NAME"
    for paragraph in Errors Ownership Threads; do
        grep -q "^ *$paragraph\$" "$work/page" || fail "$page has no paragraph $paragraph"
    done
done
exit $status
