// Requests for the kernel tests: a parsed request on a socket pair whose response can be
// read back, and an application directory with servlet modules from the build.
#pragma once

#include <sys/stat.h>
#include <utime.h>

#include <fstream>
#include <string>

#include <vesk/Context.h>
#include <vesk/OutputStream.h>

#include "support/HttpSupport.hpp"
#include "support/TempDir.hpp"

// One request, parsed from its head.
struct Exchange : Connection {
        explicit Exchange(const std::string& method, const std::string& uri,
                          const std::string& host = "", const std::string& headers = "") {
                // HTTP/1.1 requires a Host header, so a request without one is HTTP/1.0.
                std::string head = method + " " + uri +
                                   (host.empty() ? " HTTP/1.0\r\n" : " HTTP/1.1\r\nHost: " + host + "\r\n") +
                                   headers;
                if (method == "POST" || method == "PUT")
                        head += "Content-Length: 0\r\n";
                parse(head + "\r\n");
        }
        HttpRequest_T req() const { return request; }
        HttpResponse_T res() const { return response(); }
        // What the client receives once the response is finished.
        std::string finish() {
                HttpResponse_finalize(res());
                OutputStream_flush(HttpResponse_getOutputStream(res()));
                return received();
        }
        // The body behind the head.
        std::string body() { return ::parse(finish()).body; }
        // The answer of C, with request and response knowing their Context as the connector
        // makes them.
        Reply run(Context_T C) {
                HttpRequest_setContext(request, C);
                HttpResponse_setContext(response(), C);
                Context_invoke(C, request, response());
                return ::parse(finish());
        }
};

inline bool contains(const std::string& s, const std::string& part) {
        return s.find(part) != std::string::npos;
}

// Copies the built module `from` to classes/as.clazz, through a rename so that a module
// already loaded is not changed under the linker, with mtime set when given.
inline void installModule(const std::string& classes, const std::string& from,
                          const std::string& as, time_t mtime = 0) {
        std::string target = classes + "/" + as + ".clazz";
        std::string temporary = target + ".new";
        {
                std::ifstream in(std::string(VESK_TEST_SERVLETS) + "/" + from + ".clazz",
                                 std::ios::binary);
                std::ofstream out(temporary, std::ios::binary);
                out << in.rdbuf();
        }
        rename(temporary.c_str(), target.c_str());
        if (mtime) {
                struct utimbuf times = {mtime, mtime};
                utime(target.c_str(), &times);
        }
}

// An application directory with WEB-INF/classes.
struct AppDir : TempDir {
        AppDir() {
                mkdir((*this / "WEB-INF").c_str(), 0755);
                mkdir((*this / "WEB-INF/classes").c_str(), 0755);
        }
        // Installs the built module `from` as WEB-INF/classes/as.clazz.
        void install(const std::string& from, const std::string& as, time_t mtime = 0) const {
                installModule(*this / "WEB-INF/classes", from, as, mtime);
        }
        void webXml(const std::string& content) const { write("WEB-INF/web.xml", content); }
};
