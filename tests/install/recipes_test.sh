#!/bin/sh
# Configures the library with the variables that each distribution's recipe passes, and before them those that its
# build system passes to every project, without what a firmware build may not need.
#   recipes_test.sh SOURCE
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# system_options RECIPE: what goes to every project, but for the toolchain's own files and flags.
system_options() {
    case $1 in
    buildroot/*)
        echo -DCMAKE_INSTALL_RUNSTATEDIR=/run -DCMAKE_COLOR_MAKEFILE=OFF -DBUILD_DOC=OFF -DBUILD_DOCS=OFF \
            -DBUILD_EXAMPLE=OFF -DBUILD_EXAMPLES=OFF -DBUILD_TEST=OFF -DBUILD_TESTS=OFF -DBUILD_TESTING=OFF \
            -DBUILD_SHARED_LIBS=ON
        ;;
    yocto/*)
        echo -DCMAKE_INSTALL_BINDIR:PATH=bin -DCMAKE_INSTALL_SBINDIR:PATH=sbin -DCMAKE_INSTALL_LIBEXECDIR:PATH=libexec \
            -DCMAKE_INSTALL_SYSCONFDIR:PATH=/etc -DCMAKE_INSTALL_LOCALSTATEDIR:PATH=/var \
            -DCMAKE_INSTALL_LIBDIR:PATH=lib -DCMAKE_INSTALL_INCLUDEDIR:PATH=include \
            -DCMAKE_INSTALL_DATAROOTDIR:PATH=share -DCMAKE_INSTALL_SO_NO_EXE=0 -DCMAKE_NO_SYSTEM_FROM_IMPORTED=1 \
            -DCMAKE_EXPORT_NO_PACKAGE_REGISTRY=ON -DFETCHCONTENT_FULLY_DISCONNECTED=ON
        ;;
    openwrt/*)
        echo -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_VERSION=1 "-DCMAKE_SYSTEM_PROCESSOR=$(uname -m)" \
            -DCMAKE_BUILD_TYPE=Release -DCMAKE_FIND_ROOT_PATH_MODE_PROGRAM=BOTH -DCMAKE_STRIP=: \
            -DCMAKE_SKIP_RPATH=TRUE -DCMAKE_EXPORT_PACKAGE_REGISTRY=FALSE
        ;;
    esac
}

for recipe in buildroot/qvlib.mk yocto/qvlib_1.0.0.bb openwrt/Makefile; do
    options=$(grep -o -E -e '-D[A-Z_]+=[A-Za-z]+' "$1/packaging/$recipe")
    # shellcheck disable=SC2046,SC2086 # words are wanted
    cmake -S "$1" -B "$work/build" $(system_options "$recipe") -DCMAKE_INSTALL_PREFIX=/usr $options \
        -Werror=dev --warn-unused-vars \
        -DCMAKE_DISABLE_FIND_PACKAGE_CLI11=ON -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON \
        -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON >"$work/log" 2>&1 || {
        cat "$work/log" >&2
        exit 1
    }
    for option in $options; do
        name=${option#-D}
        grep -q "^${name%%=*}:[A-Z]*=${name#*=}\$" "$work/build/CMakeCache.txt" || {
            echo "recipes_test: $recipe passes $option, which is not taken" >&2
            exit 1
        }
    done
    [ "$(wc -l <"$1/packaging/$recipe")" -lt 30 ] || {
        echo "recipes_test: $recipe is not short" >&2
        exit 1
    }
    rm -rf "$work/build"
done
