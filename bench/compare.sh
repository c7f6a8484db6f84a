#!/bin/sh
# The server side by side with nginx (1 worker), lighttpd and h2o (1 thread), all on the same
# files, in one run: each server pinned to core 0 and wrk -t1 to core 1, keep-alive, at 16 and
# 128 connections. Prints requests/s and p99 of each and the server's ratio to the best of the
# others, then the server's resident memory under load, its start-up time to the first answer,
# and system calls and thread wake-ups per keep-alive request.
#
#   sh bench/compare.sh [seconds per cell, default 5]
#
# Installs wrk, nginx, lighttpd, h2o and strace (Debian packages) when missing, which needs
# root. Builds a release tree in build/bench. Needs two cores or more.
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-5}
connections=16
threads=1
. bench/lib.sh

need=""
command -v lighttpd >/dev/null 2>&1 || [ -x /usr/sbin/lighttpd ] || need="$need lighttpd"
command -v h2o >/dev/null 2>&1 || need="$need h2o"
command -v strace >/dev/null 2>&1 || need="$need strace"
command -v taskset >/dev/null 2>&1 || need="$need util-linux"
if [ -n "$need" ]; then
        if [ "$(id -u)" -ne 0 ]; then
                echo "bench: missing$need -- run as root to install them" >&2
                exit 1
        fi
        echo "bench: installing$need"
        DEBIAN_FRONTEND=noninteractive apt-get update -qq
        # shellcheck disable=SC2086
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $need >/dev/null
fi
lighttpd=$(command -v lighttpd || echo /usr/sbin/lighttpd)
bench_prepare
lighttpd_pid=""
h2o_pid=""
compare_cleanup() {
        [ -n "$lighttpd_pid" ] && kill "$lighttpd_pid" 2>/dev/null && wait "$lighttpd_pid" 2>/dev/null
        [ -n "$h2o_pid" ] && kill "$h2o_pid" 2>/dev/null && wait "$h2o_pid" 2>/dev/null
        bench_cleanup
}
trap compare_cleanup EXIT

# wrk on the other core; measure (lib.sh) calls it by this name.
wrk() {
        taskset -c 1 "$wrk_bin" "$@"
}
wrk_bin=$(command -v wrk)

vesk_home
root="$work/home/webapps/ROOT"
mkdir -p "$root/bench"
head -c 1024 /dev/urandom >"$root/bench/1k.bin"
head -c 102400 /dev/urandom >"$root/bench/100k.bin"
head -c 1048576 /dev/urandom >"$root/bench/1m.bin"
printf 'Hello, bench!\n' >"$root/bench/hello.txt"
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
gzip -6 -n -c "$root/bench/text.txt" >"$root/bench/text.txt.gz"

# Start-up: from the launch to the first 200, polled as fast as curl goes.
t0=$(date +%s%N)
taskset -c 0 build/bench/launcher/vesk -H "$work/home" -f start >"$work/vesk.log" 2>&1 &
vesk_pid=$!
vesk_url="http://127.0.0.1:$vesk_port"
i=0
until curl -sf -o /dev/null "$vesk_url/bench/1k.bin"; do
        i=$((i + 1))
        [ $i -lt 5000 ] || { echo "bench: the server did not answer" >&2; exit 1; }
done
startup_ms=$(( ($(date +%s%N) - t0) / 1000000 ))

nginx_hello_port=$(free_port)
nginx_start "$root" 1 "sendfile on; tcp_nopush on; gzip_static on; types { application/octet-stream bin; text/plain txt; }
        server { listen 127.0.0.1:$nginx_hello_port; location / { return 200 'Hello, bench!\\n'; } }"
nginx_url="http://127.0.0.1:$nginx_port"

lighttpd_port=$(free_port)
cat >"$work/lighttpd.conf" <<EOF
server.document-root = "$root"
server.bind = "127.0.0.1"
server.port = $lighttpd_port
server.errorlog = "$work/lighttpd.error.log"
mimetype.assign = (".bin" => "application/octet-stream", ".txt" => "text/plain")
EOF
taskset -c 0 "$lighttpd" -D -f "$work/lighttpd.conf" 2>"$work/lighttpd.stderr" &
lighttpd_pid=$!
wait_port "$lighttpd_port"
lighttpd_url="http://127.0.0.1:$lighttpd_port"

