// The metrics endpoint: counters that move by exactly the requests made, cumulative
// latency buckets, an exposition a scraper accepts, and nothing for an address not listed.
#include <arpa/inet.h>
#include <poll.h>

#include <gtest/gtest.h>

#include "support/ServerSupport.hpp"
#include "support/TlsSupport.hpp"

namespace {

using namespace e2e;

// A home whose engine serves metrics at /metrics to 127.0.0.1 only.
struct MetricsHome : Home {
        MetricsHome() {
                std::string xml = readFile(*this / "conf/server.xml");
                std::string logger = "<Errorlogger directory=\"logs\" fileName=\"error.log\"/>\n";
                xml.insert(xml.find(logger) + logger.size(),
                           "<Metrics path=\"/metrics\" allow=\"127.0.0.1\"/>\n");
                write("conf/server.xml", xml);
        }
};

std::string scrape(int port) {
        Reply r = roundTrip(port, "GET /metrics HTTP/1.0\r\n\r\n");
        EXPECT_EQ(r.status, 200) << r.head;
        EXPECT_NE(r.head.find("Content-Type: text/plain; version=0.0.4"), std::string::npos);
        return r.body;
}

std::string scrape(const Home& home) {
        return scrape(home.port);
}

// The value of the sample named exactly so (name and labels), or -1 if absent.
double sample(const std::string& text, const std::string& series) {
        size_t at = text.find("\n" + series + " ");
        if (at == std::string::npos)
                return -1;
        return std::stod(text.substr(at + series.size() + 2));
}

// How far the sample named so moved from one scrape to the next; a sample that is not
// there counts as 0.
double moved(const std::string& before, const std::string& after, const std::string& series) {
        return std::max(sample(after, series), 0.0) - std::max(sample(before, series), 0.0);
}

const std::string kHello = "host=\"localhost\",context=\"/app\",servlet=\"hello\"";

double helloRequests(const std::string& text, const char* method) {
        double n = sample(
            text, "vesk_requests_total{" + kHello + ",method=\"" + method + "\",status=\"2xx\"}");
        return n < 0 ? 0 : n;
}

TEST(Metrics, CountersMoveByExactlyTheRequestsMadeAndBucketsAreCumulative) {
        MetricsHome home;
        Server server(home, false);
        ASSERT_TRUE(server.ready());
        std::string before = scrape(home);
        // The body bytes sent from here on: the first scrape's own, counted once it was out.
        size_t sent = before.size();
        auto ask = [&](const std::string& request) {
                Reply r = roundTrip(home.port, request);
                sent += r.body.size();
                return r.status;
        };
        for (int i = 0; i < 3; i++)
                EXPECT_EQ(ask("GET /app/x/" + std::to_string(i) + " HTTP/1.0\r\n\r\n"), 200);
        EXPECT_EQ(ask("POST /app/x/1 HTTP/1.0\r\nContent-Length: 5\r\n\r\nhello"), 200);
        EXPECT_EQ(ask("GET /app/missing.html HTTP/1.0\r\n\r\n"), 404);
        // A connection held open, and the scrape's own.
        int held = dial(home.port);
        std::string after = scrape(home);
        close(held);
        EXPECT_GE(sample(after, "vesk_connections_open"), 2);
        EXPECT_EQ(helloRequests(after, "GET") - helloRequests(before, "GET"), 3) << after;
        EXPECT_EQ(helloRequests(after, "POST") - helloRequests(before, "POST"), 1);
        EXPECT_NE(after.find("method=\"GET\",status=\"4xx\"}"), std::string::npos) << after;
        EXPECT_EQ(moved(before, after, "vesk_request_body_bytes_total"), 5);
        EXPECT_EQ(moved(before, after, "vesk_response_bytes_total"), static_cast<double>(sent));
        // Each bucket holds the ones below it; +Inf holds them all.
        std::string prefix = "vesk_request_duration_seconds_bucket{" + kHello + ",le=\"";
        double last = 0;
        int buckets = 0;
        for (size_t at = after.find(prefix); at != std::string::npos;
             at = after.find(prefix, at + 1)) {
                size_t le = at + prefix.size();
                size_t close = after.find("\"} ", le);
                ASSERT_NE(close, std::string::npos) << after.substr(at, 120);
                double n = std::stod(after.substr(close + 3));
                EXPECT_GE(n, last) << after.substr(le, close - le);
                last = n;
                buckets++;
        }
        EXPECT_GT(buckets, 2);
        // Bounds as an operator writes them in a query.
        EXPECT_NE(after.find(prefix + "0.0005\"} "), std::string::npos) << after;
        EXPECT_EQ(last, 4);
        EXPECT_EQ(sample(after, "vesk_request_duration_seconds_count{" + kHello + "}"), 4);
        EXPECT_GT(sample(after, "vesk_start_time_seconds"), 0);
        EXPECT_NE(after.find("vesk_build_info{name=\"Vesk\",version=\""), std::string::npos);
}

// Connects to the server from local address from.
int dialFrom(const char* from, int port) {
        int s = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in local = {};
        local.sin_family = AF_INET;
        inet_pton(AF_INET, from, &local.sin_addr);
        sockaddr_in remote = {};
        remote.sin_family = AF_INET;
        remote.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, "127.0.0.1", &remote.sin_addr);
        if (bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
            connect(s, reinterpret_cast<sockaddr*>(&remote), sizeof remote) != 0) {
                close(s);
                return -1;
        }
        return s;
}

