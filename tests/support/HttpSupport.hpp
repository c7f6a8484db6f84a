// A connection over a socket pair for request, response and lexer tests: the server side
// is an InetAddress, the client side a plain descriptor. And the client's side of a server
// over loopback, for the connector's and the end-to-end tests.
#pragma once

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <vesk/HttpLexer.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/InetAddress.h>

class Connection {
public:
        InetAddress_T inet = nullptr;
        int client = -1;
        struct HttpLexer_S parser;
        HttpRequest_T request = nullptr;
        std::string head;

        Connection() {
                int sv[2];
                if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
                        return;
                struct sockaddr_in addr = {};
                addr.sin_family = AF_INET;
                addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                inet = InetAddress_new(0, sv[0], reinterpret_cast<struct sockaddr*>(&addr),
                                       sizeof addr, 0);
                client = sv[1];
        }
        ~Connection() {
                if (inet)
                        InetAddress_free(&inet);
                if (client >= 0)
                        close(client);
        }
        Connection(const Connection&) = delete;
        Connection& operator=(const Connection&) = delete;

        // Parses text as a request head, in a buffer of exactly its size.
        int parse(const std::string& text) {
                head = text;
                request = HttpRequest_new(InetAddress_getArena(inet));
                memset(&parser, 0, sizeof parser);
                parser.status = 200;
                parser.request = request;
                parser.inet = inet;
                parser.cursor = head.data();
                parser.limit = head.data() + head.size();
                return HttpLexer_parse(&parser);
        }

        std::string message() const { return parser.message; }
        HttpResponse_T response() const { return parser.response; }

        // What the client side has received within a short wait.
        std::string received() const {
                std::string got;
                char buf[65536];
                struct pollfd p = {client, POLLIN, 0};
                while (poll(&p, 1, 10) > 0) {
                        ssize_t n = read(client, buf, sizeof buf);
                        if (n <= 0)
                                break;
                        got.append(buf, static_cast<size_t>(n));
                }
                return got;
        }
};

// A response as the client reads it: status, head and body, chunks undone.
struct Reply {
        int status = 0;
        std::string head, body;

        // The value of the header name (its case as the server writes it), or "".
        std::string header(const std::string& name) const {
                size_t at = head.find("\r\n" + name + ": ");
                if (at == std::string::npos)
                        return "";
                at += name.size() + 4;
                return head.substr(at, head.find("\r\n", at) - at);
        }
};

inline Reply parse(const std::string& raw) {
        Reply r;
        size_t end = raw.find("\r\n\r\n");
        if (raw.size() < 12 || end == std::string::npos)
                return r;
        r.status = std::stoi(raw.substr(9, 3));
        r.head = raw.substr(0, end + 2);
        r.body = raw.substr(end + 4);
        if (r.header("Transfer-Encoding") == "chunked") {
                std::string plain;
                for (size_t at = 0; at < r.body.size();) {
                        size_t line = r.body.find("\r\n", at);
                        size_t n = std::stoul(r.body.substr(at, line - at), nullptr, 16);
                        if (n == 0)
                                break;
                        plain += r.body.substr(line + 2, n);
                        at = line + 2 + n + 2;
                }
                r.body = plain;
        }
        return r;
}

/* ------------------------------------------------- A client over loopback, in raw bytes */

// Polls done every 10 ms for at most 20 s; whether it came true.
inline bool eventually(const std::function<bool()>& done) {
        using namespace std::chrono_literals;
        for (auto end = std::chrono::steady_clock::now() + 20s;
             std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(10ms))
                if (done())
                        return true;
        return false;
}

inline sockaddr_in loopback(int port) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return a;
}

// A port that nothing listens on now.
inline int freePort() {
        int s = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a = loopback(0);
        socklen_t n = sizeof a;
        bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
        getsockname(s, reinterpret_cast<sockaddr*>(&a), &n);
        close(s);
        return ntohs(a.sin_port);
}

// A connected socket, or -1; a small receive buffer makes the server wait for the reader.
inline int dial(int port, int receiveBuffer = 0) {
        int s = socket(AF_INET, SOCK_STREAM, 0);
        int on = 1;
        setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        timeval limit = {20, 0};
        setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        if (receiveBuffer)
                setsockopt(s, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        sockaddr_in a = loopback(port);
        if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
                close(s);
                return -1;
        }
        return s;
}

// Sends all of text; false when the connection failed, as it does once reset.
inline bool sendAll(int s, const std::string& text) {
        for (size_t done = 0; done < text.size();) {
                ssize_t n = send(s, text.data() + done, text.size() - done, MSG_NOSIGNAL);
                if (n <= 0)
                        return false;
                done += static_cast<size_t>(n);
        }
        return true;
}

// Reads until the peer closes or `most` bytes came; a socket of dial that stays silent for
// its 20 s fails the test, so that a connection the server should have ended shows.
inline std::string readAll(int s, size_t most = std::string::npos) {
        std::string got;
        char buffer[65536];
        while (got.size() < most) {
                ssize_t n = read(s, buffer, std::min(sizeof buffer, most - got.size()));
                if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                        ADD_FAILURE() << "no answer and no close within 20 s";
                if (n <= 0)
                        break;
                got.append(buffer, static_cast<size_t>(n));
        }
        return got;
}

inline std::string request(const std::string& uri, const std::string& headers = "",
                    const std::string& host = "localhost", const std::string& method = "GET") {
        return method + " " + uri + " HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n" +
               headers + "\r\n";
}

// Sends one request with Connection: close and reads the answer to the end.
inline Reply roundTrip(int port, const std::string& text) {
        int s = dial(port);
        if (s < 0)
                return {};
        Reply r = sendAll(s, text) ? parse(readAll(s)) : Reply{};
        close(s);
        return r;
}

// Reads exactly one response from a kept-alive connection: the head, then a body framed by
// Content-Length or chunks (none for HEAD, 1xx, 204 and 304), or everything up to the close.
inline std::string readResponse(int s, bool head = false) {
        std::string got;
        char c;
        while (got.find("\r\n\r\n") == std::string::npos && read(s, &c, 1) == 1)
                got += c;
        Reply r = parse(got);
        if (head || r.status < 200 || r.status == 204 || r.status == 304)
                return got;
        std::string length = r.header("Content-Length");
        if (!length.empty())
                return got + readAll(s, std::stoul(length));
        if (r.header("Transfer-Encoding") != "chunked")
                return got + readAll(s);
        for (;;) {
                std::string line;
                while (line.find("\r\n") == std::string::npos && read(s, &c, 1) == 1)
                        line += c;
                got += line;
                if (line.size() < 3)
                        return got;
                size_t n = std::stoul(line, nullptr, 16);
                got += readAll(s, n + 2);
                if (n == 0)
                        return got;
        }
}
