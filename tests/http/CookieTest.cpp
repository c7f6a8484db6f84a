#include <gtest/gtest.h>

#include <string>

#include <vesk/Arena.h>
#include <vesk/Cookie.h>

#include "support/Support.hpp"

namespace {

class CookieTest : public testing::Test {
protected:
        Arena_T arena = Arena_new();
        ~CookieTest() override { Arena_dispose(&arena); }
};

}  // namespace

TEST_F(CookieTest, ReservedNamesAreRefused) {
        for (const char* name : {"path", "PATH", "Max-Age", "samesite", "a b", "a,b", "a;b", "$x",
                                 "a=b", "a\r\nX-Injected", "a\tb", "a\x7f"})
                EXPECT_EQ(raised([&] { Cookie_alloc(arena, name, "v"); }),
                          std::string("AssertException: Invalid Cookie name '") + name + "'")
                    << name;
        // Without a request on this thread there is no arena to allocate from.
        EXPECT_EQ(assertion([] { Cookie_new("a", "v"); }), "arena");
}

TEST_F(CookieTest, FieldsAndDefaults) {
        Cookie_T c = Cookie_alloc(arena, "a", nullptr);
        EXPECT_EQ(Cookie_getMaxAge(c), -1);
        Cookie_setPath(c, "");
        EXPECT_STREQ(Cookie_getPath(c), "/");
        Cookie_setPath(c, nullptr);
        EXPECT_STREQ(Cookie_getPath(c), "/");
        Cookie_setDomain(c, "WWW.Example.ORG");
        EXPECT_STREQ(Cookie_getDomain(c), "www.example.org");
        char value[] = "v1";
        Cookie_setValue(c, value);
        value[0] = 'x';
        EXPECT_STREQ(Cookie_getValue(c), "v1");
}

TEST_F(CookieTest, NetscapeForm) {
        Cookie_T c = Cookie_alloc(arena, "a", "b");
        EXPECT_STREQ(Cookie_toString(c), "a=b");
        Cookie_setMaxAge(c, 0);
        Cookie_setPath(c, "/");
        Cookie_setComment(c, "left out");
        EXPECT_STREQ(Cookie_toString(c), "a=b; Expires=Sun, 21 Feb 1993 00:29:55 GMT; Path=/");
        Cookie_setMaxAge(c, 3600);
        std::string s = Cookie_toString(c);
        EXPECT_EQ(s.find("a=b; Expires="), 0u);
        EXPECT_NE(s.find(" GMT; Path=/"), std::string::npos);
        Cookie_T e = Cookie_alloc(arena, "e", nullptr);
        Cookie_setDomain(e, "x.org");
        Cookie_setSecure(e, 1);
        Cookie_setHttpOnly(e, 1);
        Cookie_setSameSite(e, 2);
        EXPECT_STREQ(Cookie_toString(e), "e=; Domain=x.org; Secure; HttpOnly; SameSite=lax");
        Cookie_setSameSite(e, 1);
        EXPECT_NE(std::string(Cookie_toString(e)).find("; SameSite=strict"), std::string::npos);
        for (int v : {0, 3}) {
                Cookie_setSameSite(e, v);
                EXPECT_EQ(std::string(Cookie_toString(e)).find("SameSite"), std::string::npos);
        }
}

TEST_F(CookieTest, QuotedForm) {
        Cookie_T c = Cookie_alloc(arena, "a", "b");
        Cookie_setVersion(c, 1);
        Cookie_setMaxAge(c, 60);
        Cookie_setPath(c, "/");
        EXPECT_STREQ(Cookie_toString(c), "a=\"b\"; Version=\"1\"; Max-Age=\"60\"; Path=\"/\"");
        Cookie_T d = Cookie_alloc(arena, "d", nullptr);
        Cookie_setVersion(d, 1);
        Cookie_setComment(d, "hi");
        Cookie_setDomain(d, "x.org");
        EXPECT_STREQ(Cookie_toString(d), "d=\"\"; Version=\"1\"; Comment=\"hi\"; Domain=\"x.org\"");
}
