#!/bin/sh
# Signs programs in place and verifies what it wrote.
# usage: CERT=chain.pem KEY=key.pem [TIMESTAMP=URL] [CA=roots.pem] [PKCS11_MODULE=module.so] sign.sh FILE...
# CERT: the certificate, then its intermediates. KEY: a PEM key, or, with PKCS11_MODULE, the key's PKCS#11
# address: it never leaves the token or service. CA: the roots to verify against, the system's by default.
set -eu

fail() {
  echo "sign: $1" >&2
  exit 2
}
[ $# -gt 0 ] || fail "no file named"
[ -n "${CERT:-}" ] || fail "CERT= names no certificate (make sign CERT=chain.pem KEY=key.pem)"
[ -n "${KEY:-}" ] || fail "KEY= names no key (make sign CERT=chain.pem KEY=key.pem)"
[ -r "$CERT" ] || fail "cannot read the certificate $CERT"
[ -n "${PKCS11_MODULE:-}" ] || [ -r "$KEY" ] || fail "cannot read the key $KEY"
roots=${CA:-/etc/ssl/certs/ca-certificates.crt}
[ -r "$roots" ] || fail "cannot read the roots $roots"
command -v osslsigncode >/dev/null 2>&1 || fail "osslsigncode is not installed; run 'make setup'"

log=$(mktemp)
signed=
trap 'rm -f "$log" ${signed:+"$signed"}' EXIT
run() {
  "$@" >"$log" 2>&1 </dev/null && return 0
  cat "$log" >&2
  return 1
}

for file in "$@"; do
  [ -w "$file" ] || fail "cannot write $file"
  signed=$file.signing
  rm -f "$signed"
  set -- -certs "$CERT" -key "$KEY" -h sha256 -n "Corvi_CA" -in "$file" -out "$signed"
  [ -z "${PKCS11_MODULE:-}" ] || set -- -pkcs11module "$PKCS11_MODULE" "$@"
  [ -z "${TIMESTAMP:-}" ] || set -- -ts "$TIMESTAMP" "$@"
  run osslsigncode sign "$@" || { echo "sign: $file could not be signed" >&2; exit 1; }
  set -- -CAfile "$roots" -in "$signed"
  [ -z "${TIMESTAMP:-}" ] || set -- -TSA-CAfile "$roots" "$@"
  run osslsigncode verify "$@" ||
    { echo "sign: the signature of $file does not verify against $roots" >&2; exit 1; }
  chmod --reference="$file" "$signed"
  mv "$signed" "$file"
  echo "signed: $file"
done
