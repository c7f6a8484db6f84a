#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <vector>

#include <vesk/Context.h>
#include <vesk/ServletContext.h>

#include "support/Gzip.hpp"
#include "support/KernelSupport.hpp"

namespace {

struct DefaultServlet : ::testing::Test {
        AppDir dir;
        TempDir outside;
        Context_T C = Context_new();
        std::string page = "<html>hello</html>";

        DefaultServlet() {
                Context_setContextPath(C, "/app");
                Context_setDocBase(C, dir.path().c_str());
                dir.webXml(
                    "<?xml version='1.0'?>\n<web-app><mime-mapping><extension>html"
                    "</extension><mime-type>text/html</mime-type></mime-mapping>"
                    "<welcome-file-list><welcome-file>index.html</welcome-file>"
                    "</welcome-file-list></web-app>\n");
                ServletContext_parseConf(Context_getServletContext(C));
                dir.write("page.html", page);
                mkdir((dir / "sub").c_str(), 0755);
                dir.write("sub/index.html", "welcome");
        }
        ~DefaultServlet() override { Context_free(&C); }
        Reply get(const std::string& uri, const std::string& headers = "",
                  const std::string& method = "GET") {
                return Exchange(method, uri, "localhost", headers).run(C);
        }
};

TEST_F(DefaultServlet, ServesAFileWithItsValidators) {
        Reply r = get("/app/page.html");
        EXPECT_EQ(r.status, 200) << r.head;
        EXPECT_EQ(r.header("Content-Type").rfind("text/html", 0), 0u) << r.head;
        EXPECT_EQ(r.header("Content-Length"), std::to_string(page.size()));
        EXPECT_EQ(r.header("Accept-Ranges"), "bytes");
        EXPECT_EQ(r.header("ETag"), "\"" +
                                        std::to_string(File_mtime((dir / "page.html").c_str())) +
                                        "-" + std::to_string(page.size()) + "\"");
        EXPECT_TRUE(contains(r.header("Last-Modified"), " GMT")) << r.head;
        EXPECT_EQ(r.body, page);

        // A HEAD has the validators and no body.
        r = get("/app/page.html", "", "HEAD");
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.header("Content-Length"), "0");
        EXPECT_NE(r.header("ETag"), "");

        // Unknown types are plain text, and PUT, DELETE and TRACE are refused.
        dir.write("notes.zzz", "x");
        EXPECT_EQ(get("/app/notes.zzz").header("Content-Type").rfind("text/plain", 0), 0u);
        EXPECT_EQ(get("/app/page.html", "", "DELETE").status, 403);
}

TEST_F(DefaultServlet, AnswersConditionalRequests) {
        std::string etag = get("/app/page.html").header("ETag");
        ASSERT_NE(etag, "");
        Reply r = get("/app/page.html", "If-None-Match: " + etag + "\r\n");
        EXPECT_EQ(r.status, 304) << r.head;
        EXPECT_EQ(r.header("ETag"), etag);
        EXPECT_EQ(r.body, "");
        const std::string future = "If-Modified-Since: Fri, 01 Jan 2100 00:00:00 GMT\r\n";
        struct Case {
                std::string headers, method;
                int status;
        };
        for (const Case& c : std::vector<Case>{
                 {"If-None-Match: *\r\n", "GET", 304},
                 {"If-None-Match: *\r\n", "POST", 412},
                 {future, "GET", 304},
                 {"If-Modified-Since: Thu, 01 Jan 1998 00:00:00 GMT\r\n", "GET", 200},
                 // A stale tag wins over the date.
                 {"If-None-Match: \"1-1\"\r\n" + future, "GET", 200},
                 {"If-Match: " + etag + "\r\n", "GET", 200},
                 {"If-Match: \"1-1\", " + etag + "\r\n", "GET", 412},
                 {"If-Unmodified-Since: Thu, 01 Jan 1998 00:00:00 GMT\r\n", "GET", 412},
             })
                EXPECT_EQ(get("/app/page.html", c.headers, c.method).status, c.status) << c.headers;
}

TEST_F(DefaultServlet, SendsTheGzipFormToAClientThatTakesIt) {
        std::string text;
        for (int i = 0; i < 400; i++)
                text += "line " + std::to_string(i) + "\n";
        dir.write("big.txt", text);
        Reply r = get("/app/big.txt", "Accept-Encoding: gzip\r\n");
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.header("Content-Encoding"), "gzip");
        EXPECT_EQ(r.header("Content-Length"), std::to_string(r.body.size()));
        EXPECT_LT(r.body.size(), text.size());
        EXPECT_EQ(gunzip(r.body), text);
        EXPECT_EQ(r.header("Vary"), "Accept-Encoding");
        // A small file, or a client without gzip, gets the plain bytes, and caches are told
        // that the form depends on the client.
        EXPECT_EQ(get("/app/page.html", "Accept-Encoding: gzip\r\n").header("Content-Encoding"),
                  "");
        r = get("/app/big.txt");
        EXPECT_EQ(r.body, text);
        EXPECT_EQ(r.header("Vary"), "Accept-Encoding");
}

TEST_F(DefaultServlet, FindsWelcomeFilesAndRedirectsDirectories) {
        Reply r = get("/app/sub");
        EXPECT_EQ(r.status, 302) << r.head;
        EXPECT_TRUE(contains(r.header("Location"), "/app/sub/")) << r.head;
        EXPECT_EQ(get("/app/sub/").body, "welcome");
        // A directory without a welcome file is not listed.
        mkdir((dir / "empty").c_str(), 0755);
        EXPECT_EQ(get("/app/empty/").status, 404);
}

TEST_F(DefaultServlet, NeverLeaksWhatLiesOutsideOrUnderWebInf) {
        std::string secret = "top secret";
        outside.write("secret.txt", secret);
        symlink((outside / "secret.txt").c_str(), (dir / "link.txt").c_str());
        symlink(outside.path().c_str(), (dir / "linkdir").c_str());
        std::string name = outside.path().substr(outside.path().rfind('/') + 1);
        for (const std::string& uri : std::vector<std::string>{
                 "/app/link.txt", "/app/linkdir/secret.txt", "/app/WEB-INF/web.xml",
                 "/app/web-inf/web.xml", "/app/WeB-iNf/web.xml", "/app/WEB-INF/",
                 "/app/sub/../WEB-INF/web.xml", "/app/%57EB-INF/web.xml",
                 "/app/../../../../" + name + "/secret.txt",
                 "/app/%2e%2e/%2e%2e/%2e%2e/%2e%2e/" + name + "/secret.txt",
                 "/app/%2E%2E/%2e%2E/%2e%2e/%2e%2e/%2e%2e/%2e%2e/%2e%2e/etc/passwd",
                 "/app/..%2f..%2f..%2f..%2f..%2f..%2f..%2fetc%2fpasswd"}) {
                Reply r = get(uri);
                EXPECT_NE(r.status, 200) << uri << "\n" << r.head;
                EXPECT_FALSE(contains(r.body, secret)) << uri;
                EXPECT_FALSE(contains(r.body, "<web-app>")) << uri;
                EXPECT_FALSE(contains(r.body, "root:")) << uri;
        }
}

}  // namespace
