#!/bin/sh
# Installs the Debian packages that building and testing need, only those missing, and the
# browser test's npm packages.
set -eu
cd "$(dirname "$0")/.."
packages="libev-dev zlib1g-dev libssl-dev libjudy-dev clearsilver-dev libsqlite3-dev libpq-dev
postgresql libgtest-dev cmake g++ make pkg-config"
# HTTPS: the example's certificate, the TLS tests' clients, the TLS scan of the README.
packages="$packages openssl curl sslscan"
# The example home's database set-up, and the browser test's browser.
packages="$packages sqlite3 chromium"
# The metrics test's exposition checker (promtool).
packages="$packages prometheus"
# The browser test runs on Node.js and npm: the machine's own if it has them (they need not
# come from Debian), else Debian's.
if ! { node --version && npm --version; } >/dev/null 2>&1; then
        packages="$packages nodejs npm"
fi

# The browser test's driver library, at the version its lock file names.
npmPackages() {
        [ -d tests/browser/node_modules ] && return 0
        echo "Installing the browser test's npm packages"
        (cd tests/browser && npm ci --no-audit --no-fund)
}

missing=""
for p in $packages; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing="$missing $p"
done
[ -z "$missing" ] && { npmPackages; exit 0; }
echo "Installing:$missing"
if [ "$(id -u)" -ne 0 ]; then
        echo "Missing packages:$missing -- run this script as root to install them" >&2
        exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# shellcheck disable=SC2086
apt-get install -y -qq --no-install-recommends $missing
npmPackages
