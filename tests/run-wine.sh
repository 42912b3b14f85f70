#!/bin/sh
# Runs one test program on Wine in a throwaway prefix; its exit code is this script's.
# usage: run-wine.sh TEMPLATE STAGE PROGRAM [ARGUMENT...]
# TEMPLATE: from wine-template.sh; STAGE: a folder whose files the program finds in C:\corvi.
set -u

. "$(dirname "$0")/wine-prefix.sh"
template=$1
stage=$2
program=$3
shift 3

trap corvi_drop_prefix EXIT
trap 'exit 130' INT TERM HUP
corvi_new_prefix "$template" "$stage" || exit 1
cp "$program" "$WINEPREFIX/drive_c/corvi/" || exit 1
# Another build of the library in place of the stage's, as 'make clang' asks.
[ -z "${CORVI_LIBRARY:-}" ] || cp "$CORVI_LIBRARY" "$WINEPREFIX/drive_c/corvi/Corvi_CA.dll" || exit 1
cd "$WINEPREFIX/drive_c/corvi" || exit 1
timeout -k 5 "${CORVI_TEST_TIMEOUT:-580}" wine "C:\\corvi\\$(basename "$program")" "$@" </dev/null
code=$?
[ "$code" -ne 124 ] || echo "run-wine: timed out after ${CORVI_TEST_TIMEOUT:-580} s" >&2
exit "$code"
