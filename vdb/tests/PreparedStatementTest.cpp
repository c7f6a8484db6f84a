#include <limits.h>
#include <string.h>

#include <random>

#include "support/Database.hpp"

using testing::HasSubstr;

class PreparedStatementTest : public DatabaseTest {
protected:
        // Table t: one column of each kind.
        Connection_T withTable() {
                Connection_T c = connect();
                Connection_execute(c, "CREATE TABLE t (id INTEGER, s TEXT, i INTEGER, l %s, b %s)",
                                   bigintType(), blobType());
                return c;
        }
        // Stores blob in the row with id, reads it back and returns it as written.
        std::string roundTrip(Connection_T c, int id, const std::string& blob) {
                PreparedStatement_T insert =
                    Connection_prepareStatement(c, "INSERT INTO t (id, b) VALUES (?, ?)");
                PreparedStatement_setInt(insert, 1, id);
                PreparedStatement_setBlob(insert, 2, blob.data(), static_cast<int>(blob.size()));
                PreparedStatement_execute(insert);
                PreparedStatement_T select =
                    Connection_prepareStatement(c, "SELECT b FROM t WHERE id = ?");
                PreparedStatement_setInt(select, 1, id);
                ResultSet_T r = PreparedStatement_executeQuery(select);
                EXPECT_EQ(ResultSet_next(r), 1);
                int size = -1;
                char* data = static_cast<char*>(ResultSet_getBlob(r, 1, &size));
                EXPECT_NE(data, nullptr);
                if (!data)
                        return "";
                // Zero-terminated and writable, for a caller that parses it in place.
                EXPECT_EQ(data[size], 0);
                if (size > 0)
                        data[0] = data[0];
                return std::string(data, static_cast<size_t>(size));
        }
};
VDB_ON_EVERY_BACKEND(PreparedStatementTest);

TEST_P(PreparedStatementTest, EveryTypeIsBoundAndReadBack) {
        Connection_T c = withTable();
        PreparedStatement_T insert =
            Connection_prepareStatement(c, "INSERT INTO t (id, s, i, l, b) VALUES (?, ?, ?, ?, ?)");
        ASSERT_EQ(PreparedStatement_getParameterCount(insert), 5);
        const struct {
                const char* s;
                int i;
                long long l;
        } rows[] = {{"plain", 0, 0},
                    {"it's \"quoted\" ; -- not a comment", INT_MIN, LLONG_MIN},
                    {"\xc3\xa9t\xc3\xa9 \xe2\x82\xac", INT_MAX, LLONG_MAX}};
        int id = 0;
        for (const auto& row : rows) {
                PreparedStatement_setInt(insert, 1, ++id);
                PreparedStatement_setString(insert, 2, row.s);
                PreparedStatement_setInt(insert, 3, row.i);
                PreparedStatement_setLLong(insert, 4, row.l);
                PreparedStatement_setBlob(insert, 5, row.s, 3);
                EXPECT_EQ(PreparedStatement_execute(insert), 1);
                EXPECT_EQ(PreparedStatement_rowsChanged(insert), 1);
                EXPECT_EQ(Connection_rowsChanged(c), 1);
        }
        ResultSet_T r = Connection_executeQuery(c, "SELECT s, i, l, b, id FROM t ORDER BY id");
        for (const auto& row : rows) {
                ASSERT_EQ(ResultSet_next(r), 1);
                EXPECT_STREQ(ResultSet_getString(r, 1), row.s);
                EXPECT_EQ(ResultSet_getInt(r, 2), row.i);
                EXPECT_EQ(ResultSet_getLLong(r, 3), row.l);
                int size;
                const char* b = static_cast<const char*>(ResultSet_getBlob(r, 4, &size));
                EXPECT_EQ(std::string(b, size), std::string(row.s, 3));
                EXPECT_EQ(ResultSet_isnull(r, 1), 0);
        }
        EXPECT_EQ(ResultSet_next(r), 0);

        // Values stay bound between runs; an UPDATE counts the rows it changed.
        PreparedStatement_T update =
            Connection_prepareStatement(c, "UPDATE t SET i = ? WHERE id >= ?");
        PreparedStatement_setInt(update, 1, 5);
        PreparedStatement_setInt(update, 2, 2);
        PreparedStatement_execute(update);
        EXPECT_EQ(PreparedStatement_rowsChanged(update), 2);
        PreparedStatement_setInt(update, 2, 3);
        PreparedStatement_execute(update);
        EXPECT_EQ(PreparedStatement_rowsChanged(update), 1);
        r = Connection_executeQuery(c, "SELECT COUNT(*) FROM t WHERE i = 5");
        ASSERT_EQ(ResultSet_next(r), 1);
        EXPECT_EQ(ResultSet_getInt(r, 1), 2);
        Connection_close(c);
}

