#!/bin/sh
# Makes the release archive from what 'make dist' has built: build/corvi-VERSION.zip.
# The tool's declarations for the current WiX generation come from the tool itself, run in a throwaway prefix.
set -eu
cd "$(dirname "$0")/.."

. tests/wine-prefix.sh
trap corvi_drop_prefix EXIT
trap 'exit 130' INT TERM HUP
tests/wine-template.sh build/release/wine-template
mkdir -p build/dist/tool
cp build/corvi.exe build/Corvi_CA.dll build/dist/tool/
corvi_new_prefix build/release/wine-template build/dist/tool
(cd "$WINEPREFIX/drive_c/corvi" && timeout -k 5 60 wine 'C:\corvi\corvi.exe' include --wix 4) >build/dist/Corvi_CA.wix4.wxs
python3 -B scripts/dist.py build build/release/stage build/dist/Corvi_CA.wix4.wxs
