#!/bin/sh
# Measures static files with wrk on loopback, the server side by side with nginx serving the
# same directory: files of 1 KiB, 100 KiB and 1 MiB, and a 50 KiB text file asked for with
# Accept-Encoding: gzip. Prints, per file, the requests/s of each, their ratio, and the
# resident memory of the server and of nginx's worker after the file's runs.
#
#   sh bench/static.sh [seconds, default 10] [connections, default 64] [threads, default 2]
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

# The files lie in the root application of the server's home, and nginx's root is that
# application's directory, so both send the same files under the same addresses.
vesk_home
root="$work/home/webapps/ROOT"
mkdir -p "$root/bench"
head -c 1024 /dev/urandom >"$root/bench/1k.bin"
head -c 102400 /dev/urandom >"$root/bench/100k.bin"
head -c 1048576 /dev/urandom >"$root/bench/1m.bin"
# Text that compresses about as well as prose: words drawn from a small vocabulary, with
# numbers, in lines of varying length.
awk 'BEGIN {
        srand(7)
        n = split("the a server file request response client cache header body page " \
                  "static gzip memory thread socket stream time size of to and in is on " \
                  "with for each when that this sends reads maps", w, " ")
        for (line = 1; line <= 1400; line++) {
                printf "%04d", line
                for (k = 0; k < 4 + int(rand() * 8); k++)
                        printf " %s", w[1 + int(rand() * n)]
                printf " %d.\n", int(rand() * 100000)
        }
}' | head -c 51200 >"$root/bench/text.txt"
# nginx sends this ready-made gzip form (gzip_static): the server too compresses a file once,
# at the same level, and keeps the compressed form in its cache, so neither compresses per
# request.
gzip -6 -n -c "$root/bench/text.txt" >"$root/bench/text.txt.gz"

vesk_start
nginx_start "$root" 1 "sendfile on; gzip_static on; types { application/octet-stream bin; text/plain txt; }"
nginx_worker=$(pgrep -P "$nginx_pid" | head -n 1)

vesk_url="http://127.0.0.1:$vesk_port/bench"
nginx_url="http://127.0.0.1:$nginx_port/bench"
for f in 1k.bin 100k.bin 1m.bin; do
        check "$vesk_url/$f" "$root/bench/$f"
        check "$nginx_url/$f" "$root/bench/$f"
done
check "$vesk_url/text.txt" "$root/bench/text.txt" gzip -H 'Accept-Encoding: gzip'
check "$nginx_url/text.txt" "$root/bench/text.txt" gzip -H 'Accept-Encoding: gzip'

kib_to_mib() {
        awk -v k="$1" 'BEGIN { printf "%.1f", k / 1024 }'
}

echo "wrk: $threads threads, $connections connections, $seconds s each, on 127.0.0.1; nginx: 1 worker"
echo "vesk resident before the runs: $(kib_to_mib "$(rss "$vesk_pid")") MiB"
printf '%-24s %12s %12s %11s %14s %15s\n' "file" "vesk req/s" "nginx req/s" "vesk/nginx" \
        "vesk RSS MiB" "nginx RSS MiB"
run() {
        label=$1
        file=$2
        shift 2
        set -- $(measure "$vesk_url/$file" "$@") $(measure "$nginx_url/$file" "$@")
        printf '%-24s %12s %12s %11s %14s %15s\n' "$label" "$1" "$3" \
                "$(awk -v v="$1" -v n="$3" 'BEGIN { if (n > 0) printf "%.2f", v / n; else print "-" }')" \
                "$(kib_to_mib "$(rss "$vesk_pid")")" "$(kib_to_mib "$(rss "$nginx_worker")")"
}
run "1k.bin (1 KiB)" 1k.bin
run "100k.bin (100 KiB)" 100k.bin
run "1m.bin (1 MiB)" 1m.bin
run "text.txt (50 KiB, gzip)" text.txt -H 'Accept-Encoding: gzip'
