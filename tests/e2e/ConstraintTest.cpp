// Security constraints end to end over loopback in raw bytes: a client address outside
// the allowed ones, a plain request to a confidential page sent on to the https port with
// its URL session id, the Realm's own faults at start, and no checks without a database.
#include <gtest/gtest.h>

#include "support/SecureHome.hpp"
#include "support/TlsSupport.hpp"

namespace {

using namespace e2e;

class Constraints : public testing::TestWithParam<bool> {
protected:
        Reply get(const std::string& uri, const std::string& headers = "") {
                return roundTrip(home.port, request(uri, headers));
        }
        SecureHome home;
};

constexpr char kForbidden[] = "You do not have permission to access the requested resource.";

bool has(const std::string& s, const std::string& part) {
        return s.find(part) != std::string::npos;
}

}  // namespace

TEST_P(Constraints, ClientOutsideTheAllowedAddressesIsForbidden) {
        home.security(constraint("/app/secure/*", "",
                                 "<ip-constraint><ip-address>10.1.*</ip-address>"
                                 "</ip-constraint>") +
                      constraint("/app/conf/*", "",
                                 "<ip-constraint><ip-address>127.0.0.*</ip-address>"
                                 "</ip-constraint>"));
        START_SERVER(server, home, GetParam());
        Reply r = get("/app/secure/page");
        EXPECT_EQ(r.status, 403);
        EXPECT_TRUE(has(r.body, kForbidden)) << r.body;
        EXPECT_EQ(r.header("Pragma"), "no-cache");
        r = get("/app/conf/page");
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(field(r.body, "user"), "null") << "no role asked, so no login";
}

TEST_P(Constraints, FirstConstraintWithoutRolesLetsTheRequestIn) {
        std::string open = constraint("/app/secure/*", "");
        // Roles first: a login is asked for, and then the open one skips the role check.
        home.security(constraint("/app/secure/*", "admin") + open + basicLogin());
        {
                START_SERVER(server, home, GetParam());
                EXPECT_EQ(get("/app/secure/page").status, 401);
                Reply r = get("/app/secure/page", basic("bob:pw"));
                EXPECT_EQ(r.status, 200);
                EXPECT_EQ(field(r.body, "user"), "bob");
        }
        // The open one first lets everybody in with no login at all.
        home.security(open + constraint("/app/secure/*", "admin") + basicLogin());
        START_SERVER(server, home, GetParam());
        Reply r = get("/app/secure/page");
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(field(r.body, "user"), "null");
}

TEST_P(Constraints, ConfidentialWithoutRedirectPortIsForbiddenWithTheUri) {
        home.security(constraint("/app/conf/*", "",
                                 "<user-data-constraint><transport-guarantee>CONFIDENTIAL"
                                 "</transport-guarantee></user-data-constraint>"));
        START_SERVER(server, home, GetParam());
        Reply r = get("/app/conf/page?a=1");
        EXPECT_EQ(r.status, 403);
        EXPECT_TRUE(has(r.body, "/app/conf/page")) << r.body;
}

TEST_P(Constraints, ConfidentialGoesToTheHttpsPortWithTheUrlSessionId) {
        int securePort = freePort();
        makeCertificate(home, "server.pem");
        home.configure("maxActiveSessions=\"100\"",
                       "redirectPort=\"" + std::to_string(securePort) + "\"", kRealm,
                       "<Connector port=\"" + std::to_string(securePort) +
                           "\" address=\"127.0.0.1\" secure=\"true\"/>\n",
                       " certificate=\"server.pem\" address=\"127.0.0.1\"");
        home.security(constraint("/app/conf/*", "",
                                 "<user-data-constraint><transport-guarantee>CONFIDENTIAL"
                                 "</transport-guarantee></user-data-constraint>"));
        START_SERVER(server, home, GetParam());
        std::string id = field(get("/app/s?create=1").body, "id");
        ASSERT_EQ(id.size(), 32u);
        std::string target = "https://localhost:" + std::to_string(securePort) + "/app/conf/page";

        Reply r = get("/app/conf/page?a=1", cookie(id));
        EXPECT_EQ(r.status, 302);
        EXPECT_EQ(r.header("Location"), target + "?a=1") << "a cookie's id stays in the cookie";

        r = get("/app/conf/page;vsessionid=" + id + "?a=1");
        EXPECT_EQ(r.status, 302);
        std::string location = r.header("Location");
        EXPECT_EQ(location, target + ";vsessionid=" + id + "?a=1");

        // Where it points, over TLS, the page is served in the same session.
        int s = dial(securePort);
        ASSERT_GE(s, 0);
        RawTlsClient tls(s);
        ASSERT_TRUE(tls.connect());
        ASSERT_TRUE(tls.send(request(location.substr(location.find("/app")))));
        r = parse(tls.receive(1 << 20));
        tls.close();
        close(s);
        EXPECT_EQ(r.status, 200) << r.head;
        EXPECT_EQ(field(r.body, "session"), id) << r.body;
}

TEST_P(Constraints, RealmFaultsStopTheStart) {
        home.configure("maxActiveSessions=\"100\"", "", "<Realm url=\"mysql://db/users\"/>\n");
        Server server(home, GetParam());
        int s = dial(home.port);
        EXPECT_LT(s, 0) << "nothing serves";
        if (s >= 0)
                close(s);
        server.stop();
        std::string said = server.failure() + readFile(home / "logs/launcher.out");
        EXPECT_TRUE(has(said, "Database protocol 'mysql' not supported in <Realm>")) << said;

        home.configure("maxActiveSessions=\"100\"", "", "<Realm url=\"sqlite:///db/none.db\"/>\n");
        Server again(home, GetParam());
        again.stop();
        said = again.failure() + readFile(home / "logs/launcher.out");
        EXPECT_TRUE(has(said, "Realm database '" + home.path() + "/db/none.db' does not exist"))
            << said;
}

TEST_P(Constraints, WithoutARealmDatabaseNothingIsChecked) {
        home.configure("maxActiveSessions=\"100\"", "", "");
        home.security(constraint("/app/secure/*", "admin",
                                 "<ip-constraint><ip-address>10.*</ip-address></ip-constraint>") +
                      basicLogin());
        START_SERVER(server, home, GetParam());
        Reply r = get("/app/secure/page");
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(field(r.body, "user"), "null");
}

INSTANTIATE_TEST_SUITE_P(Server, Constraints, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                                 return info.param ? "InProcess" : "Launcher";
                         });