TEST(Metrics, AnAddressNotListedIsRefused) {
        MetricsHome home;
        Server server(home, false);
        ASSERT_TRUE(server.ready());
        int s = dialFrom("127.0.0.2", home.port);
        ASSERT_GE(s, 0);
        std::string request = "GET /metrics HTTP/1.0\r\n\r\n";
        ASSERT_EQ(write(s, request.data(), request.size()), static_cast<ssize_t>(request.size()));
        Reply r = parse(readAll(s));
        close(s);
        EXPECT_EQ(r.status, 403);
        EXPECT_EQ(r.body.find("vesk_requests_total"), std::string::npos);
}

TEST(Metrics, WithoutTheElementThePathIsAnOrdinaryURL) {
        Home home;
        Server server(home, false);
        ASSERT_TRUE(server.ready());
        EXPECT_EQ(roundTrip(home.port, "GET /metrics HTTP/1.0\r\n\r\n").status, 404);
}

TEST(Metrics, FileCacheLookupsAndGzipFormsMoveByEachRequest) {
        MetricsHome home;
        home.write("webapps/app/notes.txt", std::string(4096, 'n'));  // compressible text
        Server server(home, false);
        ASSERT_TRUE(server.ready());
        const std::string plain = "GET /app/notes.txt HTTP/1.0\r\n\r\n";
        const std::string gzip = "GET /app/notes.txt HTTP/1.0\r\nAccept-Encoding: gzip\r\n\r\n";
        struct Step {
                const std::string& request;
                int hits, misses, gzipped;
        };
        // Each form of the file is mapped on its first request and found on the next.
        const Step steps[] = {{plain, 0, 1, 0}, {plain, 1, 0, 0}, {gzip, 0, 1, 1}, {gzip, 1, 0, 1}};
        std::string before = scrape(home);
        for (const Step& step : steps) {
                Reply r = roundTrip(home.port, step.request);
                EXPECT_EQ(r.status, 200);
                EXPECT_EQ(r.header("Content-Encoding"), step.gzipped ? "gzip" : "");
                std::string after = scrape(home);
                EXPECT_EQ(moved(before, after, "vesk_file_cache_hits_total"), step.hits) << after;
                EXPECT_EQ(moved(before, after, "vesk_file_cache_misses_total"), step.misses);
                EXPECT_EQ(moved(before, after, "vesk_file_cache_gzip_served_total"), step.gzipped);
                before = after;
        }
        // Answered without the file's bytes: no form is looked up or served.
        EXPECT_EQ(roundTrip(home.port, "HEAD /app/notes.txt HTTP/1.0\r\n\r\n").status, 200);
        std::string after = scrape(home);
        EXPECT_EQ(moved(before, after, "vesk_file_cache_hits_total"), 0);
        EXPECT_EQ(moved(before, after, "vesk_file_cache_misses_total"), 0);
        EXPECT_EQ(sample(after, "vesk_file_cache_entries"), 2);
}

