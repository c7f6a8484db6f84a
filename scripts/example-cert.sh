#!/bin/sh
# Makes the example home's TLS identity when it is missing: a self-signed P-256
# certificate for localhost and 127.0.0.1 and its key, in one PEM file as the server
# reads it (HOME/conf/localhost.pem). A certificate already there is kept.
# Usage: scripts/example-cert.sh HOME
set -eu
if [ $# -ne 1 ] || [ ! -d "$1/conf" ]; then
        echo "usage: $0 HOME (a server home with a conf directory)" >&2
        exit 2
fi
pem="$1/conf/localhost.pem"
[ -s "$pem" ] && exit 0
if ! command -v openssl >/dev/null 2>&1; then
        echo "Vesk: the openssl program is needed to make $pem (Debian package openssl)" >&2
        exit 1
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -sha256 \
        -days 825 -subj "/CN=localhost" \
        -addext "subjectAltName=DNS:localhost,IP:127.0.0.1" \
        -keyout "$work/key.pem" -out "$work/cert.pem" 2>"$work/log" || {
        cat "$work/log" >&2
        exit 1
}
# The key is secret: the file is readable by its owner only, and appears whole or not at all.
(umask 077 && cat "$work/cert.pem" "$work/key.pem" >"$pem.new")
mv "$pem.new" "$pem"
echo "Vesk: made a self-signed certificate for localhost and 127.0.0.1 in $pem"
