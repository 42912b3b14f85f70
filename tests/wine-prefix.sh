# Sourced. Throwaway Wine prefixes: each is a copy of a template, has drive C: and no other way out, and
# is gone afterwards.
#   corvi_new_prefix TEMPLATE [STAGE]   makes one below TEMPLATE's folder, exports WINEPREFIX and what
#                                       Wine needs; STAGE's files are copied to C:\corvi
#   corvi_wait_for_services             waits until its service manager answers
#   corvi_drop_prefix                   ends its programs and removes it
#   corvi_drop_server PREFIX            removes what an ended Wine server leaves outside its prefix

# Wine names files by the locale's character set: without this a bare machine has no names outside ASCII.
export LC_ALL=C.UTF-8

corvi_new_prefix() {
  template=$1
  [ -f "$template/.complete" ] || { echo "no Wine template in $template" >&2; return 1; }
  mkdir -p "$template-prefixes"
  WINEPREFIX=$(mktemp -d "$template-prefixes/XXXXXX")
  WINEPREFIX=$(cd "$WINEPREFIX" && pwd)
  export WINEPREFIX WINEARCH=win64 WINEDEBUG=-all TZ="${CORVI_TZ:-UTC0}"
  export WINEDLLOVERRIDES='mscoree,mshtml=;winedbg.exe=d'
  unset DISPLAY || true
  # The template's loader, which lays out each program's memory the same way.
  [ ! -d "$template/loader" ] || PATH="$(cd "$template/loader" && pwd):$PATH"
  mkdir "$WINEPREFIX/drive_c" "$WINEPREFIX/dosdevices"
  cp -a "$template"/*.reg "$template/.update-timestamp" "$WINEPREFIX/"
  # Hard links for the Windows directory only: the registry files are written in place.
  cp -al "$template/drive_c/windows" "$WINEPREFIX/drive_c/"
  for entry in "$template"/drive_c/*; do
    [ "${entry##*/}" = windows ] || cp -a "$entry" "$WINEPREFIX/drive_c/"
  done
  ln -s ../drive_c "$WINEPREFIX/dosdevices/c:"
  mkdir "$WINEPREFIX/drive_c/corvi"
  [ -z "${2:-}" ] || cp -R "$2/." "$WINEPREFIX/drive_c/corvi/"
}

corvi_wait_for_services() {
  for _ in $(seq 120); do
    (cd / && timeout -k 5 60 wine net start >/dev/null 2>&1 </dev/null) && return 0
    sleep 0.5
  done
  echo "the prefix's service manager does not answer after 60 s and more" >&2
  return 1
}

corvi_drop_prefix() {
  [ -d "${WINEPREFIX:-}" ] || return 0
  wineserver -k 2>/dev/null || true
  corvi_drop_server "$WINEPREFIX"
  rm -rf "$WINEPREFIX" 2>/dev/null || { sleep 1; rm -rf "$WINEPREFIX"; }
}

# Debian's Wine keeps the server's socket in a folder of /tmp, named in the prefix, and leaves it there.
corvi_drop_server() {
  [ -f "$1/wineserver" ] || return 0
  server=$(cat "$1/wineserver")
  case $server in
    */*) ;;
    wine-??????) rm -rf "/tmp/$server" ;;
  esac
}
