#include <gtest/gtest.h>

#include <string>

#include <vesk/Context.h>
#include <vesk/Loader.h>
#include <vesk/LoginConfig.h>
#include <vesk/SecurityConstraint.h>
#include <vesk/ServletContext.h>

#include "support/Support.hpp"
#include "support/KernelSupport.hpp"

namespace {

struct WebXml : ::testing::Test {
        AppDir dir;
        Context_T C = Context_new();

        WebXml() { Context_setDocBase(C, dir.path().c_str()); }
        ~WebXml() override { Context_free(&C); }
        ServletContext_T sc() const { return Context_getServletContext(C); }
        // Reads body inside <web-app>; what it raised, or "".
        std::string read(const std::string& body) {
                dir.webXml("<?xml version='1.0'?>\n<web-app>\n" + body + "\n</web-app>\n");
                return raised([&] { ServletContext_parseConf(sc()); });
        }
        std::string path() const { return dir / "WEB-INF/web.xml"; }
};

TEST_F(WebXml, MapsServletsByClassNameAndExtraURLs) {
        dir.install("hello", "hello");
        Loader_start(Context_getLoader(C));
        EXPECT_EQ(read("<servlet><servlet-name>greeter</servlet-name>"
                       "<servlet-class>org/x/hello.clazz</servlet-class>"
                       "<init-param><param-name>p</param-name><param-value>v</param-value>"
                       "</init-param></servlet>"
                       "<servlet-mapping><servlet-name>hello</servlet-name>"
                       "<url-pattern>/h/*</url-pattern><url-pattern>*.hi</url-pattern>"
                       "</servlet-mapping>"
                       "<servlet-mapping><servlet-name>greeter</servlet-name>"
                       "<url-pattern>/g/*</url-pattern></servlet-mapping>"),
                  "");
        Wrapper_T hello = Loader_lookup(Context_getLoader(C), "hello");
        ASSERT_NE(hello, nullptr);
        // init-param is checked but never stored.
        EXPECT_EQ(Wrapper_getParameter(hello, "p"), nullptr);
        for (const char* uri : {"/greeter", "/h/x", "/a.hi", "/hello"}) {
                Exchange x("GET", uri);
                EXPECT_EQ(Context_dispatch(C, x.req()), hello) << uri;
        }
        Exchange g("GET", "/g/x");
        EXPECT_NE(Context_dispatch(C, g.req()), hello);
        Loader_stop(Context_getLoader(C));
}

TEST_F(WebXml, ReadsMimeTypesWelcomeFilesAndErrorPages) {
        dir.write("404.html", "gone");
        EXPECT_EQ(read("<mime-mapping><extension>Txt</extension><mime-type>text/x</mime-type>"
                       "</mime-mapping>"
                       "<mime-mapping><mime-type>dropped/y</mime-type><extension>y</extension>"
                       "</mime-mapping>"
                       "<welcome-file-list><welcome-file>index.html</welcome-file>"
                       "<welcome-file>Index.CSP</welcome-file></welcome-file-list>"
                       "<error-page><error-code>404</error-code><location>/404.html</location>"
                       "</error-page>"
                       "<session-config><session-timeout>30</session-timeout></session-config>"),
                  "");
        EXPECT_STREQ(ServletContext_getMimeType(sc(), "/a/b.Txt"), "text/x");
        EXPECT_EQ(ServletContext_getMimeType(sc(), "/a/b.txt"), nullptr);
        EXPECT_EQ(ServletContext_getMimeType(sc(), "/a/b.y"), nullptr);
        List_T welcome = ServletContext_getWelcomeFiles(sc());
        ASSERT_EQ(List_length(welcome), 2);
        EXPECT_STREQ(static_cast<char*>(welcome->head->e), "Index.CSP");
        EXPECT_STREQ(Context_getErrorPage(C, 404), "/404.html");
}

TEST_F(WebXml, BuildsSecurityConstraintsAndLogin) {
        EXPECT_EQ(read("<security-constraint><display-name>admin</display-name>"
                       "<web-resource-collection><web-resource-name>a</web-resource-name>"
                       "<url-pattern>/admin/*</url-pattern><http-method>get</http-method>"
                       "</web-resource-collection>"
                       "<auth-constraint><role-name>boss</role-name></auth-constraint>"
                       "<user-data-constraint><transport-guarantee>confidential"
                       "</transport-guarantee></user-data-constraint>"
                       "<ip-constraint><ip-address>10.0.*</ip-address></ip-constraint>"
                       "</security-constraint>"
                       "<login-config><auth-method>FORM</auth-method><realm-name>r</realm-name>"
                       "<form-login-config><form-login-page>/login</form-login-page>"
                       "<form-error-page>/error</form-error-page></form-login-config>"
                       "</login-config>"),
                  "");
        List_T constraints = Context_getSecurityConstraints(C);
        ASSERT_EQ(List_length(constraints), 1);
        SecurityConstraint_T s = static_cast<SecurityConstraint_T>(constraints->head->e);
        EXPECT_STREQ(SecurityConstraint_getDisplayName(s), "admin");
        EXPECT_STREQ(SecurityConstraint_getUserConstraint(s), "confidential");
        EXPECT_TRUE(SecurityConstraint_getAuthConstraint(s));
        EXPECT_TRUE(SecurityConstraint_included(s, "/admin/x", "GET"));
        EXPECT_FALSE(SecurityConstraint_included(s, "/admin/x", "POST"));
        EXPECT_TRUE(SecurityConstraint_findIpAddress(s, "::ffff:10.0.3.4"));
        EXPECT_FALSE(Context_containsCSRFProtection(C));
        LoginConfig_T login = Context_getLoginConfig(C);
        ASSERT_NE(login, nullptr);
        EXPECT_STREQ(LoginConfig_getLoginPage(login), "/login");
        EXPECT_STREQ(LoginConfig_getRealmName(login), "r");
}

TEST_F(WebXml, ReportsErrorsWithFileAndLine) {
        auto at = [&](const std::string& message, int line) {
                return "AssertException: " + message + " in '" + path() + "' at line " +
                       std::to_string(line);
        };
        EXPECT_EQ(read("<servlet>\n<bogus/></servlet>"),
                  at("XML parse error -- element <bogus> not allowed inside <servlet>", 4));
        EXPECT_EQ(read("<servlet><servlet-class>x</servlet-class></servlet>"),
                  at("The <servlet-name> element must be defined before <servlet-class>", 3));
        EXPECT_EQ(read("<servlet><servlet-name>x</servlet-name><init-param><param-name>p"
                       "</param-name></init-param><servlet-class>x</servlet-class></servlet>"),
                  at("The <servlet-name> element must be defined before <servlet-class>", 3));
        EXPECT_EQ(read("<servlet><servlet-name></servlet-name></servlet>"),
                  at("A value is required for the <servlet-name> element", 3));
        EXPECT_EQ(read("<login-config/><login-config/>"),
                  at("Only one <login-config> element is allowed", 3));
        EXPECT_EQ(read("<login-config><form-login-config/></login-config>"),
                  at("form-login-config is invalid for authentication method 'null'", 3));
        EXPECT_EQ(read("<login-config><auth-method>digest</auth-method></login-config>"),
                  at("Authentication method 'digest' is not supported", 3));
        EXPECT_EQ(read("<error-page><error-code>x</error-code></error-page>"),
                  at("The <error-code> value is not a number", 3));
        EXPECT_EQ(read("<error-page><location>/none.html</location></error-page>"),
                  at("The file '" + dir.path() +
                         "/none.html' in <location>/none.html</location> does not exist.",
                     3));
        EXPECT_EQ(read("<security-constraint><web-resource-collection><csrf-protect>"
                       "</csrf-protect></web-resource-collection></security-constraint>"),
                  at("web.xml: CSRF protection require Context to have session activated. "
                     "Please edit <Context> with path '' in server.xml and set "
                     "maxActiveSessions to a number larger than zero.",
                     3));
        EXPECT_EQ(read("<security-constraint><user-data-constraint><transport-guarantee>SOME"
                       "</transport-guarantee></user-data-constraint></security-constraint>"),
                  at("Invalid value 'SOME' for <transport-guarantee> use one of CONFIDENTIAL, "
                     "INTEGRAL or NONE",
                     3));
        dir.webXml("<web-app></web-app><extra/>");
        EXPECT_EQ(raised([&] { ServletContext_parseConf(sc()); }),
                  at("XML parse error -- invalid element extra;", 1));
        dir.webXml("<web-app>");
        std::string unclosed = raised([&] { ServletContext_parseConf(sc()); });
        EXPECT_EQ(unclosed.rfind("AssertException: XML parse error -- Parse error at line [1]", 0),
                  0u)
            << unclosed;
}

TEST_F(WebXml, AttributesAndRealPaths) {
        ServletContext_T s = sc();
        int one = 1, two = 2;
        EXPECT_EQ(ServletContext_setAttribute(s, "k", &one), nullptr);
        EXPECT_EQ(ServletContext_setAttribute(s, "k", &two), &one);
        EXPECT_EQ(ServletContext_getAttribute(s, "k"), &two);
        EXPECT_EQ(ServletContext_setAttribute(s, "k", nullptr), &two);
        EXPECT_EQ(ServletContext_getAttribute(s, "k"), nullptr);
        dir.write("page.html", "x");
        const char* real = ServletContext_getRealPath(s, "/page.html");
        ASSERT_NE(real, nullptr);
        EXPECT_TRUE(contains(real, "/page.html"));
        EXPECT_EQ(ServletContext_getRealPath(s, "/web-inf/web.xml"), nullptr);
        for (const char* hidden : {"/WEB-INF/classes", "//WEB-INF/classes", "/./WEB-INF/classes",
                                   "WEB-INF/classes", "/Web-Inf/../WEB-INF/classes"})
                EXPECT_EQ(ServletContext_getRealPath(s, hidden), nullptr) << hidden;
        FileInputStream_T in = ServletContext_getResourceAsStream(s, "/page.html");
        ASSERT_NE(in, nullptr);
        FileInputStream_free(&in);
        EXPECT_EQ(ServletContext_getResourceAsStream(s, "/missing.html"), nullptr);
}

}  // namespace
