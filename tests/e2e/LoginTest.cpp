// Basic and Form login end to end over loopback in raw bytes: the challenge, a right and a
// wrong password, the three requests of a form login, the remembered login's cookie, and
// many requests of one logged-in session at once.
#include <time.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "support/SecureHome.hpp"

namespace {

using namespace e2e;

class Login : public testing::TestWithParam<bool> {
protected:
        Reply get(const std::string& uri, const std::string& headers = "") {
                return roundTrip(home.port, request(uri, headers));
        }
        Reply post(const std::string& uri, const std::string& body,
                   const std::string& headers = "") {
                return roundTrip(home.port,
                                 request(uri, form(body, headers), "localhost", "POST") + body);
        }
        SecureHome home;
};

constexpr char kUnauthorized[] = "Your are not authorized to access the requested resource";
constexpr char kForbidden[] = "You do not have permission to access the requested resource.";

bool has(const std::string& s, const std::string& part) {
        return s.find(part) != std::string::npos;
}

}  // namespace

TEST_P(Login, BasicChallengesThenAdmitsTheRightPasswordAndRole) {
        home.security(constraint("/app/secure/*", "admin") + basicLogin());
        START_SERVER(server, home, GetParam());
        Reply r = get("/app/secure/page");
        EXPECT_EQ(r.status, 401);
        EXPECT_EQ(r.header("WWW-Authenticate"), "Basic realm=\"Vesk Test\"");
        EXPECT_TRUE(has(r.body, kUnauthorized)) << r.body;
        EXPECT_EQ(r.header("Pragma"), "no-cache");
        EXPECT_EQ(r.header("Cache-Control"), "no-cache");
        EXPECT_EQ(r.header("Expires"), "Sun, 21 Feb 1993 00:29:55 GMT");

        r = get("/app/secure/page", basic("ann:secret"));
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(field(r.body, "user"), "ann");
        EXPECT_EQ(field(r.body, "type"), "BASIC");
        EXPECT_EQ(field(r.body, "admin"), "1");

        for (const char* wrong : {"ann:Secret", "ann:", ":secret", "nobody:secret", "annsecret"}) {
                r = get("/app/secure/page", basic(wrong));
                EXPECT_EQ(r.status, 401) << wrong;
                EXPECT_EQ(r.header("WWW-Authenticate"), "Basic realm=\"Vesk Test\"") << wrong;
        }
        r = get("/app/secure/page", "Authorization: Basic !!!\r\n");
        EXPECT_EQ(r.status, 401);

        r = get("/app/secure/page", basic("bob:pw"));
        EXPECT_EQ(r.status, 403) << "bob logs in but lacks the role";
        EXPECT_TRUE(has(r.body, kForbidden)) << r.body;
        EXPECT_EQ(get("/app/index.html").status, 200) << "unprotected paths need no login";
}

TEST_P(Login, BasicLoginIsKeptBySessionAndRealmDefaultsToTheServerName) {
        home.db.addUser("carl", "a b+c", {"admin"});
        home.security(constraint("/app/secure/*", "admin") + basicLogin(""));
        START_SERVER(server, home, GetParam());
        Reply r = get("/app/secure/page");
        EXPECT_EQ(r.header("WWW-Authenticate"), "Basic realm=\"localhost\"");
        // Credentials are URL-decoded as well: a '+' stands for a space.
        r = get("/app/secure/page", basic("carl:a+b%2Bc"));
        ASSERT_EQ(r.status, 200) << r.body;
        std::string id = field(r.body, "session");
        ASSERT_EQ(id.size(), 32u) << "a context with sessions keeps the login in one";
        r = get("/app/secure/page", cookie(id));
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(field(r.body, "user"), "carl");
        EXPECT_EQ(field(r.body, "refs"), "2") << "the session's reference and the request's";
}

TEST_P(Login, FormLoginTakesThreeRequests) {
        home.security(constraint("/app/secure/*", "admin") + formLogin());
        START_SERVER(server, home, GetParam());
        // 1: the protected page shows the login page and starts a session.
        Reply r = get("/app/secure/page?x=1");
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.body, "login page");
        EXPECT_EQ(r.header("Cache-Control"), "no-cache");
        std::string set = r.header("Set-Cookie");
        ASSERT_EQ(set.rfind("vsessionid=", 0), 0u) << r.head;
        std::string id = set.substr(11, 32);
        EXPECT_EQ(get("/app/login.html").body, "login page") << "the login page needs no login";

        // 2: the form's post checks the password and sends the user back.
        r = post("/app/v_security_check", "v_username=ann&v_password=secret", cookie(id));
        EXPECT_EQ(r.status, 302);
        EXPECT_EQ(r.header("Location"),
                  "http://localhost:" + std::to_string(home.port) + "/app/secure/page?x=1");
        EXPECT_EQ(r.header("Set-Cookie").find("Max-Age"), std::string::npos)
            << "no lasting cookie unasked";

        // 3: the page again, now as the user.
        r = get("/app/secure/page?x=1", cookie(id));
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(field(r.body, "user"), "ann");
        EXPECT_EQ(field(r.body, "type"), "FORM");
        EXPECT_EQ(field(r.body, "session"), id) << "a login keeps the session id";
}