h2o_port=$(free_port)
cat >"$work/h2o.conf" <<EOF
listen:
  host: 127.0.0.1
  port: $h2o_port
num-threads: 1
error-log: $work/h2o.error.log
file.mime.addtypes:
  application/octet-stream: .bin
  text/plain: .txt
hosts:
  default:
    paths:
      /:
        file.dir: $root
        file.send-compressed: ON
EOF
taskset -c 0 h2o -c "$work/h2o.conf" >"$work/h2o.stderr" 2>&1 &
h2o_pid=$!
wait_port "$h2o_port"
h2o_url="http://127.0.0.1:$h2o_port"

for pid in $(pgrep -P "$nginx_pid") "$nginx_pid"; do
        taskset -a -p -c 0 "$pid" >/dev/null
done
nginx_worker=$(pgrep -P "$nginx_pid" | head -n 1)

for f in 1k.bin 100k.bin 1m.bin hello.txt; do
        for u in "$vesk_url" "$nginx_url" "$lighttpd_url" "$h2o_url"; do
                check "$u/bench/$f" "$root/bench/$f"
        done
done
for u in "$vesk_url" "$nginx_url" "$h2o_url"; do
        check "$u/bench/text.txt" "$root/bench/text.txt" gzip -H 'Accept-Encoding: gzip'
done
hello_status=$(curl -s -o /dev/null -w '%{http_code}' "$vesk_url/demo/hello?name=bench") || true
[ "$hello_status" = 200 ] || { echo "bench: /demo/hello answered $hello_status" >&2; exit 1; }
nginx_hello="http://127.0.0.1:$nginx_hello_port/"
[ "$(curl -s "$nginx_hello")" = "Hello, bench!" ] || { echo "bench: nginx return failed" >&2; exit 1; }

echo "load average at start: $(cut -d' ' -f1-3 /proc/loadavg); $(nproc) cores"
echo "each server on core 0, wrk -t1 on core 1, keep-alive, $seconds s per cell"
printf '%-20s %5s %17s %17s %17s %17s %7s %7s\n' "request" "conns" "vesk r/s p99ms" \
        "nginx r/s p99ms" "lighttpd r/s p99" "h2o r/s p99ms" "v/best" "v/nginx"

# One row: label, connections, then one "url [extra]" per server in the order above ("-" for
# none); the extra wrk options are the same for all.
row() {
        label=$1 connections=$2 vu=$3 nu=$4 lu=$5 hu=$6
        shift 6
        cells=""
        for u in "$vu" "$nu" "$lu" "$hu"; do
                if [ "$u" = - ]; then
                        cells="$cells - -"
                else
                        cells="$cells $(measure "$u" "$@")"
                fi
        done
        # shellcheck disable=SC2086
        set -- $cells
        awk -v label="$label" -v c="$connections" -v v="$1" -v vp="$2" -v n="$3" -v np="$4" \
            -v l="$5" -v lp="$6" -v h="$7" -v hp="$8" 'BEGIN {
                best = n + 0; if (l + 0 > best) best = l + 0; if (h + 0 > best) best = h + 0
                printf "%-20s %5d %10s %6s %10s %6s %10s %6s %10s %6s %7s %7s\n", label, c,
                        v, vp, n, np, l, lp, h, hp,
                        (best > 0 ? sprintf("%.2f", v / best) : "-"),
                        (n > 0 ? sprintf("%.2f", v / n) : "-")
        }'
}

