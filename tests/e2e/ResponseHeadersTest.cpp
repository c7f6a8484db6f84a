// What a response may put on the wire, end to end over loopback in raw bytes: no header a
// servlet or the request can break into two, no body behind a HEAD, no gzip on errors and
// redirects, no chunks for an HTTP/1.0 client, and no log line a client can forge.
#include <gtest/gtest.h>

#include <sstream>

#include "support/ServerSupport.hpp"

namespace {

using namespace e2e;

// The body the respond servlet writes for ?size=n, and with ?noise=1.
std::string pattern(size_t n, bool noise = false) {
        std::string s;
        unsigned seed = 1;
        for (size_t i = 0; i < n; i++) {
                seed = seed * 1103515245u + 12345u;
                s += static_cast<char>('a' + (noise ? (seed >> 16) % 26 : (i % 1000) % 26));
        }
        return s;
}

// A request that leaves the connection open.
std::string kept(const std::string& method, const std::string& uri,
                 const std::string& headers = "") {
        return method + " " + uri + " HTTP/1.1\r\nHost: localhost\r\n" + headers + "\r\n";
}

class ResponseHeaders : public testing::TestWithParam<bool> {
protected:
        ResponseHeaders() {
                installModule(home / "webapps/app/WEB-INF/classes", "respond", "respond");
                home.write("webapps/app/WEB-INF/web.xml",
                           "<web-app>\n"
                           "<servlet-mapping><servlet-name>respond</servlet-name>"
                           "<url-pattern>/r/*</url-pattern></servlet-mapping>\n"
                           "<error-page><error-code>403</error-code>"
                           "<location>/denied.csp</location></error-page>\n"
                           "</web-app>\n");
                home.write("webapps/app/page.csp", "<p>page <?cs var:Request.Method ?></p>");
                home.write("webapps/app/deny.csp", "<?cs set:Error.status_code = 403 ?>");
                home.write("webapps/app/denied.csp",
                           "denied <?cs var:Error.status_code ?> <?cs var:Request.Method ?>");
                home.write("webapps/app/go.csp", "<?cs set:Response.redirect = \"/app/\" ?>");
                home.write("webapps/app/bad.csp", "<?cs if:x ?> never closed");
        }
        Reply get(const std::string& uri, const std::string& headers = "") {
                return roundTrip(home.port, request(uri, headers));
        }
        Home home;
};

TEST_P(ResponseHeaders, ARequestPathCannotSplitARedirect) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        // The decoded path comes back encoded, relative to the request or below it.
        Reply r = get("/app/r/a%0d%0aSet-Cookie:%20x=1?redirect=next");
        EXPECT_EQ(r.status, 302) << r.head;
        EXPECT_FALSE(contains(r.head, "\r\nSet-Cookie")) << r.head;
        std::string location = r.header("Location");
        EXPECT_EQ(location.rfind("http://localhost", 0), 0u) << location;
        EXPECT_TRUE(contains(location, "/app/r/a%0D%0ASet-Cookie:%20x=1/next")) << location;
        // Bytes a URI cannot hold are encoded in the servlet's own target as well.
        r = get("/app/r?redirect=/a%20b%22c");
        EXPECT_EQ(r.status, 302);
        EXPECT_TRUE(contains(r.header("Location"), "/a%20b%22c")) << r.head;
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(ResponseHeaders, AServletsLineBreakInAnyHeaderIsA500) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        for (const char* query : {
                 "set=X-A&value=a%0d%0aInjected:%201",
                 "add=X-A&value=a%0aInjected:%201",
                 "set=X-A&value=a%0dInjected:%201",
                 "set=X-A%0d%0aInjected:%201&value=a",
                 "add=X-A:%20b%0aInjected&value=1",
                 "set=&value=a",
                 "int=X-A%0d%0aInjected:%201",
                 "date=X-A%0aInjected",
                 "type=text/html%0d%0aInjected:%201",
                 "cookie=c&value=a%0d%0aInjected:%201",
                 "cookie=c%0d%0aInjected:%201&value=v",
                 "cookie=c&value=v&path=/%0d%0aInjected:%201",
                 "cookie=c&value=v&domain=x%0d%0aInjected:%201",
                 "cookie=c&value=v&comment=x%0d%0aInjected:%201",
                 "redirect=http://h.test/a%0d%0aInjected:%201",
                 "redirect=a%0d%0aInjected:%201",
                 "size=20000&set=X-A&value=a%0d%0aInjected:%201",
             }) {
                Reply r = get(std::string("/app/r?") + query);
                EXPECT_EQ(r.status, 500) << query << "\n" << r.head;
                EXPECT_FALSE(contains(r.head, "\r\nInjected")) << query << "\n" << r.head;
                EXPECT_TRUE(contains(r.body, "AssertException")) << query << "\n" << r.body;
        }
        // What is well formed goes through as it was given.
        Reply r = get("/app/r?set=X-A&value=a%09b%20%C3%A6&type=text/csv");
        EXPECT_EQ(r.status, 200) << r.head;
        EXPECT_EQ(r.header("X-A"), "a\tb \xC3\xA6");
        EXPECT_EQ(r.header("Content-Type"), "text/csv");
        r = get("/app/r?cookie=c&value=v&path=/p");
        EXPECT_EQ(r.header("Set-Cookie"), "c=v; Path=/p") << r.head;
        // An error message from the client is text in the page, never markup.
        r = get("/app/r?error=404&message=%3Cscript%3Ex%3C/script%3E%0d%0aInjected:%201");
        EXPECT_EQ(r.status, 404);
        EXPECT_FALSE(contains(r.head, "\r\nInjected")) << r.head;
        EXPECT_FALSE(contains(r.body, "<script>")) << r.body;
        EXPECT_TRUE(contains(r.body, "&lt;script&gt;x&lt;/script&gt;")) << r.body;
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(ResponseHeaders, LogLinesCannotBeForged) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        // A servlet's bad header is logged with the URI, and every answer has its access line.
        Reply r = get("/app/r/x%0d%0aforged%1b[2J%7f?set=X&value=%0a",
                      "User-Agent: a\" 200 0 \"\\\r\n");
        EXPECT_EQ(r.status, 500);
        EXPECT_EQ(get("/app/r/y%0aforged?size=3").status, 200);
        ASSERT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");

