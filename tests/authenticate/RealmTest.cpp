#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <vdb/vdb.h>

#include <vesk/Arena.h>
#include <vesk/HttpConnector.h>
#include <vesk/HttpRequest.h>
#include <vesk/List.h>
#include <vesk/Principal.h>
#include <vesk/Realm.h>
#include <vesk/SecurityConstraint.h>

#include "support/Database.hpp"
#include "support/HttpSupport.hpp"
#include "support/Support.hpp"
#include "support/TempDir.hpp"

namespace {

struct RealmTest : ::testing::Test {
        TempDir dir;
        testdb::Database db{dir / "users.db"};
        Realm_T realm = Realm_getInstance();

        void SetUp() override {
                ConnectionPool_T pool = ConnectionPool_new(db.url().c_str());
                ConnectionPool_setInitialConnections(pool, 1);
                ConnectionPool_setMaxConnections(pool, 4);
                Realm_setDatabase(realm, pool);
        }
        void TearDown() override { Realm_free(); }

        // Whether the Realm still finds name, giving the reference back at once.
        bool knows(const char* name) {
                Principal_T P = Realm_getPrincipal(realm, name);
                if (P)
                        Principal_decrement(P);
                return P != nullptr;
        }
        // Adds users u0 .. u(n-1), each with the password "pw", in one transaction.
        void addUsers(int n) {
                std::string sql = "BEGIN;";
                for (int i = 0; i < n; i++)
                        sql += "INSERT INTO users VALUES('u" + std::to_string(i) + "', '" +
                               testdb::digest("pw") + "');";
                db.execute(sql + "COMMIT;");
        }
};

}  // namespace

TEST(Principal, DigestIsUppercaseMd5ComparedExactly) {
        Principal_T P = Principal_new("ann", "5EBE2294ECD0E0F08EAB7690D2A6EE69");
        EXPECT_TRUE(Principal_authenticate(P, "secret"));
        EXPECT_FALSE(Principal_authenticate(P, "Secret"));
        EXPECT_FALSE(Principal_authenticate(P, ""));
        EXPECT_FALSE(Principal_authenticate(P, nullptr));
        Principal_free(&P);
        EXPECT_EQ(P, nullptr);
        P = Principal_new("ann", "5ebe2294ecd0e0f08eab7690d2a6ee69");
        EXPECT_FALSE(Principal_authenticate(P, "secret")) << "a lowercase digest never matches";
        Principal_free(&P);
        EXPECT_EQ(assertion([] { Principal_new(nullptr, "x"); }), "name");
        EXPECT_EQ(assertion([] { Principal_new("x", nullptr); }), "credentials");
}

TEST(Principal, RolesAreCaseSensitiveAndPurgedRecordGoesWithLastReference) {
        Principal_T P = Principal_new("ann", "x");
        Principal_addRole(P, "admin");
        Principal_addRole(P, "admin");
        EXPECT_TRUE(Principal_hasRole(P, "admin"));
        EXPECT_FALSE(Principal_hasRole(P, "Admin"));
        EXPECT_FALSE(Principal_hasRole(P, nullptr));
        Principal_increment(P);
        Principal_increment(P);
        EXPECT_EQ(Principal_refcount(P), 2);
        Principal_decrement(P);
        Principal_decrement(P);
        EXPECT_EQ(Principal_refcount(P), 0) << "an unpurged record outlives its references";
        Principal_increment(P);
        Principal_purge(P);
        Principal_decrement(P);  // frees it: the leak checker sees that it went
}

TEST_F(RealmTest, AuthenticatesByPasswordAndLoadsRoles) {
        db.addUser("ann", "secret", {"admin", "user"});
        db.addUser("bob", "a+b c");
        EXPECT_EQ(Realm_getDatabase(realm) != nullptr, true);
        Principal_T P = Realm_authenticate(realm, "ann", "secret");
        ASSERT_NE(P, nullptr);
        EXPECT_STREQ(Principal_getName(P), "ann");
        EXPECT_TRUE(Principal_hasRole(P, "admin"));
        EXPECT_TRUE(Principal_hasRole(P, "user"));
        EXPECT_FALSE(Principal_hasRole(P, "guest"));
        EXPECT_EQ(Principal_refcount(P), 1);
        Principal_T again = Realm_authenticate(realm, "ann", "secret");
        EXPECT_EQ(again, P) << "the cached record is shared";
        EXPECT_EQ(Principal_refcount(P), 2);
        Principal_decrement(again);
        Principal_decrement(P);

        EXPECT_EQ(Realm_authenticate(realm, "ann", "wrong"), nullptr);
        EXPECT_EQ(Principal_refcount(P), 0) << "a failed check keeps no reference";
        EXPECT_EQ(Realm_authenticate(realm, "nobody", "secret"), nullptr);
        EXPECT_EQ(Realm_authenticate(realm, nullptr, "secret"), nullptr);
        EXPECT_EQ(Realm_authenticate(realm, "ann", nullptr), nullptr);
        Principal_T bob = Realm_authenticate(realm, "bob", "a+b c");
        ASSERT_NE(bob, nullptr);
        EXPECT_EQ(Principal_refcount(bob), 1);
        Principal_decrement(bob);
        EXPECT_EQ(Realm_authenticateX509(realm), nullptr);
}

