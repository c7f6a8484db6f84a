// A real TCP connection on the loopback interface for stream and socket tests: the
// server side is an accepted InetAddress, the client side a plain blocking descriptor.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include <vesk/InetAddress.h>
#include <vesk/Net.h>
#include <vesk/ServerSocket.h>

class Loopback {
public:
        ServerSocket_T server = nullptr;
        InetAddress_T peer = nullptr;
        int client = -1;

        // Listens on 127.0.0.1 or ::1 with a port the system picks and connects to it.
        explicit Loopback(int version = 4) {
                server = ServerSocket_new(0, version == 4 ? "127.0.0.1" : "::1", version);
                struct sockaddr_storage addr = {};
                socklen_t len;
                if (version == 4) {
                        auto a = reinterpret_cast<struct sockaddr_in*>(&addr);
                        a->sin_family = AF_INET;
                        a->sin_port = htons(static_cast<uint16_t>(ServerSocket_getPort(server)));
                        inet_pton(AF_INET, "127.0.0.1", &a->sin_addr);
                        len = sizeof *a;
                } else {
                        auto a = reinterpret_cast<struct sockaddr_in6*>(&addr);
                        a->sin6_family = AF_INET6;
                        a->sin6_port = htons(static_cast<uint16_t>(ServerSocket_getPort(server)));
                        inet_pton(AF_INET6, "::1", &a->sin6_addr);
                        len = sizeof *a;
                }
                client = socket(addr.ss_family, SOCK_STREAM, 0);
                if (connect(client, reinterpret_cast<struct sockaddr*>(&addr), len) == 0 &&
                    Net_canRead(ServerSocket_getSocket(server), 2000))
                        peer = ServerSocket_accept(server);
                if (!peer)
                        ADD_FAILURE() << "no connection over the loopback interface";
        }
        ~Loopback() {
                if (peer)
                        InetAddress_free(&peer);
                if (client >= 0)
                        close(client);
                ServerSocket_free(&server);
        }
        Loopback(const Loopback&) = delete;
        Loopback& operator=(const Loopback&) = delete;

        int fd() const { return InetAddress_getSocket(peer); }

        // Sends bytes from the client and waits until the server side can read them.
        void send(std::string_view bytes) const {
                size_t done = 0;
                while (done < bytes.size()) {
                        ssize_t n =
                            ::send(client, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
                        if (n <= 0)
                                return;
                        done += static_cast<size_t>(n);
                }
                Net_canRead(fd(), 2000);
        }

        // Reads on the client until n bytes came, the server closed, or 2 s of silence.
        std::string receive(size_t n = SIZE_MAX) const {
                std::string got;
                char buf[65536];
                while (got.size() < n && Net_canRead(client, 2000)) {
                        ssize_t r = ::recv(client, buf, std::min(sizeof buf, n - got.size()), 0);
                        if (r <= 0)
                                break;
                        got.append(buf, static_cast<size_t>(r));
                }
                return got;
        }

        // Ends the client's side, so that the server reads the end of the stream.
        void closeClient() {
                close(client);
                client = -1;
        }
};
