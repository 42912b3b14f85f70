#!/bin/sh
# 'corvi check' on the suite's packages: what authors copy has no findings.
# Needs build/release to be configured; builds the packages and the program.
set -u
cd "$(dirname "$0")/.." || exit 1

packages="graphics_driver settings_app_1.1.0 recording camera tuning_sdk install_manager profile_client_1.0.0"
stage=build/release/stage
template=build/release/wine-template

output=$(mktemp)
trap 'rm -f "$output"' EXIT
trap 'exit 130' INT TERM HUP
cmake --build --preset release --target corvi suite_packages -j "$(nproc)" >"$output" 2>&1 &&
  tests/wine-template.sh "$template" >>"$output" 2>&1 || {
  cat "$output" >&2
  exit 1
}
failed=0
for package in $packages; do
  tests/run-wine.sh "$template" "$stage" build/corvi.exe check "C:\\corvi\\$package.msi" >"$output" 2>&1
  code=$?
  if [ "$code" -ne 0 ]; then
    echo "check: $package.msi: corvi check ended with $code" >&2
    tr -d '\r' <"$output" >&2
    failed=1
  fi
done
exit "$failed"
