// Context paths in any spelling, the configured root context against the automatic one,
// and WEB-INF kept private on every road a request or a dispatch can take.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/ServerSupport.hpp"

namespace {

using namespace e2e;

constexpr const char* kSecret = "TOP-SECRET";

class ContextPaths : public testing::Test {
protected:
        void SetUp() override {
                home.write("webapps/app/style.css", "app style");
                home.write("webapps/app/WEB-INF/secret.csp", std::string(kSecret) + " page");
                home.write("webapps/app/WEB-INF/secret.html", std::string(kSecret) + " file");
                // The first welcome file lies under WEB-INF and must be passed over.
                home.write("webapps/app/WEB-INF/web.xml",
                           "<web-app>\n"
                           "<servlet-mapping><servlet-name>echo</servlet-name>"
                           "<url-pattern>/x/y</url-pattern></servlet-mapping>\n"
                           "<servlet-mapping><servlet-name>hello</servlet-name>"
                           "<url-pattern>/x/*</url-pattern></servlet-mapping>\n"
                           "<servlet-mapping><servlet-name>relay</servlet-name>"
                           "<url-pattern>*.do</url-pattern></servlet-mapping>\n"
                           "<welcome-file-list><welcome-file>WEB-INF/secret.html</welcome-file>"
                           "<welcome-file>index.html</welcome-file></welcome-file-list>\n"
                           "</web-app>\n");
                mkdir((home / "webapps/site").c_str(), 0755);
                home.write("webapps/site/index.html", "configured root");
        }

        Reply get(const std::string& uri) { return roundTrip(home.port, request(uri)); }

        // Every URI answers 404 and shows nothing of what WEB-INF holds.
        void expectPrivate(const std::vector<std::string>& uris) {
                for (const std::string& uri : uris) {
                        Reply r = get(uri);
                        EXPECT_EQ(r.status, 404) << uri << "\n" << r.head;
                        EXPECT_FALSE(contains(r.body, kSecret)) << uri << "\n" << r.body;
                        EXPECT_FALSE(contains(r.body, "<web-app>")) << uri << "\n" << r.body;
                }
        }

