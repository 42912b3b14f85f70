#!/bin/sh
# Makes the Wine prefix from which every throwaway prefix is copied, once: a new Windows directory
# without any link out of it, marked as a machine that tests may change.
# usage: wine-template.sh DIRECTORY
set -eu

. "$(dirname "$0")/wine-prefix.sh"
template=$1
complete() { [ -f "$template/.complete" ] && [ -x "$template/loader/wine" ]; }
complete && exit 0
mkdir -p "$template"
template=$(cd "$template" && pwd)

exec 9>"$template.lock"
flock 9
complete && exit 0

rm -rf "$template"
mkdir -p "$template"
# The names that the template gets are written by the locale's character set.
export WINEPREFIX="$template" WINEARCH=win64 WINEDEBUG=-all LC_ALL=C.UTF-8
export WINEDLLOVERRIDES='mscoree,mshtml=;winedbg.exe=d'
unset DISPLAY || true

fail() {
  echo "wine-template: $1" >&2
  exit 1
}
command -v wine >/dev/null 2>&1 || fail "wine is not installed; run 'make setup'"

# Linux lays out a program's memory at random, and Debian's loader then has, once in some thousand starts, its
# heap where Windows programs find the system's shared page (7FFE0000): such a start fails (1359). The template
# has a loader of its own that lays out the same way each time, where the machine permits that.
wine=$(command -v wine)
mkdir "$template/loader"
if setarch -R true 2>/dev/null; then
  printf '#!/bin/sh\nexec setarch -R "%s" "$@"\n' "$wine" >"$template/loader/wine"
else
  printf '#!/bin/sh\nexec "%s" "$@"\n' "$wine" >"$template/loader/wine"
fi
chmod +x "$template/loader/wine"
PATH="$template/loader:$PATH"

timeout -k 5 180 wine wineboot -i >/dev/null 2>&1 || fail "wineboot failed"
# Wine's input and USB buses are no test's business, and on a busy machine their host now and then crashes while it
# starts (IoCreateDevice without a driver). Without these devices it is not started.
timeout -k 5 60 wine reg delete 'HKLM\SYSTEM\CurrentControlSet\Enum\ROOT\WINE' /f >/dev/null 2>&1 || true
set_value() {
  timeout -k 5 60 wine reg add "$1" /v "$2" /t "$3" /d "$4" /f >/dev/null 2>&1 || fail "cannot write $1 $2"
}
set_value 'HKLM\SOFTWARE\CorviTests' ThrowawayMachine REG_DWORD 1
# A recent Windows, as far as the registry tells.
set_value 'HKLM\SOFTWARE\Microsoft\Windows NT\CurrentVersion' CurrentMajorVersionNumber REG_DWORD 10
set_value 'HKLM\SOFTWARE\Microsoft\Windows NT\CurrentVersion' CurrentBuild REG_SZ 22631
set_value 'HKLM\SOFTWARE\Microsoft\Windows NT\CurrentVersion' UBR REG_DWORD 2861
# The crash dialogue must never attach: it would hide a crash behind exit code 0.
set_value 'HKLM\SOFTWARE\Microsoft\Windows NT\CurrentVersion\AeDebug' Debugger REG_SZ false
wineserver -k 2>/dev/null || true
wineserver -w 2>/dev/null || true
corvi_drop_server "$template"

find "$template/drive_c/users" -type l | while read -r link; do
  rm "$link"
  mkdir "$link"
done
rm -rf "$template/dosdevices"
touch "$template/.complete"
