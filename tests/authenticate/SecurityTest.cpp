#include <gtest/gtest.h>

#include <string>

#include <vesk/Arena.h>
#include <vesk/LoginConfig.h>
#include <vesk/SecurityCollection.h>
#include <vesk/SecurityConstraint.h>

#include "support/Support.hpp"

namespace {

struct Security : ::testing::Test {
        Arena_T arena = Arena_new();
        ~Security() override { Arena_dispose(&arena); }
        SecurityCollection_T collection(std::initializer_list<const char*> patterns) {
                SecurityCollection_T c = SecurityCollection_new(arena);
                for (const char* p : patterns)
                        SecurityCollection_addPattern(c, p);
                return c;
        }
};

TEST_F(Security, PatternsMatchExactPrefixExtensionAndDefault) {
        SecurityCollection_T c = collection({"/a/*", "*.csp", "/exact"});
        for (const char* path :
             {"/a", "/a/", "/a/b/c", "/x/page.csp", "/page.csp", "/x.csp/y", "/exact"})
                EXPECT_TRUE(SecurityCollection_findPattern(c, path)) << path;
        for (const char* path : {"/x.y/page.csp", "/exact/more", "/b", "relative", "/A/b"})
                EXPECT_FALSE(SecurityCollection_findPattern(c, path)) << path;
        EXPECT_FALSE(SecurityCollection_findPattern(c, nullptr));
        SecurityCollection_T all = collection({"/*"});
        EXPECT_TRUE(SecurityCollection_findPattern(all, "/anything/at.all"));
        std::string longest(5000, 'x');
        longest[0] = '/';
        EXPECT_TRUE(SecurityCollection_findPattern(all, longest.c_str()));
        EXPECT_EQ(raised([&] { SecurityCollection_addPattern(all, longest.c_str()); }),
                  "AssertException: url-pattern too long, max length = 4096");
}

TEST_F(Security, ANarrowerUnprotectedPatternExemptsFromCSRF) {
        SecurityCollection_T c = SecurityCollection_new(arena);
        SecurityCollection_addPatternWithCSRFProtection(c, "/app/*");
        SecurityCollection_addPattern(c, "/app/public/*");
        EXPECT_TRUE(SecurityCollection_containsCSRFProtectedPaths(c));
        EXPECT_TRUE(SecurityCollection_isPathCSRFProtected(c, "/app/form"));
        EXPECT_FALSE(SecurityCollection_isPathCSRFProtected(c, "/app/public/x"));
        SecurityConstraint_T s = SecurityConstraint_new(arena);
        EXPECT_EQ(SecurityConstraint_getCSRFProtectedCollection(s, "/app/form"), nullptr);
        SecurityConstraint_addCollection(s, c);
        EXPECT_TRUE(SecurityConstraint_containsCSRFProtection(s));
        EXPECT_EQ(SecurityConstraint_getCSRFProtectedCollection(s, "/app/form"), c);
        EXPECT_EQ(SecurityConstraint_getCSRFProtectedCollection(s, nullptr), nullptr);
}

TEST_F(Security, MethodsNarrowACollection) {
        SecurityCollection_T c = collection({"/"});
        SecurityConstraint_T s = SecurityConstraint_new(arena);
        SecurityConstraint_addCollection(s, c);
        EXPECT_TRUE(SecurityConstraint_included(s, "/x", "HEAD"));
        SecurityCollection_addMethod(c, "get");
        SecurityCollection_addMethod(c, "Put");
        EXPECT_TRUE(SecurityConstraint_included(s, "/x", "GET"));
        EXPECT_TRUE(SecurityConstraint_included(s, "/x", "PUT"));
        EXPECT_FALSE(SecurityConstraint_included(s, "/x", "HEAD"));
        EXPECT_FALSE(SecurityConstraint_included(s, "/x", "POST"));
        EXPECT_FALSE(SecurityConstraint_included(s, nullptr, "GET"));
        EXPECT_EQ(raised([&] { SecurityCollection_addMethod(c, "PATCH"); }),
                  "AssertException: Invalid HTTP method 'PATCH'");
}

TEST_F(Security, RolesAndAddresses) {
        SecurityConstraint_T s = SecurityConstraint_new(arena);
        EXPECT_STREQ(SecurityConstraint_getUserConstraint(s), "NONE");
        EXPECT_FALSE(SecurityConstraint_getAuthConstraint(s));
        SecurityConstraint_addAuthRole(s, "*");
        EXPECT_TRUE(SecurityConstraint_allRoles(s));
        EXPECT_TRUE(SecurityConstraint_getAuthConstraint(s));
        EXPECT_FALSE(SecurityConstraint_findAuthRoles(s, nullptr));
        EXPECT_TRUE(SecurityConstraint_findIpAddress(s, nullptr));
        SecurityConstraint_addIpAddress(s, "10.0.0.1");
        SecurityConstraint_addIpAddress(s, "192.168.*");
        EXPECT_TRUE(SecurityConstraint_findIpAddress(s, "10.0.0.100"));
        EXPECT_TRUE(SecurityConstraint_findIpAddress(s, "::ffff:192.168.4.4"));
        EXPECT_FALSE(SecurityConstraint_findIpAddress(s, "10.0.1.1"));
        EXPECT_FALSE(SecurityConstraint_findIpAddress(s, nullptr));
        LoginConfig_T login = LoginConfig_new(arena);
        EXPECT_EQ(LoginConfig_getAuthMethod(login), nullptr);
        LoginConfig_setAuthMethod(login, "Basic");
        EXPECT_STREQ(LoginConfig_getAuthMethod(login), "Basic");
}

}  // namespace
