#!/bin/sh
# Runs the benchmarks on Wine in a throwaway prefix: the table on screen, the figures in build/bench.json.
# usage: run-bench.sh [ROUNDS [NAME]]   NAME: only rows whose name contains it
set -u
cd "$(dirname "$0")/.." || exit 1

fail() {
  echo "bench: $1" >&2
  exit 1
}
program=build/release/bench/corvi_bench.exe
[ -f "$program" ] || fail "the benchmarks are not built; run 'make bench'"
tests/wine-template.sh build/release/wine-template || fail "the Wine prefix could not be made"

output=$(mktemp)
trap 'rm -f "$output"' EXIT
trap 'exit 130' INT TERM HUP
{
  CORVI_TEST_TIMEOUT=${CORVI_TEST_TIMEOUT:-1800} tests/run-wine.sh build/release/wine-template \
    build/release/bench/stage "$program" "$@"
  echo "$?" >"$output.code"
} | tr -d '\r' | tee "$output" | sed '/^--- json ---$/,$d'
code=$(cat "$output.code")
rm -f "$output.code"
[ "$code" -eq 0 ] || fail "the program ended with $code"
sed '1,/^--- json ---$/d' "$output" >build/bench.json
echo "The figures are in build/bench.json."