TEST_F(RealmTest, CachedUserOutlivesDatabaseRowUntilInvalidated) {
        db.addUser("ann", "secret", {"admin"});
        db.addUser("o'neil", "pw", {"staff"});
        Principal_T P = Realm_getPrincipal(realm, "ann");
        ASSERT_NE(P, nullptr);
        db.execute("UPDATE users SET password='" + testdb::digest("changed") + "';");
        db.execute("DELETE FROM users WHERE uname='ann';");
        Principal_T cached = Realm_authenticate(realm, "ann", "secret");
        EXPECT_EQ(cached, P) << "a password change counts only after the entry leaves";
        Principal_decrement(cached);

        // Held while dropped: the record lives on for its holder, and goes with it.
        Realm_invalidate(realm, "ann");
        EXPECT_STREQ(Principal_getName(P), "ann");
        EXPECT_TRUE(Principal_hasRole(P, "admin"));
        Principal_decrement(P);
        EXPECT_FALSE(knows("ann")) << "a deleted user is gone once dropped";
        Realm_invalidate(realm, "ann");
        Realm_invalidate(realm, nullptr);

        Principal_T quoted = Realm_getPrincipal(realm, "o'neil");
        ASSERT_NE(quoted, nullptr);
        EXPECT_TRUE(Principal_hasRole(quoted, "staff"));
        Principal_decrement(quoted);
        Realm_invalidate(realm, "o'neil");
        Principal_T fresh = Realm_authenticate(realm, "o'neil", "changed");
        ASSERT_NE(fresh, nullptr) << "dropping an idle user reads the new password";
        Principal_decrement(fresh);
}

TEST_F(RealmTest, FullCacheDropsEldestIdleUserAndGrowsWhenAllAreHeld) {
        addUsers(1002);
        std::vector<Principal_T> held;
        for (int i = 0; i < 1000; i++) {
                Principal_T P = Realm_getPrincipal(realm, ("u" + std::to_string(i)).c_str());
                ASSERT_NE(P, nullptr);
                held.push_back(P);
        }
        // All 1000 held: the next one is cached beside them.
        Principal_T extra = Realm_getPrincipal(realm, "u1000");
        ASSERT_NE(extra, nullptr);
        held.push_back(extra);
        // u0 stays held; u1 and u2 go idle; the next load drops u1, the eldest idle one.
        for (size_t i = 1; i < held.size(); i++)
                Principal_decrement(held[i]);
        ASSERT_TRUE(knows("u2"));  // a use: u2 is now the most recent
        ASSERT_TRUE(knows("u1001"));
        db.execute("DELETE FROM users;");
        EXPECT_TRUE(knows("u0")) << "held entries are never dropped";
        EXPECT_FALSE(knows("u1")) << "the eldest idle entry was dropped";
        EXPECT_TRUE(knows("u2"));
        EXPECT_TRUE(knows("u3"));
        EXPECT_TRUE(knows("u1000"));
        EXPECT_TRUE(knows("u1001"));
        Principal_decrement(held[0]);
}

TEST_F(RealmTest, DatabaseFailureLooksLikeAnUnknownUser) {
        db.addUser("ann", "secret", {"admin"});
        db.execute("DROP TABLE userroles;");
        EXPECT_EQ(raised([&] { EXPECT_EQ(Realm_authenticate(realm, "ann", "secret"), nullptr); }),
                  "");
        EXPECT_EQ(ConnectionPool_active(Realm_getDatabase(realm)), 0) << "the connection went back";
        Realm_free();
        realm = Realm_getInstance();
        EXPECT_EQ(Realm_getDatabase(realm), nullptr);
        EXPECT_EQ(Realm_getPrincipal(realm, "ann"), nullptr);
}

TEST_F(RealmTest, DatabaseErrorsRaiseSqlException) {
        Connection_T c = ConnectionPool_getConnection(Realm_getDatabase(realm));
        ASSERT_NE(c, nullptr);
        std::string what = raised([&] { Connection_execute(c, "SELECT * FROM missing;"); });
        Connection_close(c);
        EXPECT_EQ(what.rfind("SQLException: ", 0), 0u) << what;
}

/* ------------------------------------------------------- The permission checks */

namespace {

struct Checks : Connection {
        Arena_T arena = Arena_new();
        HttpConnector_T connector = HttpConnector_new();
        List_T constraints = List_alloc(arena);
        Realm_T realm = Realm_getInstance();

