// The session settings of <Context>: maxActiveSessions above 0 gives the application a
// session manager with that limit, sessionTimeout sets the managers' interval at start,
// saveSessions turns storing on; anything else is refused with a clear message.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <string>

#include <vesk/Build.h>
#include <vesk/Context.h>
#include <vesk/Host.h>
#include <vesk/SessionManager.h>

#include "support/Support.hpp"
#include "support/TempDir.hpp"

namespace {

class SessionConfig : public testing::Test {
protected:
        SessionConfig() {
                for (const char* dir : {"conf", "webapps", "webapps/ROOT", "webapps/app"})
                        mkdir((home / dir).c_str(), 0755);
        }
        ~SessionConfig() override {
                if (B)
                        Build_free(&B);
        }
        // Parses a server.xml whose /app context has these attributes; what it raised.
        std::string parse(const std::string& attributes) {
                home.write("conf/server.xml",
                           "<Server>\n<License owner=\"x\"/>\n<Service>\n"
                           "<Engine defaultHost=\"localhost\">\n"
                           "<Host name=\"localhost\" appBase=\"webapps\">\n"
                           "<Context path=\"/app\" docBase=\"app\" " +
                               attributes + "/>\n</Host>\n</Engine>\n</Service>\n</Server>\n");
                std::string xml = home / "conf/server.xml";
                if (B)
                        Build_free(&B);
                std::string message =
                    assertion([&] { B = Build_parse(home.path().c_str(), xml.c_str()); });
                return message.substr(0, message.find(" -- in '"));
        }
        Context_T app() { return Host_getContext(Build_findHost(B, "localhost"), "/app"); }

        TempDir home;
        Build_T B = nullptr;
};

}  // namespace

TEST_F(SessionConfig, APositiveLimitMakesTheManager) {
        ASSERT_EQ(parse("maxActiveSessions=\"7\" sessionTimeout=\"60\" saveSessions=\"true\""), "");
        SessionManager_T M = Context_getSessionManager(app());
        ASSERT_NE(M, nullptr);
        EXPECT_EQ(SessionManager_getMaxActiveSessions(M), 7);
        EXPECT_EQ(Context_getMaxActiveSessions(app()), 7);
        EXPECT_EQ(Context_getSessionTimeout(app()), 60);
        EXPECT_TRUE(Context_getSaveSessions(app()));
        Context_start(app());
        EXPECT_EQ(SessionManager_getMaxInactiveInterval(M), 60);
        EXPECT_TRUE(SessionManager_getSaveSessions(M));
        Context_stop(app());
        ASSERT_EQ(parse("maxActiveSessions=\"0\""), "");
        EXPECT_EQ(Context_getSessionManager(app()), nullptr);
}

TEST_F(SessionConfig, BadValuesAreRefused) {
        EXPECT_EQ(parse("sessionTimeout=\"0\""), "sessionTimeout must be > 0");
        EXPECT_EQ(parse("sessionTimeout=\"soon\""),
                  "The value 'soon' given in <Context> attribute 'sessionTimeout' is not a number");
        EXPECT_EQ(parse("maxActiveSessions=\"99999999999\""),
                  "The value '99999999999' given in <Context> attribute 'maxActiveSessions' is "
                  "out of range");
        EXPECT_EQ(parse("sessionTimeout=\"-99999999999\""),
                  "The value '-99999999999' given in <Context> attribute 'sessionTimeout' is "
                  "out of range");
}
