#!/bin/sh
# Reads every source of the library as Visual C++'s dialect of C++: clang in Microsoft mode, with free headers of the
# platform and another standard library. Tells errors of syntax and what is not portable; compiles nothing, links
# nothing, and knows none of Visual C++'s own warnings (docs/testing.md). usage: portability.sh [SOURCE...]
set -eu
cd "$(dirname "$0")/.."

headers=build/portability
llvm=$(clang++-19 -print-resource-dir)
platform=/usr/include/wine/wine
rm -rf "$headers"
mkdir -p "$headers"
# Of these the free headers have none.
ln -s /usr/share/mingw-w64/include/wrl "$headers/wrl"

[ $# -gt 0 ] || set -- $(git ls-files -c -o --exclude-standard -- \
  'runtime/*.cpp' 'services/*.cpp' 'msiregistry/*.cpp' 'tasks/*.cpp' 'components/*.cpp' 'actions/*.cpp')
printf '%s\n' "$@" | xargs -P "$(nproc)" -n 1 clang++-19 \
  --target=x86_64-pc-windows-msvc -fms-compatibility -fms-compatibility-version=19.40 -fms-extensions \
  -fexceptions -fcxx-exceptions -std=c++20 -fsyntax-only \
  -Werror -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wmicrosoft \
  -D_LIBCPP_NO_VCRUNTIME -DWINE_UNICODE_NATIVE -DUNICODE -D_UNICODE -DNOMINMAX -D_WIN32_WINNT=0x0A00 \
  -nostdinc -isystem "$llvm/../../../include/c++/v1" -isystem "$llvm/include" \
  -isystem "$platform/msvcrt" -isystem "$platform/windows" -isystem "$headers" \
  -include cmake/microsoft_mode.h -I. -Ibuild/release/generated
echo "portability: $# sources read in Microsoft mode: ok"
