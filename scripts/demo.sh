#!/bin/sh
# Installs the suite's packages with the real installer in a throwaway Wine prefix and shows what the
# custom actions did. Needs the packages to be built; full logs stay in build/demo.
set -u
cd "$(dirname "$0")/.." || exit 1

fail() {
  echo "demo: $1" >&2
  exit 1
}
command -v wine >/dev/null 2>&1 || fail "Wine is not installed; run 'make setup'"
[ -f build/release/stage/graphics_driver.msi ] || fail "the packages are not built; run 'make demo'"

. tests/wine-prefix.sh
trap corvi_drop_prefix EXIT
trap 'exit 130' INT TERM HUP
[ -f build/release/wine-template/.complete ] || echo "Preparing a Windows machine (Wine prefix), once; this takes some seconds ..."
tests/wine-template.sh build/release/wine-template || fail "the Wine prefix could not be made"
corvi_new_prefix build/release/wine-template build/release/stage || fail "the Wine prefix could not be copied"
# One server for the whole story: a Windows machine that stays up between the runs.
wineserver -p
corvi_wait_for_services || fail "Wine does not start"
mkdir -p build/demo
python3 -B scripts/demo.py build/demo