        std::string access = readFile(home / "logs/access.log");
        std::vector<std::string> entries = lines(access);
        ASSERT_EQ(entries.size(), 2u) << access;
        for (const std::string& line : entries) {
                EXPECT_EQ(line.rfind("127.0.0.1 - ", 0), 0u) << line;
                for (char c : line)
                        EXPECT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f) << line;
        }
        EXPECT_TRUE(contains(entries[0], "/app/r/x\\x0D\\x0Aforged\\x1B[2J\\x7F")) << entries[0];
        // Nor can it close a quoted field early.
        EXPECT_TRUE(contains(entries[0], "\"a\\x22 200 0 \\x22\\x5C\"")) << entries[0];
        EXPECT_TRUE(contains(entries[1], "/app/r/y\\x0Aforged")) << entries[1];

        std::string errors = readFile(home / "logs/error.log");
        EXPECT_TRUE(contains(errors, "/app/r/x\\x0D\\x0Aforged\\x1B[2J\\x7F\n")) << errors;
        for (const std::string& line : lines(errors))
                EXPECT_NE(line.rfind("forged", 0), 0u) << line;
        // The launcher's console gets the same lines, escaped the same way.
        for (const std::string& line : lines(readFile(home / "logs/launcher.out")))
                EXPECT_NE(line.rfind("forged", 0), 0u) << line;
}

