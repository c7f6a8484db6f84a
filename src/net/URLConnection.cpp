#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <vesk/Base64.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/File.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/InputStream.h>
#include <vesk/Map.h>
#include <vesk/Mem.h>
#include <vesk/OutputStream.h>
#include <vesk/Socket.h>
#include <vesk/Str.h>
#include <vesk/System.h>
#include <vesk/URL.h>
#include <vesk/URLConnection.h>
#include <vesk/assert.h>

#include "net/URLConnectionImpl.hpp"

struct URLConnection_S {
        URL_T url;
        int fd;
        Map_T headers;
        Socket_T socket;
        int method;
        InputStream_T fileStream;
        // The answer's head has been read: the socket's stream is the body.
        int ready;
};

namespace {

constexpr int kLineSize = 256;
constexpr int kCredentialsSize = 256;
constexpr int kHttpPort = 80;
// A server that never ends its head is cut off here.
constexpr int kMaxHeaderLines = 1000;

void freeHeader(const char* key, const char* value, void* cl) {
        (void)cl;
        (void)key;
        Mem_free(const_cast<char*>(value), __func__, __FILE__, __LINE__);
}

void freeHeaders(Map_T* headers) {
        Map_map(*headers, freeHeader, nullptr);
        const char** keys = Map_keys(*headers);
        for (const char** k = keys; *k; k++)
                Mem_free(const_cast<char*>(*k), __func__, __FILE__, __LINE__);
        FREE(keys);
        Map_free(headers);
}

void printHeader(const char* key, const char* value, void* out) {
        if (value)
                OutputStream_print(static_cast<OutputStream_T>(out), "%s: %s\r\n", key, value);
}

// Escapes only what may not stand in a request line (blanks, control and non-ASCII
// bytes), so that a query keeps the escapes it was written with.
char* escapeControls(const char* s) {
        size_t n = 0;
        for (const char* p = s; *p; p++)
                n += static_cast<unsigned char>(*p) <= ' ' || static_cast<unsigned char>(*p) >= 127
                         ? 3
                         : 1;
        char* escaped = static_cast<char*>(ALLOC(n + 1));
        char* w = escaped;
        for (const char* p = s; *p; p++) {
                auto c = static_cast<unsigned char>(*p);
                if (c <= ' ' || c >= 127)
                        w += snprintf(w, 4, "%%%02X", c);
                else
                        *w++ = *p;
        }
        *w = 0;
        return escaped;
}

void printAuthorization(URL_T url, OutputStream_T out) {
        const char* user = URL_getUser(url);
        const char* password = URL_getPassword(url);
        if (!user || !*user || !password || !*password)
                return;
        char credentials[kCredentialsSize];
        char encoded[kCredentialsSize];
        int n = snprintf(credentials, sizeof credentials, "%s:%s", user, password);
        if (n >= kCredentialsSize || (n + 2) / 3 * 4 + 1 >= kCredentialsSize ||
            Base64_encode(encoded, credentials, n) < 1)
                THROW(IOException, "Authentication failed: Username and password too long");
        OutputStream_print(out, "Authorization: Basic %s\r\n", encoded);
}

void sendRequest(URLConnection_T C, OutputStream_T out) {
        URL_T url = C->url;
        const char* query = URL_getQueryString(url);
        char* path = URL_escape(URL_getPath(url) ? URL_getPath(url) : "/");
        TRY
                if (C->method == HttpRequest_POST) {
                        OutputStream_print(out, "POST %s HTTP/1.1\r\n", path);
                        OutputStream_print(out, "Content-Type: application/x-www-form-urlencoded\r\n");
                        OutputStream_print(out, "Content-Length: %ld\r\n",
                                           static_cast<long>(query ? strlen(query) : 0));
                }
                else {
                        char* q = query ? escapeControls(query) : nullptr;
                        OutputStream_print(out, "GET %s%s%s HTTP/1.1\r\n", path, q ? "?" : "", q ? q : "");
                        FREE(q);
                }
                printAuthorization(url, out);
                Map_map(C->headers, printHeader, out);
                int ipv6 = URL_getHost(url) && strchr(URL_getHost(url), ':');
                char port[16] = "";
                if (URL_getPort(url) != kHttpPort)
                        snprintf(port, sizeof port, ":%d", URL_getPort(url));
                OutputStream_print(out, "Host: %s%s%s%s\r\n", ipv6 ? "[" : "", URL_getHost(url),
                                   ipv6 ? "]" : "", port);
                if (!Map_has(C->headers, "Connection"))
                        OutputStream_print(out, "Connection: close\r\n");
                OutputStream_print(out, "\r\n");
                if (C->method == HttpRequest_POST && query)
                        OutputStream_write(out, query, static_cast<int>(strlen(query)));
        FINALLY
                FREE(path);
        END_TRY;
}

// Reads one line into line; the rest of a longer line is read and dropped.
bool readLine(InputStream_T in, char* line, int size) {
        if (!InputStream_readLine(in, line, size))
                return false;
        size_t n = strlen(line);
        if (n + 1 == static_cast<size_t>(size) && line[n - 1] != '\n') {
                char rest[kLineSize];
                while (InputStream_readLine(in, rest, sizeof rest) &&
                       rest[strlen(rest) - 1] != '\n')
                        ;
        }
        return true;
}

void readHead(URLConnection_T C, InputStream_T in) {
        const char* host = URL_getHost(C->url);
        char line[kLineSize];
        if (!readLine(in, line, sizeof line))
                THROW(IOException, "No response from %s", host);
        if (strncmp(line, "HTTP/1.", 7) != 0)
                THROW(IOException, "%s did not return a HTTP response", host);
        int status;
        if (sscanf(line, "%*s %d", &status) != 1) {
                Error_debug("%s returned '%s'\n", host, line);
                THROW(IOException, "Cannot read HTTP status from %s", host);
        }
        if (status == 401)
                THROW(IOException, "Invalid username or password");
        if (status != 200)
                THROW(IOException, "%d %s", status, HttpResponse_status(status));
        // Decoding starts behind the head, whose own lines are not chunked.
        bool chunked = false;
        for (int lines = 0; readLine(in, line, sizeof line); lines++) {
                if (line[0] == '\n' || (line[0] == '\r' && line[1] == '\n'))
                        break;
                if (lines == kMaxHeaderLines)
                        THROW(IOException, "%s sent a response head without end", host);
                Str_toLower(line);
                if (Str_startsWith(line, "transfer-encoding") && strstr(line, "chunked"))
                        chunked = true;
        }
        if (chunked)
                InputStream_setChunked(in, 1);
}

InputStream_T openFile(URLConnection_T C) {
        if (C->fileStream)
                return C->fileStream;
        const char* path = URL_getPath(C->url);
        if (!path)
                THROW(IOException, "The URL does not contain a file path");
        C->fd = File_open(path, "r");
        if (C->fd < 0)
                THROW(IOException, "Cannot open the file '%s' for reading -- %s", path,
                      System_getLastError());
        C->fileStream = InputStream_new(C->fd);
        return C->fileStream;
}

InputStream_T openHttp(URLConnection_T C, bool secure) {
        if (C->ready)
                return Socket_getInputStream(C->socket);
        // A connection that failed before is made anew.
        if (C->socket)
                Socket_abort(&C->socket);
        const char* host = URL_getHost(C->url);
        if (!host)
                THROW(IOException, "Host not specified in the URL");
        if (URL_getPort(C->url) < 0)
                THROW(IOException, "Port number not specified in the URL");
        C->socket = Socket_new(host, URL_getPort(C->url), secure);
        OutputStream_T out = Socket_getOutputStream(C->socket);
        sendRequest(C, out);
        if (OutputStream_flush(out) < 0 || OutputStream_buffered(out) > 0)
                THROW(IOException, "Cannot write to the connection");
        InputStream_T in = Socket_getInputStream(C->socket);
        readHead(C, in);
        C->ready = 1;
        return in;
}

}  // namespace

