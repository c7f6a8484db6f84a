#include "support/Database.hpp"

using testing::HasSubstr;

class ResultSetTest : public DatabaseTest {};
VDB_ON_EVERY_BACKEND(ResultSetTest);

namespace {

// The message of the error that call sends to the handler.
template <typename Call>
std::string errorOf(Call&& call) {
        try {
                call();
        } catch (const DatabaseError& e) {
                return e.what();
        }
        return "no error";
}

}  // namespace

TEST_P(ResultSetTest, NumbersAreReadFromEveryKindOfColumn) {
        Connection_T c = connect();
        ResultSet_T r = Connection_executeQuery(
            c, "SELECT 42, ' -7 ', 3.75, '1e3', 'abc', 1099511627776, '', NULL");
        ASSERT_EQ(ResultSet_next(r), 1);
        EXPECT_EQ(ResultSet_getInt(r, 1), 42);
        EXPECT_EQ(ResultSet_getInt(r, 2), -7);
        EXPECT_EQ(ResultSet_getInt(r, 3), 3);
        EXPECT_EQ(ResultSet_getInt(r, 4), 1000);
        EXPECT_THAT(errorOf([&] { ResultSet_getInt(r, 5); }),
                    HasSubstr("holds no number: \"abc\""));
        // 2^40 is a long long but no int.
        EXPECT_EQ(ResultSet_getLLong(r, 6), 1099511627776LL);
        EXPECT_THAT(errorOf([&] { ResultSet_getInt(r, 6); }), HasSubstr("out of the range of int"));
        EXPECT_THAT(errorOf([&] { ResultSet_getInt(r, 7); }), HasSubstr("holds no number"));
        EXPECT_EQ(ResultSet_getInt(r, 8), 0);
        EXPECT_STREQ(ResultSet_getString(r, 1), "42");
        Connection_close(c);
}

TEST_P(ResultSetTest, ColumnsOutOfRangeAndReadsWithoutARowAreReported) {
        Connection_T c = connect();
        Connection_execute(c, "CREATE TABLE t (id INTEGER, name TEXT)");
        Connection_execute(c, "INSERT INTO t VALUES (1, 'one')");
        ResultSet_T r = Connection_executeQuery(c, "SELECT id, name FROM t");
        // Names are there before the first row.
        EXPECT_STREQ(ResultSet_getColumnName(r, 1), "id");
        EXPECT_THAT(errorOf([&] { ResultSet_getString(r, 1); }), HasSubstr("no current row"));
        ASSERT_EQ(ResultSet_next(r), 1);
        const char* backend = sqlite() ? "SQLite: " : "PostgreSQL: ";
        for (int column : {0, 3, -1}) {
                std::string e = errorOf([&] { ResultSet_getString(r, column); });
                EXPECT_THAT(e, HasSubstr(backend));
                EXPECT_THAT(e, HasSubstr("column " + std::to_string(column) + " is out of range"));
        }
        EXPECT_THROW(ResultSet_getColumnName(r, 3), DatabaseError);
        EXPECT_THROW(ResultSet_isnull(r, 3), DatabaseError);
        int size = -1;
        EXPECT_THROW(ResultSet_getBlob(r, 3, &size), DatabaseError);
        EXPECT_EQ(size, 0);
        EXPECT_STREQ(ResultSet_getString(r, 2), "one");
        EXPECT_EQ(ResultSet_next(r), 0);
        EXPECT_THAT(errorOf([&] { ResultSet_getInt(r, 1); }), HasSubstr("no current row"));

        // With a handler that returns, each getter gives its failure value.
        ConnectionPool_setAbortHandler(pool_, recordError);
        r = Connection_executeQuery(c, "SELECT id, name FROM t");
        ASSERT_EQ(ResultSet_next(r), 1);
        EXPECT_EQ(ResultSet_getString(r, 9), nullptr);
        EXPECT_EQ(ResultSet_getInt(r, 9), 0);
        EXPECT_EQ(ResultSet_getLLong(r, 9), 0);
        EXPECT_EQ(ResultSet_isnull(r, 9), 1);
        EXPECT_EQ(ResultSet_getColumnName(r, 9), nullptr);
        EXPECT_EQ(ResultSet_getBlob(r, 9, &size), nullptr);
        EXPECT_EQ(takeErrors().size(), 6u);
        Connection_close(c);
}

TEST_P(ResultSetTest, AStatementsRowsOutliveOtherStatements) {
        Connection_T c = connect();
        Connection_execute(c, "CREATE TABLE t (id INTEGER)");
        Connection_execute(c, "INSERT INTO t VALUES (1); INSERT INTO t VALUES (2)");
        PreparedStatement_T p = Connection_prepareStatement(c, "SELECT id FROM t ORDER BY id");
        ResultSet_T r = PreparedStatement_executeQuery(p);
        ASSERT_EQ(ResultSet_next(r), 1);
        ResultSet_T other = Connection_executeQuery(c, "SELECT COUNT(*) FROM t");
        ASSERT_EQ(ResultSet_next(other), 1);
        EXPECT_EQ(ResultSet_getInt(other, 1), 2);
        ASSERT_EQ(ResultSet_next(r), 1);
        EXPECT_EQ(ResultSet_getInt(r, 1), 2);
        // Run again, the statement starts its rows from the beginning.
        r = PreparedStatement_executeQuery(p);
        ASSERT_EQ(ResultSet_next(r), 1);
        EXPECT_EQ(ResultSet_getInt(r, 1), 1);
        Connection_close(c);
}
