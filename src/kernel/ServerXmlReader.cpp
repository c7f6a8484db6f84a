#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include <vdb/Connection.h>
#include <vdb/ConnectionPool.h>

#include <vesk/Arena.h>
#include <vesk/Container.h>
#include <vesk/Context.h>
#include <vesk/Engine.h>
#include <vesk/Error.h>
#include <vesk/Metrics.h>
#include <vesk/Exception.h>
#include <vesk/File.h>
#include <vesk/FileCache.h>
#include <vesk/Host.h>
#include <vesk/HttpConnector.h>
#include <vesk/Logger.h>
#include <vesk/Realm.h>
#include <vesk/Service.h>
#include <vesk/SessionManager.h>
#include <vesk/Socket.h>
#include <vesk/Str.h>
#include <vesk/Table.h>
#include <vesk/URL.h>
#include <vesk/XMLParser.h>
#include <vesk/assert.h>

#include "kernel/ServerXmlReader.hpp"
#include "kernel/Transitions.hpp"
#include "util/Holder.hpp"

namespace {

constexpr int kPath = 4096;
// The parse state's texts hold at most this many bytes with the terminator.
constexpr int kField = 256;

// Where the reader stands in server.xml: the element it is inside.
enum State {
        kBeforeRoot = 0,
        kAfterRoot,
        kServer,
        kLicense,
        kService,
        kEngine,
        kHost,
};

// The current Host's context paths, normalised, each with the spelling that came first.
class ContextPaths {
public:
        ContextPaths() = default;
        ContextPaths(const ContextPaths&) = delete;
        ContextPaths& operator=(const ContextPaths&) = delete;
        ~ContextPaths() {
                if (arena_)
                        Arena_dispose(&arena_);
        }
        // The spelling that came first for path; spelling itself if path is new.
        const char* add(const char* path, const char* spelling) {
                if (!arena_) {
                        arena_ = Arena_new();
                        spellings_ = Table_alloc(arena_, 5, Str_cmp, Str_hash);
                }
                if (auto first = static_cast<const char*>(Table_get(spellings_, path)))
                        return first;
                Table_put(spellings_, STR_DUP_ARENA(arena_, path), STR_DUP_ARENA(arena_, spelling));
                return spelling;
        }
        void clear() {
                if (arena_)
                        Arena_dispose(&arena_);
        }

private:
        Arena_T arena_ = nullptr;
        Table_T spellings_ = nullptr;
};

struct ParseState {
        Engine_T engine;
        Service_T service;
        State state;
        int licensed;
        char parsedHome[kField];
        char hostName[kField];
        char defaultHost[kField];
        char appBase[kField];
        // Objects made by the element being handled and not yet handed to their owner,
        // released if the element fails.
        Host_T host;
        Context_T context;
        HttpConnector_T connector;
        ContextPaths contextPaths;
};

void copyField(char* field, const char* value) {
        Str_copy(field, value, kField - 1);
}

bool isTrue(const char* value) {
        return Str_isEqual(value, "true");
}

long long checkNumberAttribute(const char* element, const char* attribute, const char* value) {
        long long n = 0;
        TRY
                n = Str_parseLLong(value);
        CATCH(NumberFormatException)
                THROW(AssertException,
                      "The value '%s' given in <%s> attribute '%s' is not a number",
                      value ? value : "", element, attribute);
        END_TRY;
        return n;
}

// A session setting of <Context>: a number that an int holds.
long long sessionNumber(const char* attribute, const char* value) {
        long long n = checkNumberAttribute("Context", attribute, value);
        if (n > INT_MAX || n < INT_MIN)
                THROW(AssertException,
                      "The value '%s' given in <Context> attribute '%s' is out of range", value,
                      attribute);
        return n;
}

void checkDirAttribute(const char* path, const char* element, const char* attribute) {
        if (!File_isDirectory(path))
                THROW(AssertException,
                      "The directory '%s' given in <%s> attribute '%s' does not exist", path,
                      element, attribute);
}

void checkHostAttribute(const char* host, const char* element, const char* attribute) {
        if (Socket_resolve(host) <= 0)
                THROW(AssertException, "Cannot resolve host '%s' given in <%s> attribute '%s'",
                      host, element, attribute);
}

// out, of kPath + 1 bytes, becomes the real path of directory (under the home if relative)
// joined with fileName. The directory must exist; the file need not.
void makeFilePath(const char* element, char* out, const char* directory, const char* fileName,
                  ParseState* a) {
        if (!directory || !*directory)
                THROW(AssertException, "The directory attribute in <%s> is not defined", element);
        if (!fileName || !*fileName)
                THROW(AssertException, "The fileName attribute in <%s> is not defined", element);
        char path[kPath + 1];
        if (File_isPathAbsolute(directory))
                snprintf(path, sizeof path, "%s", directory);
        else
                snprintf(path, sizeof path, "%s%s%s", a->parsedHome, SEPARATOR, directory);
        char real[kPath + 1];
        if (!File_getRealPath(path, real))
                THROW(AssertException,
                      "The directory '%s' specified in the directory attribute in <%s> does not "
                      "exist or cannot be resolved",
                      path, element);
        Str_join(out, kPath, real, SEPARATOR, fileName);
}

// The home of relative certificate and database paths: the Container's, else the parsed one.
const char* home(ParseState* a) {
        return Container_Home && *Container_Home ? Container_Home : a->parsedHome;
}

void startLicense(const char** attributes, ParseState* a) {
        const char* owner = XMLParser_getAttribute("owner", attributes);
        if (!owner || !*owner)
                THROW(AssertException,
                      "The owner attribute was not defined in the <License> element");
        Error_debug("Licensed to '%s'\n", owner);
        a->licensed = 1;
}

// The Connector's number attributes and their setters; a number keeps its low 32 bits.
struct NumberAttribute {
        const char* name;
        void (*set)(HttpConnector_T, int);
};
constexpr NumberAttribute kNumberAttributes[] = {
    {"redirectPort", HttpConnector_setRedirectPort},
    {"ipversion", HttpConnector_setIPVersion},
    {"connectionTimeout", HttpConnector_setConnectionTimeout},
    {"processors", HttpConnector_setProcessorThreads},
    {"processorTimeout", HttpConnector_setProcessorTimeout},
    {"port", HttpConnector_setPort},
    {"contentLengthLimit", HttpConnector_setContentLengthLimit},
    {"contentLengthBufferLimit", HttpConnector_setContentLengthBufferLimit},
    {"proxyPort", HttpConnector_setProxyPort},
    {"maxParameterCount", HttpConnector_setMaxParameterCount},
};

void setConnectorAttribute(HttpConnector_T connector, const char* name, const char* value) {
        if (Str_isEqual(name, "enableLookups")) {
                HttpConnector_setEnableLookups(connector, isTrue(value));
                return;
        }
        if (Str_isEqual(name, "Secure")) {
                HttpConnector_setSecure(connector, isTrue(value));
                return;
        }
        if (Str_isEqual(name, "strict")) {
                HttpConnector_setStrict(connector, isTrue(value));
                return;
        }
        if (Str_isEqual(name, "address")) {
                HttpConnector_setBindAddress(connector, value);
                return;
        }
        if (Str_isEqual(name, "proxyName")) {
                HttpConnector_setProxyName(connector, value);
                return;
        }
        if (Str_isEqual(name, "proxyScheme")) {
                char scheme[kField];
                copyField(scheme, value);
                Str_toLower(scheme);
                if (!Str_match("http$|https$", scheme))
                        Error_warn("Warning: Scheme should be http or https, not '%s'\n", scheme);
                HttpConnector_setProxyScheme(connector, scheme);
                return;
        }
        for (const NumberAttribute& attribute : kNumberAttributes) {
                if (Str_isEqual(name, attribute.name)) {
                        int n = static_cast<int>(
                            static_cast<uint32_t>(checkNumberAttribute("Connector", name, value)));
                        if (attribute.set == HttpConnector_setIPVersion && n != 4 && n != 6)
                                THROW(AssertException,
                                      "Configure parameter(%s): Invalid IP-version (%d)", name, n);
                        attribute.set(connector, n);
                        return;
                }
        }
        Error_warn("Warning: Unknown configure parameter '%s'\n", name);
}

void startConnector(const char** attributes, ParseState* a) {
        a->connector = HttpConnector_new();
        for (int i = 0; attributes[i]; i += 2)
                setConnectorAttribute(a->connector, attributes[i], attributes[i + 1]);
        HttpConnector_T connector = a->connector;
        a->connector = nullptr;
        Service_addConnector(a->service, connector);
}

void startEngine(const char** attributes, ParseState* a) {
        const char* fileCache = XMLParser_getAttribute("fileCache", attributes);
        if (fileCache) {
                long long n = checkNumberAttribute("Engine", "fileCache", fileCache);
                if (n < 0)
                        THROW(AssertException, "Invalid negative fileCache size");
                FileCache_setMaxSize(FileCache_getInstance(), static_cast<int64_t>(n) * 102400);
        }
        const char* defaultHost = XMLParser_getAttribute("defaultHost", attributes);
        if (!defaultHost)
                THROW(AssertException,
                      "The defaultHost attribute was not defined in the <Engine> element");
        copyField(a->defaultHost, defaultHost);
}

void startErrorLogger(const char** attributes, ParseState* a) {
        char path[kPath + 1];
        makeFilePath("Errorlogger", path, XMLParser_getAttribute("directory", attributes),
                     XMLParser_getAttribute("fileName", attributes), a);
        Error_init(path);
}

// <Metrics path="/metrics" allow="127.0.0.1 ::1" port="8080"/>: the endpoint, the
// clients it answers, and the one connector's port it answers on (all when absent).
void startMetrics(const char** attributes, ParseState*) {
        const char* path = XMLParser_getAttribute("path", attributes);
        const char* port = XMLParser_getAttribute("port", attributes);
        Metrics_configure(path ? path : "/metrics", XMLParser_getAttribute("allow", attributes),
                          port ? static_cast<int>(checkNumberAttribute("Metrics", "port", port))
                               : 0);
}

int poolSize(const char** attributes, const char* name, int standard) {
        const char* value = XMLParser_getAttribute(name, attributes);
        if (!value)
                return standard;
        int n = static_cast<int>(checkNumberAttribute("Realm", name, value));
        if (n < 0)
                THROW(AssertException, "%s in <Realm> has a negative value\n", name);
        return n;
}

void freePool(ConnectionPool_T pool) {
        ConnectionPool_free(&pool);
}

void startRealm(const char** attributes, ParseState* a) {
        const char* url = XMLParser_getAttribute("url", attributes);
        URL_T U = url ? URL_new(url) : nullptr;
        if (!U)
                THROW(AssertException, "Invalid URL '%s' in <Realm>", url ? url : "");
        TRY
                const char* protocol = URL_getProtocol(U);
                if (!Connection_isSupported(protocol))
                        THROW(AssertException, "Database protocol '%s' not supported in <Realm>",
                              protocol);
                int min = poolSize(attributes, "minConnections", 5);
                int max = poolSize(attributes, "maxConnections", 20);
                if (min > max)
                        THROW(AssertException,
                              "minConnections is greater than maxConnections (%d > %d) in "
                              "<Realm>\n",
                              min, max);
                int reap = 0;
                if (const char* value = XMLParser_getAttribute("reapConnections", attributes)) {
                        long long n = checkNumberAttribute("Realm", "reapConnections", value);
                        if (n < 1 || n > 86400)
                                THROW(AssertException,
                                      "reapConnections in <Realm> has an invalid value outside "
                                      "[1..86400] sec\n");
                        reap = static_cast<int>(n);
                }
                // The pool reads its own copy of the URL text; a relative SQLite database
                // lies under the home and is named to the pool by its full path.
                std::string text = url;
                const char* path = URL_getPath(U);
                if (Str_isEqual(protocol, "sqlite") &&
                    !(File_isPathAbsolute(path) && File_isFile(path))) {
                        char database[kPath + 1];
                        snprintf(database, sizeof database, "%s%s", home(a), path ? path : "");
                        if (!File_isFile(database))
                                THROW(AssertException, "Realm database '%s' does not exist",
                                      database);
                        URL_setPath(U, database);
                        const char* query = URL_getQueryString(U);
                        text = std::string("sqlite://") + database +
                               (query && *query ? std::string("?") + query : "");
                }
                vesk::Holder<ConnectionPool_T, freePool> pool(ConnectionPool_new(text.c_str()));
                ConnectionPool_setInitialConnections(pool.get(), min);
                ConnectionPool_setMaxConnections(pool.get(), max);
                if (reap)
                        ConnectionPool_setReaper(pool.get(), reap);
                Realm_setDatabase(Realm_getInstance(), pool.release());
        FINALLY
                URL_free(&U);
        END_TRY;
}

void startHost(const char** attributes, ParseState* a) {
        const char* name = XMLParser_getAttribute("name", attributes);
        if (!name)
                THROW(AssertException, "The name attribute was not defined in the <Host> element");
        const char* appBase = XMLParser_getAttribute("appBase", attributes);
        if (!appBase)
                THROW(AssertException,
                      "The appBase attribute was not defined in the <Host> element");
        Host_T host = a->host = Host_new();
        copyField(a->hostName, name);
        checkHostAttribute(a->hostName, "Host", "name");
        char path[kPath + 1];
        if (File_isPathAbsolute(appBase))
                Str_copy(path, appBase, kField - 1);
        else
                makeFilePath("Host", path, a->parsedHome, appBase, a);
        Host_setName(host, a->hostName);
        checkDirAttribute(path, "Host", "appBase");
        copyField(a->appBase, path);
        Host_setAppBase(host, a->appBase);
        if (const char* certificate = XMLParser_getAttribute("certificate", attributes)) {
                const char* address = XMLParser_getAttribute("address", attributes);
                if (!address)
                        THROW(AssertException,
                              "Please specify the address to use in the <Host> address attribute");
                checkHostAttribute(address, "Host", "address");
                if (Socket_resolve(address) != 1)
                        THROW(AssertException,
                              "The address '%s' given in <Host> address attribute resolve to more "
                              "than one address. Please specify the IP-address to use",
                              address);
                Host_setAddress(host, address);
                char file[kPath + 1];
                if (File_isPathAbsolute(certificate))
                        snprintf(file, sizeof file, "%s", certificate);
                else
                        snprintf(file, sizeof file, "%s%s%s", home(a), SEPARATOR, certificate);
                if (!File_isFile(file))
                        THROW(AssertException,
                              "Certificate file '%s' given in <Host> certificate attribute does "
                              "not exist",
                              file);
                Host_setCertificate(host, file);
        }
        for (int i = 0; attributes[i]; i += 2) {
                const char* attribute = attributes[i];
                const char* value = attributes[i + 1];
                if (Str_isEqual(attribute, "name") || Str_isEqual(attribute, "appBase") ||
                    Str_isEqual(attribute, "certificate") || Str_isEqual(attribute, "address"))
                        continue;
                if (Str_isEqual(attribute, "alias")) {
                        checkHostAttribute(value, "Host", "alias");
                        Host_addAlias(host, value);
                } else if (Str_isEqual(attribute, "ciphers")) {
                        Host_setCiphers(host, value);
                } else {
                        Error_warn("Warning: Unknown <Host> attribute '%s'\n", attribute);
                }
        }
        // The Engine owns the host from here on, even if adding it fails. A second host of
        // the same name is refused before the Engine's table would drop the first.
        a->host = nullptr;
        const char* lowered = Host_getName(host);
        Host_T other = Engine_findHost(a->engine, lowered);
        if (other && Str_isByteEqual(Host_getName(other), lowered)) {
                Host_free(&host);
                THROW(AssertException, "A host with the name '%s' has already been added", lowered);
        }
        Engine_addHost(a->engine, host);
}

// The one form of a context path that requests are matched against: decoded like a
// request URI, rooted, without repeated separators, dot segments or a trailing separator.
std::string normalContextPath(const char* spelling) {
        std::string path = std::string(SEPARATOR) + spelling;
        URL_normalize(URL_unescape(path.data()));
        path.resize(strlen(path.c_str()));
        while (!path.empty() && path.back() == SEPARATOR_CHAR)
                path.pop_back();
        return path;
}

void startContext(const char** attributes, ParseState* a) {
        const char* spelling = XMLParser_getAttribute("path", attributes);
        if (!spelling)
                THROW(AssertException,
                      "The path attribute was not defined in the <Context> element");
        const char* docBase = XMLParser_getAttribute("docBase", attributes);
        if (!docBase)
                THROW(AssertException,
                      "The docBase attribute was not defined in the <Context> element");
        char path[kPath + 1];
        if (File_isPathAbsolute(docBase))
                Str_copy(path, docBase, kField - 1);
        else
                makeFilePath("Context", path, a->appBase, docBase, a);
        Host_T host = Engine_findHost(a->engine, a->hostName);
        if (!host)
                THROW(AssertException, "Host '%s' not found", a->hostName);
        std::string contextPath = normalContextPath(spelling);
        // A second <Context> spelled the same configures the first and keeps its docBase;
        // one spelled otherwise for the same path is a mistake that would hide one of them.
        const char* first = a->contextPaths.add(contextPath.c_str(), spelling);
        if (strcmp(first, spelling) != 0)
                THROW(AssertException,
                      "The <Context> path '%s' in <Host> '%s' is the same path as the earlier "
                      "'%s'",
                      spelling, a->hostName, first);
        Context_T context = Host_getContext(host, contextPath.c_str());
        if (!context) {
                context = a->context = Context_new();
                Context_setContextPath(context, contextPath.c_str());
                checkDirAttribute(path, "Context", "docBase");
                Context_setDocBase(context, path);
        }
        Host_addContext(host, context);
        a->context = nullptr;
        if (contextPath.empty())
                Host_setDefaultContext(host, context);
        for (int i = 0; attributes[i]; i += 2) {
                const char* attribute = attributes[i];
                const char* value = attributes[i + 1];
                if (Str_isEqual(attribute, "path") || Str_isEqual(attribute, "docBase"))
                        continue;
                if (Str_isEqual(attribute, "sessionTimeout")) {
                        long long n = sessionNumber(attribute, value);
                        if (n < 1)
                                THROW(AssertException, "sessionTimeout must be > 0");
                        Context_setSessionTimeout(context, static_cast<int>(n));
                } else if (Str_isEqual(attribute, "maxActiveSessions")) {
                        long long n = sessionNumber(attribute, value);
                        if (n > 0) {
                                Context_activateSessionManager(context);
                                SessionManager_setMaxActiveSessions(
                                    Context_getSessionManager(context), static_cast<int>(n));
                        }
                } else if (Str_isEqual(attribute, "saveSessions")) {
                        Context_setSaveSessions(context, isTrue(value));
                } else if (Str_isEqual(attribute, "reloadable")) {
                        Context_setReloadable(context, isTrue(value));
                } else {
                        Error_warn("Warning: Unknown configure parameter '%s'\n", attribute);
                }
        }
}

void startAccessLogger(const char** attributes, ParseState* a) {
        char path[kPath + 1];
        makeFilePath("Accesslogger", path, XMLParser_getAttribute("directory", attributes),
                     XMLParser_getAttribute("fileName", attributes), a);
        Host_T host = Engine_findHost(a->engine, a->hostName);
        if (!host)
                THROW(AssertException, "Host '%s' not defined", a->hostName);
        Logger_T logger = Logger_new(path);
        Host_setAccessLogger(host, logger);
        if (const char* rotate = XMLParser_getAttribute("rotate", attributes)) {
                if (!Str_isEqual(rotate, "day") && !Str_isEqual(rotate, "week") &&
                    !Str_isEqual(rotate, "month"))
                        THROW(
                            AssertException,
                            "Invalid log rotate period '%s' used in <AccessLogger> for <Host> '%s'",
                            rotate, a->hostName);
                Logger_setRotate(logger, rotate);
        }
}

void startLogger(const char** attributes, ParseState* a) {
        char path[kPath + 1];
        makeFilePath("Logger", path, XMLParser_getAttribute("directory", attributes),
                     XMLParser_getAttribute("fileName", attributes), a);
        // Off unless asked for, unlike a bare Logger.
        int timestamp = isTrue(XMLParser_getAttribute("timestamp", attributes));
        Host_T host = Engine_findHost(a->engine, a->hostName);
        if (!host)
                THROW(AssertException, "<Host> '%s' not defined", a->hostName);
        Logger_T logger = Logger_new(path);
        Host_setLogger(host, logger);
        Logger_setTimestamp(logger, timestamp);
}

void endServer(ParseState* a) {
        if (!a->licensed)
                THROW(AssertException,
                      "XML parse error -- element <License> is required inside <Server>");
}

void endHost(ParseState* a) {
        *a->hostName = *a->appBase = 0;
        a->contextPaths.clear();
}

/* ------------------------------------------------------------------- The machine */

// The elements each state admits, what opening one does, and the state it leads to.
using Opening = vesk::Transition<State, void (*)(const char** attributes, ParseState* a)>;

constexpr Opening kOpenings[] = {
    {kBeforeRoot, "Server", nullptr, kServer},
    {kServer, "Service", nullptr, kService},
    {kServer, "License", startLicense, kLicense},
    {kService, "Connector", startConnector, kService},
    {kService, "Engine", startEngine, kEngine},
    {kEngine, "Errorlogger", startErrorLogger, kEngine},
    {kEngine, "Metrics", startMetrics, kEngine},
    {kEngine, "Realm", startRealm, kEngine},
    {kEngine, "Host", startHost, kHost},
    {kHost, "Accesslogger", startAccessLogger, kHost},
    {kHost, "Logger", startLogger, kHost},
    {kHost, "Context", startContext, kHost},
};

// The end tags each state accepts, what closing does, and the state it leads to. The
// parser does not match end tags with start tags: any other end tag is a fault here.
using Closing = vesk::Transition<State, void (*)(ParseState* a)>;

constexpr Closing kClosings[] = {
    {kServer, "Server", endServer, kAfterRoot},
    {kLicense, "License", nullptr, kServer},
    {kService, "Service", nullptr, kServer},
    {kService, "Connector", nullptr, kService},
    {kService, "Engine", nullptr, kService},
    {kEngine, "Engine", nullptr, kService},
    {kEngine, "Errorlogger", nullptr, kEngine},
    {kEngine, "Metrics", nullptr, kEngine},
    {kEngine, "Realm", nullptr, kEngine},
    {kEngine, "Host", nullptr, kEngine},
    {kHost, "Host", endHost, kEngine},
    {kHost, "Accesslogger", nullptr, kHost},
    {kHost, "Logger", nullptr, kHost},
    {kHost, "Context", nullptr, kHost},
};

// The element each state stands inside, as messages name it; nullptr where an element
// there is simply invalid.
constexpr const char* kInside[] = {nullptr,   nullptr,  "Server", nullptr,
                                   "Service", "Engine", "Host"};

void startElement(const char* name, const char** attributes, const char*, void* ctx) {
        auto a = static_cast<ParseState*>(ctx);
        if (vesk::Transition_take(kOpenings, a->state, name, attributes, a))
                return;
        if (a->state == kBeforeRoot)
                THROW(AssertException, "XML parse error -- invalid element <%s>", name);
        if (kInside[a->state])
                THROW(AssertException, "XML parse error -- element <%s> not allowed inside <%s>",
                      name, kInside[a->state]);
        THROW(AssertException, "XML parse error -- invalid element %s;", name);
}

void endElement(const char* name, void* ctx) {
        auto a = static_cast<ParseState*>(ctx);
        if (vesk::Transition_take(kClosings, a->state, name, a))
                return;
        THROW(AssertException, "XML parse error -- invalid element </%s>", name);
}

void startDocument(void* ctx) {
        auto a = static_cast<ParseState*>(ctx);
        assert(a);
        if (!*a->parsedHome)
                THROW(AssertException, "a->parsedHome && *a->parsedHome");
        a->state = kBeforeRoot;
        Error_debug("Start parsing the server xml file\n");
}

void endDocument(void* ctx) {
        auto a = static_cast<ParseState*>(ctx);
        if (a->state != kAfterRoot)
                THROW(AssertException, "The XML Parser is not in the correct stop state");
        Error_debug("End parsing the server xml file\n");
}

void parseError(const char* message, void*) {
        THROW(AssertException, "XML parse error -- %s", message);
}

// The objects of the element that failed, which no owner has taken yet.
void releasePending(ParseState* a) {
        if (a->connector)
                HttpConnector_free(&a->connector);
        if (a->context)
                Context_free(&a->context);
        if (a->host)
                Host_free(&a->host);
}

}  // namespace