URLConnection_T URLConnection_new(URL_T U) {
        assert(U);
        URLConnection_T C;
        NEW0(C);
        C->url = U;
        C->fd = -1;
        C->method = HttpRequest_GET;
        C->headers = Map_new();
        return C;
}

void URLConnection_free(URLConnection_T* C) {
        assert(C && *C);
        URLConnection_T c = *C;
        if (c->socket) {
                // The request of a connection that never got its answer may still hang
                // in the buffer; it is dropped rather than waited for.
                if (c->ready)
                        Socket_free(&c->socket);
                else
                        Socket_abort(&c->socket);
        } else if (c->fileStream) {
                InputStream_free(&c->fileStream);
                File_close(c->fd);
        }
        freeHeaders(&c->headers);
        FREE(*C);
}

void URLConnection_setMethod(URLConnection_T C, const char* method) {
        assert(C);
        if (Str_isEqual(method, "GET"))
                C->method = HttpRequest_GET;
        else if (Str_isEqual(method, "POST"))
                C->method = HttpRequest_POST;
        else
                THROW(AssertException, "Method not supported");
}

const char* URLConnection_getMethod(URLConnection_T C) {
        assert(C);
        return C->method == HttpRequest_POST ? "POST" : "GET";
}

void URLConnection_addHeader(URLConnection_T C, const char* name, const char* format, ...) {
        assert(C);
        assert(name && *name);
        assert(format);
        // A line break would let the header smuggle in others.
        assert(!strpbrk(name, "\r\n:"));
        va_list ap;
        va_start(ap, format);
        char* value = Str_vcat(format, ap);
        va_end(ap);
        if (strpbrk(value, "\r\n")) {
                FREE(value);
                THROW(AssertException, "Header value with a line break");
        }
        Map_put(C->headers, Map_has(C->headers, name) ? name : Str_dup(name), value);
}

const char* URLConnection_getHeader(URLConnection_T C, const char* name) {
        assert(C);
        return Map_get(C->headers, name);
}

InputStream_T URLConnection_getInputStream(URLConnection_T C) {
        assert(C);
        const char* protocol = URL_getProtocol(C->url);
        if (Str_isEqual(protocol, "file"))
                return openFile(C);
        if (Str_isEqual(protocol, "http"))
                return openHttp(C, false);
        if (Str_isEqual(protocol, "https"))
                return openHttp(C, true);
        THROW(IOException, "URL: Protocol not supported");
        return nullptr;
}
