#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <vesk/Cookie.h>
#include <vesk/HttpConnector.h>
#include <vesk/HttpLexer.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/InputStream.h>
#include <vesk/Map.h>

#include "support/HttpSupport.hpp"

namespace {

struct Failure {
        std::string head;
        int status;
        std::string message;
};

const char* param(Connection& c, const char* name) {
        return HttpRequest_getParameter(c.request, "%s", name);
}

}  // namespace

TEST(HttpLexer, EachFailureGivesItsStatusAndMessage) {
        const std::string big(4096, 'a');
        const std::vector<Failure> failures = {
            {"GET / HTTP/1.1\r\nHost: a\r\n", 400, ""},
            {"GET / HTTP/1.0", 400, ""},
            {"\x01GET / HTTP/1.0\r\n\r\n", 400, "Invalid HTTP request"},
            {"\rGET / HTTP/1.0\r\n\r\n", 400, "Invalid HTTP request"},
            {"FETCH / HTTP/1.0\r\n\r\n", 501, ""},
            {"GETS / HTTP/1.0\r\n\r\n", 501, ""},
            {"GET\t/ HTTP/1.0\r\n\r\n", 501, ""},
            {"GET * HTTP/1.0\r\n\r\n", 400, "Invalid path"},
            {"GET x HTTP/1.0\r\n\r\n", 400, "Invalid path"},
            {"GET http://host HTTP/1.0\r\n\r\n", 400, "Invalid path"},
            {"GET /" + big + " HTTP/1.0\r\n\r\n", 414, "Path too long"},
            {"GET /a\x80 HTTP/1.0\r\n\r\n", 400, "Invalid query part"},
            {"GET /a\x01 HTTP/1.0\r\n\r\n", 400, "Invalid query part"},
            {"GET /?a&b=1 HTTP/1.0\r\n\r\n", 400, "Invalid ref part"},
            {"GET /?a=1&&b=2 HTTP/1.0\r\n\r\n", 400, "Invalid ref part"},
            {"GET / HTTX/1.0\r\n\r\n", 400, "Invalid protocol part"},
            {"GET / HTTP/x\r\n\r\n", 400, "Invalid protocol part"},
            {"GET / HTTP/2.0\r\n\r\n", 505, ""},
            {"GET / HTTP/1.1x\r\n\r\n", 505, ""},
            {"GET / HTTP/1.0\r\nBad Header: x\r\n\r\n", 400, "Invalid request header"},
            {"GET / HTTP/1.0\r\nX-A:\r\n\r\n", 400, "Invalid request header"},
            {"GET / HTTP/1.0\r\nX-A: a\x01\r\n\r\n", 400, "Invalid request header"},
            {"GET / HTTP/1.0\r\n?x: a\r\n\r\n", 400, "Invalid request header"},
            {"GET / HTTP/1.0\r\nAccept-Encoding:\r\n\r\n", 400, "Invalid Accept-Encoding header"},
            {"GET / HTTP/1.0\r\nConnection:\r\n\r\n", 400, "Invalid Connection header"},
            {"GET / HTTP/1.0\r\nContent-Encoding:\r\n\r\n", 400,
             "Invalid Transfer-Encoding header"},
            {"GET / HTTP/1.0\r\nContent-Length:\r\n\r\n", 400, "Invalid Content-Length header"},
            {"GET / HTTP/1.0\r\nContent-Length: -1\r\n\r\n", 400, "Invalid Content-Length"},
            {"GET / HTTP/1.0\r\nContent-Length: x\r\n\r\n", 400, "Invalid Content-Length"},
            {"GET / HTTP/1.0\r\nContent-Type:\r\n\r\n", 400, "Invalid Content-Type header"},
            {"GET / HTTP/1.0\r\nCookie:\r\n\r\n", 400, "Invalid Cookie header"},
            {"GET / HTTP/1.0\r\nCookie: a=\"b\r\n\r\n", 400, "Invalid Cookie header"},
            {"GET / HTTP/1.0\r\nCookie: $Version=x\r\n\r\n", 400, "Invalid Cookie version"},
            {"GET / HTTP/1.0\r\nCookie: a=1; $Path=;\r\n\r\n", 400, "Invalid Cookie path"},
            {"GET / HTTP/1.0\r\nCookie: a=1; $Domain=\"x\r\n\r\n", 400, "Invalid Cookie domain"},
            {"GET / HTTP/1.0\r\nHost:\r\n\r\n", 400, "Invalid Host header"},
            {"GET / HTTP/1.0\r\nHost: a:b\r\n\r\n", 400, "Invalid port in Host header"},
            {"GET / HTTP/1.1\r\n\r\n", 400, "Host required"},
            {"POST / HTTP/1.0\r\n\r\n", 400, "Content-Length required"},
            {"POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n", 400,
             "Content-Length required"},
            {"POST / HTTP/1.0\r\nContent-Length: 51200001\r\n\r\n", 413, ""},
            // A body is read whatever the method, so the limit holds for every one.
            {"GET / HTTP/1.0\r\nContent-Length: 51200001\r\n\r\n", 413, ""},
            {"DELETE / HTTP/1.0\r\nContent-Length: 51200001\r\n\r\n", 413, ""},
            {"PUT / HTTP/1.0\r\nContent-Length: 1\r\nContent-Range: bytes 0-0/1\r\n\r\n", 400,
             "Content-Range not allowed in PUT request"},
        };
        for (const Failure& f : failures) {
                Connection c;
                EXPECT_EQ(c.parse(f.head), f.status) << f.head;
                EXPECT_EQ(c.parser.status, f.status) << f.head;
                EXPECT_EQ(c.message(), f.message) << f.head;
                EXPECT_EQ(c.response(), nullptr) << f.head;
        }
}

