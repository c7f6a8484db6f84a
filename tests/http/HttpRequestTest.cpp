#include <gtest/gtest.h>

#include <string>

#include <vesk/Cookie.h>
#include <vesk/HttpRequest.h>
#include <vesk/Map.h>

#include "support/HttpSupport.hpp"
#include "support/Support.hpp"

TEST(HttpRequest, QueryStringIsRebuiltOnceFromParameters) {
        Connection c;
        ASSERT_EQ(c.parse("GET /p HTTP/1.0\r\n\r\n"), 200);
        EXPECT_EQ(HttpRequest_getQueryString(c.request), nullptr);
        HttpRequest_addParameter(c.request, "a", "1");
        HttpRequest_addParameter(c.request, "b", "2");
        const char* q = HttpRequest_getQueryString(c.request);
        ASSERT_NE(q, nullptr);
        std::string s = q;
        EXPECT_EQ(s.size(), 7u);
        EXPECT_NE(s.find("a=1"), std::string::npos);
        EXPECT_NE(s.find("b=2"), std::string::npos);
        EXPECT_EQ(s.find("&"), 3u);
        EXPECT_EQ(HttpRequest_getQueryString(c.request), q);
}

TEST(HttpRequest, ServerAndRequestURL) {
        {
                Connection c;
                ASSERT_EQ(c.parse("GET /a%20b HTTP/1.1\r\nHost: Site.org:443\r\n\r\n"), 200);
                const char* url = HttpRequest_getServerURL(c.request);
                EXPECT_STREQ(url, "http://site.org:443");
                // Computed once, even if the port changes afterwards.
                HttpRequest_setServerPort(c.request, 80);
                EXPECT_EQ(HttpRequest_getServerURL(c.request), url);
                EXPECT_STREQ(HttpRequest_getRequestURL(c.request), "http://site.org:443/a+b");
        }
        {
                Connection c;
                ASSERT_EQ(c.parse("GET / HTTP/1.1\r\nHost: site.org:80\r\n\r\n"), 200);
                HttpRequest_setScheme(c.request, "https");
                EXPECT_STREQ(HttpRequest_getServerURL(c.request), "https://site.org");
        }
}

TEST(HttpRequest, AccessorsAndMaps) {
        Connection c;
        ASSERT_EQ(c.parse("POST /f?n=7&e= HTTP/1.0\r\nContent-Length: 0\r\nX-Num: 42\r\n"
                          "If-Modified-Since: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
                          "Content-Type: text/plain\r\nAuthorization: Basic x\r\n\r\n"),
                  200);
        HttpRequest_T r = c.request;
        EXPECT_STREQ(HttpRequest_getMethod(r), "POST");
        HttpRequest_setMethod(r, 9);
        EXPECT_STREQ(HttpRequest_getMethod(r), "?");
        EXPECT_STREQ(HttpRequest_getHeader(r, "x-NUM"), "42");
        EXPECT_EQ(HttpRequest_getIntHeader(r, "X-Num"), 42);
        EXPECT_EQ(HttpRequest_getIntHeader(r, "X-None"), -1);
        EXPECT_NE(HttpRequest_getDateHeader(r, "If-Modified-Since"), -1);
        EXPECT_EQ(HttpRequest_getDateHeader(r, "X-None"), -1);
        EXPECT_TRUE(HttpRequest_containsHeaderValue(r, "content-type", "PLAIN"));
        EXPECT_EQ(HttpRequest_getIntParameter(r, "%s", "n"), 7);
        EXPECT_EQ(HttpRequest_getIntParameter(r, "missing"), -1);
        EXPECT_STREQ(HttpRequest_getParameterDefault(r, "e", "dflt"), "dflt");
        EXPECT_STREQ(HttpRequest_getParameterDefault(r, "n", "dflt"), "7");
        EXPECT_EQ(raised([&] {
                          HttpRequest_getIntHeader(r, "Content-Type");
                  }).rfind("NumberFormatException", 0),
                  0u);
        HttpRequest_setServerName(r, "MiXeD");
        EXPECT_STREQ(HttpRequest_getServerName(r), "mixed");
        HttpRequest_setAttribute(r, "k", "%d-%s", 1, "x");
        HttpRequest_setAttribute(r, nullptr, "x");
        HttpRequest_setAttribute(r, "n", nullptr);
        EXPECT_STREQ(HttpRequest_getAttribute(r, "K"), "1-x");
        EXPECT_EQ(Map_length(HttpRequest_getAttributeMap(r)), 1);
        HttpRequest_removeAttribute(r, "k");
        EXPECT_EQ(HttpRequest_getAttribute(r, "k"), nullptr);
        Cookie_T cookie = Cookie_alloc(HttpRequest_getArena(r), "c", "v");
        HttpRequest_addCookie(r, cookie);
        EXPECT_EQ(HttpRequest_getCookie(r, "c"), cookie);
        Cookie_T* all = HttpRequest_getCookies(r);
        ASSERT_NE(all, nullptr);
        EXPECT_EQ(all[0], cookie);
        EXPECT_EQ(all[1], nullptr);
}

TEST(HttpRequest, WithoutKernelThereIsNoSessionPrincipalOrDispatch) {
        Connection c;
        ASSERT_EQ(c.parse("GET / HTTP/1.0\r\nCookie: vsessionid=X1\r\n\r\n"), 200);
        HttpRequest_T r = c.request;
        EXPECT_EQ(HttpRequest_getSession(r, 1), nullptr);
        EXPECT_STREQ(HttpRequest_getRequestSessionId(r), "X1");
        EXPECT_FALSE(HttpRequest_isUserInRole(r, "admin"));
        EXPECT_EQ(HttpRequest_getRequestDispatcher(r, "x"), nullptr);
        EXPECT_EQ(HttpRequest_getRequestDispatcher(r, ("/" + std::string(4096, 'a')).c_str()),
                  nullptr);
        // With no context nothing takes the dispatch, but the query lands in the shared map.
        EXPECT_EQ(HttpRequest_getRequestDispatcher(r, "/d?x=1&y=2"), nullptr);
        EXPECT_STREQ(HttpRequest_getParameter(r, "y"), "2");
        EXPECT_EQ(HttpRequest_getParts(r)->length, 0);
        HttpRequest_end(r);
}
