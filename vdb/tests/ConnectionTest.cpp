#include <string.h>

#include "support/Database.hpp"

using testing::HasSubstr;

class ConnectionTest : public DatabaseTest {};
VDB_ON_EVERY_BACKEND(ConnectionTest);

namespace {

// The ids in table t, in order, as "1,2,3".
std::string ids(Connection_T c) {
        std::string s;
        ResultSet_T r = Connection_executeQuery(c, "SELECT id FROM t ORDER BY id");
        while (ResultSet_next(r))
                s += (s.empty() ? "" : ",") + std::to_string(ResultSet_getInt(r, 1));
        return s;
}

}  // namespace

TEST_P(ConnectionTest, FormattedStatementsRunAndCountTheirRows) {
        Connection_T c = connect();
        // Several statements in one text.
        EXPECT_EQ(Connection_execute(c,
                                     "CREATE TABLE t (id INTEGER, name TEXT); "
                                     "INSERT INTO t VALUES (%d, '%s'); "
                                     "INSERT INTO t VALUES (%d, '%s');",
                                     1, "one", 2, "two"),
                  1);
        EXPECT_EQ(Connection_rowsChanged(c), 1);
        EXPECT_EQ(Connection_execute(c, "UPDATE t SET name = '%s' WHERE id > %d", "many", 0), 1);
        EXPECT_EQ(Connection_rowsChanged(c), 2);
        // A statement that changes nothing does not repeat the count of the one before.
        Connection_execute(c, "CREATE TABLE u (x INTEGER)");
        EXPECT_EQ(Connection_rowsChanged(c), 0);

        ResultSet_T r = Connection_executeQuery(c,
                                                "SELECT id, name FROM t WHERE name = '%s' "
                                                "ORDER BY id",
                                                "many");
        ASSERT_NE(r, nullptr);
        ASSERT_EQ(ResultSet_getColumnCount(r), 2);
        EXPECT_STREQ(ResultSet_getColumnName(r, 2), "name");
        ASSERT_EQ(ResultSet_next(r), 1);
        EXPECT_EQ(ResultSet_getInt(r, 1), 1);
        ASSERT_EQ(ResultSet_next(r), 1);
        EXPECT_STREQ(ResultSet_getString(r, 2), "many");
        EXPECT_EQ(ResultSet_next(r), 0);
        // The end stays the end: SQLite would run a finished statement again if stepped.
        EXPECT_EQ(ResultSet_next(r), 0);
        Connection_close(c);
}

TEST_P(ConnectionTest, TransactionsCommitRollBackAndEndAtClose) {
        startPool(1, 1);
        Connection_T c = connect();
        Connection_execute(c, "CREATE TABLE t (id INTEGER)");
        EXPECT_EQ(Connection_beginTransaction(c), 1);
        Connection_execute(c, "INSERT INTO t VALUES (1)");
        EXPECT_EQ(Connection_rollback(c), 1);
        EXPECT_EQ(ids(c), "");
        Connection_beginTransaction(c);
        Connection_execute(c, "INSERT INTO t VALUES (2)");
        EXPECT_EQ(Connection_commit(c), 1);
        EXPECT_EQ(ids(c), "2");

        // Given back in the middle of a transaction: the pool's one connection comes back
        // without it, and can start a new one.
        Connection_beginTransaction(c);
        Connection_execute(c, "INSERT INTO t VALUES (3)");
        Connection_close(c);
        Connection_T again = connect();
        ASSERT_EQ(again, c);
        EXPECT_EQ(ids(again), "2");
        EXPECT_EQ(Connection_beginTransaction(again), 1);
        Connection_commit(again);
        Connection_close(again);
}