TEST(HttpLexer, RequestLineAndWiring) {
        Connection c;
        ASSERT_EQ(c.parse("\r\n  get /a/../b%20c http/1.1\r\nhost: Example.COM:8080\r\n\r\n"), 200);
        EXPECT_EQ(c.message(), "");
        EXPECT_STREQ(HttpRequest_getMethod(c.request), "GET");
        EXPECT_STREQ(HttpRequest_getRequestURI(c.request), "/b c");
        EXPECT_STREQ(HttpRequest_getProtocol(c.request), "HTTP/1.1");
        EXPECT_STREQ(HttpRequest_getServerName(c.request), "example.com");
        EXPECT_EQ(HttpRequest_getServerPort(c.request), 8080);
        EXPECT_STREQ(HttpRequest_getHeader(c.request, "HOST"), "Example.COM:8080");
        EXPECT_EQ(HttpRequest_getContentLength(c.request), -1);
        EXPECT_TRUE(c.parser.http11);
        EXPECT_STREQ(c.parser.host, "Example.COM:8080");
        // Wired both ways, and one of the connection's 100 requests used up.
        HttpResponse_T r = c.response();
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(HttpRequest_getResponse(c.request), r);
        EXPECT_EQ(HttpResponse_getRequest(r), c.request);
        EXPECT_EQ(InetAddress_getRequest(c.inet), c.request);
        EXPECT_EQ(InetAddress_getResponse(c.inet), r);
        EXPECT_EQ(HttpRequest_getInetAddress(c.request), c.inet);
        EXPECT_EQ(HttpResponse_getOutputStream(r), InetAddress_getOutputStream(c.inet));
        EXPECT_EQ(HttpRequest_getInputStream(c.request), InetAddress_getInputStream(c.inet));
        EXPECT_EQ(HttpResponse_getKeepAlive(r), 99);
        EXPECT_FALSE(HttpResponse_containsHeader(r, "Connection"));
}

TEST(HttpLexer, KeepAliveFollowsProtocolAndConnectionHeader) {
        const std::pair<const char*, int> cases[] = {
            {"GET / HTTP/1.0\r\n\r\n", 0},
            {"GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n", 99},
            {"GET / HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n", 0},
            // Nothing behind a body framed by Transfer-Encoding is taken for a next request.
            {"GET / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n", 0},
            {"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\nTransfer-Encoding: "
             "chunked\r\nConnection: keep-alive\r\n\r\n",
             0},
        };
        for (auto [head, keepAlive] : cases) {
                Connection c;
                ASSERT_EQ(c.parse(head), 200) << head;
                EXPECT_EQ(HttpResponse_getKeepAlive(c.response()), keepAlive) << head;
                EXPECT_EQ(InetAddress_getKeepAlive(c.inet), keepAlive) << head;
                if (!keepAlive) {
                        EXPECT_STREQ(HttpResponse_getHeader(c.response(), "Connection"), "close");
                }
        }
}

