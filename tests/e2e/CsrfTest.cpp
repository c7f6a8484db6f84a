// CSRF tokens end to end over loopback in raw bytes: a path under csrf-protect takes a
// post only with the session's id as its token, as a parameter or a header.
#include <gtest/gtest.h>

#include "support/SecureHome.hpp"

namespace {

using namespace e2e;

// /app/form/* protected for POST only.
const std::string kProtected =
    "<security-constraint><web-resource-collection><web-resource-name>f</web-resource-name>"
    "<csrf-protect><url-pattern>/app/form/*</url-pattern></csrf-protect>"
    "<http-method>POST</http-method></web-resource-collection></security-constraint>\n";

class Csrf : public testing::TestWithParam<bool> {
protected:
        Csrf() { home.security(kProtected); }
        Reply post(const std::string& uri, const std::string& body, const std::string& headers) {
                return roundTrip(home.port,
                                 request(uri, form(body, headers), "localhost", "POST") + body);
        }
        std::string session() {
                return field(roundTrip(home.port, request("/app/s?create=1")).body, "id");
        }
        SecureHome home;
};

constexpr char kMissing[] = "Missing required CSRF Token";

bool has(const std::string& s, const std::string& part) {
        return s.find(part) != std::string::npos;
}

}  // namespace

TEST_P(Csrf, PostNeedsTheSessionIdAsToken) {
        START_SERVER(server, home, GetParam());
        Reply r = post("/app/form/save", "a=1", "");
        EXPECT_EQ(r.status, 403);
        EXPECT_TRUE(has(r.body, kMissing)) << "no session, so no token: " << r.body;

        std::string id = session();
        ASSERT_EQ(id.size(), 32u);
        r = post("/app/form/save", "a=1", cookie(id));
        EXPECT_EQ(r.status, 403);
        EXPECT_TRUE(has(r.body, kMissing)) << r.body;

        std::string wrong = id;
        wrong[0] = wrong[0] == 'A' ? 'B' : 'A';
        r = post("/app/form/save", "CSRFToken=" + wrong, cookie(id));
        EXPECT_EQ(r.status, 403);
        EXPECT_TRUE(has(r.body, "Invalid CSRF Token")) << r.body;
        EXPECT_TRUE(eventually([&] {
                return home.logged(
                           "CSRF Token does not match for [127.0.0.1] at http://localhost:" +
                           std::to_string(home.port) + "/app/form/save") == 1;
        }));
        r = post("/app/form/save", "CSRFToken=" + id + id + id, cookie(id));
        EXPECT_EQ(r.status, 403) << "a token longer than 64 characters never matches";

        r = post("/app/form/save", "CSRFToken=" + id, cookie(id));
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(field(r.body, "token"), id);
        EXPECT_EQ(roundTrip(home.port, request("/app/form/save")).status, 200)
            << "GET is not a protected method";
}

TEST_P(Csrf, TokenComesFromParameterFirstThenHeader) {
        START_SERVER(server, home, GetParam());
        std::string id = session();
        ASSERT_EQ(id.size(), 32u);
        std::string header = "CSRFToken: " + id + "\r\n";
        EXPECT_EQ(post("/app/form/save", "a=1", cookie(id) + header).status, 200);
        EXPECT_EQ(post("/app/form/save", "CSRFToken=", cookie(id) + header).status, 200)
            << "an empty parameter falls back to the header";
        EXPECT_EQ(post("/app/form/save", "CSRFToken=" + id, cookie(id) + "CSRFToken: x\r\n").status,
                  200);
        EXPECT_EQ(post("/app/form/save", "CSRFToken=x", cookie(id) + header).status, 403)
            << "the parameter wins";
}

TEST_P(Csrf, SessionCanOptOutAndNoDatabaseChecksNothing) {
        {
                START_SERVER(server, home, GetParam());
                std::string id = session();
                roundTrip(home.port, request("/app/s?set=v_csrf_protection&to=off", cookie(id)));
                EXPECT_EQ(post("/app/form/save", "a=1", cookie(id)).status, 200);
        }
        home.configure("maxActiveSessions=\"100\"", "", "");
        START_SERVER(server, home, GetParam());
        EXPECT_EQ(post("/app/form/save", "a=1", "").status, 200);
}

TEST_P(Csrf, FormLoginCanTurnTheCheckOffForItsSession) {
        // The login target falls under every constraint, and the first one without roles
        // would let it through unchecked: the one with roles comes first.
        home.security(constraint("/app/secure/*", "admin") + kProtected + formLogin());
        START_SERVER(server, home, GetParam());
        std::string id =
            roundTrip(home.port, request("/app/secure/page")).header("Set-Cookie").substr(11, 32);
        Reply r = post("/app/v_security_check",
                       "v_username=ann&v_password=secret&v_csrf_protection=none", cookie(id));
        EXPECT_EQ(r.status, 302);
        EXPECT_EQ(post("/app/form/save", "a=1", cookie(id)).status, 200)
            << "\"none\" holds \"no\", which turns the check off";
}

TEST_P(Csrf, ProtectionNeedsSessions) {
        home.configure("");
        Server server(home, GetParam());
        server.stop();
        std::string said = server.failure() + readFile(home / "logs/launcher.out") +
                           readFile(home / "logs/error.log");
        EXPECT_TRUE(has(said,
                        "web.xml: CSRF protection require Context to have session "
                        "activated. Please edit <Context> with path '/app' in server.xml "
                        "and set maxActiveSessions to a number larger than zero."))
            << said;
}

INSTANTIATE_TEST_SUITE_P(Server, Csrf, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                                 return info.param ? "InProcess" : "Launcher";
                         });
