#include <gtest/gtest.h>

#include <string>

#include <vesk/Context.h>
#include <vesk/ServerPage.h>

#include "support/KernelSupport.hpp"

namespace {

struct ServerPages : ::testing::Test {
        AppDir dir;
        Context_T C = Context_new();
        ServerPages() {
                Context_setContextPath(C, "/app");
                Context_setDocBase(C, dir.path().c_str());
        }
        ~ServerPages() override { Context_free(&C); }
        Reply get(const std::string& uri, const std::string& headers = "",
                  const std::string& method = "GET") {
                return Exchange(method, uri, "localhost", headers).run(C);
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
        Reply r = get("/app/a/page.csp?q=%3Cb%3E%26'x", "Accept-Language: da\r\n");
        EXPECT_EQ(r.status, 200) << r.head;
        EXPECT_EQ(r.header("Content-Type").rfind("text/html", 0), 0u) << r.head;
        EXPECT_EQ(r.body,
                  "[&lt;b&gt;&amp;&#39;x][%3Cb%3E%26%27x][\\x3Cb\\x3E\\x26\\x27x][da][3][GET]");
        // A HEAD builds the page and renders nothing.
        r = get("/app/a/page.csp", "", "HEAD");
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.body, "");
}

TEST_F(ServerPages, ReservedNamesRedirectAndSendErrors) {
        dir.write("go.csp", "text<?cs set:Response.redirect = \"/app/there\" ?>");
        Reply r = get("/app/go.csp");
        EXPECT_EQ(r.status, 302) << r.head;
        EXPECT_TRUE(contains(r.header("Location"), "/app/there")) << r.head;
        dir.write("deny.csp",
                  "<?cs set:Error.status_code = 403 ?>"
                  "<?cs set:Error.message = \"Not for you\" ?>");
        r = get("/app/deny.csp");
        EXPECT_EQ(r.status, 403) << r.head;
        EXPECT_TRUE(contains(r.body, "Not for you")) << r.body;
}

TEST_F(ServerPages, AMissingPageIs404WithTheURIShownAsText) {
        Reply r = get("/app/none%3Cx%3E.csp");
        EXPECT_EQ(r.status, 404) << r.head;
        EXPECT_FALSE(contains(r.body, "<x>")) << r.body;
        EXPECT_FALSE(contains(r.body, "<i>")) << r.body;
}

TEST_F(ServerPages, ATemplateErrorIsAClear500) {
        dir.write("bad.csp", "before <?cs if:x ?> never closed");
        Reply r = get("/app/bad.csp");
        EXPECT_EQ(r.status, 500) << r.head;
        EXPECT_EQ(r.body.rfind("ServerPage error:\r\n\r\n", 0), 0u) << r.body;
        EXPECT_FALSE(contains(r.body, "before")) << r.body;
        // The server goes on serving.
        dir.write("good.csp", "fine");
        EXPECT_EQ(get("/app/good.csp").body, "fine");
}

}  // namespace
