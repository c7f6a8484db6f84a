#include <limits.h>
#include <pthread.h>
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
#include <vesk/ServletContext.h>
#include <vesk/Str.h>
#include <vesk/Table.h>
#include <vesk/XMLParser.h>
#include <vesk/assert.h>

#include "kernel/KernelSeams.hpp"
#include "thread/Lock.hpp"

namespace {

struct Attribute {
        char* name;
        void* value;
};

}  // namespace

struct ServletContext_S {
        Loader_T loader;
        Context_T parent;
        Table_T mimeTypes;
        Table_T attributes;
        List_T welcomeFiles;
        pthread_mutex_t mutex;
        Arena_T arena;
};

/* ------------------------------------------------------------ The descriptor reader */

namespace {

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

// The element each state stands inside, as messages name it.
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
        ServletContext_T C;
        int state;
        const char* file;
        XMLParser_T parser;
        Wrapper_T wrapper;
        char* name;
        int errorCode;
        LoginConfig_T loginConfig;
        SecurityCollection_T collection;
        SecurityConstraint_T constraint;
        Arena_T arena;
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

void clearFields(Parse* p) {
        p->wrapper = nullptr;
        p->name = nullptr;
        p->errorCode = 0;
}

[[noreturn]] void notAllowed(const char* element, int state) {
        THROW(AssertException, "XML parse error -- element <%s> not allowed inside <%s>", element,
              kInside[state]);
        abort();
}

void servletClass(Parse* p, const char* text) {
        if (!p->name)
                THROW(AssertException,
                      "The <servlet-name> element must be defined before <servlet-class>");
        char* base = STR_DUP_ARENA(p->arena, required("servlet-class", text));
        File_noExtension(base);
        Wrapper_T servlet = Loader_load(p->C->loader, base);
        if (!servlet) {
                Error_error("Warning: Cannot load servlet '%s'\n", base);
                return;
        }
        char pattern[256];
        snprintf(pattern, sizeof pattern, "/%s", p->name);
        Wrapper_setName(servlet, base);
        Context_addServletMapping(p->C->parent, pattern, base);
}

void location(Parse* p, const char* text) {
        required("location", text);
        if (*text != '/')
                THROW(AssertException, "The value '%s' for <location> must start with a '/'", text);
        const char* docBase = Context_getDocBase(p->C->parent);
        char path[PATH_MAX + 1];
        snprintf(path, sizeof path, "%s%s", docBase ? docBase : "", text);
        if (!File_existFile(path))
                THROW(AssertException, "The file '%s' in <location>%s</location> does not exist.",
                      path, text);
        Context_setErrorPage(p->C->parent, p->errorCode, text);
}

void startWebApp(Parse* p, const char* element) {
        ServletContext_T C = p->C;
        if (is(element, "servlet"))
                p->state = kServlet;
        else if (is(element, "servlet-mapping"))
                p->state = kServletMapping;
        else if (is(element, "session-config"))
                p->state = kSessionConfig;
        else if (is(element, "mime-mapping"))
                p->state = kMimeMapping;
        else if (is(element, "welcome-file-list"))
                p->state = kWelcomeFileList;
        else if (is(element, "error-page"))
                p->state = kErrorPage;
        else if (is(element, "security-constraint")) {
                p->state = kSecurityConstraint;
                p->constraint = SecurityConstraint_new(C->arena);
        } else if (is(element, "login-config")) {
                if (p->loginConfig)
                        THROW(AssertException, "Only one <login-config> element is allowed");
                p->state = kLoginConfig;
                p->loginConfig = LoginConfig_new(C->arena);
        } else
                notAllowed(element, p->state);
}

void startElement(const char* element, const char**, const char* text, void* ctx) {
        Parse* p = static_cast<Parse*>(ctx);
        ServletContext_T C = p->C;
        Context_T context = C->parent;
        switch (p->state) {
        case kStart:
                if (!is(element, "web-app"))
                        THROW(AssertException, "XML parse error -- invalid element <%s>", element);
                p->state = kWebApp;
                return;
        case kEnd:
                THROW(AssertException, "XML parse error -- invalid element %s;", element);
                return;
        case kWebApp:
                startWebApp(p, element);
                return;
        case kServlet:
                if (is(element, "servlet-name"))
                        p->name = STR_DUP_ARENA(p->arena, required(element, text));
                else if (is(element, "servlet-class"))
                        servletClass(p, text);
                else if (is(element, "init-param"))
                        p->state = kInitParam;
                else
                        notAllowed(element, p->state);
                return;
        case kInitParam:
                if (is(element, "param-name"))
                        p->name = STR_DUP_ARENA(p->arena, required(element, text));
                else if (is(element, "param-value")) {
                        if (!p->name)
                                THROW(AssertException,
                                      "The <param-name> must be defined before <param-value>");
                        // wrapper is set only inside servlet-mapping, so nothing is stored.
                        if (p->wrapper)
                                Wrapper_addParameter(p->wrapper, p->name, text);
                } else
                        notAllowed(element, p->state);
                return;
        case kServletMapping:
                if (is(element, "servlet-name")) {
                        required(element, text);
                        p->wrapper = Loader_lookup(C->loader, text);
                        if (!p->wrapper)
                                Error_error("Warning: Cannot find Servlet '%s' to map\n", text);
                        else
                                p->name = STR_DUP_ARENA(p->arena, Wrapper_getName(p->wrapper));
                } else if (is(element, "url-pattern")) {
                        required(element, text);
                        const char* pattern = strcmp(text, "/*") == 0 ? "/" : text;
                        if (p->name)
                                Context_addServletMapping(context, pattern, p->name);
                } else
                        notAllowed(element, p->state);
                return;
        case kSessionConfig:
                if (is(element, "session-timeout")) {
                        int timeout = parseNumber(text, "session-timeout");
                        SessionManager_T manager = Context_getSessionManager(context);
                        if (manager)
                                kernelseam::sessionManagerSetMaxInactiveInterval(manager, timeout);
                } else
                        notAllowed(element, p->state);
                return;
        case kMimeMapping:
                if (is(element, "extension"))
                        p->name = STR_DUP_ARENA(p->arena, required(element, text));
                else if (is(element, "mime-type")) {
                        required(element, text);
                        if (p->name)
                                Table_put(C->mimeTypes, STR_DUP_ARENA(C->arena, p->name),
                                          STR_DUP_ARENA(C->arena, text));
                } else
                        notAllowed(element, p->state);
                return;
        case kWelcomeFileList:
                if (is(element, "welcome-file"))
                        List_push(C->welcomeFiles,
                                  STR_DUP_ARENA(C->arena, required(element, text)));
                else
                        notAllowed(element, p->state);
                return;
        case kErrorPage:
                if (is(element, "error-code"))
                        p->errorCode = parseNumber(text, "error-code");
                else if (is(element, "location"))
                        location(p, text);
                else
                        notAllowed(element, p->state);
                return;
        case kSecurityConstraint:
                if (is(element, "display-name")) {
                        if (text)
                                SecurityConstraint_setDisplayName(p->constraint, text);
                } else if (is(element, "web-resource-collection")) {
                        p->state = kWebResourceCollection;
                        p->collection = SecurityCollection_new(C->arena);
                } else if (is(element, "auth-constraint"))
                        p->state = kAuthConstraint;
                else if (is(element, "ip-constraint"))
                        p->state = kIpConstraint;
                else if (is(element, "user-data-constraint"))
                        p->state = kUserDataConstraint;
                else
                        notAllowed(element, p->state);
                return;
        case kWebResourceCollection:
                if (is(element, "web-resource-name")) {
                        if (text)
                                SecurityCollection_setName(p->collection, text);
                } else if (is(element, "description")) {
                        if (text)
                                SecurityCollection_setDescription(p->collection, text);
                } else if (is(element, "csrf-protect")) {
                        if (!Context_getSessionManager(context))
                                THROW(AssertException,
                                      "web.xml: CSRF protection require Context to have session "
                                      "activated. Please edit <Context> with path '%s' in "
                                      "server.xml and set maxActiveSessions to a number larger "
                                      "than zero.",
                                      Context_getContextPath(context));
                        p->state = kCSRFProtect;
                } else if (is(element, "url-pattern"))
                        SecurityCollection_addPattern(p->collection, required(element, text));
                else if (is(element, "http-method"))
                        SecurityCollection_addMethod(p->collection, required(element, text));
                else
                        notAllowed(element, p->state);
                return;
        case kCSRFProtect:
                if (is(element, "url-pattern"))
                        SecurityCollection_addPatternWithCSRFProtection(p->collection,
                                                                        required(element, text));
                else
                        notAllowed(element, p->state);
                return;
        case kAuthConstraint:
                if (is(element, "role-name"))
                        SecurityConstraint_addAuthRole(p->constraint, required(element, text));
                else
                        notAllowed(element, p->state);
                return;
        case kUserDataConstraint:
                if (is(element, "transport-guarantee")) {
                        required(element, text);
                        if (!is(text, "CONFIDENTIAL") && !is(text, "INTEGRAL") && !is(text, "NONE"))
                                THROW(AssertException,
                                      "Invalid value '%s' for <transport-guarantee> use one of "
                                      "CONFIDENTIAL, INTEGRAL or NONE",
                                      text);
                        SecurityConstraint_setUserConstraint(p->constraint, text);
                } else
                        notAllowed(element, p->state);
                return;
        case kIpConstraint:
                if (is(element, "ip-address"))
                        SecurityConstraint_addIpAddress(p->constraint, required(element, text));
                else
                        notAllowed(element, p->state);
                return;
        case kLoginConfig:
                if (is(element, "auth-method")) {
                        required(element, text);
                        if (!is(text, "BASIC") && !is(text, "FORM") && !is(text, "CLIENT_CERT"))
                                THROW(AssertException,
                                      "Authentication method '%s' is not supported", text);
                        LoginConfig_setAuthMethod(p->loginConfig, text);
                } else if (is(element, "realm-name"))
                        LoginConfig_setRealmName(p->loginConfig, required(element, text));
                else if (is(element, "form-login-config")) {
                        const char* method = LoginConfig_getAuthMethod(p->loginConfig);
                        if (!method || !is(method, "FORM"))
                                THROW(AssertException,
                                      "form-login-config is invalid for authentication method "
                                      "'%s'",
                                      method ? method : "null");
                        p->state = kFormLoginConfig;
                } else
                        notAllowed(element, p->state);
                return;
        case kFormLoginConfig:
                if (is(element, "form-login-page")) {
                        if (*required(element, text) != '/')
                                THROW(AssertException,
                                      "The form-login-page URL must start with '/'");
                        LoginConfig_setLoginPage(p->loginConfig, text);
                } else if (is(element, "form-error-page")) {
                        if (*required(element, text) != '/')
                                THROW(AssertException,
                                      "The form-error-page URL must start with '/'");
                        LoginConfig_setErrorPage(p->loginConfig, text);
                } else
                        notAllowed(element, p->state);
                return;
        default:
                return;
        }
}

// The elements that close each state, and the state they return to. Children that may
// close inside a state keep it.
struct Closing {
        int state;
        const char* element;
        int next;
};

constexpr Closing kClosing[] = {
    {kWebApp, "web-app", kEnd},
    {kServlet, "servlet", kWebApp},
    {kInitParam, "init-param", kServlet},
    {kServletMapping, "servlet-mapping", kWebApp},
    {kSessionConfig, "session-config", kWebApp},
    {kMimeMapping, "mime-mapping", kWebApp},
    {kWelcomeFileList, "welcome-file-list", kWebApp},
    {kErrorPage, "error-page", kWebApp},
    {kSecurityConstraint, "security-constraint", kWebApp},
    {kWebResourceCollection, "web-resource-collection", kSecurityConstraint},
    {kCSRFProtect, "csrf-protect", kWebResourceCollection},
    {kAuthConstraint, "auth-constraint", kSecurityConstraint},
    {kUserDataConstraint, "user-data-constraint", kSecurityConstraint},
    {kIpConstraint, "ip-constraint", kSecurityConstraint},
    {kLoginConfig, "login-config", kWebApp},
    {kFormLoginConfig, "form-login-config", kLoginConfig},
};

constexpr const char* kChildren[][5] = {
    {},
    {},
    {},
    {"servlet-name", "servlet-class"},
    {"param-name", "param-value"},
    {"servlet-name", "url-pattern"},
    {"session-timeout"},
    {"extension", "mime-type"},
    {"welcome-file"},
    {"error-code", "location"},
    {"display-name"},
    {"web-resource-name", "description", "url-pattern", "http-method"},
    {"url-pattern"},
    {"role-name"},
    {"transport-guarantee"},
    {"ip-address"},
    {"auth-method", "realm-name"},
    {"form-login-page", "form-error-page"},
};

void endElement(const char* element, void* ctx) {
        Parse* p = static_cast<Parse*>(ctx);
        if (p->state == kStart || p->state == kEnd)
                THROW(AssertException, "XML parse error -- invalid element %s;", element);
        for (const char* child : kChildren[p->state])
                if (child && is(element, child))
                        return;
        for (const Closing& c : kClosing) {
                if (c.state != p->state || !is(element, c.element))
                        continue;
                Context_T context = p->C->parent;
                switch (p->state) {
                case kServlet:
                case kServletMapping:
                case kMimeMapping:
                case kErrorPage:
                        clearFields(p);
                        break;
                case kInitParam:
                        p->name = nullptr;
                        break;
                case kSecurityConstraint:
                        Context_addSecurityConstraint(context, p->constraint);
                        p->constraint = nullptr;
                        break;
                case kWebResourceCollection:
                        SecurityConstraint_addCollection(p->constraint, p->collection);
                        p->collection = nullptr;
                        break;
                case kLoginConfig:
                        Context_setLoginConfig(context, p->loginConfig);
                        break;
                default:
                        break;
                }
                p->state = c.next;
                return;
        }
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

void loadConf(ServletContext_T C) {
        const char* docBase = Context_getDocBase(C->parent);
        if (!docBase)
                return;
        char file[PATH_MAX + 1];
        snprintf(file, sizeof file, "%s%sWEB-INF%sweb.xml", docBase, SEPARATOR, SEPARATOR);
        if (!File_isFile(file)) {
                Error_warn("Warning: Deployment descriptor '%s' cannot be loaded\n", file);
                return;
        }
        Parse p = {};
        p.C = C;
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
                Exception_throw(Exception_frame.exception, Exception_frame.func, Exception_frame.file,
                                Exception_frame.line, "%s in '%s' at line %d", Exception_frame.message,
                                file, line);
        END_TRY;
        Arena_dispose(&p.arena);
        XMLParser_free(&p.parser);
}

}  // namespace

/* ---------------------------------------------------------------------- The object */

ServletContext_T ServletContext_new(Arena_T arena) {
        assert(arena);
        ServletContext_T C =
            static_cast<ServletContext_T>(ARENA_CALLOC(arena, 1, sizeof(struct ServletContext_S)));
        C->arena = arena;
        C->mimeTypes = Table_alloc(arena, 100, Str_cmp, Str_hash);
        C->attributes = Table_alloc(arena, 20, Str_cmp, Str_hash);
        C->welcomeFiles = List_alloc(arena);
        Exception_wrapper(pthread_mutex_init(&(C->mutex), NULL));
        return C;
}

void ServletContext_free(ServletContext_T* C) {
        assert(C && *C);
        // The entries go; the values behind them stay their owners'.
        void** all = Table_toArray((*C)->attributes);
        for (int i = 0; all[i]; i += 2) {
                Attribute* entry = static_cast<Attribute*>(all[i + 1]);
                FREE(entry->name);
                FREE(entry);
        }
        Exception_wrapper(pthread_mutex_destroy(&((*C)->mutex)));
        *C = nullptr;
}

void ServletContext_setContext(ServletContext_T C, Context_T context) {
        assert(C);
        C->parent = context;
        C->loader = context ? Context_getLoader(context) : nullptr;
}

Context_T ServletContext_getContext(ServletContext_T C) {
        assert(C);
        return C->parent;
}

void ServletContext_parseConf(ServletContext_T C) {
        assert(C);
        assert(C->parent);
        loadConf(C);
}

const char* ServletContext_getServerInfo(void) {
        return "Vesk/2.0";
}

const char* ServletContext_getContextPath(ServletContext_T C) {
        assert(C);
        return C->parent ? Context_getContextPath(C->parent) : nullptr;
}

const char* ServletContext_getDocumentBase(ServletContext_T C) {
        assert(C);
        return C->parent ? Context_getDocBase(C->parent) : nullptr;
}

const char* ServletContext_getRealPath(ServletContext_T C, const char* path) {
        assert(C);
        if (!path || Context_isPrivatePath(path))
                return nullptr;
        const char* docBase = ServletContext_getDocumentBase(C);
        if (!docBase)
                return nullptr;
        char joined[PATH_MAX + 1];
        snprintf(joined, sizeof joined, "%s%s%s", docBase, *path == '/' ? "" : "/", path);
        Str_replaceChar(joined, '/', SEPARATOR_CHAR);
        char real[PATH_MAX + 1];
        if (!File_getRealPath(joined, real))
                return nullptr;
        Arena_T arena = kernelseam::requestArena();
        if (arena)
                return STR_DUP_ARENA(arena, real);
        return Str_copy(kernelseam::realPathBuffer(), real, PATH_MAX);
}

FileInputStream_T ServletContext_getResourceAsStream(ServletContext_T C, const char* path) {
        const char* real = ServletContext_getRealPath(C, path);
        if (!real)
                return nullptr;
        File_T file = File_new("%s", real);
        FileInputStream_T stream = File_isaFile(file) ? FileInputStream_new(file) : nullptr;
        File_free(&file);
        return stream;
}

const char* ServletContext_getMimeType(ServletContext_T C, const char* path) {
        assert(C);
        if (!path)
                return nullptr;
        const char* extension = File_extension(path);
        if (!extension)
                return nullptr;
        const char* type = static_cast<const char*>(Table_get(C->mimeTypes, extension));
        return type ? type : kernelseam::configMimeType(path);
}

List_T ServletContext_getWelcomeFiles(ServletContext_T C) {
        assert(C);
        return List_length(C->welcomeFiles) > 0 ? C->welcomeFiles
                                                : kernelseam::configWelcomeFiles();
}

void* ServletContext_getAttribute(ServletContext_T C, const char* name) {
        assert(C);
        if (!name)
                return nullptr;
        vesk::Lock lock(C->mutex);
        Attribute* entry = static_cast<Attribute*>(Table_get(C->attributes, name));
        return entry ? entry->value : nullptr;
}

void* ServletContext_setAttribute(ServletContext_T C, const char* name, void* value) {
        assert(C);
        assert(name);
        if (!value)
                return ServletContext_removeAttribute(C, name);
        vesk::Lock lock(C->mutex);
        Attribute* entry = static_cast<Attribute*>(Table_get(C->attributes, name));
        if (entry) {
                void* previous = entry->value;
                entry->value = value;
                return previous;
        }
        lock.unlock();
        NEW(entry);
        entry->name = Str_dup(name);
        entry->value = value;
        lock.lock();
        Attribute* previous = static_cast<Attribute*>(Table_get(C->attributes, name));
        if (previous) {
                // Another thread added the same name in the gap: its entry stays, with this value.
                void* old = previous->value;
                previous->value = value;
                FREE(entry->name);
                FREE(entry);
                return old;
        }
        Table_put(C->attributes, entry->name, entry);
        return nullptr;
}

void* ServletContext_removeAttribute(ServletContext_T C, const char* name) {
        assert(C);
        if (!name)
                return nullptr;
        Attribute* entry;
        {
                vesk::Lock lock(C->mutex);
                entry = static_cast<Attribute*>(Table_remove(C->attributes, name));
        }
        if (!entry)
                return nullptr;
        void* value = entry->value;
        FREE(entry->name);
        FREE(entry);
        return value;
}

void ServletContext_log(ServletContext_T C, const char* m, ...) {
        assert(C);
        if (!m || !C->parent)
                return;
        va_list ap;
        va_start(ap, m);
        Context_vlog(C->parent, m, ap);
        va_end(ap);
}
