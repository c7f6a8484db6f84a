#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vesk/Container.h>
#include <vesk/Context.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/File.h>
#include <vesk/Loader.h>
#include <vesk/LoginConfig.h>
#include <vesk/Mem.h>
#include <vesk/SecurityCollection.h>
#include <vesk/SecurityConstraint.h>
#include <vesk/SessionManager.h>
#include <vesk/Str.h>
#include <vesk/Table.h>
#include <vesk/Wrapper.h>
#include <vesk/XMLParser.h>
#include <vesk/assert.h>

#include "kernel/Transitions.hpp"
#include "kernel/WebXmlReader.hpp"

namespace {

using vesk::WebApp;

// Where the reader stands in WEB-INF/web.xml: the element it is inside.
enum State {
        kStart = 0,
        kEnd,
        kWebApp,
        kServlet,
        kInitParam,
        kServletMapping,
        kSessionConfig,
        kMimeMapping,
        kWelcomeFileList,
        kErrorPage,
        kSecurityConstraint,
        kWebResourceCollection,
        kCSRFProtect,
        kAuthConstraint,
        kUserDataConstraint,
        kIpConstraint,
        kLoginConfig,
        kFormLoginConfig
};

// The element each state stands inside, as messages name it. An element opened inside
// <csrf-protect> is reported as inside its collection, whose patterns that element marks.
constexpr const char* kInside[] = {nullptr,
                                   nullptr,
                                   "web-app",
                                   "servlet",
                                   "init-param",
                                   "servlet-mapping",
                                   "session-config",
                                   "mime-mapping",
                                   "welcome-file-list",
                                   "error-page",
                                   "security-constraint",
                                   "web-resource-collection",
                                   "web-resource-collection",
                                   "auth-constraint",
                                   "user-data-constraint",
                                   "ip-constraint",
                                   "login-config",
                                   "form-login-config"};

struct Parse {
        const WebApp* app;
        State state;
        const char* file;
        XMLParser_T parser;
        Wrapper_T wrapper;
        char* name;
        int errorCode;
        LoginConfig_T loginConfig;
        SecurityCollection_T collection;
        SecurityConstraint_T constraint;
        Arena_T arena;  // the reader's own texts, gone when it ends
};

bool is(const char* element, const char* name) {
        return Str_isEqual(element, name);
}

const char* required(const char* element, const char* text) {
        if (STR_UNDEF(text))
                THROW(AssertException, "A value is required for the <%s> element", element);
        return text;
}

int parseNumber(const char* text, const char* element) {
        int value = 0;
        TRY
                value = Str_parseInt(text);
        CATCH(NumberFormatException)
                THROW(AssertException, "The <%s> value is not a number", element);
        END_TRY;
        return value;
}

/* ------------------------------------------------------------ What an element does */

// The name that the next element of the same parent refers to: of a servlet, a
// parameter or an extension.
void keepName(Parse* p, const char* element, const char* text) {
        p->name = STR_DUP_ARENA(p->arena, required(element, text));
}

void servletClass(Parse* p, const char*, const char* text) {
        if (!p->name)
                THROW(AssertException,
                      "The <servlet-name> element must be defined before <servlet-class>");
        char* base = STR_DUP_ARENA(p->arena, required("servlet-class", text));
        File_noExtension(base);
        Wrapper_T servlet = Loader_load(p->app->loader, base);
        if (!servlet) {
                Error_error("Warning: Cannot load servlet '%s'\n", base);
                return;
        }
        char pattern[256];
        snprintf(pattern, sizeof pattern, "/%s", p->name);
        Wrapper_setName(servlet, base);
        Context_addServletMapping(p->app->context, pattern, base);
}

void paramValue(Parse* p, const char*, const char* text) {
        if (!p->name)
                THROW(AssertException, "The <param-name> must be defined before <param-value>");
        // wrapper is set only inside servlet-mapping, so nothing is stored.
        if (p->wrapper)
                Wrapper_addParameter(p->wrapper, p->name, text);
}

void mappedServlet(Parse* p, const char* element, const char* text) {
        required(element, text);
        p->wrapper = Loader_lookup(p->app->loader, text);
        if (!p->wrapper)
                Error_error("Warning: Cannot find Servlet '%s' to map\n", text);
        else
                p->name = STR_DUP_ARENA(p->arena, Wrapper_getName(p->wrapper));
}

void servletPattern(Parse* p, const char* element, const char* text) {
        required(element, text);
        const char* pattern = strcmp(text, "/*") == 0 ? "/" : text;
        if (p->name)
                Context_addServletMapping(p->app->context, pattern, p->name);
}

void sessionTimeout(Parse* p, const char*, const char* text) {
        int timeout = parseNumber(text, "session-timeout");
        SessionManager_T manager = Context_getSessionManager(p->app->context);
        if (manager)
                SessionManager_setMaxInactiveInterval(manager, timeout);
}

void mimeType(Parse* p, const char* element, const char* text) {
        required(element, text);
        if (p->name)
                Table_put(p->app->mimeTypes, STR_DUP_ARENA(p->app->arena, p->name),
                          STR_DUP_ARENA(p->app->arena, text));
}

void welcomeFile(Parse* p, const char* element, const char* text) {
        List_push(p->app->welcomeFiles, STR_DUP_ARENA(p->app->arena, required(element, text)));
}

void errorCode(Parse* p, const char*, const char* text) {
        p->errorCode = parseNumber(text, "error-code");
}

void location(Parse* p, const char*, const char* text) {
        required("location", text);
        if (*text != '/')
                THROW(AssertException, "The value '%s' for <location> must start with a '/'", text);
        const char* docBase = Context_getDocBase(p->app->context);
        char path[PATH_MAX + 1];
        snprintf(path, sizeof path, "%s%s", docBase ? docBase : "", text);
        if (!File_existFile(path))
                THROW(AssertException, "The file '%s' in <location>%s</location> does not exist.",
                      path, text);
        Context_setErrorPage(p->app->context, p->errorCode, text);
}

void startSecurityConstraint(Parse* p, const char*, const char*) {
        p->constraint = SecurityConstraint_new(p->app->arena);
}

void displayName(Parse* p, const char*, const char* text) {
        if (text)
                SecurityConstraint_setDisplayName(p->constraint, text);
}

void startCollection(Parse* p, const char*, const char*) {
        p->collection = SecurityCollection_new(p->app->arena);
}

void collectionName(Parse* p, const char*, const char* text) {
        if (text)
                SecurityCollection_setName(p->collection, text);
}

void collectionDescription(Parse* p, const char*, const char* text) {
        if (text)
                SecurityCollection_setDescription(p->collection, text);
}

void startCSRFProtect(Parse* p, const char*, const char*) {
        Context_T context = p->app->context;
        if (!Context_getSessionManager(context))
                THROW(AssertException,
                      "web.xml: CSRF protection require Context to have session activated. "
                      "Please edit <Context> with path '%s' in server.xml and set "
                      "maxActiveSessions to a number larger than zero.",
                      Context_getContextPath(context));
}

void protectedPattern(Parse* p, const char* element, const char* text) {
        SecurityCollection_addPattern(p->collection, required(element, text));
}

void protectedMethod(Parse* p, const char* element, const char* text) {
        SecurityCollection_addMethod(p->collection, required(element, text));
}

void csrfPattern(Parse* p, const char* element, const char* text) {
        SecurityCollection_addPatternWithCSRFProtection(p->collection, required(element, text));
}

void authRole(Parse* p, const char* element, const char* text) {
        SecurityConstraint_addAuthRole(p->constraint, required(element, text));
}

void transportGuarantee(Parse* p, const char* element, const char* text) {
        required(element, text);
        if (!is(text, "CONFIDENTIAL") && !is(text, "INTEGRAL") && !is(text, "NONE"))
                THROW(AssertException,
                      "Invalid value '%s' for <transport-guarantee> use one of CONFIDENTIAL, "
                      "INTEGRAL or NONE",
                      text);
        SecurityConstraint_setUserConstraint(p->constraint, text);
}

void ipAddress(Parse* p, const char* element, const char* text) {
        SecurityConstraint_addIpAddress(p->constraint, required(element, text));
}

void startLoginConfig(Parse* p, const char*, const char*) {
        if (p->loginConfig)
                THROW(AssertException, "Only one <login-config> element is allowed");
        p->loginConfig = LoginConfig_new(p->app->arena);
}

void authMethod(Parse* p, const char* element, const char* text) {
        required(element, text);
        if (!is(text, "BASIC") && !is(text, "FORM") && !is(text, "CLIENT_CERT"))
                THROW(AssertException, "Authentication method '%s' is not supported", text);
        LoginConfig_setAuthMethod(p->loginConfig, text);
}

void realmName(Parse* p, const char* element, const char* text) {
        LoginConfig_setRealmName(p->loginConfig, required(element, text));
}

void startFormLoginConfig(Parse* p, const char*, const char*) {
        const char* method = LoginConfig_getAuthMethod(p->loginConfig);
        if (!method || !is(method, "FORM"))
                THROW(AssertException,
                      "form-login-config is invalid for authentication method '%s'",
                      method ? method : "null");
}

void loginPage(Parse* p, const char* element, const char* text) {
        if (*required(element, text) != '/')
                THROW(AssertException, "The form-login-page URL must start with '/'");
        LoginConfig_setLoginPage(p->loginConfig, text);
}

void loginErrorPage(Parse* p, const char* element, const char* text) {
        if (*required(element, text) != '/')
                THROW(AssertException, "The form-error-page URL must start with '/'");
        LoginConfig_setErrorPage(p->loginConfig, text);
}

/* ------------------------------------------------------------ What an end tag does */

void clearFields(Parse* p) {
        p->wrapper = nullptr;
        p->name = nullptr;
        p->errorCode = 0;
}

void endInitParam(Parse* p) {
        p->name = nullptr;
}

void endSecurityConstraint(Parse* p) {
        Context_addSecurityConstraint(p->app->context, p->constraint);
        p->constraint = nullptr;
}

void endCollection(Parse* p) {
        SecurityConstraint_addCollection(p->constraint, p->collection);
        p->collection = nullptr;
}

void endLoginConfig(Parse* p) {
        Context_setLoginConfig(p->app->context, p->loginConfig);
}

/* ------------------------------------------------------------------- The machine */

// The elements each state admits, what opening one does with its text, and the state it
// leads to. An element that leads to no state of its own is a leaf: its end tag leaves the
// state as it is.
using Opening = vesk::Transition<State, void (*)(Parse* p, const char* element, const char* text)>;

constexpr Opening kOpenings[] = {
    {kStart, "web-app", nullptr, kWebApp},
    {kWebApp, "servlet", nullptr, kServlet},
    {kWebApp, "servlet-mapping", nullptr, kServletMapping},
    {kWebApp, "session-config", nullptr, kSessionConfig},
    {kWebApp, "mime-mapping", nullptr, kMimeMapping},
    {kWebApp, "welcome-file-list", nullptr, kWelcomeFileList},
    {kWebApp, "error-page", nullptr, kErrorPage},
    {kWebApp, "security-constraint", startSecurityConstraint, kSecurityConstraint},
    {kWebApp, "login-config", startLoginConfig, kLoginConfig},
    {kServlet, "servlet-name", keepName, kServlet},
    {kServlet, "servlet-class", servletClass, kServlet},
    {kServlet, "init-param", nullptr, kInitParam},
    {kInitParam, "param-name", keepName, kInitParam},
    {kInitParam, "param-value", paramValue, kInitParam},
    {kServletMapping, "servlet-name", mappedServlet, kServletMapping},
    {kServletMapping, "url-pattern", servletPattern, kServletMapping},
    {kSessionConfig, "session-timeout", sessionTimeout, kSessionConfig},
    {kMimeMapping, "extension", keepName, kMimeMapping},
    {kMimeMapping, "mime-type", mimeType, kMimeMapping},
    {kWelcomeFileList, "welcome-file", welcomeFile, kWelcomeFileList},
    {kErrorPage, "error-code", errorCode, kErrorPage},
    {kErrorPage, "location", location, kErrorPage},
    {kSecurityConstraint, "display-name", displayName, kSecurityConstraint},
    {kSecurityConstraint, "web-resource-collection", startCollection, kWebResourceCollection},
    {kSecurityConstraint, "auth-constraint", nullptr, kAuthConstraint},
    {kSecurityConstraint, "ip-constraint", nullptr, kIpConstraint},
    {kSecurityConstraint, "user-data-constraint", nullptr, kUserDataConstraint},
    {kWebResourceCollection, "web-resource-name", collectionName, kWebResourceCollection},
    {kWebResourceCollection, "description", collectionDescription, kWebResourceCollection},
    {kWebResourceCollection, "csrf-protect", startCSRFProtect, kCSRFProtect},
    {kWebResourceCollection, "url-pattern", protectedPattern, kWebResourceCollection},
    {kWebResourceCollection, "http-method", protectedMethod, kWebResourceCollection},
    {kCSRFProtect, "url-pattern", csrfPattern, kCSRFProtect},
    {kAuthConstraint, "role-name", authRole, kAuthConstraint},
    {kUserDataConstraint, "transport-guarantee", transportGuarantee, kUserDataConstraint},
    {kIpConstraint, "ip-address", ipAddress, kIpConstraint},
    {kLoginConfig, "auth-method", authMethod, kLoginConfig},
    {kLoginConfig, "realm-name", realmName, kLoginConfig},
    {kLoginConfig, "form-login-config", startFormLoginConfig, kFormLoginConfig},
    {kFormLoginConfig, "form-login-page", loginPage, kFormLoginConfig},
    {kFormLoginConfig, "form-error-page", loginErrorPage, kFormLoginConfig},
};

// The end tag that closes each state, what closing does, and the state it returns to.
using Closing = vesk::Transition<State, void (*)(Parse* p)>;

constexpr Closing kClosings[] = {
    {kWebApp, "web-app", nullptr, kEnd},
    {kServlet, "servlet", clearFields, kWebApp},
    {kInitParam, "init-param", endInitParam, kServlet},
    {kServletMapping, "servlet-mapping", clearFields, kWebApp},
    {kSessionConfig, "session-config", nullptr, kWebApp},
    {kMimeMapping, "mime-mapping", clearFields, kWebApp},
    {kWelcomeFileList, "welcome-file-list", nullptr, kWebApp},
    {kErrorPage, "error-page", clearFields, kWebApp},
    {kSecurityConstraint, "security-constraint", endSecurityConstraint, kWebApp},
    {kWebResourceCollection, "web-resource-collection", endCollection, kSecurityConstraint},
    {kCSRFProtect, "csrf-protect", nullptr, kWebResourceCollection},
    {kAuthConstraint, "auth-constraint", nullptr, kSecurityConstraint},
    {kUserDataConstraint, "user-data-constraint", nullptr, kSecurityConstraint},
    {kIpConstraint, "ip-constraint", nullptr, kSecurityConstraint},
    {kLoginConfig, "login-config", endLoginConfig, kWebApp},
    {kFormLoginConfig, "form-login-config", nullptr, kLoginConfig},
};

void startElement(const char* element, const char**, const char* text, void* ctx) {
        Parse* p = static_cast<Parse*>(ctx);
        if (vesk::Transition_take(kOpenings, p->state, element, p, element, text))
                return;
        if (p->state == kStart)
                THROW(AssertException, "XML parse error -- invalid element <%s>", element);
        if (p->state == kEnd)
                THROW(AssertException, "XML parse error -- invalid element %s;", element);
        THROW(AssertException, "XML parse error -- element <%s> not allowed inside <%s>", element,
              kInside[p->state]);
}

void endElement(const char* element, void* ctx) {
        Parse* p = static_cast<Parse*>(ctx);
        if (p->state == kStart || p->state == kEnd)
                THROW(AssertException, "XML parse error -- invalid element %s;", element);
        const Opening* leaf = vesk::Transition_find(kOpenings, p->state, element);
        if (leaf && leaf->next == p->state)
                return;
        if (vesk::Transition_take(kClosings, p->state, element, p))
                return;
        if (p->state == kWebApp)
                THROW(AssertException, "XML parse error -- invalid element </%s>", element);
        THROW(AssertException, "XML parse error -- element <%s> not allowed inside <%s>", element,
              p->state == kCSRFProtect ? "csrf-protect" : kInside[p->state]);
}

void startDocument(void* a) {
        assert(a);
        Parse* p = static_cast<Parse*>(a);
        p->state = kStart;
        Error_debug("Start parsing the deployment descriptor '%s'\n", p->file);
}

void endDocument(void* a) {
        Parse* p = static_cast<Parse*>(a);
        if (p->state != kEnd)
                THROW(AssertException, "The Parser is not in the correct stop state");
        Error_debug("End parsing the deployment descriptor '%s'\n", p->file);
}

void parseError(const char* message, void*) {
        THROW(AssertException, "XML parse error -- %s", message);
}

}  // namespace

