// Sessions end to end over loopback in raw bytes: the session cookie and its attributes,
// a session id carried in the URL, the session limit and the recycling of sessions that
// were never used, server pages reading and ending a session, and many clients of one
// session at once.
#include <gtest/gtest.h>

#include <thread>

#include "support/Database.hpp"
#include "support/ServerSupport.hpp"

namespace {

using namespace e2e;

const char* const kContexts = "<Context path=\"\" docBase=\"ROOT\"/>\n";

class Sessions : public testing::TestWithParam<bool> {
protected:
        Sessions() {
                installModule(home / "webapps/app/WEB-INF/classes", "sessions", "sessions");
                home.write("webapps/app/WEB-INF/web.xml",
                           "<web-app>\n"
                           "<servlet-mapping><servlet-name>sessions</servlet-name>"
                           "<url-pattern>/s</url-pattern></servlet-mapping>\n"
                           "<servlet-mapping><servlet-name>relay</servlet-name>"
                           "<url-pattern>/relay</url-pattern></servlet-mapping>\n"
                           "</web-app>\n");
                home.write("webapps/app/show.csp",
                           "[<?cs var:Session.Id ?>|<?cs var:Session.IsNew ?>|"
                           "<?cs var:Session.Attr.color ?>|<?cs var:Request.CSRFToken ?>]");
                home.write("webapps/app/logout.csp", "<?cs set:Session.invalidate = \"yes\" ?>bye");
                context();
        }
        // The /app context with these extra attributes.
        void context(const std::string& attributes = "maxActiveSessions=\"100\"") {
                home.serverXml("", std::string(kContexts) +
                                       "<Context path=\"/app\" docBase=\"app\" " + attributes +
                                       "/>\n");
        }
        Reply get(const std::string& uri, const std::string& id = "") {
                return roundTrip(
                    home.port, request(uri, id.empty() ? "" : "Cookie: vsessionid=" + id + "\r\n"));
        }
        // The id a new session answered with, or "".
        std::string create(const std::string& query = "") {
                Reply r = get("/app/s?create=1" + query);
                return field(r.body, "id");
        }
        static std::string field(const std::string& body, const std::string& name) {
                std::string padded = " " + body;
                size_t at = padded.find(" " + name + "=");
                if (at == std::string::npos)
                        return "";
                at += name.size() + 2;
                return padded.substr(at, padded.find(' ', at) - at);
        }
        static bool isSessionId(const std::string& id) {
                return id.size() == 32 &&
                       id.find_first_not_of("0123456789ABCDEF") == std::string::npos;
        }
        int errorLines(const std::string& text) {
                std::string log = readFile(home / "logs/error.log");
                int n = 0;
                for (size_t at = log.find(text); at != std::string::npos;
                     at = log.find(text, at + 1))
                        n++;
                return n;
        }
        Home home;
};

#define START(server)                    \
        Server server(home, GetParam()); \
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out")

TEST_P(Sessions, TheCookieCarriesTheSessionAndItsAttributes) {
        START(server);
        Reply r = get("/app/s");
        EXPECT_EQ(r.body, "none");
        EXPECT_EQ(r.header("Set-Cookie"), "") << "no session is made unasked";

        r = get("/app/s?create=1&set=color&to=a%3Bb%3A9%3A");
        std::string id = field(r.body, "id");
        ASSERT_TRUE(isSessionId(id)) << r.body;
        EXPECT_EQ(field(r.body, "new"), "1");
        EXPECT_EQ(field(r.body, "refs"), "1");
        EXPECT_EQ(r.header("Set-Cookie"),
                  "vsessionid=" + id + "; Path=/app; HttpOnly; SameSite=strict")
            << r.head;
        EXPECT_EQ(r.head.find("Set-Cookie"), r.head.rfind("Set-Cookie")) << "exactly one";
        // A new session counts as one from a cookie: links are not rewritten.
        EXPECT_EQ(field(r.body, "url"), "/app/s?a=1");

        r = get("/app/s?get=color&count=1", id);
        EXPECT_EQ(field(r.body, "id"), id);
        EXPECT_EQ(field(r.body, "new"), "0");
        EXPECT_EQ(field(r.body, "get"), "a;b:9:");
        EXPECT_EQ(field(r.body, "count"), "1");
        EXPECT_EQ(r.header("Set-Cookie"), "") << "the client has its cookie";
        EXPECT_EQ(field(get("/app/s?count=1", id).body, "count"), "2");

        // An id the server does not know finds nothing, and creating gives a fresh one.
        EXPECT_EQ(get("/app/s", "0123456789ABCDEF0123456789ABCDEF").body, "none");
        r = get("/app/s?create=1", "0123456789ABCDEF0123456789ABCDEF");
        EXPECT_NE(field(r.body, "id"), "0123456789ABCDEF0123456789ABCDEF");
        EXPECT_NE(r.header("Set-Cookie"), "");
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(Sessions, AnIdInTheURLFindsTheSessionAndLinksCarryIt) {
        START(server);
        std::string id = create("&set=color&to=red");
        ASSERT_FALSE(id.empty());
        Reply r = get("/app/s;vsessionid=" + id + "?get=color");
        EXPECT_EQ(field(r.body, "id"), id) << r.body;
        EXPECT_EQ(field(r.body, "get"), "red");
        EXPECT_EQ(field(r.body, "url"), "/app/s;vsessionid=" + id + "?a=1");
        EXPECT_EQ(r.header("Set-Cookie"), "");
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(Sessions, TheLimitRefusesWithOneLogLineUntilASessionEnds) {
        context("maxActiveSessions=\"1\" sessionTimeout=\"600\"");
        START(server);
        const std::string line = "Reached maximum allowed active Sessions (1) for Context '/app'";
        std::string first = create("&count=1");
        std::string second = create();
        ASSERT_FALSE(first.empty());
        ASSERT_FALSE(second.empty()) << "the table may hold one more than the limit";
        EXPECT_EQ(get("/app/s?create=1").body, "none");
        EXPECT_EQ(get("/app/s?create=1").body, "none");
        EXPECT_TRUE(eventually([&] { return errorLines(line) == 1; }))
            << readFile(home / "logs/error.log");
        EXPECT_EQ(field(get("/app/s", first).body, "count"), "1") << "sessions held stay usable";

        EXPECT_NE(get("/app/s?invalidate=1", first).body, "none");
        EXPECT_EQ(get("/app/s", first).body, "none") << "an invalidated session is gone";
        EXPECT_FALSE(create().empty()) << "the freed place is taken";
        EXPECT_EQ(get("/app/s?create=1").body, "none");
        EXPECT_TRUE(eventually([&] { return errorLines(line) == 2; }))
            << "a refusal after a success logs again";
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(Sessions, NeverUsedSessionsAreRecycledForNewClients) {
        context("maxActiveSessions=\"5000\"");
        START(again);
        std::string used = create();
        ASSERT_FALSE(get("/app/s", used).body.empty());
        std::string oldest = create();
        for (int i = 0; i < 1000; i++)
                ASSERT_FALSE(create().empty()) << i;
        // 1001 never-used sessions wait: the next client gets the oldest one's place.
        ASSERT_FALSE(create().empty());
        EXPECT_EQ(get("/app/s", oldest).body, "none");
        EXPECT_EQ(field(get("/app/s", used).body, "id"), used) << "a used session stays";
        EXPECT_EQ(again.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(Sessions, ServerPagesSeeTheSessionAndCanEndIt) {
        START(server);
        Reply r = get("/app/show.csp");
        EXPECT_EQ(r.body, "[|||]") << "a page makes no session";
        std::string id = create("&set=color&to=%3Cb%3E");
        get("/app/s", id);
        r = get("/app/show.csp", id);
        EXPECT_EQ(r.body, "[" + id + "|0|<b>|" + id + "]");
        EXPECT_EQ(get("/app/logout.csp", id).body, "bye");
        EXPECT_EQ(get("/app/s", id).body, "none");
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(Sessions, ASessionMadeBehindAForwardIsTheRequestsOwn) {
        START(server);
        Reply r = get("/app/relay?go=forward&to=/s%3Fcreate%3D1");
        std::string id = field(r.body, "id");
        ASSERT_FALSE(id.empty()) << r.body;
        EXPECT_EQ(r.header("Set-Cookie"),
                  "vsessionid=" + id + "; Path=/app; HttpOnly; SameSite=strict")
            << r.head;
        r = get("/app/relay?go=include&to=/s%3Finvalidate%3D1", id);
        EXPECT_EQ(field(r.body, "refs"), "1") << r.body;
        // Its last request gave its reference back, so the invalidated session is gone.
        EXPECT_EQ(get("/app/s", id).body, "none");
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

// A client gone in the middle of a response ends its request all the same: the session's
// reference comes back.
TEST_P(Sessions, AResponseCutOffGivesTheSessionBack) {
        START(server);
        std::string id = create();
        ASSERT_FALSE(id.empty());
        int s = dial(home.port);
        std::string text = request("/app/s?pad=16000000", "Cookie: vsessionid=" + id + "\r\n");
        ASSERT_EQ(send(s, text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
        char first;
        ASSERT_EQ(read(s, &first, 1), 1) << "the response has begun";
        linger reset{1, 0};
        setsockopt(s, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        close(s);
        EXPECT_TRUE(eventually([&] { return field(get("/app/s", id).body, "refs") == "1"; }))
            << get("/app/s", id).body;
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

// With saveSessions the used sessions go to the Realm's database at stop, and the same id
// finds the same attributes after a restart.
TEST_P(Sessions, ASavedSessionSurvivesARestart) {
        testdb::Database db(home / "sessions.db");
        home.write("conf/server.xml",
                   "<Server>\n<License owner=\"Tests\">x</License>\n<Service>\n"
                   "<Connector port=\"" +
                       std::to_string(home.port) +
                       "\" address=\"127.0.0.1\" processors=\"4\"/>\n"
                       "<Engine defaultHost=\"localhost\">\n"
                       "<Errorlogger directory=\"logs\" fileName=\"error.log\"/>\n"
                       "<Realm url=\"" +
                       db.url() +
                       "\" minConnections=\"1\"/>\n"
                       "<Host name=\"localhost\" appBase=\"webapps\" alias=\"127.0.0.1\">\n" +
                       kContexts +
                       "<Context path=\"/app\" docBase=\"app\" maxActiveSessions=\"10\" "
                       "saveSessions=\"true\" sessionTimeout=\"3600\"/>\n"
                       "</Host>\n</Engine>\n</Service>\n</Server>\n");
        std::string id, unused;
        {
                START(server);
                id = create("&set=color&to=a%3Bb%3A9%3A");
                ASSERT_FALSE(id.empty());
                EXPECT_EQ(field(get("/app/s?count=1", id).body, "count"), "1");
                unused = create();
                EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
        }
        EXPECT_EQ(db.scalar("SELECT itime FROM session WHERE id='" + id + "'"), "3600");
        EXPECT_EQ(db.scalar("SELECT count(*) FROM session"), "1")
            << "an unused session is not kept";
        START(server);
        Reply r = get("/app/s?get=color", id);
        EXPECT_EQ(field(r.body, "id"), id) << r.body;
        EXPECT_EQ(field(r.body, "get"), "a;b:9:");
        EXPECT_EQ(field(r.body, "count"), "1");
        EXPECT_EQ(r.header("Set-Cookie"), "") << "the client's cookie stays good";
        EXPECT_EQ(get("/app/s", unused).body, "none");
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

// Many clients of one session at once: every write lands, and when they are done the
// session is held by nothing but the request that asks.
TEST_P(Sessions, ConcurrentRequestsOfOneSessionKeepItsCountExact) {
        START(server);
        std::string id = create();
        ASSERT_FALSE(id.empty());
        constexpr int kClients = 8, kRequests = 200;
        std::vector<std::thread> clients;
        std::atomic<int> failures{0};
        for (int k = 0; k < kClients; k++)
                clients.emplace_back([&, k] {
                        for (int i = 0; i < kRequests; i++) {
                                Reply r = get("/app/s?mine=" + std::to_string(k) +
                                                  "&set=shared&to=" + std::to_string(k),
                                              id);
                                if (field(r.body, "id") != id)
                                        failures++;
                        }
                });
        for (auto& c : clients)
                c.join();
        EXPECT_EQ(failures, 0);
        for (int k = 0; k < kClients; k++) {
                Reply r = get("/app/s?get=c" + std::to_string(k), id);
                EXPECT_EQ(field(r.body, "get"), std::to_string(kRequests)) << k;
                EXPECT_EQ(field(r.body, "refs"), "1") << r.body;
        }
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

INSTANTIATE_TEST_SUITE_P(Server, Sessions, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                                 return info.param ? "InProcess" : "Launcher";
                         });

}  // namespace
