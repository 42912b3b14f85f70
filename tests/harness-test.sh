#!/bin/sh
# The harness itself: crashes are failures, tests refuse a machine that is not marked, and no prefix has
# a way out to the host.
# usage: harness-test.sh TEMPLATE STAGE TEST_PROGRAM
set -u

here=$(dirname "$0")
template=$1
stage=$2
program=$3
failures=0

expect() {
  description=$1
  shift
  if "$@"; then
    echo "ok: $description"
  else
    echo "FAILED: $description"
    failures=$((failures + 1))
  fi
}
run_crash() {
  "$here/run-wine.sh" "$template" "$stage" "$stage/crash.exe" "$1" >/dev/null 2>&1
}
fails() { ! run_crash "$1"; }

expect "a program that ends well is reported so" run_crash fine
for way in access abort throw other; do
  expect "a program that ends by '$way' is reported as failed" fails "$way"
done

. "$here/wine-prefix.sh"
trap corvi_drop_prefix EXIT
corvi_new_prefix "$template" "$stage" || exit 1

# Wine adds a serial port (com1) of its own accord; drives are what matters.
no_way_out() {
  [ -z "$(find "$WINEPREFIX/drive_c" -type l)" ] &&
    [ "$(ls "$WINEPREFIX/dosdevices" | grep ':')" = c: ] &&
    [ "$(readlink "$WINEPREFIX/dosdevices/c:")" = ../drive_c ]
}
expect "a prefix has drive C: and no link that leads out of it" no_way_out

refuses() {
  (cd "$WINEPREFIX/drive_c/corvi" && cp "$program" . &&
    wine reg delete 'HKLM\SOFTWARE\CorviTests' /f >/dev/null 2>&1
    wine "C:\\corvi\\$(basename "$program")" >output.txt 2>&1
    [ $? -eq 2 ] && grep -q 'not marked as throwaway' output.txt)
}
expect "tests refuse to run on a machine that is not marked" refuses
expect "running programs gave the prefix no way out either" no_way_out

no_own_devices() {
  (cd "$WINEPREFIX/drive_c" && wine reg query 'HKLM\SYSTEM\CurrentControlSet\Enum' >/dev/null 2>&1 &&
    ! wine reg query 'HKLM\SYSTEM\CurrentControlSet\Enum\ROOT\WINE' >/dev/null 2>&1)
}
expect "Wine's input and USB buses are not started" no_own_devices

# /proc/PID/personality: 0040000 says that addresses are not random.
same_layout() {
  setarch -R true 2>/dev/null || return 0
  (cd "$WINEPREFIX/drive_c/corvi" && exec wine 'C:\corvi\sleeper.exe') >/dev/null 2>&1 &
  for _ in $(seq 100); do
    case $(cat "/proc/$!/personality") in *4????) kill "$!"; return 0 ;; esac
    sleep 0.1
  done
  kill "$!"
  return 1
}
expect "where the machine permits it, every program is laid out the same way" same_layout

# Debian's Wine names in the prefix the folder of /tmp that holds its server's socket.
leaves_nothing() {
  [ -f "$WINEPREFIX/wineserver" ] || return 0
  server=/tmp/$(cat "$WINEPREFIX/wineserver")
  [ -d "$server" ] || return 1
  corvi_drop_prefix
  [ ! -e "$server" ] && [ ! -e "$WINEPREFIX" ]
}
expect "a dropped prefix leaves nothing, its server's folder neither" leaves_nothing

exit "$failures"
