// The server's way: an abort handler that raises SQLException, caught by a protected block
// after the raise has unwound through libvdb.
#include <gtest/gtest.h>

#include <string>

#include <vdb/vdb.h>
#include <vesk/Exception.h>

#include "support/Database.hpp"

namespace {

void raise(const char* error) {
        THROW(SQLException, "%s", error);
}

}  // namespace

TEST(SQLExceptionTest, TheServersHandlerRaisesThroughTheLibrary) {
        Exception_init();
        TempDir dir;
        std::string url = "sqlite://" + dir.path() + "/raise.db?create=true";
        ConnectionPool_T pool = ConnectionPool_new(url.c_str());
        ConnectionPool_setAbortHandler(pool, raise);
        ConnectionPool_setInitialConnections(pool, 1);
        ConnectionPool_setMaxConnections(pool, 1);
        ConnectionPool_start(pool);
        EXPECT_STREQ(SQLException.name, "SQLException");
        for (int i = 0; i < 3; i++) {
                Connection_T c = ConnectionPool_getConnection(pool);
                ASSERT_NE(c, nullptr);
                std::string message;
                TRY
                        Connection_execute(c, "INSERT INTO nowhere VALUES (%d)", i);
                        ADD_FAILURE() << "no exception";
                CATCH(SQLException)
                        message = Exception_frame.message;
                FINALLY
                        Connection_close(c);
                END_TRY;
                EXPECT_EQ(message.find("SQLite: cannot prepare \"INSERT INTO nowhere VALUES"), 0u)
                    << message;
                EXPECT_NE(message.find("no such table: nowhere"), std::string::npos) << message;
        }
        EXPECT_EQ(ConnectionPool_active(pool), 0);
        ConnectionPool_free(&pool);
}