TEST(Metrics, AKeptAliveConnectionIsIdleUntilItsClientClosesIt) {
        MetricsHome home;
        Server server(home, false);
        ASSERT_TRUE(server.ready());
        auto idle = [&] { return sample(scrape(home), "vesk_connections_idle"); };
        EXPECT_EQ(idle(), 0);
        int kept = dial(home.port);
        ASSERT_GE(kept, 0);
        // Connected and not yet asked anything: waiting for a first request is not idling.
        ASSERT_TRUE(eventually([&] { return sample(scrape(home), "vesk_connections_open") >= 2; }));
        EXPECT_EQ(idle(), 0);
        for (int i = 0; i < 2; i++) {
                ASSERT_TRUE(sendAll(kept, "GET /app/x/1 HTTP/1.1\r\nHost: localhost\r\n\r\n"));
                EXPECT_EQ(parse(readResponse(kept)).status, 200);
                EXPECT_TRUE(eventually([&] { return idle() == 1; })) << "request " << i;
        }
        close(kept);
        EXPECT_TRUE(eventually([&] { return idle() == 0; }));
}

// Whether the server has answered on s, or closed it.
bool answered(int s) {
        struct pollfd p = {s, POLLIN, 0};
        return poll(&p, 1, 0) > 0;
}

TEST(Metrics, ARequestWaitingForAProcessorThreadIsInTheQueueUntilOneTakesIt) {
        MetricsHome home;
        // The site has one processor thread; the endpoint a connector of its own, so that
        // the scrape never waits in the queue it reads.
        int endpointPort = freePort();
        std::string xml = readFile(home / "conf/server.xml");
        auto replace = [&](const std::string& from, const std::string& to) {
                xml.replace(xml.find(from), from.size(), to);
        };
        replace("processors=\"4\"", "processors=\"1\"");
        replace("<Engine", "<Connector port=\"" + std::to_string(endpointPort) +
                               "\" address=\"127.0.0.1\" processors=\"2\"/>\n<Engine");
        replace("<Metrics ", "<Metrics port=\"" + std::to_string(endpointPort) + "\" ");
        home.write("conf/server.xml", xml);
        Server server(home, false);
        ASSERT_TRUE(server.ready());
        auto queued = [&] { return sample(scrape(endpointPort), "vesk_dispatcher_queue_length"); };
        EXPECT_EQ(queued(), 0);
        // The thread is held by a servlet that sleeps; the queue is seen while it still
        // does, or the round is tried again with a longer sleep.
        bool seen = false;
        for (int ms = 500; ms <= 8000 && !seen; ms *= 2) {
                remove((home / "webapps/app/slow.started").c_str());
                int holder = dial(home.port);
                ASSERT_TRUE(sendAll(
                    holder, "GET /app/slow?ms=" + std::to_string(ms) + " HTTP/1.0\r\n\r\n"));
                ASSERT_TRUE(eventually([&] { return exists(home / "webapps/app/slow.started"); }));
                int waiting = dial(home.port);
                ASSERT_TRUE(sendAll(waiting, "GET /app/x/1 HTTP/1.0\r\n\r\n"));
                ASSERT_TRUE(eventually([&] {
                        seen = queued() == 1 && !answered(holder);
                        return seen || answered(holder);
                }));
                EXPECT_EQ(parse(readAll(holder)).status, 200);
                EXPECT_EQ(parse(readAll(waiting)).status, 200);
                close(holder);
                close(waiting);
                EXPECT_TRUE(eventually([&] { return queued() == 0; }));
        }
        EXPECT_TRUE(seen) << "the held thread never outlasted a scrape";
}

// A home that also serves HTTPS, for localhost on 127.0.0.1 at securePort.
struct SecureMetricsHome : MetricsHome {
        int securePort = freePort();

