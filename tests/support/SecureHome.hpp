// A home for end-to-end tests of login and constraints: the /app application serves the
// whoami servlet under /secure/*, /conf/* and /form/* and the sessions servlet at /s, the
// Realm reads db/users.db (users ann/secret with the role admin, bob/pw with the role
// user), and each test writes the security part of the application's descriptor.
#pragma once

#include <sys/stat.h>

#include <string>

#include <vesk/Base64.h>

#include "support/Database.hpp"
#include "support/ServerSupport.hpp"

namespace e2e {

constexpr char kRealm[] = "<Realm url=\"sqlite:///db/users.db\" minConnections=\"1\"/>\n";

struct SecureHome : Home {
        bool made = mkdir((*this / "db").c_str(), 0755) == 0;
        testdb::Database db{*this / "db/users.db"};

        SecureHome() {
                db.addUser("ann", "secret", {"admin"});
                db.addUser("bob", "pw", {"user"});
                for (const char* module : {"whoami", "sessions"})
                        installModule(*this / "webapps/app/WEB-INF/classes", module, module);
                write("webapps/app/login.html", "login page");
                write("webapps/app/error.html", "error page");
                configure();
        }

        // server.xml with realm (none if empty) in the Engine, the connector's extra
        // attributes, and /app with these attributes.
        // A secure connector goes before the Engine, and localhost may get more attributes.
        void configure(const std::string& app = "maxActiveSessions=\"100\"",
                       const std::string& connector = "", const std::string& realm = kRealm,
                       const std::string& secureConnector = "",
                       const std::string& localhost = "") const {
                serverXml(connector,
                          "<Context path=\"\" docBase=\"ROOT\"/>\n"
                          "<Context path=\"/app\" docBase=\"app\" " +
                              app + "/>\n");
                std::string xml = readFile(*this / "conf/server.xml");
                std::string logger = "<Errorlogger directory=\"logs\" fileName=\"error.log\"/>\n";
                xml.insert(xml.find(logger) + logger.size(), realm);
                xml.insert(xml.find("<Engine"), secureConnector);
                std::string alias = "alias=\"127.0.0.1\"";
                xml.insert(xml.find(alias) + alias.size(), localhost);
                write("conf/server.xml", xml);
        }

        // The application's descriptor: the servlets' mappings and then security.
        void security(const std::string& elements) const {
                write("webapps/app/WEB-INF/web.xml",
                      "<web-app>\n"
                      "<servlet-mapping><servlet-name>whoami</servlet-name>"
                      "<url-pattern>/secure/*</url-pattern></servlet-mapping>\n"
                      "<servlet-mapping><servlet-name>whoami</servlet-name>"
                      "<url-pattern>/conf/*</url-pattern></servlet-mapping>\n"
                      "<servlet-mapping><servlet-name>whoami</servlet-name>"
                      "<url-pattern>/form/*</url-pattern></servlet-mapping>\n"
                      "<servlet-mapping><servlet-name>sessions</servlet-name>"
                      "<url-pattern>/s</url-pattern></servlet-mapping>\n" +
                          elements + "</web-app>\n");
        }

        // How often text stands in the error log.
        int logged(const std::string& text) const {
                std::string log = readFile(*this / "logs/error.log");
                int n = 0;
                for (size_t at = log.find(text); at != std::string::npos;
                     at = log.find(text, at + 1))
                        n++;
                return n;
        }
};

// A constraint over pattern, which names the whole request path with the context path as
// patterns of a descriptor do: roles (none: no auth-constraint), then any further elements
// inside <security-constraint>.
inline std::string constraint(const std::string& pattern, const std::string& roles,
                              const std::string& more = "") {
        std::string auth;
        if (!roles.empty())
                auth = "<auth-constraint><role-name>" + roles + "</role-name></auth-constraint>";
        return "<security-constraint><web-resource-collection><web-resource-name>r"
               "</web-resource-name><url-pattern>" +
               pattern + "</url-pattern></web-resource-collection>" + auth + more +
               "</security-constraint>\n";
}

inline std::string basicLogin(const std::string& realmName = "Vesk Test") {
        return "<login-config><auth-method>BASIC</auth-method>" +
               (realmName.empty() ? "" : "<realm-name>" + realmName + "</realm-name>") +
               "</login-config>\n";
}

inline std::string formLogin() {
        return "<login-config><auth-method>FORM</auth-method><form-login-config>"
               "<form-login-page>/login.html</form-login-page>"
               "<form-error-page>/error.html</form-error-page></form-login-config>"
               "</login-config>\n";
}

// The value of name=... in the body of a whoami or sessions answer.
inline std::string field(const std::string& body, const std::string& name) {
        size_t at = body.find(name + "=");
        while (at != std::string::npos && at > 0 && body[at - 1] != ' ')
                at = body.find(name + "=", at + 1);
        if (at == std::string::npos)
                return "";
        at += name.size() + 1;
        return body.substr(at, body.find(' ', at) - at);
}

inline std::string cookie(const std::string& id) {
        return "Cookie: vsessionid=" + id + "\r\n";
}

inline std::string basic(const std::string& credentials) {
        char encoded[512];
        Base64_encode(encoded, credentials.data(), static_cast<int>(credentials.size()));
        return std::string("Authorization: Basic ") + encoded + "\r\n";
}

inline std::string form(const std::string& body, const std::string& headers = "") {
        return "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
               std::to_string(body.size()) + "\r\n" + headers;
}

}  // namespace e2e

#define START_SERVER(server, home, inProcess) \
        e2e::Server server(home, inProcess);  \
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out")