std::string vesk::ServerXmlReader_read(const char* containerHome, const char* server_xml,
                                       Engine_T engine, Service_T service) {
        ParseState a = {};
        a.engine = engine;
        a.service = service;
        XMLParser_T parser = nullptr;
        TRY
                copyField(a.parsedHome, containerHome);
                // A file URL needs an absolute path: a relative one would read as a host.
                char absolute[kPath + 1];
                const char* path = server_xml;
                if (!File_isPathAbsolute(server_xml) && File_getRealPath(server_xml, absolute))
                        path = absolute;
                parser = XMLParser_new(URL_create("file://%s", path), &a);
                XMLParser_setErrorHandler(parser, parseError);
                XMLParser_setEndElementHandler(parser, endElement);
                XMLParser_setEndDocumentHandler(parser, endDocument);
                XMLParser_setStartElementHandler(parser, startElement);
                XMLParser_setStartDocumentHandler(parser, startDocument);
                XMLParser_parse(parser);
        ELSE
                int line = parser ? XMLParser_getCurrentLine(parser) : 0;
                if (parser)
                        XMLParser_free(&parser);
                releasePending(&a);
                THROW(AssertException, "%s -- in '%s' near line %d", Exception_frame.message,
                      server_xml, line);
        END_TRY;
        XMLParser_free(&parser);
        return a.defaultHost;
}
