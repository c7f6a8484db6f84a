#!/bin/sh
# Measures the example's hello servlet with wrk on loopback, then nginx serving a tiny
# static file the same way, and prints requests/s, p99 latency and the ratio of the two.
#
#   sh bench/hello.sh [seconds, default 10] [connections, default 64] [threads, default 2]
#
# Installs wrk and nginx (Debian packages) when they are missing, which needs root. Builds
# a release tree in build/bench and runs the server from a copy of its example home on a
# free port.
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-10}
connections=${2:-64}
threads=${3:-2}
. bench/lib.sh
bench_prepare

vesk_home
vesk_start

# nginx serving the same greeting as a static file.
mkdir -p "$work/nginx/html"
printf '<p>Hello, bench!</p>\n' >"$work/nginx/html/hello.html"
nginx_start "$work/nginx/html" "$threads"

check "http://127.0.0.1:$nginx_port/hello.html" "$work/nginx/html/hello.html"
status=$(curl -s -o /dev/null -w '%{http_code}' "http://127.0.0.1:$vesk_port/demo/hello?name=bench") || true
if [ "$status" != 200 ]; then
        echo "bench: /demo/hello answered ${status:-nothing} instead of 200" >&2
        exit 1
fi

echo "wrk: $threads threads, $connections connections, $seconds s each, on 127.0.0.1"
set -- $(measure "http://127.0.0.1:$vesk_port/demo/hello?name=bench")
vesk_rps=$1
vesk_p99=$2
set -- $(measure "http://127.0.0.1:$nginx_port/hello.html")
nginx_rps=$1
nginx_p99=$2
printf '%-28s %12s %10s\n' "" "requests/s" "p99 ms"
printf '%-28s %12s %10s\n' "vesk /demo/hello (servlet)" "$vesk_rps" "$vesk_p99"
printf '%-28s %12s %10s\n' "nginx /hello.html (static)" "$nginx_rps" "$nginx_p99"
awk -v v="$vesk_rps" -v n="$nginx_rps" 'BEGIN { if (n > 0) printf "vesk / nginx: %.2f of the requests/s\n", v / n }'
