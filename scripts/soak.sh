#!/bin/sh
# Runs the suite over and over, in another order each time, beside programs that keep every processor busy:
# a test that depends on time, on order or on its neighbours fails here. release_test stays out: it builds the
# release twice and runs for longer than all others.
# usage: soak.sh [RUNS [BUSY [JOBS]]]   RUNS: 20; BUSY: endless programs beside it, one for each processor; JOBS:
# test programs at a time, one for each processor: more of them load the machine by themselves, and end sooner
# Each run writes build/soak/NUMBER.log; the exit code is 1 when any test failed.
set -u
cd "$(dirname "$0")/.." || exit 1

processors=$(nproc 2>/dev/null || echo 2)
runs=${1:-20}
busy=${2:-$processors}
jobs=${3:-$processors}
rm -rf build/soak
mkdir -p build/soak || exit 1

loads=
trap 'kill $loads 2>/dev/null' EXIT
trap 'exit 130' INT TERM HUP
for _ in $(seq "$busy"); do
  (while :; do :; done) &
  loads="$loads $!"
done

failed=0
for run in $(seq "$runs"); do
  log=build/soak/$run.log
  ctest --preset release -j "$jobs" -E '^release_test$' --schedule-random >"$log" 2>&1 && verdict=passed || {
    verdict=FAILED
    failed=$((failed + 1))
  }
  echo "run $run of $runs: $verdict; $(sed -n 's/^Total Test time (real) = *//p' "$log")"
  sed -n 's/^\(.*\*\*\*.*\)/  \1/p' "$log"
done
echo "$((runs - failed)) of $runs runs passed, $jobs programs at a time beside $busy busy ones; logs in build/soak"
[ "$failed" -eq 0 ]
