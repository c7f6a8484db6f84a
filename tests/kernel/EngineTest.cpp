#include <gtest/gtest.h>

#include <string>

#include <vesk/Engine.h>
#include <vesk/Host.h>
#include <vesk/Logger.h>
#include <vesk/Service.h>

#include "support/Support.hpp"
#include "support/KernelSupport.hpp"

namespace {

Context_T context(const char* path) {
        Context_T C = Context_new();
        Context_setContextPath(C, path);
        return C;
}

Host_T host(const char* name, std::initializer_list<const char*> aliases = {}) {
        Host_T H = Host_new();
        Host_setName(H, name);
        for (const char* alias : aliases)
                Host_addAlias(H, alias);
        return H;
}

TEST(Host, MapsTheLongestContextPathAtASlash) {
        Host_T H = host("Example.ORG");
        EXPECT_STREQ(Host_getName(H), "example.org");
        Context_T root = context("");
        Context_T app = context("/app/");
        Host_setDefaultContext(H, root);
        Host_addContext(H, app);
        EXPECT_STREQ(Context_getContextPath(app), "/app");
        EXPECT_EQ(Host_map(H, "/app/x"), app);
        EXPECT_EQ(Host_map(H, "/app"), app);
        EXPECT_EQ(Host_map(H, "/apple"), root);
        EXPECT_EQ(Host_map(H, "/"), root);
        EXPECT_EQ(Host_map(H, ""), root);
        EXPECT_EQ(Context_getHost(app), H);
        std::string longest(4097, 'a');
        longest[0] = '/';
        EXPECT_EQ(assertion([&] { Host_map(H, longest.c_str()); }), "i <= PATH_MAX");
        // A Context of the same path replaces the earlier one, which the Host frees.
        Context_T again = context("/app");
        Host_addContext(H, again);
        EXPECT_EQ(Host_getContext(H, "/app"), again);
        Host_free(&H);
}

TEST(Host, SettersCheckTheirArguments) {
        Host_T H = Host_new();
        EXPECT_STREQ(Host_getCiphers(H),
                     "ALL:!DES:!3DES:!RC4:!aNULL:!LOW:!EXP:!IDEA:!MD5:@STRENGTH");
        EXPECT_EQ(raised([&] { Host_setAppBase(H, "/no/such/dir"); }),
                  "AssertException: Host appbase '/no/such/dir' is not a directory");
        EXPECT_EQ(Host_getLogger(nullptr), nullptr);
        EXPECT_EQ(Host_getAccessLogger(nullptr), nullptr);
        TempDir dir;
        // A second logger replaces and frees the first; leak checks see it go.
        Host_setLogger(H, Logger_new((dir / "a.log").c_str()));
        Logger_T second = Logger_new((dir / "b.log").c_str());
        Host_setLogger(H, second);
        EXPECT_EQ(Host_getLogger(H), second);
        Host_setAccessLogger(H, Logger_new((dir / "access.log").c_str()));
        EXPECT_FALSE(Logger_getTimestamp(Host_getAccessLogger(H)));
        Host_free(&H);
}

TEST(Engine, PicksHostsByNameAliasOrDefault) {
        Engine_T E = Engine_new();
        Host_T main = host("main.org", {"www.main.org"});
        Host_T other = host("other.org", {"Main.ORG.alias", "www.main.org2"});
        Host_setDefaultContext(main, context(""));
        Context_T otherApp = context("/x");
        Host_setDefaultContext(other, context(""));
        Host_addContext(other, otherApp);
        Engine_addHost(E, main);
        Engine_addHost(E, other);
        Engine_setDefaultHost(E, main);
        EXPECT_EQ(Engine_findHost(E, "www.main.org"), main);
        EXPECT_EQ(Engine_findHost(E, "main.org.alias"), other);
        EXPECT_EQ(Engine_findHost(E, "nowhere"), nullptr);
        {
                Exchange x("GET", "/x/y", "other.org");
                EXPECT_EQ(Engine_map(E, x.req()), otherApp);
        }
        {
                // No Host header: the default host answers and names the request.
                Exchange x("GET", "/x/y");
                EXPECT_EQ(Engine_map(E, x.req()), Host_getDefaultContext(main));
                EXPECT_STREQ(HttpRequest_getServerName(x.req()), "main.org");
        }
        {
                Exchange x("GET", "/x", "unknown.net");
                EXPECT_EQ(Engine_map(E, x.req()), Host_getDefaultContext(main));
        }
        Engine_free(&E);
}

TEST(Engine, RefusesDuplicatesAndStartsOnlyWithADefaultHost) {
        Engine_T E = Engine_new();
        Engine_setService(E, Service_new());
        EXPECT_EQ(raised([&] { Engine_start(E); }), "AssertException: Default host not defined");
        Host_T a = host("a.org", {"alias.org"});
        Host_setAddress(a, "127.0.0.1");
        Engine_addHost(E, a);
        Host_T same = host("A.org");
        EXPECT_EQ(raised([&] { Engine_addHost(E, same); }),
                  "AssertException: A host with the name 'a.org' has already been added");
        Host_T b = host("b.org");
        Host_setAddress(b, "127.0.0.1");
        EXPECT_EQ(raised([&] { Engine_addHost(E, b); }),
                  "AssertException: A host with the address '127.0.0.1' has already been added");
        Host_T c = host("c.org", {"ALIAS.org"});
        EXPECT_EQ(raised([&] { Engine_addHost(E, c); }),
                  "AssertException: A host with the alias 'alias.org' has already been added");
        EXPECT_EQ(Engine_findHostWithAddress(E, "127.0.0.1"), a);
        // The refused hosts went into the tables under other keys or not at all; the
        // tables own what they hold, so free only what never got in.
        Host_free(&same);
        Engine_setDefaultHost(E, a);
        Engine_start(E);
        EXPECT_FALSE(Engine_isStopped(E));
        Engine_stop(E);
        EXPECT_TRUE(Engine_isStopped(E));
        Engine_free(&E);
        (void)b;
        (void)c;
}

}  // namespace
