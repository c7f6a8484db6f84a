#!/bin/sh
# Measures HTTPS with wrk on loopback: a 1 KiB static file and the example's hello servlet,
# each over kept-alive connections and with a new connection (so a full handshake) for every
# request, the server side by side with nginx holding the same certificate and cipher list.
# Prints requests/s and p99 latency of each and the ratios server/nginx.
#
#   sh bench/tls.sh [seconds, default 10] [connections, default 64] [threads, default 2]
#
# Installs wrk and nginx (Debian packages) when they are missing, which needs root. Builds
# a release tree in build/bench and runs the server from a copy of its example home on free
# ports.
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-10}
connections=${2:-64}
threads=${3:-2}
. bench/lib.sh
bench_prepare

vesk_home
root="$work/home/webapps/ROOT"
mkdir -p "$root/bench"
head -c 1024 /dev/urandom >"$root/bench/1k.bin"
printf '<p>Hello, bench!</p>\n' >"$root/bench/hello.html"
vesk_start

# nginx with the example's certificate and ciphers, one worker as the server has one event
# loop for its sockets and handshakes. Neither side resumes sessions: the server keeps no
# session cache and sends no tickets, so nginx sends none either.
pem="$work/home/conf/localhost.pem"
ciphers=$(sed -n 's/.*ciphers="\([^"]*\)".*/\1/p' "$work/home/conf/server.xml")
nginx_start "$root" 1 "ssl_certificate $pem; ssl_certificate_key $pem;
        ssl_protocols TLSv1.2 TLSv1.3; ssl_ciphers ${ciphers:-HIGH}; ssl_session_tickets off;" ssl

vesk="https://127.0.0.1:$vesk_tls_port"
nginx="https://127.0.0.1:$nginx_port"
check "$vesk/bench/1k.bin" "$root/bench/1k.bin" plain --cacert "$pem"
check "$nginx/bench/1k.bin" "$root/bench/1k.bin" plain --cacert "$pem"
check "$nginx/bench/hello.html" "$root/bench/hello.html" plain --cacert "$pem"
status=$(curl -s --cacert "$pem" -o /dev/null -w '%{http_code}' "$vesk/demo/hello?name=bench") || true
if [ "$status" != 200 ]; then
        echo "bench: /demo/hello answered ${status:-nothing} instead of 200" >&2
        exit 1
fi

echo "wrk: $threads threads, $connections connections, $seconds s each, on 127.0.0.1, TLS"
printf '%-34s %12s %8s %12s %8s %8s\n' "" "vesk req/s" "p99 ms" "nginx req/s" "p99 ms" "ratio"
row() { # label vesk-url nginx-url [wrk options]
        label=$1
        v=$2
        n=$3
        shift 3
        set -- $(measure "$v" "$@") $(measure "$n" "$@")
        printf '%-34s %12s %8s %12s %8s %8s\n' "$label" "$1" "$2" "$3" "$4" \
                "$(awk -v v="$1" -v n="$3" 'BEGIN { if (n > 0) printf "%.2f", v / n }')"
}
row "1 KiB file, keep-alive" "$vesk/bench/1k.bin" "$nginx/bench/1k.bin"
row "1 KiB file, new connection" "$vesk/bench/1k.bin" "$nginx/bench/1k.bin" -H 'Connection: close'
row "hello servlet, keep-alive" "$vesk/demo/hello?name=bench" "$nginx/bench/hello.html"
row "hello servlet, new connection" "$vesk/demo/hello?name=bench" "$nginx/bench/hello.html" \
        -H 'Connection: close'
echo "vesk resident memory after the runs: $(rss "$vesk_pid") KiB; nginx worker: $(rss "$(pgrep -P "$nginx_pid" | head -1)") KiB"
