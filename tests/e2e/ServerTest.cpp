// The whole server over loopback: a home written for each test, served by the launcher in
// a child process or by Build on a thread of this process, and spoken to in plain HTTP.
#include <gtest/gtest.h>

#include <future>

#include "support/ServerSupport.hpp"

namespace {

using namespace e2e;

class EndToEnd : public testing::TestWithParam<bool> {
protected:
        Reply get(const std::string& uri, const std::string& headers = "",
                  const std::string& host = "localhost", const std::string& method = "GET") {
                return roundTrip(home.port, request(uri, headers, host, method));
        }
        Home home;
};

TEST_P(EndToEnd, MapsHostsApplicationsAndServlets) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");

        struct Case {
                std::string uri, host;
                int status;
                std::string body;
        };
        const std::vector<Case> cases = {
            // Exact beats prefix beats extension beats the default servlet.
            {"/app/x/y", "localhost", 200, "echo one"},
            {"/app/x/y.do", "localhost", 200, "hello GET servlet=/x info=/y.do"},
            {"/app/relay?go=include&to=/hello", "localhost", 200,
             "[hello GET servlet=/hello info=null]"},
            // Names and aliases pick the host; an unknown name gets the default host.
            {"/site/", "127.0.0.3", 200, "other site"},
            {"/site/index.html", "127.0.0.2:8080", 200, "other site"},
            {"/", "unknown.test", 200, "root index"},
            {"/", "127.0.0.1", 200, "root index"},
        };
        for (const Case& c : cases) {
                Reply r = get(c.uri, "", c.host);
                EXPECT_EQ(r.status, c.status) << c.uri << " " << c.host << "\n" << r.head;
                EXPECT_EQ(r.body, c.body) << c.uri << " " << c.host;
        }

        // A host without a root application has no Context for "/"; an application that
        // has no such file answers with its own 404.
        Reply none = get("/", "", "127.0.0.2");
        EXPECT_EQ(none.status, 404);
        EXPECT_TRUE(contains(none.body, "No Context found")) << none.body;
        Reply missing = get("/app/missing.html");
        EXPECT_EQ(missing.status, 404);
        EXPECT_FALSE(contains(missing.body, "No Context found")) << missing.body;
        EXPECT_EQ(get("/site/index.html", "", "localhost").status, 404);
        // A module whose init raised is not there, and the error log says why.
        EXPECT_EQ(get("/app/failinit").status, 404);
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
        EXPECT_TRUE(contains(readFile(home / "logs/error.log"),
                             "when calling servlet 'failinit' init method -- init of failinit "
                             "failed"));
}

TEST_P(EndToEnd, AReaderOfAReplacedFileGetsTheOldOneWhole) {
        std::string large(16 << 20, 'a');
        home.write("webapps/ROOT/large.txt", large);
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        // The request that notices the change marks the old mapping; it goes with its last
        // holder, and from then on the new file is served.
        int slow = dial(home.port, 4096);
        ASSERT_GE(slow, 0);
        ASSERT_TRUE(sendAll(slow, request("/large.txt")));
        std::string start = readAll(slow, 4096);
        EXPECT_EQ(parse(start).header("Content-Type"), "text/plain");
        std::string replaced(16 << 20, 'b');
        home.write("webapps/ROOT/large.new", replaced);
        struct utimbuf later = {time(nullptr) + 10, time(nullptr) + 10};
        utime((home / "webapps/ROOT/large.new").c_str(), &later);
        rename((home / "webapps/ROOT/large.new").c_str(),
               (home / "webapps/ROOT/large.txt").c_str());
        EXPECT_EQ(get("/large.txt").status, 200);
        Reply old = parse(start + readAll(slow));
        close(slow);
        EXPECT_EQ(old.body.size(), large.size());
        EXPECT_TRUE(old.body == large);
        EXPECT_TRUE(get("/large.txt").body == replaced);
        // Under the sanitizers a leak or fault in the server shows in its exit status.
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(EndToEnd, StopLetsRequestsInFlightFinish) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        std::future<Reply> inFlight =
            std::async(std::launch::async, [&] { return get("/app/slow?ms=1500"); });
        ASSERT_TRUE(eventually([&] { return exists(home / "webapps/app/slow.started"); }));
        std::future<int> stopped = std::async(std::launch::async, [&] { return server.stop(); });
        // New connections are refused at once, while the request is answered in full.
        EXPECT_TRUE(eventually([&] {
                int s = dial(home.port);
                if (s >= 0)
                        close(s);
                return s < 0;
        }));
        Reply r = inFlight.get();
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.body, "slept 1500");
        EXPECT_EQ(stopped.get(), 0);
        EXPECT_TRUE(exists(home / "webapps/app/slow.destroyed"));
        EXPECT_FALSE(exists(home / "logs/Vesk.pid"));
}

INSTANTIATE_TEST_SUITE_P(Server, EndToEnd, testing::Bool(), way);

}  // namespace
