#include <gtest/gtest.h>

#include <stdio.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <vesk/Context.h>
#include <vesk/ServletContext.h>

#include "support/KernelSupport.hpp"

namespace {

// A request with extra header lines, answered by a Context serving dir under /app.
struct Request : Connection {
        Request(const std::string& method, const std::string& uri,
                const std::string& headers = "") {
                parse(method + " " + uri + " HTTP/1.1\r\nHost: localhost\r\n" + headers +
                      (method == "POST" ? "Content-Length: 0\r\n" : "") + "\r\n");
        }
        // As the connector does, the request and response know their Context.
        std::string run(Context_T C) {
                HttpRequest_setContext(request, C);
                HttpResponse_setContext(response(), C);
                Context_invoke(C, request, response());
                HttpResponse_finalize(response());
                OutputStream_flush(HttpResponse_getOutputStream(response()));
                return received();
        }
};

std::string header(const std::string& response, const std::string& name) {
        size_t at = response.find("\r\n" + name + ": ");
        if (at == std::string::npos)
                return "";
        at += name.size() + 4;
        return response.substr(at, response.find("\r\n", at) - at);
}

std::string body(const std::string& response) {
        size_t end = response.find("\r\n\r\n");
        return end == std::string::npos ? "" : response.substr(end + 4);
}

int status(const std::string& response) {
        return response.size() > 12 ? std::stoi(response.substr(9, 3)) : 0;
}

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
        std::string get(const std::string& uri, const std::string& headers = "",
                        const std::string& method = "GET") {
                Request r(method, uri, headers);
                return r.run(C);
        }
};

TEST_F(DefaultServlet, ServesAFileWithItsValidators) {
        std::string r = get("/app/page.html");
        EXPECT_EQ(status(r), 200) << r;
        EXPECT_EQ(header(r, "Content-Type").rfind("text/html", 0), 0u) << r;
        EXPECT_EQ(header(r, "Content-Length"), std::to_string(page.size()));
        EXPECT_EQ(header(r, "Accept-Ranges"), "bytes");
        EXPECT_EQ(header(r, "ETag"), "\"" +
                                         std::to_string(File_mtime((dir / "page.html").c_str())) +
                                         "-" + std::to_string(page.size()) + "\"");
        EXPECT_TRUE(contains(header(r, "Last-Modified"), " GMT")) << r;
        EXPECT_EQ(body(r), page);

        // A HEAD has the validators and no body.
        r = get("/app/page.html", "", "HEAD");
        EXPECT_EQ(status(r), 200);
        EXPECT_EQ(header(r, "Content-Length"), "0");
        EXPECT_NE(header(r, "ETag"), "");

        // Unknown types are plain text, and PUT, DELETE and TRACE are refused.
        dir.write("notes.zzz", "x");
        EXPECT_EQ(header(get("/app/notes.zzz"), "Content-Type").rfind("text/plain", 0), 0u);
        EXPECT_EQ(status(get("/app/page.html", "", "DELETE")), 403);
}

TEST_F(DefaultServlet, AnswersConditionalRequests) {
        std::string etag = header(get("/app/page.html"), "ETag");
        ASSERT_NE(etag, "");
        std::string r = get("/app/page.html", "If-None-Match: " + etag + "\r\n");
        EXPECT_EQ(status(r), 304) << r;
        EXPECT_EQ(header(r, "ETag"), etag);
        EXPECT_EQ(body(r), "");
        EXPECT_EQ(status(get("/app/page.html", "If-None-Match: *\r\n")), 304);
        EXPECT_EQ(status(get("/app/page.html", "If-None-Match: *\r\n", "POST")), 412);
        const std::string future = "If-Modified-Since: Fri, 01 Jan 2100 00:00:00 GMT\r\n";
        const std::string past = "If-Modified-Since: Thu, 01 Jan 1998 00:00:00 GMT\r\n";
        EXPECT_EQ(status(get("/app/page.html", future)), 304);
        EXPECT_EQ(status(get("/app/page.html", past)), 200);
        // A stale tag wins over the date.
        EXPECT_EQ(status(get("/app/page.html", "If-None-Match: \"1-1\"\r\n" + future)), 200);
        EXPECT_EQ(status(get("/app/page.html", "If-Match: " + etag + "\r\n")), 200);
        EXPECT_EQ(status(get("/app/page.html", "If-Match: \"1-1\", " + etag + "\r\n")), 412);
        EXPECT_EQ(
            status(get("/app/page.html", "If-Unmodified-Since: Thu, 01 Jan 1998 00:00:00 GMT\r\n")),
            412);
}

TEST_F(DefaultServlet, SendsTheGzipFormToAClientThatTakesIt) {
        std::string text;
        for (int i = 0; i < 400; i++)
                text += "line " + std::to_string(i) + "\n";
        dir.write("big.txt", text);
        std::string r = get("/app/big.txt", "Accept-Encoding: gzip\r\n");
        EXPECT_EQ(status(r), 200);
        EXPECT_EQ(header(r, "Content-Encoding"), "gzip");
        std::string zipped = body(r);
        EXPECT_EQ(header(r, "Content-Length"), std::to_string(zipped.size()));
        EXPECT_LT(zipped.size(), text.size());
        std::string file = outside.write("big.gz", zipped);
        std::string plain;
        FILE* p = popen(("gzip -dc " + file).c_str(), "r");
        ASSERT_NE(p, nullptr);
        char buffer[4096];
        for (size_t n; (n = fread(buffer, 1, sizeof buffer, p)) > 0;)
                plain.append(buffer, n);
        pclose(p);
        EXPECT_EQ(plain, text);
        // A small file, or a client without gzip, gets the plain bytes.
        EXPECT_EQ(header(get("/app/page.html", "Accept-Encoding: gzip\r\n"), "Content-Encoding"),
                  "");
        EXPECT_EQ(body(get("/app/big.txt")), text);
}

TEST_F(DefaultServlet, FindsWelcomeFilesAndRedirectsDirectories) {
        std::string r = get("/app/sub");
        EXPECT_EQ(status(r), 302) << r;
        EXPECT_TRUE(contains(header(r, "Location"), "/app/sub/")) << r;
        EXPECT_EQ(body(get("/app/sub/")), "welcome");
        // A directory without a welcome file is not listed.
        mkdir((dir / "empty").c_str(), 0755);
        EXPECT_EQ(status(get("/app/empty/")), 404);
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
                std::string r = get(uri);
                EXPECT_NE(status(r), 200) << uri << "\n" << r;
                EXPECT_FALSE(contains(r, secret)) << uri;
                EXPECT_FALSE(contains(r, "<web-app>")) << uri;
                EXPECT_FALSE(contains(r, "root:")) << uri;
        }
}

}  // namespace
