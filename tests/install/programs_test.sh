#!/bin/sh
# Builds and runs programs against an installed tree, which they find by pkg-config and by find_package.
#   programs_test.sh ROOT PREFIX LIBDIR
set -eu
root=$1
prefix=$2
libdir=$3
sources=$(cd "$(dirname "$0")/consumer" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

runs() {
    printed=$(LD_LIBRARY_PATH=$root$prefix/$libdir "$@")
    [ "$printed" = "8 839206e3" ] || {
        echo "programs_test: $* printed \"$printed\"" >&2
        exit 1
    }
}

# pkg-config puts the root in front of what the file says.
export PKG_CONFIG_LIBDIR="$root$prefix/$libdir/pkgconfig"
[ -z "$root" ] || export PKG_CONFIG_SYSROOT_DIR="$root"
export PKG_CONFIG_ALLOW_SYSTEM_CFLAGS=1 PKG_CONFIG_ALLOW_SYSTEM_LIBS=1
cp "$sources/program.c" "$work/program.cpp"
# shellcheck disable=SC2046 # words are wanted
{
    ${CC:-cc} -std=c99 -Wall -Wextra -Werror "$sources/program.c" $(pkg-config --cflags --libs qvlib) -o "$work/c"
    ${CXX:-c++} -std=c++20 -Wall -Wextra -Werror "$work/program.cpp" $(pkg-config --cflags --libs qvlib) -o "$work/cxx"
    # All of the archive, with nothing but the C library.
    ${CC:-cc} "$sources/program.c" $(pkg-config --cflags qvlib) -pthread \
        -Wl,--whole-archive "$root$prefix/$libdir/libqvlib.a" -Wl,--no-whole-archive -o "$work/whole"
}
for program in c cxx whole; do runs "$work/$program"; done
if readelf -d "$work/whole" | grep NEEDED | grep -v 'libc\.so'; then
    echo "programs_test: the static library needs more than the C library" >&2
    exit 1
fi

cmake -S "$sources" -B "$work/build" -DWITH_CXX=ON -DCMAKE_PREFIX_PATH="$root$prefix" >"$work/log" 2>&1 &&
    cmake --build "$work/build" >>"$work/log" 2>&1 || {
    cat "$work/log" >&2
    exit 1
}
for program in shared static shared_cxx; do runs "$work/build/$program"; done
# A project without C++ can use both.
cmake -S "$sources" -B "$work/c-only" -DCMAKE_PREFIX_PATH="$root$prefix" >"$work/log" 2>&1 &&
    cmake --build "$work/c-only" >>"$work/log" 2>&1 || {
    cat "$work/log" >&2
    exit 1
}
for program in shared static; do runs "$work/c-only/$program"; done
