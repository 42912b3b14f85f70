# Sourced. Throwaway Wine prefixes: each is a copy of a template, has drive C: and no other way out, and
# is gone afterwards.
#   corvi_new_prefix TEMPLATE [STAGE]   makes one below TEMPLATE's folder, exports WINEPREFIX and what
#                                       Wine needs; STAGE's files are copied to C:\corvi
#   corvi_drop_prefix                   ends its programs and removes it

corvi_new_prefix() {
  template=$1
  [ -f "$template/.complete" ] || { echo "no Wine template in $template" >&2; return 1; }
  mkdir -p "$template-prefixes"
  WINEPREFIX=$(mktemp -d "$template-prefixes/XXXXXX")
  WINEPREFIX=$(cd "$WINEPREFIX" && pwd)
  export WINEPREFIX WINEARCH=win64 WINEDEBUG=-all TZ="${CORVI_TZ:-UTC0}"
  export WINEDLLOVERRIDES='mscoree,mshtml=;winedbg.exe=d'
  unset DISPLAY || true
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

corvi_drop_prefix() {
  [ -n "${WINEPREFIX:-}" ] || return 0
  wineserver -k 2>/dev/null || true
  rm -rf "$WINEPREFIX" 2>/dev/null || { sleep 1; rm -rf "$WINEPREFIX"; }
}