void vesk::WebXmlReader_read(const WebApp& app) {
        const char* docBase = Context_getDocBase(app.context);
        if (!docBase)
                return;
        char file[PATH_MAX + 1];
        snprintf(file, sizeof file, "%s%sWEB-INF%sweb.xml", docBase, SEPARATOR, SEPARATOR);
        if (!File_isFile(file)) {
                Error_warn("Warning: Deployment descriptor '%s' cannot be loaded\n", file);
                return;
        }
        Parse p = {};
        p.app = &app;
        p.file = file;
        p.arena = Arena_new();
        TRY
                p.parser = XMLParser_new(URL_create("file://%s", file), &p);
                XMLParser_setStartDocumentHandler(p.parser, startDocument);
                XMLParser_setEndDocumentHandler(p.parser, endDocument);
                XMLParser_setStartElementHandler(p.parser, startElement);
                XMLParser_setEndElementHandler(p.parser, endElement);
                XMLParser_setErrorHandler(p.parser, parseError);
                XMLParser_parse(p.parser);
        ELSE
                int line = p.parser ? XMLParser_getCurrentLine(p.parser) : 0;
                Arena_dispose(&p.arena);
                if (p.parser)
                        XMLParser_free(&p.parser);
                Exception_throw(Exception_frame.exception, Exception_frame.func,
                                Exception_frame.file, Exception_frame.line, "%s in '%s' at line %d",
                                Exception_frame.message, file, line);
        END_TRY;
        Arena_dispose(&p.arena);
        XMLParser_free(&p.parser);
}
