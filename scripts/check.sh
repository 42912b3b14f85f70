#!/bin/sh
# Everything that can be told without running the library: format, layout, size, packages, lint, analysis.
# Needs build/release to be configured and build/Corvi_CA.dll to be built.
set -u
cd "$(dirname "$0")/.." || exit 1

# The sources stay clean: no compiled scripts beside them.
export PYTHONDONTWRITEBYTECODE=1

failed=0
step() {
  name=$1
  shift
  if "$@"; then
    echo "check: $name: ok"
  else
    echo "check: $name: FAILED" >&2
    failed=1
  fi
}

sources() {
  git ls-files -c -o --exclude-standard -- "$@" | grep -E '\.(cpp|h)$' | grep -v '\.in$'
}
library_folders="runtime services msiregistry tasks components actions"
product_folders="$library_folders tool"

format() {
  sources . | tr '\n' '\0' | xargs -0 clang-format --dry-run -Werror || {
    echo "check: 'clang-format -i FILE' mends the format" >&2
    return 1
  }
}

tidy() {
  # What runs in installs, what every test stands on, and the tool. The test programs and the files of the tool that
  # read the command line or write JSON are held by the compiler's warnings (the tool by cppcheck too): their
  # libraries' headers cost the analyser minutes for each file. clang needs to be told of the cross compiler's target
  # and headers.
  include=$(x86_64-w64-mingw32-g++-win32 -print-file-name=include)/c++
  # shellcheck disable=SC2086 # one word a folder
  sources $product_folders tests/support | grep '\.cpp$' | tr '\n' '\0' |
    xargs -0 grep -LZE '#include (<CLI/|<nlohmann/|"tool/action_call\.h")' |
    xargs -0 -n 2 -P "$(nproc)" clang-tidy --quiet -p build/release \
      --extra-arg-before=--target=x86_64-w64-mingw32 \
      --extra-arg=-nostdinc++ \
      "--extra-arg=-isystem$include" \
      "--extra-arg=-isystem$include/x86_64-w64-mingw32" \
      --extra-arg=-isystem/usr/x86_64-w64-mingw32/include 2>/dev/null
}

analysis() {
  # INVALID_HANDLE_VALUE is an integer to the tool's picture of the platform. That a newer release looks at the
  # branches of a long function up to a limit is no finding.
  # shellcheck disable=SC2086 # one word a folder
  cppcheck --suppress=CastIntegerToAddressAtReturn:tool/plan_files.cpp \
    --suppress=normalCheckLevelMaxBranches --quiet --enable=warning,performance,portability --inline-suppr --error-exitcode=1 \
    --std=c++20 --platform=win64 --library=windows -D_WIN32 -DUNICODE -D__cplusplus=202002L \
    -j "$(nproc)" -I . -I build/release/generated $product_folders
}

step "format" format
step "folders and includes" python3 scripts/check_layout.py
step "wording" python3 -B scripts/check_wording.py
step "names, results and texts" python3 -B scripts/check_stability.py
step "size and imports" python3 scripts/check_dll.py build/Corvi_CA.dll
step "packages" sh scripts/check_packages.sh
step "cppcheck" analysis
step "clang-tidy" tidy
exit "$failed"
