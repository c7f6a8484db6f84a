#!/bin/sh
# Installs what is missing, builds, and runs the server in the foreground on the example
# home, which the build assembles in build/run/examples/home (the committed
# examples/home plus the servlet modules built into its WEB-INF/classes), with the user
# database that scripts/example-db.sh makes there if it is missing.
set -eu
cd "$(dirname "$0")/.."
sh scripts/deps.sh
cmake -S . -B build/run -DCMAKE_BUILD_TYPE=Release -DVESK_TESTS=OFF >/dev/null
cmake --build build/run -j "$(nproc 2>/dev/null || echo 2)"
home=build/run/examples/home
if [ ! -f "$home/conf/server.xml" ]; then
        echo "Vesk: the library and the launcher (build/run/launcher/vesk) are built; the example home is not assembled." >&2
        exit 1
fi
sh scripts/example-cert.sh "$home"
sh scripts/example-db.sh "$home"
echo "Vesk: the members' area /demo/account/ takes the user demo with the password demo."
echo "Vesk: serving $home on http://127.0.0.1:8080/ -- open /demo/, /demo/hello?name=you, /demo/guide, /demo/guestbook, /demo/ticker, /demo/account/ and /demo/request.csp; https://127.0.0.1:8443/ too; Ctrl-C stops."
exec build/run/launcher/vesk -H "$home" -f start