vesk_peak=0
peak() {
        r=$(rss "$vesk_pid")
        [ "$r" -gt "$vesk_peak" ] && vesk_peak=$r
        return 0
}
for c in 16 128; do
        row "1 KiB file" $c "$vesk_url/bench/1k.bin" "$nginx_url/bench/1k.bin" \
                "$lighttpd_url/bench/1k.bin" "$h2o_url/bench/1k.bin"; peak
        row "100 KiB file" $c "$vesk_url/bench/100k.bin" "$nginx_url/bench/100k.bin" \
                "$lighttpd_url/bench/100k.bin" "$h2o_url/bench/100k.bin"; peak
        row "1 MiB file" $c "$vesk_url/bench/1m.bin" "$nginx_url/bench/1m.bin" \
                "$lighttpd_url/bench/1m.bin" "$h2o_url/bench/1m.bin"; peak
        row "hello" $c "$vesk_url/demo/hello?name=bench" "$nginx_hello" \
                "$lighttpd_url/bench/hello.txt" "$h2o_url/bench/hello.txt"; peak
        row "50 KiB text, gzip" $c "$vesk_url/bench/text.txt" "$nginx_url/bench/text.txt" - \
                "$h2o_url/bench/text.txt" -H 'Accept-Encoding: gzip'; peak
done
echo "hello: vesk's servlet, nginx 'return', lighttpd and h2o a 14-byte static file"
echo "gzip: vesk's cached gzip form, nginx gzip_static, h2o file.send-compressed"

# p99 at 16 connections, 1 KiB: shown in the table. Resident memory: the highest VmRSS seen
# after a cell, and VmHWM, the kernel's own peak.
echo "vesk resident under load: $(awk -v k="$vesk_peak" 'BEGIN { printf "%.1f", k / 1024 }') MiB" \
        "(VmHWM $(awk '$1 == "VmHWM:" { printf "%.1f", $2 / 1024 }' "/proc/$vesk_pid/status") MiB);" \
        "nginx worker $(awk -v k="$(rss "$nginx_worker")" 'BEGIN { printf "%.1f", k / 1024 }') MiB," \
        "lighttpd $(awk -v k="$(rss "$lighttpd_pid")" 'BEGIN { printf "%.1f", k / 1024 }') MiB," \
        "h2o $(awk -v k="$(rss "$h2o_pid")" 'BEGIN { printf "%.1f", k / 1024 }') MiB"
echo "vesk start-up to the first answer: $startup_ms ms (launch to the first 200, curl polling)"

# Voluntary context switches of all of a process's threads: each is a thread going to sleep,
# so the count of wake-ups that follow.
switches() {
        cat /proc/"$1"/task/*/status 2>/dev/null |
                awk '$1 == "voluntary_ctxt_switches:" { s += $2 } END { print s + 0 }'
}
requests_of() {
        awk '/requests in/ { print $1 }' "$work/wrk.txt"
}
# System calls per request (strace -c -f on the server while wrk runs 16 connections), and
# wake-ups per request without strace.
per_request() {
        name=$1 pid=$2 url=$3
        connections=16
        s0=$(switches "$pid")
        measure "$url" >/dev/null
        s1=$(switches "$pid")
        wakeups=$(awk -v s="$((s1 - s0))" -v n="$(requests_of)" 'BEGIN { printf "%.2f", s / n }')
        strace -c -f -p "$pid" -o "$work/strace.txt" 2>/dev/null &
        strace_pid=$!
        sleep 1
        measure "$url" >/dev/null
        kill -INT "$strace_pid"
        wait "$strace_pid" 2>/dev/null || true
        n=$(requests_of)
        calls=$(awk '$NF == "total" { print $(NF - 2) }' "$work/strace.txt")
        top=$(awk 'NR > 2 && $1 ~ /^[0-9.]+$/ && $NF != "total" {
                        c = (NF == 6) ? $4 : $4; printf "%s %s, ", $NF, c }' "$work/strace.txt" |
                cut -c1-200)
        awk -v name="$name" -v c="$calls" -v n="$n" -v w="$wakeups" -v top="$top" 'BEGIN {
                printf "%-28s %6.2f system calls, %5.2f wake-ups per request (%d requests)\n",
                        name, c / n, w, n
                printf "    %s\n", top
        }'
}
echo "per keep-alive request, 16 connections:"
per_request "vesk 1 KiB file" "$vesk_pid" "$vesk_url/bench/1k.bin"
per_request "vesk hello servlet" "$vesk_pid" "$vesk_url/demo/hello?name=bench"
per_request "nginx 1 KiB file" "$nginx_worker" "$nginx_url/bench/1k.bin"
per_request "h2o 1 KiB file" "$h2o_pid" "$h2o_url/bench/1k.bin"
