#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <vesk/Context.h>
#include <vesk/HttpSession.h>
#include <vesk/Realm.h>
#include <vesk/SessionManager.h>

#include "support/Database.hpp"
#include "support/Support.hpp"
#include "support/TempDir.hpp"

namespace {

// A context's manager; the sessions it hands out are released as a request's end would.
struct Manager {
        Context_T context = Context_new();
        SessionManager_T M;
        explicit Manager(int max = 4096) {
                Context_setContextPath(context, "/app");
                Context_activateSessionManager(context);
                M = Context_getSessionManager(context);
                SessionManager_setMaxActiveSessions(M, max);
                SessionManager_start(M);
        }
        ~Manager() {
                SessionManager_stop(M);
                Context_free(&context);
        }
        // A new session that no request holds any longer.
        HttpSession_T idle() {
                HttpSession_T S = SessionManager_createSession(M);
                if (S)
                        HttpSession_decrement(S);
                return S;
        }
        // Whether id still finds a session; the reference taken is given back.
        bool finds(const std::string& id) {
                HttpSession_T S = SessionManager_findSession(M, id.c_str());
                if (S)
                        HttpSession_decrement(S);
                return S != nullptr;
        }
};

}  // namespace

TEST(SessionManager, CreatedSessionsCarryTheManagersSettingsAndAReference) {
        Manager m;
        SessionManager_setMaxInactiveInterval(m.M, 60);
        SessionManager_saveSessions(m.M, 1);
        HttpSession_T S = SessionManager_createSession(m.M);
        ASSERT_NE(S, nullptr);
        EXPECT_EQ(HttpSession_refcount(S), 1);
        EXPECT_EQ(HttpSession_getMaxInactiveInterval(S), 60);
        EXPECT_TRUE(HttpSession_isPersistent(S));
        EXPECT_EQ(SessionManager_findSession(m.M, HttpSession_getId(S)), S);
        EXPECT_EQ(HttpSession_refcount(S), 2);
        HttpSession_decrement(S);
        HttpSession_decrement(S);
        EXPECT_EQ(SessionManager_findSession(m.M, nullptr), nullptr);
        EXPECT_EQ(SessionManager_findSession(m.M, "NOSUCHID"), nullptr);
        EXPECT_EQ(assertion([&] { SessionManager_setMaxInactiveInterval(m.M, 0); }), "interval>0");
}

TEST(SessionManager, TheLimitAdmitsOneMoreAndRefusesUntilASessionDies) {
        Manager m(1);
        HttpSession_T first = m.idle();
        HttpSession_T second = m.idle();
        ASSERT_NE(first, nullptr);
        ASSERT_NE(second, nullptr) << "the limit test is 'above', so a second one fits";
        EXPECT_EQ(SessionManager_createSession(m.M), nullptr);
        EXPECT_EQ(SessionManager_createSession(m.M), nullptr);
        HttpSession_invalidate(first);
        HttpSession_T third = m.idle();
        ASSERT_NE(third, nullptr) << "the dead session makes room";
        EXPECT_EQ(SessionManager_createSession(m.M), nullptr);
}

TEST(SessionManager, AHeldDeadSessionIsFoundAndFreedWithItsLastRequest) {
        Manager m;
        HttpSession_T S = SessionManager_createSession(m.M);
        std::string id = HttpSession_getId(S);
        HttpSession_invalidate(S);
        // A running request still holds it: it is found, and the caller tests validity.
        HttpSession_T again = SessionManager_findSession(m.M, id.c_str());
        EXPECT_EQ(again, S);
        HttpSession_decrement(again);
        EXPECT_TRUE(m.finds(id)) << "one request still holds it";
        HttpSession_decrement(S);
        EXPECT_FALSE(m.finds(id)) << "freed with its last reference";
}

TEST(SessionManager, NeverUsedSessionsAreRecycledOldestFirst) {
        Manager m;
        std::vector<HttpSession_T> sessions;
        for (int i = 0; i < 1001; i++)
                sessions.push_back(m.idle());
        HttpSession_T used = sessions[0];
        HttpSession_access(used);
        HttpSession_T held = SessionManager_findSession(m.M, HttpSession_getId(sessions[1]));
        std::string oldest = HttpSession_getId(sessions[2]);

        // The list holds 1001 > 1000: the next creation reuses the first never-used, idle one.
        HttpSession_T reused = m.idle();
        EXPECT_EQ(reused, sessions[2]);
        EXPECT_NE(HttpSession_getId(reused), oldest);
        EXPECT_FALSE(m.finds(oldest));
        EXPECT_TRUE(m.finds(HttpSession_getId(used))) << "used sessions stay in the table";
        EXPECT_TRUE(m.finds(HttpSession_getId(held)));
        HttpSession_decrement(held);
}