TEST_P(PreparedStatementTest, NullsGoInAndComeOut) {
        Connection_T c = withTable();
        PreparedStatement_T insert =
            Connection_prepareStatement(c, "INSERT INTO t (id, s, b) VALUES (?, ?, ?)");
        PreparedStatement_setInt(insert, 1, 1);
        PreparedStatement_setString(insert, 2, nullptr);
        PreparedStatement_setBlob(insert, 3, nullptr, 10);
        PreparedStatement_execute(insert);
        // A value bound before is replaced by NULL, not kept.
        PreparedStatement_setInt(insert, 1, 2);
        PreparedStatement_setString(insert, 2, "x");
        PreparedStatement_setString(insert, 2, nullptr);
        PreparedStatement_execute(insert);

        ResultSet_T r = Connection_executeQuery(
            c, "SELECT s, i, l, b FROM t WHERE s IS NULL AND b IS NULL ORDER BY id");
        for (int row = 0; row < 2; row++) {
                ASSERT_EQ(ResultSet_next(r), 1);
                for (int column = 1; column <= 4; column++)
                        EXPECT_EQ(ResultSet_isnull(r, column), 1);
                EXPECT_EQ(ResultSet_getString(r, 1), nullptr);
                EXPECT_EQ(ResultSet_getInt(r, 2), 0);
                EXPECT_EQ(ResultSet_getLLong(r, 3), 0);
                int size = -1;
                EXPECT_EQ(ResultSet_getBlob(r, 4, &size), nullptr);
                EXPECT_EQ(size, 0);
        }
        EXPECT_EQ(ResultSet_next(r), 0);
        Connection_close(c);
}

TEST_P(PreparedStatementTest, BlobsComeBackByteExact) {
        Connection_T c = withTable();
        std::string every;
        for (int b = 0; b < 256; b++)
                every += static_cast<char>(b);
        EXPECT_EQ(roundTrip(c, 1, every), every);
        EXPECT_EQ(roundTrip(c, 2, std::string("\0\0\xff\0", 4)), std::string("\0\0\xff\0", 4));
        // Empty is not NULL.
        EXPECT_EQ(roundTrip(c, 3, ""), "");
        ResultSet_T r = Connection_executeQuery(c, "SELECT b FROM t WHERE id = 3");
        ASSERT_EQ(ResultSet_next(r), 1);
        EXPECT_EQ(ResultSet_isnull(r, 1), 0);
        int size = -1;
        EXPECT_NE(ResultSet_getBlob(r, 1, &size), nullptr);
        EXPECT_EQ(size, 0);

        std::string large(1 << 20, '\0');
        std::mt19937 random(13);
        for (char& byte : large)
                byte = static_cast<char>(random());
        std::string back = roundTrip(c, 4, large);
        EXPECT_EQ(back.size(), large.size());
        EXPECT_TRUE(back == large) << "the 1 MiB blob came back changed";
        Connection_close(c);
}

TEST_P(PreparedStatementTest, QuestionMarksInTextAreNotParameters) {
        Connection_T c = withTable();
        PreparedStatement_T p = Connection_prepareStatement(
            c, "INSERT INTO t (id, s) VALUES (?, '?''?' || ? /* ? */) -- ?\n");
        ASSERT_EQ(PreparedStatement_getParameterCount(p), 2);
        PreparedStatement_setInt(p, 1, 1);
        PreparedStatement_setString(p, 2, "a");
        PreparedStatement_execute(p);
        ResultSet_T r = Connection_executeQuery(c, "SELECT s FROM t");
        ASSERT_EQ(ResultSet_next(r), 1);
        EXPECT_STREQ(ResultSet_getString(r, 1), "?'?a");
        Connection_close(c);
}

TEST_P(PreparedStatementTest, BadBindingsAreReported) {
        Connection_T c = withTable();
        PreparedStatement_T p = Connection_prepareStatement(c, "SELECT s FROM t WHERE id = ?");
        try {
                PreparedStatement_setInt(p, 2, 1);
                ADD_FAILURE() << "parameter 2 of 1 was bound";
        } catch (const DatabaseError& e) {
                EXPECT_THAT(e.what(), HasSubstr("parameter 2 is out of range"));
                EXPECT_THAT(e.what(), HasSubstr("SELECT s FROM t WHERE id = ?"));
        }
        EXPECT_THROW(PreparedStatement_setString(p, 0, "x"), DatabaseError);
        EXPECT_THROW(PreparedStatement_setBlob(p, 1, "x", -1), DatabaseError);
        // The statement is still good after the failures.
        PreparedStatement_setInt(p, 1, 1);
        ResultSet_T r = PreparedStatement_executeQuery(p);
        EXPECT_EQ(ResultSet_next(r), 0);
        Connection_close(c);
}
