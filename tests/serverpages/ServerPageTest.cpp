#include <gtest/gtest.h>

#include <string>

#include <vesk/Context.h>
#include <vesk/ServerPage.h>

#include "support/KernelSupport.hpp"

namespace {

struct Request : Connection {
        Request(const std::string& method, const std::string& uri,
                const std::string& headers = "") {
                parse(method + " " + uri + " HTTP/1.1\r\nHost: localhost\r\n" + headers + "\r\n");
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

int status(const std::string& response) {
        return response.size() > 12 ? std::stoi(response.substr(9, 3)) : 0;
}

std::string body(const std::string& response) {
        size_t end = response.find("\r\n\r\n");
        return end == std::string::npos ? "" : response.substr(end + 4);
}

struct ServerPages : ::testing::Test {
        AppDir dir;
        Context_T C = Context_new();
        ServerPages() {
                Context_setContextPath(C, "/app");
                Context_setDocBase(C, dir.path().c_str());
        }
        ~ServerPages() override { Context_free(&C); }
        std::string get(const std::string& uri, const std::string& headers = "",
                        const std::string& method = "GET") {
                Request r(method, uri, headers);
                return r.run(C);
        }
};

TEST_F(ServerPages, RendersTheRequestViewWithEscaping) {
        mkdir((dir / "a").c_str(), 0755);
        dir.write("a/page.csp",
                  "[<?cs var:html_escape(Request.Param.q) ?>]"
                  "[<?cs var:url_escape(Request.Param.q) ?>]"
                  "[<?cs var:js_escape(Request.Param.q) ?>]"
                  "[<?cs var:Request.Header.AcceptLanguage ?>]"
                  "[<?cs var:Request.PathLevel ?>]"
                  "[<?cs var:Request.Method ?>]");
        std::string r = get("/app/a/page.csp?q=%3Cb%3E%26'x", "Accept-Language: da\r\n");
        EXPECT_EQ(status(r), 200) << r;
        EXPECT_TRUE(contains(r, "Content-Type: text/html")) << r;
        EXPECT_EQ(body(r),
                  "[&lt;b&gt;&amp;&#39;x][%3Cb%3E%26%27x][\\x3Cb\\x3E\\x26\\x27x][da][3][GET]");
        // A HEAD builds the page and renders nothing.
        r = get("/app/a/page.csp", "", "HEAD");
        EXPECT_EQ(status(r), 200);
        EXPECT_EQ(body(r), "");
}

TEST_F(ServerPages, ReservedNamesRedirectAndSendErrors) {
        dir.write("go.csp", "text<?cs set:Response.redirect = \"/app/there\" ?>");
        std::string r = get("/app/go.csp");
        EXPECT_EQ(status(r), 302) << r;
        EXPECT_TRUE(contains(r, "Location: ")) << r;
        EXPECT_TRUE(contains(r, "/app/there")) << r;
        dir.write("deny.csp",
                  "<?cs set:Error.status_code = 403 ?>"
                  "<?cs set:Error.message = \"Not for you\" ?>");
        r = get("/app/deny.csp");
        EXPECT_EQ(status(r), 403) << r;
        EXPECT_TRUE(contains(r, "Not for you")) << r;
}

TEST_F(ServerPages, AMissingPageIs404WithTheURIShownAsText) {
        std::string r = get("/app/none%3Cx%3E.csp");
        EXPECT_EQ(status(r), 404) << r;
        EXPECT_FALSE(contains(body(r), "<x>")) << r;
        EXPECT_FALSE(contains(body(r), "<i>")) << r;
}

TEST_F(ServerPages, ATemplateErrorIsAClear500) {
        dir.write("bad.csp", "before <?cs if:x ?> never closed");
        std::string r = get("/app/bad.csp");
        EXPECT_EQ(status(r), 500) << r;
        EXPECT_EQ(body(r).rfind("ServerPage error:\r\n\r\n", 0), 0u) << r;
        EXPECT_FALSE(contains(r, "before")) << r;
        // The server goes on serving.
        dir.write("good.csp", "fine");
        EXPECT_EQ(body(get("/app/good.csp")), "fine");
}

}  // namespace