TEST_P(ResponseHeaders, AHeadAnswerNeverCarriesBodyBytes) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        int s = dial(home.port);
        ASSERT_GE(s, 0);
        // Each HEAD is followed on the same connection by a GET, whose answer must start
        // right behind the head of the HEAD's: a stray byte would shift it.
        struct Case {
                std::string uri, headers, contentLength;
                int status;
        };
        const std::vector<Case> cases = {
            {"/app/page.csp", "Accept-Encoding: gzip\r\n", "", 200},
            {"/app/page.csp", "", "", 200},
            {"/app/r?size=100", "", "100", 200},
            {"/app/r?size=100000", "", "100000", 200},
            {"/app/r?size=100000&gzip=1", "Accept-Encoding: gzip\r\n", "", 200},
            {"/app/r?size=20000&flush=1", "", "", 200},
            {"/app/r?gzip=1", "Accept-Encoding: gzip\r\n", "", 200},
            {"/app/r?error=404&message=gone", "Accept-Encoding: gzip\r\n", "", 404},
            {"/app/r?redirect=/app/&size=20000", "", "", 302},
        };
        for (const Case& c : cases) {
                ASSERT_TRUE(sendAll(s, kept("HEAD", c.uri, c.headers))) << c.uri;
                Reply head = parse(readResponse(s, true));
                EXPECT_EQ(head.status, c.status) << c.uri << "\n" << head.head;
                EXPECT_EQ(head.header("Content-Length"), c.contentLength) << c.uri << "\n"
                                                                          << head.head;
                EXPECT_NE(head.header("Connection"), "close") << c.uri;
                ASSERT_TRUE(sendAll(s, kept("GET", "/app/r?size=5"))) << c.uri;
                Reply next = parse(readResponse(s));
                EXPECT_EQ(next.status, 200) << "behind HEAD " << c.uri << "\n" << next.head;
                EXPECT_EQ(next.body, "abcde") << "behind HEAD " << c.uri;
        }
        // A page's HEAD says what its GET says, less what would take rendering to know.
        ASSERT_TRUE(sendAll(s, kept("HEAD", "/app/page.csp", "Accept-Encoding: gzip\r\n")));
        Reply head = parse(readResponse(s, true));
        EXPECT_EQ(head.header("Content-Type"), "text/html");
        EXPECT_EQ(head.header("Content-Encoding"), "gzip");
        EXPECT_EQ(head.header("Transfer-Encoding"), "");
        close(s);
        // An answer that closes the connection has nothing behind its head either.
        int t = dial(home.port);
        ASSERT_TRUE(sendAll(t, kept("HEAD", "/app/r?error=500&size=30000")));
        EXPECT_EQ(parse(readAll(t)).body, "");
        close(t);
        // The connector's own error page has none for a HEAD either.
        t = dial(home.port);
        ASSERT_TRUE(sendAll(t, "HEAD / HTTP/1.1\r\nHost: 127.0.0.2\r\n\r\n"));
        Reply unmapped = parse(readAll(t));
        close(t);
        EXPECT_EQ(unmapped.status, 404) << unmapped.head;
        EXPECT_EQ(unmapped.body, "");
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(ResponseHeaders, ErrorsAndRedirectsAreNeverGzipped) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        const std::string gzip = "Accept-Encoding: gzip\r\n";
        struct Case {
                std::string uri;
                int status;
                std::string body;
        };
        for (const Case& c : std::vector<Case>{
                 {"/app/r?gzip=1&size=3000&error=500&message=late", 500, "late"},
                 {"/app/r?gzip=1&size=3000&error=404", 404, "Not Found"},
                 {"/app/r?gzip=1&size=3000&redirect=/app/", 302, ""},
                 {"/app/deny.csp", 403, "denied 403 GET"},
                 {"/app/go.csp", 302, ""},
                 {"/app/bad.csp", 500, "ServerPage error:"},
             }) {
                Reply r = get(c.uri, gzip);
                EXPECT_EQ(r.status, c.status) << c.uri << "\n" << r.head;
                EXPECT_EQ(r.header("Content-Encoding"), "") << c.uri << "\n" << r.head;
                EXPECT_TRUE(contains(r.body, c.body)) << c.uri << "\n" << r.body;
        }
        // A page that renders is still compressed.
        Reply page = get("/app/page.csp", gzip);
        EXPECT_EQ(page.header("Content-Encoding"), "gzip");
        EXPECT_EQ(gunzip(page.body), "<p>page GET</p>");
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(ResponseHeaders, AnHttp10ClientIsNeverSentChunks) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        const std::string ten = " HTTP/1.0\r\nConnection: keep-alive\r\n";
        // A length known at commit keeps the connection.
        int s = dial(home.port);
        ASSERT_GE(s, 0);
        for (int i = 0; i < 2; i++) {
                ASSERT_TRUE(sendAll(s, "GET /app/r?size=100" + ten + "\r\n"));
                Reply r = parse(readResponse(s));
                EXPECT_EQ(r.status, 200) << r.head;
                EXPECT_EQ(r.header("Content-Length"), "100");
                EXPECT_EQ(r.header("Connection"), "keep-alive") << r.head;
                EXPECT_EQ(r.body, pattern(100));
        }
        // A length unknown at commit is delimited by closing, plain or compressed.
        ASSERT_TRUE(sendAll(s, "GET /app/r?size=20000" + ten + "\r\n"));
        Reply r = parse(readAll(s));
        close(s);
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.header("Transfer-Encoding"), "") << r.head;
        EXPECT_EQ(r.header("Content-Length"), "") << r.head;
        EXPECT_EQ(r.header("Connection"), "close") << r.head;
        EXPECT_TRUE(r.body == pattern(20000)) << r.body.size();

        const std::string gzip = "Accept-Encoding: gzip\r\n\r\n";
        r = roundTrip(home.port, "GET /app/r?size=50000&noise=1&gzip=1" + ten + gzip);
        EXPECT_EQ(r.header("Transfer-Encoding"), "") << r.head;
        EXPECT_EQ(r.header("Connection"), "close") << r.head;
        EXPECT_EQ(r.header("Content-Encoding"), "gzip") << r.head;
        EXPECT_TRUE(gunzip(r.body) == pattern(50000, true));
        // HTTP/1.1 on the same server still gets chunks.
        s = dial(home.port);
        ASSERT_TRUE(sendAll(s, kept("GET", "/app/r?size=20000")));
        r = parse(readResponse(s));
        close(s);
        EXPECT_EQ(r.header("Transfer-Encoding"), "chunked") << r.head;
        EXPECT_TRUE(r.body == pattern(20000));
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

INSTANTIATE_TEST_SUITE_P(Server, ResponseHeaders, testing::Bool(), way);

}  // namespace
