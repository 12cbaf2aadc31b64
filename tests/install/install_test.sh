#!/bin/sh
# Installs a build below a root and another prefix, sees that every file is there, and lets programs use it.
#   install_test.sh BUILD LIBDIR VERSION WITH_TOOLS WITH_EXAMPLES
set -eu
build=$1
libdir=$2
version=$3
tools=$4
examples=$5
here=$(cd "$(dirname "$0")" && pwd)
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
prefix=/opt/unit

DESTDIR=$root cmake --install "$build" --prefix $prefix >/dev/null
cd "$root$prefix"
set -- "$libdir/libqvlib.so.$version" "$libdir/libqvlib.so.1" "$libdir/libqvlib.so" "$libdir/libqvlib.a" \
    include/qvlib.h include/qvlib/corelink.h "$libdir/pkgconfig/qvlib.pc" "$libdir/cmake/qvlib/qvlib-config.cmake" \
    "$libdir/cmake/qvlib/qvlib-config-version.cmake"
[ "$examples" != ON ] || set -- "$@" share/doc/qvlib/examples/unitd.c share/doc/qvlib/examples/config/appliance.cl \
    share/doc/qvlib/docs/corelink.md
[ "$tools" != ON ] || set -- "$@" bin/qvl share/man/man1/qvl.1 share/bash-completion/completions/qvl
for file; do
    [ -e "$file" ] || {
        echo "install_test: $file is not installed" >&2
        exit 1
    }
done
# What is installed knows neither the build's place nor another prefix than this one.
if grep -rlE "$build" .; then
    echo "install_test: these name the build" >&2
    exit 1
fi
[ "$tools" != ON ] || bin/qvl --version
sed -i "s#^prefix=.*#prefix=$prefix#" "$libdir/pkgconfig/qvlib.pc"
"$here/programs_test.sh" "$root" $prefix "$libdir"
