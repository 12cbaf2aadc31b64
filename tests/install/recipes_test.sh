#!/bin/sh
# Configures the library with the variables that each distribution's recipe passes, without what a firmware
# build may not need.
#   recipes_test.sh SOURCE
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for recipe in buildroot/qvlib.mk yocto/qvlib_1.0.0.bb openwrt/Makefile; do
    options=$(grep -o -E -e '-D[A-Z_]+=[A-Za-z]+' "$1/packaging/$recipe")
    # shellcheck disable=SC2086 # words are wanted
    cmake -S "$1" -B "$work/build" $options -DCMAKE_INSTALL_PREFIX=/usr -Werror=dev --warn-unused-vars \
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
