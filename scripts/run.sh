#!/bin/sh
# Installs what is missing, builds, and runs the server on the bundled example home.
set -eu
cd "$(dirname "$0")/.."
sh scripts/deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVESK_TESTS=OFF >/dev/null
cmake --build build/release -j "$(nproc 2>/dev/null || echo 2)"
if [ -f examples/home/conf/server.xml ]; then
        exec build/release/launcher/vesk -H examples/home -f start
fi
echo "Vesk: the library and the launcher (build/release/launcher/vesk) are built; the example home is not yet assembled."
