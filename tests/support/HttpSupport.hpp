// A connection over a socket pair for request, response and lexer tests: the server side
// is an InetAddress, the client side a plain descriptor.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

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
