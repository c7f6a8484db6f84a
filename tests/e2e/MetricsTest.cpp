// The metrics endpoint: counters that move by exactly the requests made, cumulative
// latency buckets, an exposition a scraper accepts, and nothing for an address not listed.
#include <arpa/inet.h>
#include <gtest/gtest.h>


#include "support/ServerSupport.hpp"

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

std::string scrape(const Home& home) {
        Reply r = roundTrip(home.port, "GET /metrics HTTP/1.0\r\n\r\n");
        EXPECT_EQ(r.status, 200) << r.head;
        EXPECT_NE(r.head.find("Content-Type: text/plain; version=0.0.4"), std::string::npos);
        return r.body;
}

// The value of the sample named exactly so (name and labels), or -1 if absent.
double sample(const std::string& text, const std::string& series) {
        size_t at = text.find("\n" + series + " ");
        if (at == std::string::npos)
                return -1;
        return std::stod(text.substr(at + series.size() + 2));
}

const std::string kHello = "host=\"localhost\",context=\"/app\",servlet=\"hello\"";

double helloRequests(const std::string& text, const char* method) {
        double n = sample(text, "vesk_requests_total{" + kHello + ",method=\"" + method +
                                    "\",status=\"2xx\"}");
        return n < 0 ? 0 : n;
}

TEST(Metrics, CountersMoveByExactlyTheRequestsMadeAndBucketsAreCumulative) {
        MetricsHome home;
        Server server(home, false);
        ASSERT_TRUE(server.ready());
        std::string before = scrape(home);
        for (int i = 0; i < 3; i++)
                EXPECT_EQ(roundTrip(home.port, "GET /app/x/" + std::to_string(i) + " HTTP/1.0\r\n\r\n")
                              .status,
                          200);
        EXPECT_EQ(roundTrip(home.port,
                            "POST /app/x/1 HTTP/1.0\r\nContent-Length: 5\r\n\r\nhello")
                      .status,
                  200);
        EXPECT_EQ(roundTrip(home.port, "GET /app/missing.html HTTP/1.0\r\n\r\n").status, 404);
        // A connection held open, and the scrape's own.
        int held = dial(home.port);
        std::string after = scrape(home);
        close(held);
        EXPECT_GE(sample(after, "vesk_connections_open"), 2);
        EXPECT_EQ(helloRequests(after, "GET") - helloRequests(before, "GET"), 3) << after;
        EXPECT_EQ(helloRequests(after, "POST") - helloRequests(before, "POST"), 1);
        EXPECT_NE(after.find("method=\"GET\",status=\"4xx\"}"), std::string::npos) << after;
        EXPECT_GE(sample(after, "vesk_request_body_bytes_total") -
                      sample(before, "vesk_request_body_bytes_total"),
                  5);
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

TEST(Metrics, TheExpositionPassesPromtool) {
        if (access("/usr/bin/promtool", X_OK) != 0)
                GTEST_SKIP() << "promtool is not installed";
        MetricsHome home;
        Server server(home, false);
        ASSERT_TRUE(server.ready());
        roundTrip(home.port, "GET /app/x/1 HTTP/1.0\r\n\r\n");
        home.write("logs/metrics.txt", scrape(home));
        std::string command =
            "/usr/bin/promtool check metrics < " + (home / "logs/metrics.txt") + " > " +
            (home / "logs/promtool.out") + " 2>&1";
        EXPECT_EQ(system(command.c_str()), 0) << readFile(home / "logs/promtool.out");
}

}  // namespace
