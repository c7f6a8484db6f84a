// The connector's cap on parameters over loopback: the query, path parameters, a form body,
// multipart fields and a dispatch path's query all count, and a request beyond the cap gets
// 400 "Too many parameters" without its servlet running.
#include <gtest/gtest.h>

#include <string>

#include "support/ServerSupport.hpp"

namespace {

using namespace e2e;

// "f0=v&f1=v&..." with n distinct names.
std::string form(int n) {
        std::string text;
        for (int i = 0; i < n; i++)
                text += (i ? "&f" : "f") + std::to_string(i) + "=v";
        return text;
}

const std::string kBoundary = "b0undary";

std::string multipart(int n) {
        std::string text;
        for (int i = 0; i < n; i++)
                text += "--" + kBoundary + "\r\nContent-Disposition: form-data; name=\"f" +
                        std::to_string(i) + "\"\r\n\r\nv\r\n";
        return text + "--" + kBoundary + "--\r\n";
}

class Parameters : public testing::TestWithParam<bool> {
protected:
        Parameters() { installModule(home / "webapps/app/WEB-INF/classes", "params", "params"); }

        Reply get(const std::string& uri) { return roundTrip(home.port, request(uri)); }

        Reply post(const std::string& uri, const std::string& body,
                   const std::string& type = "application/x-www-form-urlencoded") {
                return roundTrip(home.port,
                                 request(uri,
                                         "Content-Type: " + type + "\r\nContent-Length: " +
                                             std::to_string(body.size()) + "\r\n",
                                         "localhost", "POST") +
                                     body);
        }

        Reply postMultipart(const std::string& uri, const std::string& body) {
                return post(uri, body, "multipart/form-data; boundary=" + kBoundary);
        }

        // The 400 of the cap, with no word from the servlet.
        static void refused(const Reply& r, const std::string& what) {
                EXPECT_EQ(r.status, 400) << what;
                EXPECT_TRUE(contains(r.body, "</h2>Too many parameters\r\n")) << what << r.body;
                EXPECT_FALSE(contains(r.body, "params=")) << what;
        }

        void start(const std::string& connectorAttributes) {
                home.serverXml(connectorAttributes);
                server = std::make_unique<Server>(home, GetParam());
                ASSERT_TRUE(server->ready())
                    << server->failure() << readFile(home / "logs/launcher.out");
        }

        Home home;
        std::unique_ptr<Server> server;
};

TEST_P(Parameters, TenThousandFieldsPassByDefaultAndOneMoreIsRefused) {
        ASSERT_NO_FATAL_FAILURE(start(""));
        Reply fields = post("/app/params", form(10000));
        EXPECT_EQ(fields.status, 200);
        EXPECT_EQ(fields.body, "params=10000 parts=0 scheme=http");
        refused(post("/app/params", form(10001)), "form");

        Reply parts = postMultipart("/app/params", multipart(10000));
        EXPECT_EQ(parts.status, 200);
        EXPECT_EQ(parts.body, "params=0 parts=10000 scheme=http");
        refused(postMultipart("/app/params", multipart(10001)), "multipart");
        // The query's parameters and the body's fields are counted together.
        refused(postMultipart("/app/params?q=1", multipart(10000)), "query and multipart");
        EXPECT_EQ(server->stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(Parameters, EveryRoadCounts) {
        ASSERT_NO_FATAL_FAILURE(start("maxParameterCount=\"3\""));
        EXPECT_EQ(get("/app/params?a=1&b=2&c=3").body, "params=3 parts=0 scheme=http");
        refused(get("/app/params?a=1&b=2&c=3&d=4"), "query");
        // Values count, not names.
        refused(get("/app/params?a=1&a=2&a=3&a=4"), "one name");
        refused(get("/app/params;a=1;b=2;c=3;d=4"), "path parameters");
        refused(get("/app/params;a=1;b=2?c=3&d=4"), "path and query");
        EXPECT_EQ(post("/app/params?a=1&b=2", "c=3").body, "params=3 parts=0 scheme=http");
        refused(post("/app/params?a=1&b=2", "c=3&d=4"), "query and form");
        refused(postMultipart("/app/params?a=1&b=2", multipart(2)), "query and multipart");

        // A dispatch path's query adds to the parameters of the request (go and to here).
        Reply one = get("/app/a.do?go=include&to=/params%3Fx%3D1");
        EXPECT_EQ(one.status, 200);
        EXPECT_EQ(one.body, "[params=3 parts=0 scheme=http]");
        Reply two = get("/app/a.do?go=include&to=/params%3Fx%3D1%26y%3D2");
        EXPECT_EQ(two.status, 404);
        EXPECT_TRUE(contains(two.body, "nowhere to go")) << two.body;
        EXPECT_EQ(server->stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(Parameters, NegativeCapIsNoLimitAndZeroTakesNone) {
        ASSERT_NO_FATAL_FAILURE(start("maxParameterCount=\"-1\""));
        EXPECT_EQ(post("/app/params", form(20000)).body, "params=20000 parts=0 scheme=http");
        server->stop();

        ASSERT_NO_FATAL_FAILURE(start("maxParameterCount=\"0\""));
        EXPECT_EQ(get("/app/params").body, "params=0 parts=0 scheme=http");
        refused(get("/app/params?a=1"), "query");
        refused(post("/app/params", "a=1"), "form");
        EXPECT_EQ(server->stop(), 0) << readFile(home / "logs/launcher.out");
}

INSTANTIATE_TEST_SUITE_P(Server, Parameters, testing::Bool(), way);

}  // namespace