TEST(HttpLexer, TargetsOptionsAndAbsoluteForms) {
        {
                Connection c;
                ASSERT_EQ(c.parse("OPTIONS * HTTP/1.0\r\n\r\n"), 200);
                EXPECT_STREQ(HttpRequest_getRequestURI(c.request), "*");
                EXPECT_EQ(HttpRequest_method(c.request), HttpRequest_OPTIONS);
        }
        {
                Connection c;
                ASSERT_EQ(c.parse("GET https://user:pw@other.org:81/x?q=1 HTTP/1.1\r\nHost: "
                                  "h\r\n\r\n"),
                          200);
                EXPECT_STREQ(HttpRequest_getRequestURI(c.request), "/x");
                EXPECT_STREQ(HttpRequest_getServerName(c.request), "h");
                EXPECT_STREQ(param(c, "q"), "1");
        }
        {
                Connection c;
                ASSERT_EQ(c.parse("GET /a#frag HTTP/1.0\r\n\r\n"), 200);
                EXPECT_STREQ(HttpRequest_getRequestURI(c.request), "/a");
        }
}

TEST(HttpLexer, PathParametersAndSessionIdInPath) {
        {
                Connection c;
                ASSERT_EQ(c.parse("GET /a;vsessionid=abc?x=1 HTTP/1.0\r\n\r\n"), 200);
                EXPECT_STREQ(HttpRequest_getRequestURI(c.request), "/a");
                EXPECT_STREQ(HttpRequest_getRequestSessionId(c.request), "abc");
                EXPECT_TRUE(HttpRequest_isRequestedSessionIdFromURL(c.request));
                EXPECT_FALSE(HttpRequest_isRequestedSessionIdFromCookie(c.request));
                EXPECT_STREQ(param(c, "x"), "1");
        }
        {
                Connection c;
                ASSERT_EQ(c.parse("GET /a;b=c%20d;e=f HTTP/1.0\r\n\r\n"), 200);
                EXPECT_STREQ(param(c, "b"), "c d");
                EXPECT_STREQ(param(c, "e"), "f");
                EXPECT_EQ(HttpRequest_getRequestSessionId(c.request), nullptr);
        }
        {
                // No value behind the keyword: an ordinary path parameter.
                Connection c;
                ASSERT_EQ(c.parse("GET /a;vsessionid=;z=1 HTTP/1.0\r\n\r\n"), 200);
                EXPECT_EQ(HttpRequest_getRequestSessionId(c.request), nullptr);
                EXPECT_STREQ(param(c, "z"), "1");
        }
}

TEST(HttpLexer, QueryRules) {
        {
                Connection c;
                ASSERT_EQ(c.parse("GET /?n%20a=v%2Bw+x&b=&c=3 HTTP/1.0\r\n\r\n"), 200);
                EXPECT_STREQ(param(c, "n a"), "v+w x");
                EXPECT_STREQ(param(c, "b"), "");
                EXPECT_STREQ(param(c, "c"), "3");
        }
        {
                // The name stays pending after "&", so "=2" is a second value of a.
                Connection c;
                ASSERT_EQ(c.parse("GET /?a%41=1&=2 HTTP/1.0\r\n\r\n"), 200);
                const char** values = HttpRequest_getParameterValues(c.request, "aA");
                ASSERT_NE(values, nullptr);
                EXPECT_STREQ(values[0], "2");
                EXPECT_STREQ(values[1], "1");
                EXPECT_EQ(values[2], nullptr);
        }
        {
                // A name without '=' ends the query; a blank behind it goes on to the protocol.
                Connection c;
                ASSERT_EQ(c.parse("GET /?a=1&b HTTP/1.0\r\n\r\n"), 200);
                EXPECT_STREQ(param(c, "a"), "1");
                EXPECT_EQ(param(c, "b"), nullptr);
        }
}