        Home home;
};

TEST_F(ContextPaths, EverySpellingServesLikeTheBarePath) {
        for (const char* spelling : {"/app", "/app/", "/app//", "//app/", "app"}) {
                SCOPED_TRACE(spelling);
                home.serverXml("", std::string("<Context path=\"\" docBase=\"ROOT\"/>\n") +
                                       "<Context path=\"" + spelling + "\" docBase=\"app\"/>\n");
                Server server(home, true);
                ASSERT_TRUE(server.ready()) << server.failure();
                struct Case {
                        std::string uri, body;
                };
                for (const Case& c : std::vector<Case>{
                         {"/app/style.css", "app style"},
                         {"/app/", "app index"},
                         {"/app", "app index"},
                         {"/app/index.html", "app index"},
                         // Servlet paths begin with "/" whatever the context path's spelling.
                         {"/app/hello", "hello GET servlet=/hello info=null"},
                         {"/app/x/z", "hello GET servlet=/x info=/z"},
                         {"/app/a.do", "relay servlet=/a.do"},
                         {"/app/relay?go=forward&to=/hello", "hello GET servlet=/hello info=null"},
                         {"/", "root index"},
                     }) {
                        Reply r = get(c.uri);
                        EXPECT_EQ(r.status, 200) << c.uri << "\n" << r.head;
                        EXPECT_EQ(r.body, c.body) << c.uri;
                }
                expectPrivate({
                    "/app/WEB-INF/secret.csp",
                    "/app/WEB-INF/secret.html",
                    "/app/WEB-INF/web.xml",
                    "/app/WEB-INF/",
                    "/app/WEB-INF",
                    "/app/web-inf/secret.html",
                    "/app/Web-Inf/secret.csp",
                    "/app//WEB-INF/secret.csp",
                    "/app/./WEB-INF/secret.csp",
                    "/app/x/../WEB-INF/secret.csp",
                    "/app/%57EB-INF/secret.csp",
                    "/app%2FWEB-INF/secret.html",
                    "/app/WEB-INF%2fsecret.html",
                    // Extension and prefix mappings see the whole path too.
                    "/app/WEB-INF/secret.csp/extra",
                    "/app/x/../WEB-INF/secret.do",
                    // Forwards and includes, however the target is spelled.
                    "/app/relay?go=forward&to=/WEB-INF/secret.csp",
                    "/app/relay?go=include&to=/WEB-INF/secret.csp",
                    "/app/relay?go=forward&to=/WEB-INF/secret.html",
                    "/app/relay?go=forward&to=//WEB-INF/secret.csp",
                    "/app/relay?go=forward&to=/x/../WEB-INF/secret.csp",
                    "/app/relay?go=include&to=/./web-inf/secret.html",
                    "/app/relay?go=forward&to=/app/WEB-INF/secret.csp",
                });
                EXPECT_EQ(server.stop(), 0);
        }
}

TEST_F(ContextPaths, ConfiguredRootContextWinsOverTheAutomaticOne) {
        for (const char* spelling : {"/", ""}) {
                SCOPED_TRACE(spelling);
                home.serverXml("", std::string("<Context path=\"") + spelling +
                                       "\" docBase=\"site\"/>\n"
                                       "<Context path=\"/app\" docBase=\"app\"/>\n");
                Server server(home, true);
                ASSERT_TRUE(server.ready()) << server.failure();
                for (const char* uri : {"/", "/index.html"}) {
                        Reply r = get(uri);
                        EXPECT_EQ(r.status, 200) << uri;
                        EXPECT_EQ(r.body, "configured root") << uri;
                }
                EXPECT_EQ(get("/app/style.css").body, "app style");
                EXPECT_EQ(server.stop(), 0);
        }
}

TEST_F(ContextPaths, RootContextNeedsNoROOTDirectoryAndHidesEveryWEBINF) {
        std::filesystem::remove_all(home / "webapps/ROOT");
        // The root application's directory holds the other application and its WEB-INF.
        home.serverXml("", "<Context path=\"/\" docBase=\"" + (home / "webapps") + "\"/>\n");
        Server server(home, true);
        ASSERT_TRUE(server.ready()) << server.failure();
        Reply r = get("/app/index.html");
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.body, "app index");
        expectPrivate({"/app/WEB-INF/secret.html", "/app/WEB-INF/web.xml",
                       "/app/WEB-INF/secret.csp", "/app/web-inf/secret.html"});
        EXPECT_EQ(server.stop(), 0);
}

TEST_F(ContextPaths, TwoSpellingsOfOnePathAreAConfigurationError) {
        struct Case {
                std::string first, second;
        };
        for (const Case& c : std::vector<Case>{
                 {"", "/"}, {"/", ""}, {"/app", "/app/"}, {"/app/", "//app"}, {"app", "/app"}}) {
                SCOPED_TRACE(c.first + " then " + c.second);
                home.serverXml("", "<Context path=\"" + c.first + "\" docBase=\"app\"/>\n" +
                                       "<Context path=\"" + c.second + "\" docBase=\"site\"/>\n");
                Server server(home, true);
                std::string failure = server.failure();
                EXPECT_TRUE(contains(failure, "'" + c.first + "'")) << failure;
                EXPECT_TRUE(contains(failure, "'" + c.second + "'")) << failure;
                EXPECT_TRUE(contains(failure, "<Host> 'localhost'")) << failure;
                EXPECT_TRUE(contains(failure, "conf/server.xml' near line 10")) << failure;
        }
        // The same spelling again configures the first Context and keeps its docBase.
        home.serverXml("", "<Context path=\"/app/\" docBase=\"app\"/>\n"
                           "<Context path=\"/app/\" docBase=\"site\"/>\n");
        Server server(home, true);
        ASSERT_TRUE(server.ready()) << server.failure();
        EXPECT_EQ(get("/app/index.html").body, "app index");
        EXPECT_EQ(server.stop(), 0);
}

}  // namespace
