#!/bin/sh
# Installs the Debian packages that building and testing need, only those missing.
set -eu
packages="libev-dev zlib1g-dev libssl-dev libjudy-dev clearsilver-dev libsqlite3-dev libpq-dev
postgresql libgtest-dev cmake g++ make pkg-config"
# HTTPS: the example's certificate, the TLS tests' clients, the TLS scan of the README.
packages="$packages openssl curl sslscan"
missing=""
for p in $packages; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
echo "Installing:$missing"
if [ "$(id -u)" -ne 0 ]; then
        echo "Missing packages:$missing -- run this script as root to install them" >&2
        exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# shellcheck disable=SC2086
apt-get install -y -qq --no-install-recommends $missing