        explicit Checks(const char* head) {
                EXPECT_EQ(parse(head), 200);
                HttpRequest_setConnector(request, connector);
        }
        ~Checks() {
                HttpConnector_free(&connector);
                Arena_dispose(&arena);
                Realm_free();
        }
        SecurityConstraint_T add(const char* guarantee) {
                SecurityConstraint_T c = SecurityConstraint_new(arena);
                if (guarantee)
                        SecurityConstraint_setUserConstraint(c, guarantee);
                List_push(constraints, c);
                return c;
        }
        std::string answer() {
                HttpResponse_finalize(response());
                OutputStream_flush(HttpResponse_getOutputStream(response()));
                return received();
        }
};

bool has(const std::string& s, const std::string& part) {
        return s.find(part) != std::string::npos;
}

constexpr char kGet[] = "GET /app/page?x=1 HTTP/1.1\r\nHost: h.org\r\n\r\n";

}  // namespace

TEST(RealmChecks, PlainRequestToConfidentialIsRedirectedToHttpsPort) {
        Checks x(kGet);
        x.add("CONFIDENTIAL");
        HttpConnector_setRedirectPort(x.connector, 8443);
        EXPECT_FALSE(Realm_hasUserDataPermission(x.realm, x.request, x.response(), x.constraints));
        std::string got = x.answer();
        EXPECT_TRUE(has(got, "Location: https://h.org:8443/app/page?x=1\r\n")) << got;
}

TEST(RealmChecks, ConfidentialWithoutRedirectPortIsForbiddenWithTheUri) {
        Checks x(kGet);
        x.add("INTEGRAL");
        EXPECT_FALSE(Realm_hasUserDataPermission(x.realm, x.request, x.response(), x.constraints));
        std::string got = x.answer();
        EXPECT_EQ(got.rfind("HTTP/1.1 403 ", 0), 0u) << got;
        EXPECT_TRUE(has(got, "/app/page")) << got;
}

TEST(RealmChecks, OneConstraintWithoutGuaranteeOrOverTlsPasses) {
        {
                Checks x(kGet);
                x.add("CONFIDENTIAL");
                x.add("none");
                EXPECT_TRUE(
                    Realm_hasUserDataPermission(x.realm, x.request, x.response(), x.constraints));
        }
        {
                Checks x(kGet);
                x.add("CONFIDENTIAL");
                HttpRequest_setSecure(x.request, 1);
                EXPECT_TRUE(
                    Realm_hasUserDataPermission(x.realm, x.request, x.response(), x.constraints));
        }
}

TEST(RealmChecks, AddressMustMatchOneConstraint) {
        {
                Checks x(kGet);
                SecurityConstraint_addIpAddress(x.add(nullptr), "10.*");
                EXPECT_FALSE(
                    Realm_hasIpAddressPermission(x.realm, x.request, x.response(), x.constraints));
                std::string got = x.answer();
                EXPECT_EQ(got.rfind("HTTP/1.1 403 ", 0), 0u) << got;
                EXPECT_TRUE(
                    has(got, "You do not have permission to access the requested resource."));
        }
        {
                Checks x(kGet);
                SecurityConstraint_addIpAddress(x.add(nullptr), "10.*");
                SecurityConstraint_addIpAddress(x.add(nullptr), "127.0.*");
                EXPECT_TRUE(
                    Realm_hasIpAddressPermission(x.realm, x.request, x.response(), x.constraints));
        }
        {
                Checks x(kGet);
                EXPECT_FALSE(
                    Realm_hasIpAddressPermission(x.realm, x.request, x.response(), x.constraints))
                    << "no constraint at all admits nobody";
        }
}

TEST(RealmChecks, RoleCheckNeedsAUserWithAnAllowedRole) {
        Principal_T P = Principal_new("ann", "x");
        Principal_addRole(P, "staff");
        {
                Checks x(kGet);
                SecurityConstraint_addAuthRole(x.add(nullptr), "staff");
                EXPECT_FALSE(
                    Realm_hasResourcePermission(x.realm, x.request, x.response(), x.constraints));
                EXPECT_EQ(x.answer().rfind("HTTP/1.1 403 ", 0), 0u);
        }
        {
                Checks x(kGet);
                SecurityConstraint_addAuthRole(x.add(nullptr), "admin");
                SecurityConstraint_addAuthRole(x.add(nullptr), "staff");
                HttpRequest_setUserPrincipal(x.request, P);
                EXPECT_TRUE(
                    Realm_hasResourcePermission(x.realm, x.request, x.response(), x.constraints));
                HttpRequest_setUserPrincipal(x.request, nullptr);
        }
        {
                Checks x(kGet);
                SecurityConstraint_addAuthRole(x.add(nullptr), "admin");
                HttpRequest_setUserPrincipal(x.request, P);
                EXPECT_FALSE(
                    Realm_hasResourcePermission(x.realm, x.request, x.response(), x.constraints));
                HttpRequest_setUserPrincipal(x.request, nullptr);
        }
        Principal_free(&P);
}
