#include <gtest/gtest.h>

#include <string>

#include <vesk/Cookie.h>
#include <vesk/HttpResponse.h>
#include <vesk/OutputStream.h>

#include "support/HttpSupport.hpp"
#include "support/Support.hpp"

namespace {

// A parsed request whose response goes to the client side of the connection.
struct Exchange : Connection {
        explicit Exchange(const char* head = "GET /a/b HTTP/1.1\r\nHost: h.org\r\n\r\n") {
                EXPECT_EQ(parse(head), 200);
        }
        HttpResponse_T r() const { return response(); }
        OutputStream_T out() const { return HttpResponse_getOutputStream(response()); }
        std::string finish() {
                HttpResponse_finalize(r());
                OutputStream_flush(out());
                return received();
        }
};

bool has(const std::string& s, const std::string& part) {
        return s.find(part) != std::string::npos;
}

}  // namespace

TEST(HttpResponse, ReasonPhrases) {
        EXPECT_STREQ(HttpResponse_status(200), "OK");
        EXPECT_STREQ(HttpResponse_status(413), "Request Entity too large");
        EXPECT_STREQ(HttpResponse_status(505), "Version not supported");
        EXPECT_STREQ(HttpResponse_status(299), "Unknown status");
}

TEST(HttpResponse, SmallBodyGetsContentLength) {
        Exchange x;
        OutputStream_print(x.out(), "hello");
        std::string got = x.finish();
        EXPECT_EQ(got.rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
        EXPECT_TRUE(has(got, "Content-Length: 5\r\n"));
        EXPECT_TRUE(has(got, "Content-Type: text/plain\r\n"));
        EXPECT_TRUE(has(got, "Server: Vesk/2.0\r\n"));
        EXPECT_TRUE(has(got, "Connection: keep-alive\r\nKeep-Alive: timeout=15, max=99\r\n"));
        EXPECT_FALSE(has(got, "chunked"));
        EXPECT_TRUE(has(got, "\r\n\r\nhello"));
        EXPECT_EQ(HttpResponse_getBytesWritten(x.r()), 5);
        EXPECT_TRUE(HttpResponse_isCommited(x.r()));
}

TEST(HttpResponse, SendErrorKeepsTheConnectionOnlyFor404) {
        {
                Exchange x;
                HttpResponse_sendError(x.r(), 404, nullptr);
                std::string got = x.finish();
                EXPECT_EQ(got.rfind("HTTP/1.1 404 Not Found\r\n", 0), 0u);
                EXPECT_TRUE(has(got, "Content-Type: text/html\r\n"));
                EXPECT_TRUE(has(got, "Keep-Alive"));
                EXPECT_TRUE(has(got, "<h2>Not Found</h2>\r\n<hr>Vesk/2.0"));
        }
        {
                Exchange x;
                OutputStream_print(x.out(), "partial");
                HttpResponse_sendError(x.r(), 500, "bad <%s>", "x");
                std::string got = x.finish();
                EXPECT_EQ(got.rfind("HTTP/1.1 500 Internal Server error\r\n", 0), 0u);
                EXPECT_TRUE(has(got, "Connection: close\r\n"));
                EXPECT_TRUE(has(got, "bad &lt;x&gt;"));
                EXPECT_FALSE(has(got, "partial"));
                // Committed: a later error changes nothing.
                HttpResponse_sendError(x.r(), 503, "late");
                EXPECT_EQ(HttpResponse_getStatus(x.r()), 500);
        }
}

TEST(HttpResponse, IncludeLocksTheHeadButNotRemoval) {
        Exchange x;
        HttpResponse_setHeader(x.r(), "X-A", "1");
        HttpResponse_addHeader(x.r(), "X-B", "%d", 2);
        HttpResponse_addIntHeader(x.r(), "X-B", 3);
        EXPECT_TRUE(HttpResponse_containsHeaderValue(x.r(), "x-b", "3"));
        HttpResponse_setProcessingInclude(x.r(), 1);
        HttpResponse_setHeader(x.r(), "X-A", "changed");
        HttpResponse_setHeader(x.r(), "X-C", "new");
        EXPECT_STREQ(HttpResponse_getHeader(x.r(), "X-A"), "1");
        EXPECT_FALSE(HttpResponse_containsHeader(x.r(), "X-C"));
        HttpResponse_removeHeader(x.r(), "X-A");
        EXPECT_FALSE(HttpResponse_containsHeader(x.r(), "X-A"));
}

TEST(HttpResponse, RedirectsResolveBelowTheCurrentPath) {
        {
                Exchange x;
                HttpResponse_sendRedirect(x.r(), "c/../d");
                std::string got = x.finish();
                EXPECT_EQ(got.rfind("HTTP/1.1 302 Moved Temporarily\r\n", 0), 0u);
                EXPECT_TRUE(has(got, "Location: http://h.org/a/b/d\r\n"));
        }
        {
                Exchange x;
                HttpResponse_sendRedirect(x.r(), "https://other.org/%s", "x");
                std::string got = x.finish();
                EXPECT_TRUE(has(got, "Location: https://other.org/x\r\n"));
                EXPECT_TRUE(has(got, "Connection: close\r\n"));
        }
        {
                Exchange x;
                HttpResponse_sendRedirect(x.r(), "%s", "");
                EXPECT_STREQ(HttpResponse_getHeader(x.r(), "Location"), "http://h.org/");
        }
}

TEST(HttpResponse, CookiesResetAndEncodeURL) {
        Exchange x;
        Cookie_T c = Cookie_alloc(HttpResponse_getArena(x.r()), "a", "b");
        HttpResponse_addCookie(x.r(), c);
        HttpResponse_setStatus(x.r(), 201);
        OutputStream_print(x.out(), "dropped");
        HttpResponse_reset(x.r());
        EXPECT_EQ(HttpResponse_getStatus(x.r()), 200);
        EXPECT_FALSE(HttpResponse_containsHeader(x.r(), "Set-Cookie"));
        HttpResponse_addCookie(x.r(), c);
        HttpResponse_setDateHeader(x.r(), "Expires", 784111777);
        // Without a session no URL is rewritten.
        EXPECT_STREQ(HttpResponse_encodeURL(x.r(), "/x?y=1"), "/x?y=1");
        std::string got = x.finish();
        EXPECT_TRUE(has(got, "Set-Cookie: a=b\r\n"));
        EXPECT_TRUE(has(got, "Expires: Sun, 06 Nov 1994 08:49:37 GMT\r\n"));
        EXPECT_TRUE(has(got, "Content-Length: 0\r\n"));
        EXPECT_FALSE(has(got, "dropped"));
}

TEST(HttpResponse, AHeaderThatWouldNotStayOneLineRaises) {
        Exchange x;
        EXPECT_EQ(assertion([&] { HttpResponse_setHeader(x.r(), "X-A", "a\rb"); }),
                  "Invalid value of header 'X-A'");
        EXPECT_EQ(assertion([&] { HttpResponse_addHeader(x.r(), "X-A", "a\x7f"); }),
                  "Invalid value of header 'X-A'");
        EXPECT_EQ(assertion([&] { HttpResponse_setIntHeader(x.r(), "X: b", 1); }),
                  "Invalid header name 'X: b'");
        EXPECT_EQ(assertion([&] { HttpResponse_addDateHeader(x.r(), "X\n", 1); }),
                  "Invalid header name 'X\n'");
        EXPECT_EQ(assertion([&] { HttpResponse_setProtocol(x.r(), "HTTP/1.1\r\nX: 1"); }),
                  "Invalid protocol 'HTTP/1.1\r\nX: 1'");
        // Tabs and bytes above ASCII are fine, and nothing refused reached the head.
        HttpResponse_setHeader(x.r(), "X-Fine", "a\tb \xc3\xa6");
        std::string got = x.finish();
        EXPECT_TRUE(has(got, "\r\nX-Fine: a\tb \xc3\xa6\r\n")) << got;
        EXPECT_FALSE(has(got, "X-A")) << got;
        EXPECT_FALSE(has(got, "X:")) << got;
        // A committed head still refuses, though it would not have been changed.
        EXPECT_EQ(assertion([&] { HttpResponse_setHeader(x.r(), "X-A", "\n"); }),
                  "Invalid value of header 'X-A'");
}

TEST(HttpResponse, RedirectsEncodeWhatTheRequestBrought) {
        {
                // The lexer decodes the path: CR LF, blank, quote, '%' and '?' come back encoded.
                Exchange x("GET /a%0d%0aX:%20%22%25%3f HTTP/1.1\r\nHost: h.org\r\n\r\n");
                HttpResponse_sendRedirect(x.r(), "next?q=%%41#top");
                std::string got = x.finish();
                EXPECT_TRUE(has(
                    got, "\r\nLocation: http://h.org/a%0D%0AX:%20%22%25%3F/next?q=%41#top\r\n"))
                    << got;
        }
        {
                // A target of the servlet keeps its escapes, query, fragment and address
                // literal, and has only what no URI can hold encoded.
                Exchange x;
                HttpResponse_setHeader(x.r(), "Content-Encoding", "gzip");
                HttpResponse_sendRedirect(x.r(), "http://[::1]:8080/a b\xc3\xa6/%%7E?x=<1>#f");
                std::string got = x.finish();
                EXPECT_TRUE(
                    has(got, "\r\nLocation: http://[::1]:8080/a%20b%C3%A6/%7E?x=%3C1%3E#f\r\n"))
                    << got;
                EXPECT_FALSE(has(got, "Content-Encoding")) << got;
        }
}