        SecureMetricsHome() {
                makeCertificate(*this, "conf/localhost.pem", true, "localhost",
                                "DNS:localhost,IP:127.0.0.1");
                std::string xml = readFile(*this / "conf/server.xml");
                xml.insert(xml.find("<Engine"), "<Connector port=\"" + std::to_string(securePort) +
                                                    "\" address=\"127.0.0.1\" secure=\"true\" "
                                                    "processors=\"2\"/>\n");
                std::string alias = "alias=\"127.0.0.1\"";
                xml.insert(xml.find(alias) + alias.size(),
                           " certificate=\"conf/localhost.pem\" address=\"127.0.0.1\"");
                write("conf/server.xml", xml);
        }

        // One request over TLS, which closes behind it; its status, or 0.
        int secureRequest() const {
                int s = dial(securePort);
                RawTlsClient client(s);
                int status = 0;
                if (client.connect() &&
                    client.send("GET /app/x/1 HTTP/1.1\r\nHost: localhost\r\nConnection: "
                                "close\r\n\r\n"))
                        status = parse(client.receiveResponse()).status;
                client.close();
                close(s);
                return status;
        }

        // Plain HTTP to the TLS listener: the server closes the connection.
        std::string plainRequest() const {
                int s = dial(securePort);
                sendAll(s, "GET /app/x/1 HTTP/1.0\r\n\r\n");
                std::string got = readAll(s);
                close(s);
                return got;
        }
};

TEST(Metrics, TlsHandshakesAreCountedByConnectorAndResult) {
        SecureMetricsHome home;
        Server server(home, false);
        ASSERT_TRUE(server.ready()) << readFile(home / "logs/launcher.out");
        std::string series = "vesk_tls_handshakes_total{address=\"127.0.0.1\",port=\"" +
                             std::to_string(home.securePort) + "\",result=\"";
        auto handshakes = [&](const char* result) {
                return std::max(sample(scrape(home), series + result + "\"}"), 0.0);
        };
        EXPECT_EQ(handshakes("completed"), 0);
        EXPECT_EQ(home.secureRequest(), 200);
        EXPECT_TRUE(eventually([&] { return handshakes("completed") == 1; }));
        EXPECT_EQ(handshakes("failed"), 0);
        // Whatever comes back is a TLS alert, never an HTTP answer.
        EXPECT_EQ(home.plainRequest().find("HTTP/"), std::string::npos);
        EXPECT_TRUE(eventually([&] { return handshakes("failed") == 1; }));
        EXPECT_EQ(home.secureRequest(), 200);
        EXPECT_TRUE(eventually([&] { return handshakes("completed") == 2; }));
        EXPECT_EQ(handshakes("failed"), 1);
}

TEST(Metrics, TheExpositionPassesPromtool) {
        if (access("/usr/bin/promtool", X_OK) != 0)
                GTEST_SKIP() << "promtool is not installed";
        SecureMetricsHome home;
        home.write("webapps/app/notes.txt", std::string(4096, 'n'));
        Server server(home, false);
        ASSERT_TRUE(server.ready());
        // Every family has samples: a servlet, a file in both forms, a kept-alive
        // connection and a handshake of each result.
        roundTrip(home.port, "GET /app/x/1 HTTP/1.0\r\n\r\n");
        roundTrip(home.port, "GET /app/notes.txt HTTP/1.0\r\nAccept-Encoding: gzip\r\n\r\n");
        EXPECT_EQ(home.secureRequest(), 200);
        home.plainRequest();
        int kept = dial(home.port);
        sendAll(kept, "GET /app/x/1 HTTP/1.1\r\nHost: localhost\r\n\r\n");
        readResponse(kept);
        home.write("logs/metrics.txt", scrape(home));
        std::string command = "/usr/bin/promtool check metrics < " + (home / "logs/metrics.txt") +
                              " > " + (home / "logs/promtool.out") + " 2>&1";
        EXPECT_EQ(system(command.c_str()), 0) << readFile(home / "logs/promtool.out");
        close(kept);
}

}  // namespace
