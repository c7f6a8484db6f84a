#include <sys/stat.h>

#include <gtest/gtest.h>

#include <string>

#include <vdb/vdb.h>

#include <vesk/Build.h>
#include <vesk/Realm.h>

#include "support/Database.hpp"
#include "support/Support.hpp"
#include "support/TempDir.hpp"

namespace {

// A home whose server.xml holds one <Realm> on line 5, and an SQLite user database at
// db/users.db.
class RealmConfig : public testing::Test {
protected:
        void TearDown() override {
                if (B)
                        Build_free(&B);
                Realm_free();
        }

        // Parses a server.xml with realm in its <Engine>; the message it raised, or "".
        std::string parse(const std::string& realm, const std::string& host = "webapps") {
                home.write("conf/server.xml",
                           "<Server>\n<License owner=\"x\"/>\n<Service>\n"
                           "<Engine defaultHost=\"localhost\">\n" +
                               realm + "\n<Host name=\"localhost\" appBase=\"" + host +
                               "\"/>\n</Engine>\n</Service>\n</Server>\n");
                std::string xml = home / "conf/server.xml";
                if (B)
                        Build_free(&B);
                std::string message =
                    assertion([&] { B = Build_parse(home.path().c_str(), xml.c_str()); });
                return message.substr(0, message.find(" -- in '"));
        }
        ConnectionPool_T pool() { return Realm_getDatabase(Realm_getInstance()); }

        static bool makeDirs(const TempDir& home) {
                for (const char* dir : {"conf", "db", "webapps", "webapps/ROOT"})
                        mkdir((home / dir).c_str(), 0755);
                return true;
        }

        TempDir home;
        bool made = makeDirs(home);
        testdb::Database db{home / "db/users.db"};
        Build_T B = nullptr;
};

}  // namespace

TEST_F(RealmConfig, PoolSizesAndReaperAreChecked) {
        EXPECT_EQ(parse("<Realm url=\"sqlite:///db/users.db\" minConnections=\"-1\"/>"),
                  "minConnections in <Realm> has a negative value\n");
        EXPECT_EQ(parse("<Realm url=\"sqlite:///db/users.db\" maxConnections=\"-2\"/>"),
                  "maxConnections in <Realm> has a negative value\n");
        EXPECT_EQ(parse("<Realm url=\"sqlite:///db/users.db\" minConnections=\"9\" "
                        "maxConnections=\"3\"/>"),
                  "minConnections is greater than maxConnections (9 > 3) in <Realm>\n");
        EXPECT_EQ(parse("<Realm url=\"sqlite:///db/users.db\" minConnections=\"21\"/>"),
                  "minConnections is greater than maxConnections (21 > 20) in <Realm>\n");
        for (const char* reap : {"0", "86401", "-5"})
                EXPECT_EQ(parse(std::string("<Realm url=\"sqlite:///db/users.db\" "
                                            "reapConnections=\"") +
                                reap + "\"/>"),
                          "reapConnections in <Realm> has an invalid value outside [1..86400] "
                          "sec\n");
        EXPECT_EQ(pool(), nullptr) << "a refused <Realm> leaves no pool behind";
}

TEST_F(RealmConfig, RelativeSqlitePathLiesUnderTheHome) {
        db.addUser("ann", "secret");
        ASSERT_EQ(parse("<Realm url=\"sqlite:///db/users.db?busy_timeout=100\" "
                        "minConnections=\"2\" maxConnections=\"4\" reapConnections=\"60\"/>"),
                  "");
        ASSERT_NE(pool(), nullptr);
        EXPECT_EQ(std::string(ConnectionPool_getURL(pool())),
                  "sqlite://" + home.path() + "/db/users.db?busy_timeout=100");
        EXPECT_EQ(ConnectionPool_getInitialConnections(pool()), 2);
        EXPECT_EQ(ConnectionPool_getMaxConnections(pool()), 4);
        EXPECT_EQ(ConnectionPool_size(pool()), 2) << "the pool is started";
        Principal_T P = Realm_authenticate(Realm_getInstance(), "ann", "secret");
        ASSERT_NE(P, nullptr);
        Principal_decrement(P);
        Build_free(&B);
        EXPECT_EQ(pool(), nullptr) << "the Realm goes with the server";
}

TEST_F(RealmConfig, AbsolutePathIsKeptAndAFailedParseDropsThePool) {
        ASSERT_EQ(parse("<Realm url=\"" + db.url() +
                        "\" minConnections=\"0\" "
                        "maxConnections=\"0\"/>"),
                  "");
        ASSERT_NE(pool(), nullptr);
        EXPECT_EQ(std::string(ConnectionPool_getURL(pool())), db.url());
        EXPECT_NE(parse("<Realm url=\"" + db.url() + "\"/>", "missing"), "");
        EXPECT_EQ(pool(), nullptr);
}
