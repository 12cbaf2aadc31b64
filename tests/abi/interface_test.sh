#!/bin/sh
# Compares the types, records and functions of a library with debugging information with the description of them.
#   interface_test.sh qvlib-x86_64.abi LIBRARY
set -eu
if ! abidiff --exported-interfaces-only --harmless --fail-no-debug-info "$1" "$2"; then
    echo "interface_test: not what $(basename "$1") says; scripts/renew-abi if it is meant to be so" >&2
    exit 1
fi
