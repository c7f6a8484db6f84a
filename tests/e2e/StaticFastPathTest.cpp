// Static files that the file cache holds are answered on the event loop, with no processor
// thread: every status, header, byte and log line must be what the first answer, made on a
// processor thread, gave, and a file that changes, is constrained or is cut short while it
// is sent must be handled as it always was.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/socket.h>

#include <sstream>
#include <vector>

#include <vesk/FileCache.h>

#include "support/SecureHome.hpp"

namespace {

using namespace e2e;

// Rewrites path in place, as cp does, and gives it mtime.
void rewrite(const std::string& path, const std::string& content, time_t mtime) {
        int fd = open(path.c_str(), O_WRONLY | O_TRUNC);
        ASSERT_GE(fd, 0) << path;
        EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
        struct timespec times[2] = {{mtime, 0}, {mtime, 0}};
        futimens(fd, times);
        close(fd);
}

// The head without its Date line, the one part that may differ between two answers.
std::string undated(const std::string& head) {
        size_t at = head.find("\r\nDate: ");
        if (at == std::string::npos)
                return head;
        return head.substr(0, at) + head.substr(head.find("\r\n", at + 2));
}

// The names of the head's fields, in order.
std::vector<std::string> fieldNames(const std::string& head) {
        std::vector<std::string> names;
        for (size_t at = head.find("\r\n"); at != std::string::npos && at + 2 < head.size();
             at = head.find("\r\n", at + 2))
                names.push_back(head.substr(at + 2, head.find(':', at) - at - 2));
        return names;
}

std::string kept(const std::string& uri, const std::string& headers = "",
                 const std::string& method = "GET") {
        return method + " " + uri + " HTTP/1.1\r\nHost: localhost\r\n" + headers + "\r\n";
}

class StaticFastPath : public testing::TestWithParam<bool> {
protected:
        // One kept-alive request on a connection of its own, so that every answer carries
        // the same Keep-Alive count.
        Reply once(const std::string& uri, const std::string& headers = "",
                   const std::string& method = "GET") {
                int s = dial(home.port);
                EXPECT_GE(s, 0);
                sendAll(s, kept(uri, headers, method));
                Reply r = parse(readResponse(s, method == "HEAD"));
                close(s);
                return r;
        }
        Home home;
};

TEST_P(StaticFastPath, CachedAnswersAreTheFirstAnswersAgain) {
        std::string page = varyingText(3000, "page");
        home.write("webapps/ROOT/page.txt", page);
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        // A HEAD maps nothing, so the first one is made before the file is cached.
        Reply firstHead = once("/page.txt", "", "HEAD");
        Reply firstPlain = once("/page.txt");
        Reply firstGzip = once("/page.txt", "Accept-Encoding: gzip\r\n");
        ASSERT_EQ(firstPlain.status, 200) << firstPlain.head;
        ASSERT_EQ(gunzip(firstGzip.body), page);
        if (GetParam()) {
                EXPECT_EQ(FileCache_files(FileCache_getInstance()), 2);
        }
        for (int round = 0; round < 2; round++) {
                Reply plain = once("/page.txt");
                EXPECT_EQ(undated(plain.head), undated(firstPlain.head)) << round;
                EXPECT_EQ(plain.body, page) << round;
                Reply gzip = once("/page.txt", "Accept-Encoding: gzip\r\n");
                EXPECT_EQ(undated(gzip.head), undated(firstGzip.head)) << round;
                EXPECT_EQ(gzip.body, firstGzip.body) << round;
                Reply head = once("/page.txt", "", "HEAD");
                EXPECT_EQ(undated(head.head), undated(firstHead.head)) << round;
                EXPECT_TRUE(head.body.empty());
        }
        // The servlet's own fields come latest first, as they always have.
        std::vector<std::string> plainFields = {
            "Date",         "Server",        "Content-Length", "Vary",       "ETag",
            "Content-Type", "Last-Modified", "Accept-Ranges",  "Connection", "Keep-Alive"};
        EXPECT_EQ(fieldNames(once("/page.txt").head), plainFields);
        std::vector<std::string> gzipFields = plainFields;
        gzipFields.insert(gzipFields.begin() + 3, "Content-Encoding");
        EXPECT_EQ(fieldNames(once("/page.txt", "Accept-Encoding: gzip\r\n").head), gzipFields);
        EXPECT_EQ(once("/page.txt", "", "HEAD").header("Content-Length"), "0");
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(StaticFastPath, PreconditionsAnswerAsBefore) {
        home.write("webapps/ROOT/page.txt", varyingText(3000, "page"));
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        Reply head = once("/page.txt", "", "HEAD");
        std::string etag = head.header("ETag"), modified = head.header("Last-Modified");
        ASSERT_FALSE(etag.empty()) << head.head;
        // The same conditional requests before the file is cached and after.
        std::vector<std::string> asks = {"If-None-Match: " + etag + "\r\n",
                                         "If-Modified-Since: " + modified + "\r\n",
                                         "If-Match: \"0-0\"\r\n"};
        std::vector<Reply> before;
        for (const std::string& ask : asks)
                before.push_back(once("/page.txt", ask));
        ASSERT_EQ(once("/page.txt").status, 200);
        for (size_t i = 0; i < asks.size(); i++) {
                Reply after = once("/page.txt", asks[i]);
                EXPECT_EQ(after.status, i < 2 ? 304 : 412) << asks[i];
                EXPECT_EQ(undated(after.head), undated(before[i].head)) << asks[i];
                EXPECT_EQ(after.body, before[i].body) << asks[i];
        }
        EXPECT_TRUE(once("/page.txt", asks[0]).body.empty());
        EXPECT_EQ(once("/page.txt", asks[2]).header("Connection"), "close");
        // What the default servlet refuses is refused still.
        EXPECT_EQ(once("/page.txt", "", "DELETE").status, 403);
        EXPECT_EQ(once("/WEB-INF/web.xml").status, 404);
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(StaticFastPath, EveryAnswerIsLoggedAndCountedTheSame) {
        // Metrics are the process's own, so they are read from a launched server only.
        if (!GetParam()) {
                std::string xml = readFile(home / "conf/server.xml");
                std::string logger = "<Errorlogger directory=\"logs\" fileName=\"error.log\"/>\n";
                xml.insert(xml.find(logger) + logger.size(),
                           "<Metrics path=\"/metrics\" allow=\"127.0.0.1\"/>\n");
                home.write("conf/server.xml", xml);
        }
        home.write("webapps/ROOT/page.txt", varyingText(3000, "page"));
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        for (int i = 0; i < 4; i++)
                ASSERT_EQ(once("/page.txt", "User-Agent: probe\r\n").status, 200) << i;
        ASSERT_EQ(once("/page.txt", "", "HEAD").status, 200);
        if (!GetParam()) {
                std::string series =
                    "vesk_requests_total{host=\"localhost\",context=\"/\","
                    "servlet=\"DefaultServlet\",method=\"";
                std::string scraped = roundTrip(home.port, "GET /metrics HTTP/1.0\r\n\r\n").body;
                EXPECT_NE(scraped.find(series + "GET\",status=\"2xx\"} 4"), std::string::npos)
                    << scraped;
                EXPECT_NE(scraped.find(series + "HEAD\",status=\"2xx\"} 1"), std::string::npos)
                    << scraped;
        }
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
        // The lines of the first answer and of the cached ones differ in their time only.
        std::vector<std::string> gets;
        for (const std::string& line : lines(readFile(home / "logs/access.log")))
                if (contains(line, "\"GET /page.txt HTTP/1.1\""))
                        gets.push_back(line.substr(0, line.find('[')) +
                                       line.substr(line.find(']') + 1));
        ASSERT_EQ(gets.size(), 4u) << readFile(home / "logs/access.log");
        for (const std::string& line : gets)
                EXPECT_EQ(line, gets[0]);
        EXPECT_TRUE(contains(gets[0], "\"GET /page.txt HTTP/1.1\" 200 3000 \"-\" \"probe\""))
            << gets[0];
        EXPECT_FALSE(contains(readFile(home / "logs/error.log"), "page.txt"));
}

TEST_P(StaticFastPath, KeptConnectionEndsAfterItsLastRequest) {
        home.write("webapps/ROOT/page.txt", "page\n");
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        int s = dial(home.port);
        ASSERT_GE(s, 0);
        // Cached after the first: every later one is answered on the event loop, and each
        // counts against the connection's requests as any other does.
        for (int i = 1; i <= 100; i++) {
                ASSERT_TRUE(sendAll(s, kept("/page.txt"))) << i;
                Reply r = parse(readResponse(s));
                ASSERT_EQ(r.body, "page\n") << i;
                if (i < 100)
                        ASSERT_EQ(r.header("Keep-Alive"),
                                  "timeout=15, max=" + std::to_string(100 - i))
                            << i;
                else
                        EXPECT_EQ(r.header("Connection"), "close");
        }
        EXPECT_EQ(readAll(s), "");
        close(s);
        // A client that asks for the close gets it after a cached answer too.
        s = dial(home.port);
        sendAll(s, kept("/page.txt", "Connection: close\r\n"));
        Reply last = parse(readAll(s));
        close(s);
        EXPECT_EQ(last.body, "page\n");
        EXPECT_EQ(last.header("Connection"), "close");
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(StaticFastPath, FileChangedOnDiskIsSeenByTheNextRequest) {
        std::string path = home.write("webapps/ROOT/page.txt", "");
        rewrite(path, varyingText(3000, "old"), 1000000000);
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        int s = dial(home.port);
        ASSERT_GE(s, 0);
        for (int i = 0; i < 2; i++) {
                sendAll(s, kept("/page.txt"));
                EXPECT_EQ(parse(readResponse(s)).body, varyingText(3000, "old"));
        }
        // The same size and second, rewritten in place, then a new size.
        for (const std::string& now : {varyingText(3000, "new"), varyingText(2000, "newer")}) {
                rewrite(path, now, 1000000000);
                sendAll(s, kept("/page.txt"));
                Reply r = parse(readResponse(s));
                EXPECT_EQ(r.body, now);
                EXPECT_TRUE(contains(r.header("ETag"), "-" + std::to_string(now.size())));
                sendAll(s, kept("/page.txt", "Accept-Encoding: gzip\r\n"));
                EXPECT_EQ(gunzip(parse(readResponse(s)).body), now);
        }
        close(s);
        unlink(path.c_str());
        EXPECT_EQ(once("/page.txt").status, 404);
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(StaticFastPath, ConstrainedFileAsksForLoginEachTime) {
        SecureHome secure;
        secure.security(constraint("/app/private/*", "admin") + basicLogin());
        mkdir((secure / "webapps/app/private").c_str(), 0755);
        secure.write("webapps/app/private/page.txt", "private\n");
        secure.write("webapps/app/public.txt", "public\n");
        START_SERVER(server, secure, GetParam());
        auto get = [&](const std::string& uri, const std::string& headers = "") {
                return roundTrip(secure.port, request(uri, headers));
        };
        // The answer with the login caches the file; the next without is refused again.
        Reply in = get("/app/private/page.txt", basic("ann:secret"));
        EXPECT_EQ(in.status, 200);
        EXPECT_EQ(in.body, "private\n");
        for (int i = 0; i < 2; i++) {
                Reply out = get("/app/private/page.txt");
                EXPECT_EQ(out.status, 401) << i;
                EXPECT_FALSE(out.header("WWW-Authenticate").empty()) << out.head;
                EXPECT_FALSE(contains(out.body, "private\n"));
        }
        for (int i = 0; i < 2; i++)
                EXPECT_EQ(get("/app/public.txt").body, "public\n") << i;
}

TEST_P(StaticFastPath, LargeFileIsSentWholeAndACutOneAbortsOnlyItsResponse) {
        std::string large = varyingText(6 << 20, "large"), small = varyingText(70000, "small");
        std::string path = home.write("webapps/ROOT/big.txt", large);
        home.write("webapps/ROOT/other.txt", small);
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        // Byte for byte, uncached and cached, with a request behind it on the connection.
        int s = dial(home.port);
        ASSERT_GE(s, 0);
        for (int i = 0; i < 2; i++) {
                sendAll(s, kept("/big.txt"));
                Reply r = parse(readResponse(s));
                EXPECT_EQ(r.header("Content-Length"), std::to_string(large.size()));
                EXPECT_TRUE(r.body == large) << i;
                sendAll(s, kept("/other.txt"));
                EXPECT_TRUE(parse(readResponse(s)).body == small) << i;
        }
        close(s);
        // A slow reader has the start of the file when it is cut short: that one response
        // ends early, and the next client gets the file as it is now.
        int slow = dial(home.port, 4096);
        ASSERT_GE(slow, 0);
        sendAll(slow, kept("/big.txt"));
        std::string got = readAll(slow, 65536);
        ASSERT_EQ(parse(got).header("Content-Length"), std::to_string(large.size()));
        rewrite(path, small, 1000000000);
        got += readAll(slow);
        close(slow);
        EXPECT_LT(parse(got).body.size(), large.size());
        Reply fresh = once("/big.txt");
        EXPECT_EQ(fresh.header("Content-Length"), std::to_string(small.size()));
        EXPECT_TRUE(fresh.body == small);
        EXPECT_TRUE(once("/other.txt").body == small);
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

INSTANTIATE_TEST_SUITE_P(Server, StaticFastPath, testing::Bool(), way);

}  // namespace
