# What the benchmark scripts share; sourced by bench/hello.sh and bench/static.sh from the
# repository's top directory, after they have set seconds, connections and threads.
#
#   bench_prepare         installs wrk, nginx and curl when missing, builds the release tree,
#                         makes the work directory $work and removes it (and the servers) on exit
#   vesk_home             copies the example home to $work/home, its connectors on free ports
#                         ($vesk_port, and $vesk_tls_port for HTTPS) and without the access log;
#                         METRICS=off removes its metrics endpoint, and the counting with it
#   vesk_start            starts the server on $work/home ($vesk_pid) and waits for it
#   nginx_start ROOT WORKERS [DIRECTIVES] [LISTEN]
#                         starts nginx on ROOT on a free port ($nginx_port, $nginx_pid), without
#                         an access log; DIRECTIVES go into its http block, LISTEN (such as
#                         "ssl") behind its listen address
#   check URL FILE [plain|gzip] [curl options]
#                         fails unless URL answers 200 with exactly FILE's bytes (gzip: in the
#                         gzip form, which then unpacks to FILE)
#   measure URL [wrk options]
#                         runs wrk; prints "requests/s p99-in-ms", warns of failed responses
#   rss PID               resident memory of PID in KiB

# Installs wrk and nginx (Debian packages) when they are missing, which needs root; then
# builds the release tree and sets up the work directory.
bench_prepare() {
        need=""
        command -v wrk >/dev/null 2>&1 || need="$need wrk"
        command -v nginx >/dev/null 2>&1 || [ -x /usr/sbin/nginx ] || need="$need nginx-light"
        command -v curl >/dev/null 2>&1 || need="$need curl"
        command -v python3 >/dev/null 2>&1 || need="$need python3"
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
        nginx=$(command -v nginx || echo /usr/sbin/nginx)

        # VESK_BENCH_BUILD=no measures build/bench as it is, say a build of an earlier commit.
        if [ "${VESK_BENCH_BUILD:-yes}" != no ]; then
                sh scripts/deps.sh
                cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DVESK_TESTS=OFF >/dev/null
                cmake --build build/bench -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
        fi

        work=$(mktemp -d /tmp/vesk-bench-XXXXXX)
        # nginx's workers, started by root, run as an unprivileged user that must read the files.
        chmod 755 "$work"
        vesk_pid=""
        nginx_pid=""
        trap bench_cleanup EXIT
        trap 'exit 130' INT TERM
}

bench_cleanup() {
        [ -n "$vesk_pid" ] && kill "$vesk_pid" 2>/dev/null && wait "$vesk_pid" 2>/dev/null
        [ -n "$nginx_pid" ] && kill "$nginx_pid" 2>/dev/null && wait "$nginx_pid" 2>/dev/null
        rm -rf "$work"
}

# A port nobody listens on, from the kernel's ephemeral range.
free_port() {
        python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# Waits until something answers HTTP on port; fails after 10 seconds.
wait_port() {
        i=0
        until python3 -c "import socket,sys; socket.create_connection(('127.0.0.1', $1), 0.2)" 2>/dev/null; do
                i=$((i + 1))
                if [ $i -ge 100 ]; then
                        echo "bench: nothing listens on port $1" >&2
                        exit 1
                fi
                sleep 0.1
        done
}

# The server on a copy of the example home, its connectors moved to free ports, without the
# per-request access log line that nginx is spared as well. The HTTPS connector keeps the
# example's certificate, made when the home has none.
vesk_home() {
        vesk_port=$(free_port)
        vesk_tls_port=$(free_port)
        cp -r build/bench/examples/home "$work/home"
        sed -i -e "s/port=\"8080\"/port=\"$vesk_port\"/" -e "s/port=\"8443\"/port=\"$vesk_tls_port\"/" \
                -e '/<Accesslogger/d' "$work/home/conf/server.xml"
        [ "${METRICS:-on}" = off ] && sed -i '/<Metrics/d' "$work/home/conf/server.xml"
        sh scripts/example-cert.sh "$work/home" >/dev/null
}

vesk_start() {
        build/bench/launcher/vesk -H "$work/home" -f start >"$work/vesk.log" 2>&1 &
        vesk_pid=$!
        wait_port "$vesk_port"
}

# nginx in the foreground with its files below $work/nginx.
nginx_start() {
        nginx_port=$(free_port)
        mkdir -p "$work/nginx/logs"
        cat >"$work/nginx/nginx.conf" <<EOF
daemon off;
worker_processes $2;
pid $work/nginx/nginx.pid;
error_log $work/nginx/logs/error.log;
events { worker_connections 1024; }
http {
        access_log off;${3:+
        $3}
        server {
                listen 127.0.0.1:$nginx_port${4:+ $4};
                root $1;
        }
}
EOF
        "$nginx" -p "$work/nginx" -c "$work/nginx/nginx.conf" 2>"$work/nginx/stderr" &
        nginx_pid=$!
        wait_port "$nginx_port"
}

# Fails loudly unless url answers 200 with file's bytes, plain or in gzip form.
check() {
        url=$1
        file=$2
        form=${3:-plain}
        if [ $# -ge 3 ]; then shift 3; else shift $#; fi
        status=$(curl -s -o "$work/check.body" -D "$work/check.head" -w '%{http_code}' "$@" "$url") || status="no answer"
        if [ "$status" != 200 ]; then
                echo "bench: $url answered $status instead of 200" >&2
                exit 1
        fi
        body="$work/check.body"
        if [ "$form" = gzip ]; then
                if ! grep -qi '^Content-Encoding: *gzip' "$work/check.head"; then
                        echo "bench: $url came without Content-Encoding: gzip" >&2
                        exit 1
                fi
                gzip -dc <"$work/check.body" >"$work/check.plain" || {
                        echo "bench: $url sent a body that is not gzip" >&2
                        exit 1
                }
                body="$work/check.plain"
        fi
        if ! cmp -s "$body" "$file"; then
                echo "bench: $url sent $(wc -c <"$body") bytes, not the $(wc -c <"$file") of $file" >&2
                exit 1
        fi
}

# Runs wrk against url with any further wrk options; prints "requests/s p99-in-ms". Failed
# responses or socket errors do not stop the run but are told on standard error.
measure() {
        url=$1
        shift
        wrk -t"$threads" -c"$connections" -d"${seconds}s" --latency "$@" "$url" >"$work/wrk.txt"
        if grep -q 'Non-2xx' "$work/wrk.txt"; then
                echo "bench: warning: $url: $(grep 'Non-2xx' "$work/wrk.txt" | sed 's/^ *//')" >&2
        fi
        if grep -q 'Socket errors' "$work/wrk.txt"; then
                echo "bench: warning: $url: $(grep 'Socket errors' "$work/wrk.txt" | sed 's/^ *//')" >&2
        fi
        awk '
                /Requests\/sec:/ { rps = $2 }
                $1 == "99%" { v = $2; unit = v; sub(/[0-9.]+/, "", unit); sub(/[a-z]+$/, "", v);
                              ms = (unit == "us") ? v / 1000 : (unit == "s") ? v * 1000 : v }
                END { printf "%s %.2f\n", rps, ms }' "$work/wrk.txt"
}

# VmRSS of a process in KiB; 0 if it is gone.
rss() {
        awk '$1 == "VmRSS:" { print $2; found = 1 } END { if (!found) print 0 }' "/proc/$1/status" 2>/dev/null || echo 0
}