TEST_P(Login, FormLoginFailures) {
        home.security(constraint("/app/secure/*", "admin") + formLogin());
        START_SERVER(server, home, GetParam());
        Reply r = post("/app/v_security_check", "v_username=ann&v_password=secret");
        EXPECT_EQ(r.status, 401);
        EXPECT_TRUE(has(r.body,
                        "Cannot authenticate, the login session cookie was not accepted "
                        "or has expired"))
            << r.body;

        std::string id = field(get("/app/s?create=1").body, "id");
        ASSERT_EQ(id.size(), 32u);
        r = post("/app/v_security_check", "v_username=ann&v_password=wrong", cookie(id));
        EXPECT_EQ(r.body, "error page");
        EXPECT_EQ(r.header("x-auth"), "denied");
        EXPECT_TRUE(eventually([&] {
                return home.logged(
                           "Unauthorized, authentication failed for [127.0.0.1] at "
                           "http://localhost:" +
                           std::to_string(home.port) + "/app/v_security_check") == 1;
        }));
        r = post("/app/v_security_check", "v_username=ann&v_password=secret", cookie(id));
        EXPECT_EQ(r.status, 400) << "no page was asked for before the login";
        EXPECT_TRUE(has(r.body, "Invalid direct reference to form login page")) << r.body;
        EXPECT_EQ(field(get("/app/secure/page", cookie(id)).body, "user"), "ann")
            << "the user is logged in all the same";
}

TEST_P(Login, RememberMeKeepsTheSessionNinetyDays) {
        home.security(constraint("/app/secure/*", "admin") + formLogin());
        START_SERVER(server, home, GetParam());
        std::string id = get("/app/secure/page").header("Set-Cookie").substr(11, 32);
        Reply r = post("/app/v_security_check", "v_username=ann&v_password=secret&v_remember_me=on",
                       cookie(id));
        EXPECT_EQ(r.status, 302);
        // A version 0 cookie states its age as a date: 90 days from now.
        std::string set = r.header("Set-Cookie");
        EXPECT_EQ(set.rfind("vsessionid=" + id + "; Expires=", 0), 0u) << set;
        EXPECT_TRUE(has(set, "; Path=/app; HttpOnly; SameSite=strict")) << set;
        time_t expires = 0;
        struct tm when = {};
        if (strptime(set.substr(set.find("Expires=") + 8).c_str(), "%a, %d %b %Y %H:%M:%S GMT",
                     &when))
                expires = timegm(&when);
        EXPECT_NEAR(static_cast<double>(expires - time(nullptr)), 7776000.0, 120.0) << set;
        EXPECT_EQ(field(get("/app/secure/page", cookie(id)).body, "user"), "ann");
}

TEST_P(Login, SavedSessionKeepsItsLoginOverARestart) {
        home.configure("maxActiveSessions=\"100\" saveSessions=\"true\"");
        home.security(constraint("/app/secure/*", "admin") + formLogin());
        std::string id;
        {
                START_SERVER(server, home, GetParam());
                id = get("/app/secure/page").header("Set-Cookie").substr(11, 32);
                ASSERT_EQ(
                    post("/app/v_security_check", "v_username=ann&v_password=secret", cookie(id))
                        .status,
                    302);
                ASSERT_EQ(field(get("/app/secure/page", cookie(id)).body, "user"), "ann");
        }
        START_SERVER(server, home, GetParam());
        Reply r = get("/app/secure/page", cookie(id));
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(field(r.body, "user"), "ann") << "the user comes back from the Realm";
        EXPECT_EQ(field(r.body, "type"), "FORM");
        EXPECT_EQ(field(r.body, "session"), id);
}

TEST_P(Login, LoginWithoutRoleOrMethodIsForbidden) {
        home.security(constraint("/app/secure/*", "admin"));
        START_SERVER(server, home, GetParam());
        Reply r = get("/app/secure/page", basic("ann:secret"));
        EXPECT_EQ(r.status, 403) << "a role is asked for but no login is configured";
        EXPECT_TRUE(has(r.body, kForbidden)) << r.body;
}

INSTANTIATE_TEST_SUITE_P(Server, Login, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                                 return info.param ? "InProcess" : "Launcher";
                         });

// Many clients of one logged-in session at once, on threads of this process: afterwards
// the user has exactly the session's reference and the asking request's, and a stop frees
// everything (the leak checker sees to that).
TEST(LoginRace, ConcurrentRequestsOfOneUserKeepItsCountExact) {
        SecureHome home;
        home.security(constraint("/app/secure/*", "admin") + basicLogin());
        START_SERVER(server, home, true);
        Reply r = roundTrip(home.port, request("/app/secure/page", basic("ann:secret")));
        std::string id = field(r.body, "session");
        ASSERT_EQ(id.size(), 32u) << r.body;
        constexpr int kClients = 8, kRequests = 200;
        std::vector<std::thread> clients;
        std::atomic<int> answered{0};
        for (int c = 0; c < kClients; c++)
                clients.emplace_back([&] {
                        std::string ask = "GET /app/secure/page HTTP/1.1\r\nHost: localhost\r\n" +
                                          cookie(id) + "\r\n";
                        // A kept-alive connection serves a limited number of requests.
                        for (int i = 0; i < kRequests;) {
                                int s = dial(home.port);
                                if (s < 0)
                                        return;
                                for (int n = 0; n < 50 && i < kRequests; n++, i++) {
                                        if (send(s, ask.data(), ask.size(), MSG_NOSIGNAL) < 0)
                                                break;
                                        if (field(parse(readResponse(s)).body, "user") == "ann")
                                                answered++;
                                }
                                close(s);
                        }
                });
        for (std::thread& t : clients)
                t.join();
        EXPECT_EQ(answered.load(), kClients * kRequests);
        r = roundTrip(home.port, request("/app/secure/page", cookie(id)));
        EXPECT_EQ(field(r.body, "refs"), "2");
}
