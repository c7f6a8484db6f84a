#include <gtest/gtest.h>

#include <stdlib.h>
#include <time.h>

#include <string>

#include <vesk/Context.h>
#include <vesk/Dso.h>
#include <vesk/File.h>
#include <vesk/Loader.h>
#include <vesk/ServletContext.h>
#include <vesk/Wrapper.h>

#include "support/Support.hpp"
#include "support/KernelSupport.hpp"

namespace {

int counter(const char* name) {
        const char* v = getenv(name);
        return v ? atoi(v) : 0;
}

// An application in a temporary directory, started by the test and stopped at the end.
struct Module : ::testing::Test {
        AppDir dir;
        Context_T C = nullptr;
        bool started = false;

        void SetUp() override {
                unsetenv("HELLO_INIT");
                unsetenv("HELLO_DESTROY");
                C = Context_new();
                Context_setDocBase(C, dir.path().c_str());
        }
        void TearDown() override {
                if (started)
                        Context_stop(C);
                Context_free(&C);
        }
        void start() {
                Context_start(C);
                started = true;
        }
        Loader_T loader() const { return Context_getLoader(C); }
        // Status and body of one request.
        std::string ask(const char* method, const std::string& uri) {
                Exchange x(method, uri);
                Context_invoke(C, x.req(), x.res());
                int status = HttpResponse_getStatus(x.res());
                std::string body = x.body();
                return status == 200 ? body : std::to_string(status);
        }
};

TEST_F(Module, StartLoadsModulesRunsInitAndMapsThemByName) {
        dir.install("hello", "hello");
        dir.install("echo", "echo");
        dir.install("broken", "broken");
        dir.install("failinit", "failinit");
        dir.install("empty", "empty");
        start();
        EXPECT_EQ(counter("HELLO_INIT"), 1);
        // A C++ module's init reached the application through its ServletConfig.
        EXPECT_STREQ(
            static_cast<char*>(ServletContext_getAttribute(Context_getServletContext(C), "echo")),
            "echo");
        ServletContext_removeAttribute(Context_getServletContext(C), "echo");
        EXPECT_EQ(ask("GET", "/hello"), "hello GET servlet=/hello info=null");
        EXPECT_EQ(ask("POST", "/hello"), "hello POST servlet=/hello info=null");
        EXPECT_EQ(ask("PUT", "/hello"), "405");
        EXPECT_EQ(ask("GET", "/echo"), "echo one");
        // A module that exports nothing loads, and every method is refused.
        EXPECT_NE(Loader_lookup(loader(), "empty"), nullptr);
        for (const char* method : {"GET", "POST", "HEAD", "DELETE", "OPTIONS"})
                EXPECT_EQ(ask(method, "/empty"), "405") << method;
        // The linker refused one module and another raised in init: both are gone, and
        // their URLs fall to the default servlet.
        EXPECT_EQ(Loader_lookup(loader(), "broken"), nullptr);
        EXPECT_EQ(Loader_lookup(loader(), "failinit"), nullptr);
        EXPECT_EQ(ask("GET", "/broken"), "404");
        Context_stop(C);
        started = false;
        EXPECT_EQ(counter("HELLO_DESTROY"), 1);
        EXPECT_EQ(Loader_lookup(loader(), "hello"), nullptr);
}

TEST_F(Module, ReloadableApplicationPicksUpAChangedModule) {
        time_t now = time(nullptr);
        dir.install("echo", "echo", now - 100);
        dir.install("hello", "hello", now - 100);
        Context_setReloadable(C, 1);
        start();
        EXPECT_EQ(ask("GET", "/echo"), "echo one");
        dir.install("echo_two", "echo", now - 50);
        EXPECT_EQ(ask("GET", "/echo"), "echo two");
        // The first reload destroys the old module; init is not run again.
        dir.install("hello", "hello", now - 50);
        EXPECT_EQ(ask("GET", "/hello"), "hello GET servlet=/hello info=null");
        EXPECT_EQ(counter("HELLO_INIT"), 1);
        EXPECT_EQ(counter("HELLO_DESTROY"), 1);
        // A module whose file disappears goes away; its mapping then finds nothing.
        remove((dir / "WEB-INF/classes/echo.clazz").c_str());
        EXPECT_EQ(ask("GET", "/echo"), "404");
        EXPECT_EQ(Loader_lookup(loader(), "echo"), nullptr);
}

TEST_F(Module, FixedApplicationIgnoresChangesUntilRestart) {
        time_t now = time(nullptr);
        dir.install("echo", "echo", now - 100);
        start();
        dir.install("echo_two", "echo", now - 50);
        EXPECT_EQ(ask("GET", "/echo"), "echo one");
        // A virtual servlet of the same name replaces the module, destroying it first.
        Wrapper_T w = Loader_createServlet(loader(), "echo");
        EXPECT_TRUE(Wrapper_isVirtual(w));
        EXPECT_EQ(Loader_lookup(loader(), "echo"), w);
        EXPECT_TRUE(Loader_unLoad(loader(), "echo"));
        EXPECT_FALSE(Loader_unLoad(loader(), "echo"));
        EXPECT_FALSE(Loader_unLoad(loader(), nullptr));
}

TEST_F(Module, DsoLoadsAndRefusesFiles) {
        dir.install("hello", "hello");
        std::string path = dir / "WEB-INF/classes/hello.clazz";
        EXPECT_EQ(Dso_load((dir / "missing.clazz").c_str(), "missing"), nullptr);
        Wrapper_T w = Dso_load(path.c_str(), "hello");
        ASSERT_NE(w, nullptr);
        EXPECT_FALSE(Wrapper_isVirtual(w));
        EXPECT_NE(Wrapper_getHandle(w), nullptr);
        EXPECT_STREQ(ServletConfig_getServletName(Wrapper_getServletConfig(w)), "hello");
        EXPECT_EQ(Wrapper_getLastModified(w), File_mtime(path.c_str()));
        EXPECT_EQ(Dso_reLoad(w), w);
        EXPECT_TRUE(Dso_unLoad(w));
        Wrapper_free(&w);
        std::string brokenPath = dir / "WEB-INF/classes/broken.clazz";
        dir.install("broken", "broken");
        EXPECT_EQ(Dso_load(brokenPath.c_str(), "broken"), nullptr);
}

TEST(ServletConfig, KeepsParametersAndCachesTheirNames) {
        ServletConfig_T c = ServletConfig_new();
        ServletConfig_setInitParameter(c, "a", "1");
        ServletConfig_setInitParameter(c, "a", "2");
        EXPECT_STREQ(ServletConfig_getInitParameter(c, "A"), "2");
        const char** names = ServletConfig_getInitParameterNames(c);
        ServletConfig_setInitParameter(c, "b", "3");
        EXPECT_EQ(ServletConfig_getInitParameterNames(c), names);
        EXPECT_STREQ(names[0], "a");
        EXPECT_EQ(names[1], nullptr);
        ServletConfig_free(&c);
}

}  // namespace
