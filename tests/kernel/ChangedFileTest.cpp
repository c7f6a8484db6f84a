// Static files that change on disk while the server has them mapped: replaced, or rewritten
// in place.
#include <gtest/gtest.h>

#include <fcntl.h>

#include "ServerSupport.hpp"

namespace {

using namespace e2e;

// Text that differs on every line, so that deflate takes a while over it.
std::string text(size_t size, const std::string& tag) {
        std::string s;
        for (unsigned i = 0; s.size() < size; i++)
                s += tag + std::to_string(i * 2654435761u) + "\n";
        s.resize(size);
        return s;
}

// Rewrites path in place, as cp does, then sets mtime if one is given.
void rewrite(const std::string& path, const std::string& content, time_t mtime = 0) {
        int fd = open(path.c_str(), O_WRONLY | O_TRUNC);
        EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
        struct timespec times[2] = {{mtime, 0}, {mtime, 0}};
        if (mtime)
                futimens(fd, times);
        close(fd);
}

class ChangedFile : public testing::TestWithParam<bool> {
protected:
        Reply get(const std::string& headers = "", const std::string& method = "GET") {
                return roundTrip(home.port, request("/page.txt", headers, "localhost", method));
        }
        // The body is content, and its validators are those a HEAD gives for the file now.
        void expectDescribed(const Reply& r, const std::string& content, const char* what) {
                Reply head = get("", "HEAD");
                EXPECT_EQ(r.status, 200) << what;
                EXPECT_TRUE((r.header("Content-Encoding").empty() ? r.body : gunzip(r.body)) ==
                            content)
                    << what;
                EXPECT_EQ(r.header("ETag"), head.header("ETag")) << what;
                EXPECT_EQ(r.header("Last-Modified"), head.header("Last-Modified")) << what;
                EXPECT_TRUE(contains(r.header("ETag"), "-" + std::to_string(content.size())))
                    << what;
        }
        Home home;
        std::string path = home / "webapps/ROOT/page.txt";
};

TEST_P(ChangedFile, ValidatorsDescribeTheBytesSent) {
        rewrite(home.write("webapps/ROOT/page.txt", ""), text(6000, "first"), 1000000000);
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        struct Change {
                const char* what;
                bool rename;
                time_t mtime;
        };
        // The last one keeps the size and the second of the one before.
        for (Change c :
             {Change{"replaced", true, 1000000100}, Change{"rewritten", false, 1000000200},
              Change{"rewritten in the same second", false, 1000000200}}) {
                // Both forms are cached before the change.
                Reply old = get();
                get("Accept-Encoding: gzip\r\n");
                std::string content = text(4000 + 1000 * c.rename, c.what);
                if (c.rename) {
                        rewrite(home.write("webapps/ROOT/page.new", ""), content, c.mtime);
                        rename((home / "webapps/ROOT/page.new").c_str(), path.c_str());
                } else {
                        rewrite(path, content, c.mtime);
                }
                expectDescribed(get(), content, c.what);
                expectDescribed(get("Accept-Encoding: gzip\r\n"), content, c.what);
                std::string etag = get("", "HEAD").header("ETag");
                if (etag != old.header("ETag")) {
                        Reply r = get("If-None-Match: " + old.header("ETag") + "\r\n");
                        expectDescribed(r, content, c.what);
                        r = get("If-Modified-Since: " + old.header("Last-Modified") + "\r\n");
                        expectDescribed(r, content, c.what);
                }
                EXPECT_EQ(get("If-None-Match: " + etag + "\r\n").status, 304) << c.what;
        }
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

INSTANTIATE_TEST_SUITE_P(Server, ChangedFile, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                                 return info.param ? "InProcess" : "Launcher";
                         });

}  // namespace