TEST(HttpLexer, HostForms) {
        HttpConnector_T strict = HttpConnector_new();
        HttpConnector_setStrict(strict, 1);
        struct Form {
                bool strict;
                const char* host;
                const char* name;
                int port;
        };
        for (const Form& f : {
                 Form{false, "[::1]:81", "::1", 81},
                 // Leniently the last colon counts, brackets or not.
                 Form{false, "[::1]", "[:", 1},
                 // A strict connector takes the port outside the brackets.
                 Form{true, "[::1]", "::1", 0}, Form{true, "[::1]:81", "::1", 81},
                 Form{true, "Example.COM:8080", "example.com", 8080}, Form{true, "", "", 0}}) {
                Connection c;
                if (f.strict)
                        InetAddress_setConnector(c.inet, strict);
                ASSERT_EQ(c.parse(std::string("GET / HTTP/1.1\r\nHost: ") + f.host + "\r\n\r\n"),
                          200)
                    << f.host << " " << c.message();
                EXPECT_STREQ(HttpRequest_getServerName(c.request), f.name) << f.host;
                EXPECT_EQ(HttpRequest_getServerPort(c.request), f.port) << f.host;
                EXPECT_STREQ(HttpRequest_getHeader(c.request, "Host"), f.host);
        }
        HttpConnector_free(&strict);
}

TEST(HttpLexer, HeadersValuesAndForwarding) {
        Connection c;
        ASSERT_EQ(c.parse("GET / HTTP/1.0\r\nX-Multi: a\r\n  b\r\nx-forwarded-proto: HTTPS\r\n"
                          "X-Forwarded-Port: 8443\r\nAccept-Encoding: deflate, GZIP\r\n"
                          "Content-Encoding: gzip\r\nX-Empty: \r\nContent-Length: 12abc\r\n\r\n"),
                  200);
        EXPECT_STREQ(HttpRequest_getHeader(c.request, "x-multi"), "a\r\n  b");
        EXPECT_STREQ(HttpRequest_getHeader(c.request, "X-Empty"), "");
        EXPECT_STREQ(HttpRequest_getScheme(c.request), "https");
        EXPECT_EQ(HttpRequest_getServerPort(c.request), 8443);
        EXPECT_EQ(HttpRequest_getAcceptEncoding(c.request), 1);
        EXPECT_EQ(HttpRequest_getContentEncoding(c.request), 1);
        EXPECT_EQ(HttpRequest_getContentLength(c.request), 12);
        EXPECT_FALSE(c.parser.hasBody);

        Connection d;
        ASSERT_EQ(d.parse("GET / HTTP/1.0\r\nX-Forwarded-Proto: ftp\r\nAccept-Encoding: *\r\n\r\n"),
                  200);
        EXPECT_STREQ(HttpRequest_getHeader(d.request, "X-Forwarded-Proto"), "ftp");
        EXPECT_STREQ(HttpRequest_getScheme(d.request), "http");
        EXPECT_EQ(HttpRequest_getAcceptEncoding(d.request), 1);
}

TEST(HttpLexer, BodiesAndContentKinds) {
        {
                Connection c;
                ASSERT_EQ(c.parse("POST / HTTP/1.0\r\nContent-Length: 5\r\nContent-Type: "
                                  "multipart/form-data; boundary=x\r\nTransfer-Encoding: "
                                  "chunked\r\n\r\nhello"),
                          200);
                EXPECT_TRUE(c.parser.hasBody);
                EXPECT_EQ(c.parser.contentLength, 5);
                EXPECT_EQ(c.parser.contentKind, 1);
                EXPECT_STREQ(c.parser.contentType, "multipart/form-data; boundary=x");
                EXPECT_TRUE(InputStream_isChunked(InetAddress_getInputStream(c.inet)));
                EXPECT_EQ(c.parser.cursor - c.head.data(), static_cast<long>(c.head.size() - 5));
        }
        {
                Connection c;
                ASSERT_EQ(c.parse("POST / HTTP/1.0\r\nContent-Length: 0\r\nContent-Type: "
                                  "text/xml\r\n\r\n"),
                          200);
                EXPECT_FALSE(c.parser.hasBody);
                EXPECT_EQ(c.parser.contentKind, 2);
                EXPECT_EQ(HttpRequest_getContentLength(c.request), 0);
        }
        {
                // An unknown type leaves a body to be read as a form.
                Connection c;
                ASSERT_EQ(c.parse("PUT / HTTP/1.0\r\nContent-Length: 3\r\nContent-Type: "
                                  "image/png\r\n\r\n"),
                          200);
                EXPECT_TRUE(c.parser.hasBody);
                EXPECT_EQ(c.parser.contentKind, 0);
                EXPECT_FALSE(InputStream_isChunked(InetAddress_getInputStream(c.inet)));
        }
}