TEST(SessionManager, OnlyUsedValidSessionsCountAsActive) {
        Manager m;
        HttpSession_T fresh = m.idle();
        HttpSession_T used = m.idle();
        HttpSession_T dead = m.idle();
        HttpSession_access(used);
        HttpSession_access(dead);
        HttpSession_invalidate(dead);
        EXPECT_TRUE(HttpSession_isNew(fresh));
        EXPECT_EQ(SessionManager_getActiveSessions(m.M), 1);
        EXPECT_EQ(Context_getActiveSessions(m.context), 1);
}

/* ------------------------------------------------------- Saved across a restart */

namespace {

// A manager of /app whose sessions are saved in an SQLite database that a test fills.
struct Saving {
        TempDir dir;
        testdb::Database db{dir / "sessions.db"};
        Context_T context = Context_new();
        SessionManager_T M;
        explicit Saving(bool save = true) {
                ConnectionPool_T pool = ConnectionPool_new(db.url().c_str());
                Realm_setDatabase(Realm_getInstance(), pool);
                Context_setContextPath(context, "/app");
                Context_activateSessionManager(context);
                M = Context_getSessionManager(context);
                SessionManager_saveSessions(M, save);
        }
        ~Saving() {
                Context_free(&context);
                Realm_free();
        }
        // A row of context for id, last used `age` seconds ago, with that interval.
        void row(const std::string& id, const std::string& context, long age, int interval) {
                long now = static_cast<long>(time(nullptr));
                db.execute("INSERT INTO session VALUES('" + id + "', '" + context + "', " +
                           std::to_string(now - age) + ", " + std::to_string(now - age) + ", " +
                           std::to_string(interval) + ", NULL, NULL, CAST('1:k;1:v;' AS BLOB));");
        }
        bool finds(const char* id) {
                HttpSession_T S = SessionManager_findSession(M, id);
                if (S)
                        HttpSession_decrement(S);
                return S != nullptr;
        }
};

}  // namespace

TEST(SessionManagerStore, StartLearnsLiveStoredIdsAndReadsEachOnFirstUse) {
        Saving s;
        s.row("LIVE", "/app", 10, 900);
        s.row("OLD", "/app", 5000, 900);
        s.row("FOREVER", "/app", 5000, -1);
        s.row("OTHER", "/other", 10, 900);
        SessionManager_start(s.M);
        HttpSession_T live = SessionManager_findSession(s.M, "LIVE");
        ASSERT_NE(live, nullptr);
        EXPECT_TRUE(HttpSession_isPersistent(live));
        EXPECT_EQ(SessionManager_findSession(s.M, "LIVE"), live) << "read once, then kept";
        HttpSession_decrement(live);
        HttpSession_decrement(live);
        EXPECT_TRUE(s.finds("FOREVER"));
        EXPECT_FALSE(s.finds("OLD"));
        EXPECT_FALSE(s.finds("OTHER"));
        // A stored row that vanished before its first request finds nothing.
        s.row("GONE", "/app", 10, 900);
        SessionManager_start(s.M);
        s.db.execute("DELETE FROM session WHERE id='GONE'");
        EXPECT_FALSE(s.finds("GONE"));
        SessionManager_stop(s.M);
}

TEST(SessionManagerStore, StopSavesUsedSessionsAndDeletesExpiredRows) {
        Saving s;
        s.row("OLD", "/other", 5000, 900);
        s.row("FOREVER", "/app", 5000, -1);
        SessionManager_start(s.M);
        HttpSession_T used = SessionManager_createSession(s.M);
        HttpSession_setAttribute(used, "color", "red");
        HttpSession_access(used);
        std::string id = HttpSession_getId(used);
        HttpSession_decrement(used);
        HttpSession_T fresh = SessionManager_createSession(s.M);
        std::string freshId = HttpSession_getId(fresh);
        HttpSession_decrement(fresh);
        SessionManager_stop(s.M);
        EXPECT_EQ(s.db.scalar("SELECT count(*) FROM session WHERE id='" + id + "'"), "1");
        EXPECT_EQ(s.db.scalar("SELECT count(*) FROM session WHERE id='" + freshId + "'"), "0")
            << "a session never used is not kept";
        EXPECT_EQ(s.db.scalar("SELECT count(*) FROM session WHERE id='OLD'"), "0")
            << "expired rows of every context go";
        EXPECT_EQ(s.db.scalar("SELECT count(*) FROM session WHERE id='FOREVER'"), "1");

        // Started again, the same id finds the same attributes.
        SessionManager_start(s.M);
        HttpSession_T back = SessionManager_findSession(s.M, id.c_str());
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(HttpSession_hasAttribute(back, "color"), 1);
        HttpSession_decrement(back);
        SessionManager_stop(s.M);
}

TEST(SessionManagerStore, WithoutSavingAStopWritesAndDeletesNothing) {
        Saving s(false);
        s.row("OLD", "/app", 5000, 900);
        SessionManager_start(s.M);
        EXPECT_FALSE(s.finds("OLD"));
        HttpSession_T used = SessionManager_createSession(s.M);
        HttpSession_access(used);
        HttpSession_decrement(used);
        SessionManager_stop(s.M);
        EXPECT_EQ(s.db.scalar("SELECT count(*) FROM session"), "1");
}
