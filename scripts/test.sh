#!/bin/sh
# Installs what is missing, then builds and runs every test twice: an optimised
# build, and a build under AddressSanitizer and UndefinedBehaviorSanitizer.
set -eu
cd "$(dirname "$0")/.."
sh scripts/deps.sh
jobs=$(nproc 2>/dev/null || echo 2)

run() { # build-directory cmake-options...
        dir=$1
        shift
        cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVESK_TESTS=ON "$@" >/dev/null
        cmake --build "$dir" -j "$jobs"
        # Most tests wait on sockets and timers, so twice as many as there are cores run at once.
        (cd "$dir" && ctest --output-on-failure -j "$((jobs * 2))" --timeout 300)
}

echo "== optimised build"
run build/release
echo "== sanitizer build (address, undefined)"
run build/asan -DVESK_SANITIZE=address
