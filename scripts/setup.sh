#!/bin/sh
# Installs what a target needs and this machine lacks: Debian's own packages, as root or through sudo. Says
# nothing when nothing is missing. usage: setup.sh [build] [test] [check] [clang] [portability] [dist] [sign]   (default: all)
set -eu

# What each kind of work needs: the build and the demonstration; then what the others need beside it.
packages_build="
git cmake ninja-build ccache python3
g++-mingw-w64-x86-64-win32 gcc-mingw-w64-x86-64-win32 binutils-mingw-w64-x86-64
googletest
libcli11-dev nlohmann-json3-dev
wine wine64
wixl msitools"
packages_check="clang-format clang-tidy cppcheck"
packages_clang="clang"
packages_portability="clang-19 libc++-19-dev libwine-dev"
packages_dist="pandoc"
packages_sign="osslsigncode openssl ca-certificates"
# The tests build a release archive and sign with a certificate of their own.
packages_test="$packages_dist $packages_sign"

packages=
for group in "${@:-build check clang portability dist sign test}"; do
  for name in $group; do
    case $name in
      build | check | clang | portability | dist | sign | test) eval "packages=\"\$packages \$packages_$name\"" ;;
      *) echo "setup: no such kind of work: $name" >&2; exit 2 ;;
    esac
  done
done
packages=$(printf '%s\n' $packages | sort -u)

missing=
for package in $packages; do
  state=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
  [ "$state" = installed ] || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" -eq 0 ]; then
  as_root=
elif command -v sudo >/dev/null 2>&1; then
  as_root=sudo
else
  echo "setup: missing packages:$missing; run 'make setup' as root, or install sudo" >&2
  exit 1
fi

log=$(mktemp)
trap 'rm -f "$log"' EXIT
run_apt() {
  # Another checkout may be installing at the same moment: wait for the package manager's lock.
  if ! $as_root env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=900 "$@" >"$log" 2>&1; then
    cat "$log" >&2
    echo "setup: 'apt-get $*' failed" >&2
    exit 1
  fi
}

echo "setup: installing$missing"
# Two index updates at a time make one of them fail at once: they take turns.
if command -v flock >/dev/null 2>&1; then
  exec 9>"${TMPDIR:-/tmp}/corvi-setup.$(id -u).lock"
  flock 9
fi
run_apt update -q
# shellcheck disable=SC2086 # one word a package
run_apt install -q -y --no-install-recommends $missing
echo "setup: done"
