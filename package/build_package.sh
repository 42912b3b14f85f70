#!/bin/sh
# Builds one package: wixl for 64-bit processors, then what wixl drops from the source.
# usage: build_package.sh PACKAGE.msi SOURCE.wxs [WIXL ARGUMENT...]
# Runs in the folder that holds Corvi_CA.dll and the files that the package carries.
set -u
package=$1
source=$2
shift 2
here=$(dirname "$0")
new=$package.new
messages=$(mktemp) || exit 1
trap 'rm -f "$messages" "$new"' EXIT

wixl -a x64 -o "$new" -I "$here" "$@" "$source" 2>"$messages"
code=$?
# What wixl says of the attributes that the next step writes is no news.
grep -v -E "no property named '(Secure|Schedule)'|^$" "$messages" >&2
[ "$code" -eq 0 ] || exit "$code"
python3 -B "$here/finish_package.py" "$new" "$source" -I "$here" && mv "$new" "$package"
