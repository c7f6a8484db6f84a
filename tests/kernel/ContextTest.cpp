#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <vesk/Context.h>
#include <vesk/HttpRequest.h>
#include <vesk/Loader.h>
#include <vesk/RequestDispatcher.h>
#include <vesk/Wrapper.h>

#include "support/Support.hpp"
#include "support/KernelSupport.hpp"

namespace {

int answerName(HttpRequest_T req, HttpResponse_T res) {
        const char* info = HttpRequest_getPathInfo(req);
        OutputStream_print(HttpResponse_getOutputStream(res), "[%s|%s|%s]",
                           ServletConfig_getServletName(HttpRequest_getServletConfig(req)),
                           HttpRequest_getServletPath(req), info ? info : "null");
        return 1;
}

// A Context with virtual servlets that answer with their name, servlet path and path info.
struct App {
        Context_T C = Context_new();
        App() {
                Context_setContextPath(C, "/ctx");
                for (const char* name : {"exact", "prefix", "longer", "csp", "txt", "root"}) {
                        Wrapper_T w =
                            Context_createServlet(C, name, ("/" + std::string(name)).c_str());
                        Wrapper_setDoGet(w, answerName);
                }
                Context_addServletMapping(C, "/a/b", "exact");
                Context_addServletMapping(C, "/a/*", "prefix");
                Context_addServletMapping(C, "/a/b/*", "longer");
                Context_addServletMapping(C, "*.csp", "csp");
                Context_addServletMapping(C, "*.txt", "txt");
                Context_addServletMapping(C, "/", "root");
        }
        ~App() { Context_free(&C); }
        std::string get(const std::string& path) {
                Exchange x("GET", "/ctx" + path);
                int result = Context_invoke(C, x.req(), x.res());
                std::string body = x.body();
                return result == 1 ? body
                                   : "status " + std::to_string(HttpResponse_getStatus(x.res()));
        }
};

TEST(ContextMapping, ExactBeatsPrefixBeatsExtensionBeatsDefault) {
        App app;
        EXPECT_EQ(app.get("/a/b"), "[exact|/a/b|null]");
        EXPECT_EQ(app.get("/a/b/c"), "[longer|/a/b|/c]");
        EXPECT_EQ(app.get("/a"), "[prefix|/a|]");
        EXPECT_EQ(app.get("/a/x.csp"), "[prefix|/a|/x.csp]");
        EXPECT_EQ(app.get("/x.csp"), "[csp|/x.csp|null]");
        EXPECT_EQ(app.get("/x.csp/extra"), "[csp|/x.csp|/extra]");
        EXPECT_EQ(app.get("/dir/x.csp"), "[csp|/dir/x.csp|null]");
        // The first dot of the path decides the extension.
        EXPECT_EQ(app.get("/dir.txt/x.csp"), "[txt|/dir.txt|/x.csp]");
        EXPECT_EQ(app.get("/.csp"), "[root|/.csp|null]");
        EXPECT_EQ(app.get("/nothing"), "[root|/nothing|null]");
        EXPECT_EQ(app.get("/"), "[root|/|null]");
        // The context path alone maps like its slash form: a servlet path begins with "/".
        EXPECT_EQ(app.get(""), "[root|/|null]");
        // Each virtual servlet is also reachable by its name.
        EXPECT_EQ(app.get("/exact"), "[exact|/exact|null]");
}

TEST(ContextMapping, WEBINFIsPrivateHoweverItIsSpelled) {
        for (const char* path :
             {"/WEB-INF", "/WEB-INF/", "/web-inf/web.xml", "//WEB-INF/x", "/a/../WEB-INF/x",
              "/./Web-Inf", "WEB-INF/x", "/a/WEB-INF/b.csp", "/a/b/../../WEB-INF/x"})
                EXPECT_TRUE(Context_isPrivatePath(path)) << path;
        std::string tooLong(4097, 'a');
        tooLong[0] = '/';
        EXPECT_TRUE(Context_isPrivatePath(tooLong.c_str()));
        for (const char* path : {"", "/", "/WEB-INFO/x", "/x/WEB-INF.txt", "/MY-WEB-INF/", "/WEB",
                                 "/WEB-INF/../x"})
                EXPECT_FALSE(Context_isPrivatePath(path)) << path;
        EXPECT_FALSE(Context_isPrivatePath(nullptr));
        // No servlet is handed such a path, not even the default one.
        App app;
        for (const char* path : {"/WEB-INF/x.csp", "/a/WEB-INF", "/web-inf/x.txt"})
                EXPECT_EQ(app.get(path), "status 404") << path;
}

TEST(ContextMapping, ContextPathSpellingsAreOnePath) {
        struct Case {
                const char* spelling;
                const char* held;
        };
        for (const Case& c : std::vector<Case>{{"/ctx/", "/ctx"},
                                               {"/ctx//", "/ctx"},
                                               {"//ctx", "/ctx"},
                                               {"/", ""},
                                               {"//", ""},
                                               {"/a/./b/../ctx/", "/a/ctx"}}) {
                App app;
                Context_setContextPath(app.C, c.spelling);
                EXPECT_STREQ(Context_getContextPath(app.C), c.held) << c.spelling;
        }
        App app;
        Context_setContextPath(app.C, "/ctx/");
        EXPECT_EQ(app.get("/a/b/c"), "[longer|/a/b|/c]");
        EXPECT_EQ(app.get("/nothing"), "[root|/nothing|null]");
}

TEST(ContextMapping, WithoutADefaultServletAnUnmappedURLIs404) {
        App app;
        Loader_unLoad(Context_getLoader(app.C), "root");
        Loader_unLoad(Context_getLoader(app.C), "DefaultServlet");
        // A mapped pattern whose servlet is gone ends the search: no fall-through.
        EXPECT_EQ(app.get("/nothing"), "status 404");
        EXPECT_EQ(app.get("/a/b"), "[exact|/a/b|null]");
}

TEST(ContextMapping, MissingMethodIs405AndBuiltInsAnswer404ForNow) {
        App app;
        Exchange post("DELETE", "/ctx/a/b");
        Context_invoke(app.C, post.req(), post.res());
        EXPECT_EQ(HttpResponse_getStatus(post.res()), 405);
        std::string got = post.finish();
        EXPECT_TRUE(contains(got, "Connection: close")) << got;
        EXPECT_TRUE(contains(got, "Method: DELETE not allowed for this URL")) << got;
        Context_T bare = Context_new();
        Exchange x("GET", "/index.html");
        Context_invoke(bare, x.req(), x.res());
        EXPECT_EQ(HttpResponse_getStatus(x.res()), 404);
        Context_free(&bare);
}

TEST(ContextMapping, PatternsAndNamesAreChecked) {
        App app;
        EXPECT_EQ(raised([&] { Context_addServletMapping(app.C, "a/*", "prefix"); }),
                  "AssertException: Invalid URL pattern 'a/*'\n");
        EXPECT_EQ(raised([&] { Context_addServletMapping(app.C, "*.a/b", "prefix"); }),
                  "AssertException: Invalid URL pattern '*.a/b'\n");
        EXPECT_FALSE(Context_addServletMapping(app.C, "/z", "nobody"));
        for (const char* bad : {"", "a.b", "a/b", "a b"})
                EXPECT_EQ(raised([&] { Context_createServlet(app.C, bad, "/q"); }),
                          std::string("AssertException: Servlet name '") + bad +
                              "' contains invalid characters");
        EXPECT_EQ(assertion([&] { Context_setContextPath(app.C, "x"); }),
                  "(path[0] == '\\0') || (path[0] == '/')");
}

TEST(Context, KeepsErrorPagesSessionsAndPaths) {
        Context_T C = Context_new();
        Context_setErrorPage(C, 404, "/404.html");
        Context_setErrorPage(C, 1000, "/thousand.html");
        EXPECT_STREQ(Context_getErrorPage(C, 404), "/404.html");
        EXPECT_STREQ(Context_getErrorPage(C, 100), "/thousand.html");
        EXPECT_EQ(Context_getErrorPage(C, 500), nullptr);
        EXPECT_EQ(Context_getSessionTimeout(C), -1);
        Context_activateSessionManager(C);
        EXPECT_EQ(Context_getActiveSessions(C), 0);
        Context_setDocBase(C, "/srv/app///");
        EXPECT_STREQ(Context_getDocBase(C), "/srv/app");
        EXPECT_STREQ(Context_getContextPath(C), "");
        Context_free(&C);
        EXPECT_EQ(C, nullptr);
}

TEST(RequestDispatcher, ForwardReplacesTheBodyIncludeKeepsIt) {
        App app;
        for (bool forward : {true, false}) {
                Exchange x("GET", "/ctx/a/b?q=1");
                Context_invoke(app.C, x.req(), x.res());
                HttpRequest_T inner = HttpRequest_new(HttpRequest_getArena(x.req()));
                HttpRequest_setRequestURI(inner, "/ctx/x.csp");
                HttpRequest_setMethod(inner, HttpRequest_GET);
                HttpRequest_setResponse(inner, x.res());
                HttpRequest_setContext(inner, app.C);
                RequestDispatcher_T d = RequestDispatcher_new(x.req(), inner);
                EXPECT_STREQ(HttpRequest_getAttribute(inner, "servlet.request_uri"), "/ctx/a/b");
                EXPECT_STREQ(HttpRequest_getAttribute(inner, "servlet.servlet_path"), "/a/b");
                EXPECT_STREQ(HttpRequest_getAttribute(inner, "servlet.query_string"), "q=1");
                EXPECT_EQ(HttpRequest_getAttribute(inner, "servlet.path_info"), nullptr);
                EXPECT_TRUE(forward ? RequestDispatcher_forward(d) : RequestDispatcher_include(d));
                EXPECT_FALSE(HttpResponse_isProcessingForward(x.res()));
                EXPECT_FALSE(HttpResponse_isProcessingInclude(x.res()));
                EXPECT_EQ(x.body(),
                          forward ? "[csp|/x.csp|null]" : "[exact|/a/b|null][csp|/x.csp|null]");
                // Once committed, a forward does nothing.
                EXPECT_FALSE(RequestDispatcher_forward(d));
        }
}

}  // namespace