TEST(HttpLexer, Cookies) {
        {
                Connection c;
                ASSERT_EQ(c.parse("GET / HTTP/1.0\r\nCookie: vsessionid=abc; a=1\r\n\r\n"), 200);
                EXPECT_STREQ(HttpRequest_getRequestSessionId(c.request), "abc");
                EXPECT_TRUE(HttpRequest_isRequestedSessionIdFromCookie(c.request));
                EXPECT_EQ(Map_length(HttpRequest_getCookieMap(c.request)), 1);
                Cookie_T a = HttpRequest_getCookie(c.request, "a");
                ASSERT_NE(a, nullptr);
                EXPECT_STREQ(Cookie_getValue(a), "1");
                EXPECT_EQ(Cookie_getVersion(a), 0);
        }
        {
                Connection c;
                ASSERT_EQ(c.parse("GET / HTTP/1.0\r\nCookie: $Path=/early; $Version=\"1\"; "
                                  "a=\"x y\"; $Path=\"/p\"; $Domain=Ex.ORG,\r\n\tb=2; $c=3; "
                                  "vsessionid=ab-c\r\n\r\n"),
                          200);
                Cookie_T a = HttpRequest_getCookie(c.request, "a");
                Cookie_T b = HttpRequest_getCookie(c.request, "b");
                ASSERT_NE(a, nullptr);
                ASSERT_NE(b, nullptr);
                EXPECT_STREQ(Cookie_getValue(a), "x y");
                EXPECT_EQ(Cookie_getVersion(a), 1);
                EXPECT_STREQ(Cookie_getPath(a), "/p");
                EXPECT_STREQ(Cookie_getDomain(a), "ex.org");
                EXPECT_STREQ(Cookie_getValue(b), "2");
                EXPECT_EQ(Cookie_getPath(b), nullptr);
                // "$c" is refused as a name and ignored; a session id with a '-' is an ordinary
                // cookie.
                EXPECT_EQ(HttpRequest_getCookie(c.request, "$c"), nullptr);
                EXPECT_EQ(HttpRequest_getRequestSessionId(c.request), nullptr);
                EXPECT_STREQ(Cookie_getValue(HttpRequest_getCookie(c.request, "vsessionid")),
                             "ab-c");
                EXPECT_NE(HttpRequest_getHeader(c.request, "Cookie"), nullptr);
        }
}

TEST(HttpLexer, UrlencodedForms) {
        Connection c;
        c.parse("GET / HTTP/1.0\r\n\r\n");
        char form[] = "a=1&b=x%41+y&&n%41=2&skip&=lost&c=3";
        HttpLexer_parseUrlencoded(c.request, form, static_cast<int>(strlen(form)));
        EXPECT_STREQ(param(c, "a"), "1");
        EXPECT_STREQ(param(c, "b"), "xA y");
        EXPECT_STREQ(param(c, "n%41"), "2");
        // A name without '=' stays pending until the next name replaces it.
        EXPECT_STREQ(param(c, "skip"), "lost");
        EXPECT_STREQ(param(c, "c"), "3");
        EXPECT_EQ(Map_length(HttpRequest_getParameterMap(c.request)), 5);

        // A value stopped by a blank takes the rest of the data.
        Connection d;
        d.parse("GET / HTTP/1.0\r\n\r\n");
        char tail[] = "a=1 2&b=3";
        HttpLexer_parseUrlencoded(d.request, tail, static_cast<int>(strlen(tail)));
        EXPECT_STREQ(param(d, "a"), "1 2&b=3");
        EXPECT_EQ(param(d, "b"), nullptr);
}