TEST_P(ConnectionTest, ErrorsReachTheHandlerAndLeaveTheConnectionUsable) {
        Connection_T c = connect();
        Connection_execute(c, "CREATE TABLE t (id INTEGER PRIMARY KEY)");
        Connection_execute(c, "INSERT INTO t VALUES (1)");
        const char* backend = sqlite() ? "SQLite: " : "PostgreSQL: ";
        auto message = [](auto&& call) {
                try {
                        call();
                } catch (const DatabaseError& e) {
                        return std::string(e.what());
                }
                return std::string("no error");
        };
        std::string e = message([&] { Connection_execute(c, "INSERT INTO t VALUES (1)"); });
        EXPECT_THAT(e, HasSubstr(backend));
        EXPECT_THAT(e, HasSubstr("INSERT INTO t VALUES (1)"));
        EXPECT_THAT(e, testing::AnyOf(HasSubstr("UNIQUE"), HasSubstr("duplicate key")));
        // A query fails when it runs, not when its first row is read.
        e = message([&] { Connection_executeQuery(c, "INSERT INTO t VALUES (1)"); });
        EXPECT_THAT(e, testing::AnyOf(HasSubstr("UNIQUE"), HasSubstr("duplicate key")));
        e = message([&] { Connection_executeQuery(c, "SELECT * FROM missing"); });
        EXPECT_THAT(e, HasSubstr("missing"));
        e = message([&] { Connection_prepareStatement(c, "SELEKT 1"); });
        EXPECT_THAT(e, HasSubstr("syntax error"));
        e = message([&] { Connection_executeQuery(c, "SELECT 1; SELECT 2"); });
        EXPECT_THAT(e, HasSubstr(backend));
        e = message([&] { Connection_execute(c, nullptr); });
        EXPECT_THAT(e, HasSubstr("NULL"));
        EXPECT_EQ(ids(c), "1");

        // A handler that returns gets the same message, and the call its failure value.
        ConnectionPool_setAbortHandler(pool_, recordError);
        EXPECT_EQ(Connection_execute(c, "INSERT INTO t VALUES (1)"), 0);
        EXPECT_EQ(Connection_executeQuery(c, "SELECT * FROM missing"), nullptr);
        EXPECT_EQ(Connection_prepareStatement(c, "SELEKT 1"), nullptr);
        EXPECT_EQ(takeErrors().size(), 3u);
        EXPECT_EQ(ids(c), "1");
        Connection_close(c);
}

TEST_P(ConnectionTest, CommitAfterAFailedStatement) {
        Connection_T c = connect();
        Connection_execute(c, "CREATE TABLE t (id INTEGER PRIMARY KEY)");
        Connection_beginTransaction(c);
        Connection_execute(c, "INSERT INTO t VALUES (1)");
        EXPECT_THROW(Connection_execute(c, "INSERT INTO t VALUES (1)"), DatabaseError);
        if (sqlite()) {
                // SQLite undoes the failed statement only.
                EXPECT_EQ(Connection_commit(c), 1);
                EXPECT_EQ(ids(c), "1");
        } else {
                // PostgreSQL aborts the whole transaction, and its COMMIT only rolls back: that
                // must not pass for a commit.
                try {
                        Connection_commit(c);
                        ADD_FAILURE() << "the commit of an aborted transaction passed";
                } catch (const DatabaseError& e) {
                        EXPECT_THAT(e.what(), HasSubstr("cannot commit"));
                }
                EXPECT_EQ(ids(c), "");
        }
        Connection_close(c);
}

TEST_P(ConnectionTest, VBDEBUGWritesEachStatement) {
        Connection_T c = connect();
        Connection_execute(c, "CREATE TABLE t (id INTEGER)");
        testing::internal::CaptureStderr();
        VBDEBUG = 1;
        Connection_execute(c, "INSERT INTO t VALUES (%d)", 7);
        PreparedStatement_T p = Connection_prepareStatement(c, "SELECT id FROM t WHERE id = ?");
        PreparedStatement_setInt(p, 1, 7);
        ResultSet_T r = PreparedStatement_executeQuery(p);
        VBDEBUG = 0;
        EXPECT_EQ(ResultSet_next(r), 1);
        Connection_execute(c, "DELETE FROM t");
        std::string out = testing::internal::GetCapturedStderr();
        EXPECT_THAT(out, HasSubstr("INSERT INTO t VALUES (7)\n"));
        EXPECT_THAT(out, HasSubstr("SELECT id FROM t WHERE id = "));
        EXPECT_THAT(out, testing::Not(HasSubstr("DELETE")));
        Connection_close(c);
}

TEST(ConnectionSupport, ProtocolsAndURLs) {
        EXPECT_TRUE(Connection_isSupported("sqlite"));
        EXPECT_TRUE(Connection_isSupported("PostgreSQL"));
        EXPECT_TRUE(Connection_isSupported("sqlite:///var/lib/db.sqlite"));
        EXPECT_TRUE(Connection_isSupported("postgresql://u:p@localhost/db"));
        EXPECT_FALSE(Connection_isSupported("mysql"));
        EXPECT_FALSE(Connection_isSupported("sqlite3"));
        EXPECT_FALSE(Connection_isSupported("postgres://localhost/db"));
        EXPECT_FALSE(Connection_isSupported(""));
        EXPECT_FALSE(Connection_isSupported(nullptr));
}

TEST(ConnectionDeathTest, NullHandleIsAProgrammingError) {
        EXPECT_DEATH(Connection_close(nullptr), "Connection_close: check failed: C");
        EXPECT_DEATH(ResultSet_next(nullptr), "check failed: R");
}
