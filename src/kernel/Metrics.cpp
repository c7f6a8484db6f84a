#include <pthread.h>
#include <stdio.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <vesk/Container.h>
#include <vesk/Context.h>
#include <vesk/Exception.h>
#include <vesk/File.h>
#include <vesk/FileCache.h>
#include <vesk/Host.h>
#include <vesk/HttpConnector.h>
#include <vesk/Mem.h>
#include <vesk/Metrics.h>
#include <vesk/OutputStream.h>
#include <vesk/ServletConfig.h>
#include <vesk/Str.h>
#include <vesk/assert.h>

#include "thread/Lock.hpp"

namespace {

constexpr const char* kMethods[] = {"GET",    "POST",  "HEAD",    "PUT",
                                    "DELETE", "TRACE", "OPTIONS", "other"};
constexpr int kMethodCount = sizeof kMethods / sizeof *kMethods;
constexpr int kClassCount = 5;  // 1xx to 5xx
// Upper bounds of the latency buckets, in seconds; the last bucket is +Inf.
constexpr double kBounds[] = {0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                              0.1,    0.25,  0.5,    1,     2.5,  5,     10};
constexpr int kBucketCount = sizeof kBounds / sizeof *kBounds + 1;

using Counter = std::atomic<uint64_t>;

// What one servlet of one context has served. Created once, never freed while counting.
struct Series {
        Context_T context;
        std::string servlet, host, contextPath;
        Counter requests[kMethodCount][kClassCount] = {};
        Counter buckets[kBucketCount] = {};
        Counter nanoseconds{0};
};

// Open addressing on the context and servlet name, slots filled once by compare-and-swap:
// readers never lock. A full table folds new series into the last one made.
constexpr size_t kSlots = 1024;
std::atomic<Series*> slots[kSlots];
pthread_mutex_t creating = PTHREAD_MUTEX_INITIALIZER;
std::vector<std::unique_ptr<Series>> all;  // owned here, guarded by creating

// The TLS handshakes of one secure connector, named by where it listens. Made once, on
// the connector's first handshake; found again without a lock.
struct Listener {
        HttpConnector_T connector;
        std::string address, port;
        Counter completed{0}, failed{0};
};

constexpr size_t kListenerSlots = 64;
std::atomic<Listener*> listenerSlots[kListenerSlots];
std::vector<std::unique_ptr<Listener>> listeners;  // owned here, guarded by creating

std::atomic<bool> enabled{false};
std::string endpoint;
std::vector<std::string> allowed;
int endpointPort = 0;
time_t startTime = 0;
// What the Reactor thread counts and what the processor threads count lie on cache lines of
// their own, so that counting on one side does not take the line from under the other.
// The queue is the difference of requests handed to processor threads and those taken.
struct alignas(64) ReactorSide {
        std::atomic<int64_t> connections{0}, idle{0};
        Counter bytesOut{0}, dispatched{0};
} reactorSide;
struct alignas(64) ProcessorSide {
        std::atomic<int64_t> busy{0};
        Counter bytesIn{0}, taken{0}, fileCacheHits{0}, fileCacheMisses{0}, gzipServed{0};
} processorSide;

long long nowNanoseconds() {
        struct timespec t;
        clock_gettime(CLOCK_MONOTONIC, &t);
        return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

size_t hashOf(Context_T context, const char* servlet) {
        size_t h = reinterpret_cast<uintptr_t>(context) * 0x9e3779b97f4a7c15ULL;
        for (const char* p = servlet; *p; p++)
                h = (h ^ static_cast<unsigned char>(*p)) * 0x100000001b3ULL;
        return h;
}

Series* make(Context_T context, const char* servlet) {
        auto s = std::make_unique<Series>();
        s->context = context;
        s->servlet = servlet;
        if (context) {
                const char* path = Context_getContextPath(context);
                s->contextPath = path && *path ? path : "/";
                Host_T host = Context_getHost(context);
                s->host = host && Host_getName(host) ? Host_getName(host) : "";
        }
        all.push_back(std::move(s));
        return all.back().get();
}

Series* seriesFor(Context_T context, const char* servlet) {
        size_t start = hashOf(context, servlet) % kSlots;
        for (size_t i = 0; i < kSlots; i++) {
                std::atomic<Series*>& slot = slots[(start + i) % kSlots];
                Series* s = slot.load(std::memory_order_acquire);
                if (!s) {
                        vesk::Lock lock(creating);
                        s = slot.load(std::memory_order_acquire);
                        if (!s) {
                                s = make(context, servlet);
                                slot.store(s, std::memory_order_release);
                                return s;
                        }
                }
                if (s->context == context && s->servlet == servlet)
                        return s;
        }
        vesk::Lock lock(creating);
        return all.back().get();
}

Listener* listenerFor(HttpConnector_T connector) {
        for (std::atomic<Listener*>& slot : listenerSlots) {
                Listener* l = slot.load(std::memory_order_acquire);
                if (!l) {
                        vesk::Lock lock(creating);
                        l = slot.load(std::memory_order_acquire);
                        if (!l) {
                                auto made = std::make_unique<Listener>();
                                made->connector = connector;
                                const char* address = HttpConnector_getBindAddress(connector);
                                made->address = address ? address : "*";
                                char port[16];
                                snprintf(port, sizeof port, "%d", HttpConnector_getPort(connector));
                                made->port = port;
                                listeners.push_back(std::move(made));
                                l = listeners.back().get();
                                slot.store(l, std::memory_order_release);
                                return l;
                        }
                }
                if (l->connector == connector)
                        return l;
        }
        // More secure connectors than slots: the rest count with the last one made.
        vesk::Lock lock(creating);
        return listeners.back().get();
}

int methodIndex(HttpRequest_T req) {
        int m = HttpRequest_method(req);
        return m >= HttpRequest_GET && m <= HttpRequest_OPTIONS ? m : kMethodCount - 1;
}

// A label value with backslash, quote and newline escaped.
std::string label(const std::string& value) {
        std::string out;
        for (char c : value) {
                if (c == '\\' || c == '"')
                        out += '\\';
                if (c == '\n') {
                        out += "\\n";
                        continue;
                }
                out += c;
        }
        return out;
}

void family(std::string& out, const char* name, const char* type, const char* help) {
        out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

// A family of one sample without labels.
void single(std::string& out, const char* name, const char* type, const char* help,
            const std::string& value) {
        family(out, name, type, help);
        out += std::string(name) + " " + value + "\n";
}

// Through snprintf: std::to_string's template statics would leave the library's symbol table.
std::string decimal(long long n) {
        char buffer[32];
        snprintf(buffer, sizeof buffer, "%lld", n);
        return buffer;
}

std::string decimal(uint64_t n) {
        char buffer[32];
        snprintf(buffer, sizeof buffer, "%llu", static_cast<unsigned long long>(n));
        return buffer;
}

std::string decimal(int n) {
        return decimal(static_cast<long long>(n));
}

// The shortest text that reads back as v: a bucket's bound reads "0.0005", not
// "0.00050000000000000001".
std::string number(double v) {
        char buffer[64];
        for (int digits = 1; digits <= 17; digits++) {
                snprintf(buffer, sizeof buffer, "%.*g", digits, v);
                if (strtod(buffer, nullptr) == v)
                        break;
        }
        return buffer;
}

}  // namespace

void Metrics_configure(const char* path, const char* allow, int port) {
        if (!path || *path != '/')
                THROW(AssertException, "The metrics path '%s' does not start with '/'",
                      path ? path : "");
        std::vector<std::string> addresses;
        std::string current;
        for (const char* p = allow ? allow : "";; p++) {
                if (*p == 0 || *p == ' ' || *p == ',' || *p == '\t' || *p == '\n') {
                        if (!current.empty())
                                addresses.push_back(current);
                        current.clear();
                        if (*p == 0)
                                break;
                } else {
                        current += *p;
                }
        }
        if (addresses.empty())
                THROW(AssertException, "The <Metrics> element allows no address -- set allow");
        if (port < 0 || port > 65535)
                THROW(AssertException, "Invalid metrics port %d", port);
        endpoint = path;
        allowed = addresses;
        endpointPort = port;
        startTime = time(nullptr);
        // Configured before the connectors start. An earlier run of the server in this
        // process may have closed idle connections and dropped queued requests at its stop
        // without counting them out: those gauges start again from nothing.
        reactorSide.dispatched = 0;
        processorSide.taken = 0;
        reactorSide.idle = 0;
        enabled.store(true, std::memory_order_release);
}

void Metrics_reset(void) {
        enabled.store(false, std::memory_order_release);
        vesk::Lock lock(creating);
        for (std::atomic<Series*>& slot : slots)
                slot.store(nullptr, std::memory_order_relaxed);
        all.clear();
        for (std::atomic<Listener*>& slot : listenerSlots)
                slot.store(nullptr, std::memory_order_relaxed);
        listeners.clear();
        reactorSide.idle = 0;
        reactorSide.bytesOut = 0;
        reactorSide.dispatched = 0;
        processorSide.busy = 0;
        processorSide.bytesIn = 0;
        processorSide.taken = 0;
        processorSide.fileCacheHits = 0;
        processorSide.fileCacheMisses = 0;
        processorSide.gzipServed = 0;
}

int Metrics_isEnabled(void) {
        return enabled.load(std::memory_order_relaxed);
}

long long Metrics_begin(void) {
        if (!enabled.load(std::memory_order_relaxed))
                return 0;
        processorSide.busy.fetch_add(1, std::memory_order_relaxed);
        return nowNanoseconds();
}

void Metrics_end(HttpRequest_T req, HttpResponse_T res, long long started) {
        if (!started)
                return;
        assert(req);
        assert(res);
        long long elapsed = nowNanoseconds() - started;
        processorSide.busy.fetch_sub(1, std::memory_order_relaxed);
        ServletConfig_T config = HttpRequest_getServletConfig(req);
        const char* servlet = config ? ServletConfig_getServletName(config) : nullptr;
        Series* s = seriesFor(HttpRequest_getContext(req), servlet ? servlet : "");
        int status = HttpResponse_getStatus(res) / 100;
        if (status < 1 || status > kClassCount)
                status = kClassCount;
        s->requests[methodIndex(req)][status - 1].fetch_add(1, std::memory_order_relaxed);
        double seconds = static_cast<double>(elapsed) / 1e9;
        int bucket = 0;
        while (bucket < kBucketCount - 1 && seconds > kBounds[bucket])
                bucket++;
        s->buckets[bucket].fetch_add(1, std::memory_order_relaxed);
        s->nanoseconds.fetch_add(static_cast<uint64_t>(elapsed), std::memory_order_relaxed);
        int in = HttpRequest_getContentLength(req);
        if (in > 0)
                processorSide.bytesIn.fetch_add(static_cast<uint64_t>(in),
                                                std::memory_order_relaxed);
}

void Metrics_responseSent(HttpResponse_T res) {
        if (!enabled.load(std::memory_order_relaxed))
                return;
        assert(res);
        long long out = HttpResponse_getBytesWritten(res);
        if (out > 0)
                reactorSide.bytesOut.fetch_add(static_cast<uint64_t>(out),
                                               std::memory_order_relaxed);
}

void Metrics_connections(int delta) {
        // Counted whether on or off: a connection opened before the endpoint was configured
        // still closes after.
        reactorSide.connections.fetch_add(delta, std::memory_order_relaxed);
}

void Metrics_idleConnections(int delta) {
        if (enabled.load(std::memory_order_relaxed))
                reactorSide.idle.fetch_add(delta, std::memory_order_relaxed);
}

void Metrics_queued(int delta) {
        if (!enabled.load(std::memory_order_relaxed))
                return;
        // Released, so that a scrape that sees a request taken sees it handed over too.
        if (delta > 0)
                reactorSide.dispatched.fetch_add(static_cast<uint64_t>(delta),
                                                 std::memory_order_release);
        else
                processorSide.taken.fetch_add(static_cast<uint64_t>(-delta),
                                              std::memory_order_release);
}

void Metrics_fileCacheLookup(int hit) {
        if (enabled.load(std::memory_order_relaxed))
                (hit ? processorSide.fileCacheHits : processorSide.fileCacheMisses)
                    .fetch_add(1, std::memory_order_relaxed);
}

void Metrics_fileServed(FileMap_T map) {
        if (enabled.load(std::memory_order_relaxed) && map && FileMap_isCompressed(map))
                processorSide.gzipServed.fetch_add(1, std::memory_order_relaxed);
}

void Metrics_tlsHandshake(HttpConnector_T connector, int completed) {
        if (!enabled.load(std::memory_order_relaxed) || !connector)
                return;
        Listener* l = listenerFor(connector);
        (completed ? l->completed : l->failed).fetch_add(1, std::memory_order_relaxed);
}

int Metrics_isEndpoint(HttpRequest_T req) {
        if (!enabled.load(std::memory_order_relaxed))
                return false;
        const char* uri = HttpRequest_getRequestURI(req);
        return uri && endpoint == uri &&
               (endpointPort == 0 || HttpRequest_getLocalPort(req) == endpointPort);
}

void Metrics_serve(HttpRequest_T req, HttpResponse_T res) {
        assert(req);
        assert(res);
        const char* client = HttpRequest_getRemoteAddr(req);
        bool allowedClient = false;
        for (const std::string& a : allowed)
                allowedClient = allowedClient || (client && a == client);
        if (!allowedClient) {
                HttpResponse_sendError(res, 403, "Metrics are not served to this address");
                return;
        }
        if (HttpRequest_method(req) != HttpRequest_GET &&
            HttpRequest_method(req) != HttpRequest_HEAD) {
                HttpResponse_setHeader(res, "Allow", "GET, HEAD");
                HttpResponse_sendError(res, 405, "Method: %s not allowed for this URL",
                                       HttpRequest_getMethod(req));
                return;
        }
        char* text = Metrics_text();
        HttpResponse_setContentType(res, "text/plain; version=0.0.4; charset=utf-8");
        HttpResponse_setHeader(res, "Cache-Control", "no-store");
        OutputStream_write(HttpResponse_getOutputStream(res), text, static_cast<int>(strlen(text)));
        FREE(text);
}

char* Metrics_text(void) {
        std::vector<Series*> series;
        std::vector<Listener*> secure;
        {
                vesk::Lock lock(creating);
                for (const auto& s : all)
                        series.push_back(s.get());
                for (const auto& l : listeners)
                        secure.push_back(l.get());
        }
        // Taken first: every request taken was handed over before, so the queue is never
        // read below zero.
        uint64_t taken = processorSide.taken.load(std::memory_order_acquire);
        int64_t queued =
            static_cast<int64_t>(reactorSide.dispatched.load(std::memory_order_acquire) - taken);
        std::string out;
        family(out, "vesk_requests_total", "counter",
               "Requests answered, by host, context, servlet, method and status class.");
        for (Series* s : series) {
                std::string where = "host=\"" + label(s->host) + "\",context=\"" +
                                    label(s->contextPath) + "\",servlet=\"" + label(s->servlet) +
                                    "\"";
                for (int m = 0; m < kMethodCount; m++)
                        for (int c = 0; c < kClassCount; c++) {
                                uint64_t n = s->requests[m][c].load(std::memory_order_relaxed);
                                if (n)
                                        out += "vesk_requests_total{" + where + ",method=\"" +
                                               kMethods[m] + "\",status=\"" + decimal(c + 1) +
                                               "xx\"} " + decimal(n) + "\n";
                        }
        }
        family(out, "vesk_request_duration_seconds", "histogram",
               "Time from the start of processing to the end of the response, by context and "
               "servlet.");
        for (Series* s : series) {
                std::string where = "host=\"" + label(s->host) + "\",context=\"" +
                                    label(s->contextPath) + "\",servlet=\"" + label(s->servlet) +
                                    "\"";
                uint64_t cumulative = 0;
                for (int b = 0; b < kBucketCount; b++) {
                        cumulative += s->buckets[b].load(std::memory_order_relaxed);
                        out += "vesk_request_duration_seconds_bucket{" + where + ",le=\"" +
                               (b < kBucketCount - 1 ? number(kBounds[b]) : "+Inf") + "\"} " +
                               decimal(cumulative) + "\n";
                }
                out += "vesk_request_duration_seconds_sum{" + where + "} " +
                       number(static_cast<double>(s->nanoseconds.load()) / 1e9) + "\n";
                out += "vesk_request_duration_seconds_count{" + where + "} " + decimal(cumulative) +
                       "\n";
        }
        single(out, "vesk_request_body_bytes_total", "counter", "Request body bytes received.",
               decimal(processorSide.bytesIn.load()));
        single(out, "vesk_response_bytes_total", "counter",
               "Response body bytes sent, counted once a response has gone out in full.",
               decimal(reactorSide.bytesOut.load()));
        single(out, "vesk_processor_threads_busy", "gauge",
               "Processor threads serving a request now.",
               decimal(static_cast<long long>(processorSide.busy.load())));
        single(out, "vesk_dispatcher_queue_length", "gauge",
               "Requests received in full and waiting for a processor thread.",
               decimal(static_cast<long long>(queued)));
        single(out, "vesk_connections_open", "gauge", "Client connections open now.",
               decimal(static_cast<long long>(reactorSide.connections.load())));
        single(out, "vesk_connections_idle", "gauge",
               "Kept-alive client connections waiting for their next request.",
               decimal(static_cast<long long>(reactorSide.idle.load())));
        FileCache_T cache = FileCache_getInstance();
        single(out, "vesk_file_cache_entries", "gauge", "Files held in the file cache.",
               decimal(FileCache_files(cache)));
        single(out, "vesk_file_cache_bytes", "gauge", "Bytes held in the file cache.",
               decimal(static_cast<long long>(FileCache_size(cache))));
        single(out, "vesk_file_cache_hits_total", "counter",
               "File cache lookups that found the form asked for mapped already.",
               decimal(processorSide.fileCacheHits.load()));
        single(out, "vesk_file_cache_misses_total", "counter",
               "File cache lookups that had to map the file.",
               decimal(processorSide.fileCacheMisses.load()));
        single(out, "vesk_file_cache_gzip_served_total", "counter",
               "Responses sent from the gzip-compressed form of a file.",
               decimal(processorSide.gzipServed.load()));
        family(out, "vesk_sessions_active", "gauge", "Sessions alive, by context.");
        std::vector<Context_T> contexts;
        for (Series* s : series) {
                if (!s->context)
                        continue;
                bool seen = false;
                for (Context_T c : contexts)
                        seen = seen || c == s->context;
                if (seen)
                        continue;
                contexts.push_back(s->context);
                out += "vesk_sessions_active{host=\"" + label(s->host) + "\",context=\"" +
                       label(s->contextPath) + "\"} " +
                       decimal(Context_getActiveSessions(s->context)) + "\n";
        }
        family(out, "vesk_tls_handshakes_total", "counter",
               "TLS handshakes on each secure connector, by result: completed, or failed "
               "(refused, broken off or out of time).");
        for (Listener* l : secure) {
                std::string where =
                    "address=\"" + label(l->address) + "\",port=\"" + l->port + "\"";
                out += "vesk_tls_handshakes_total{" + where + ",result=\"completed\"} " +
                       decimal(l->completed.load()) + "\n";
                out += "vesk_tls_handshakes_total{" + where + ",result=\"failed\"} " +
                       decimal(l->failed.load()) + "\n";
        }
        single(out, "vesk_start_time_seconds", "gauge", "When the server started, in Unix time.",
               decimal(static_cast<long long>(startTime)));
        family(out, "vesk_build_info", "gauge", "The server's name and version.");
        out += std::string("vesk_build_info{name=\"") + label(Container_Name) + "\",version=\"" +
               label(Container_Version) + "\"} 1\n";
        return Str_dup(out.c_str());
}
