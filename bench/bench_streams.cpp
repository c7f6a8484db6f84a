// Throughput of OutputStream on a loopback TCP connection: a 1 MiB body written plain,
// chunked and gzip, beside the same bytes sent with a plain write loop. A reader thread
// drains the other end and counts what arrives. Run by hand; prints one line per mode.
//
//     vesk_bench_streams [bodies per round] [rounds]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <vesk/Arena.h>
#include <vesk/Exception.h>
#include <vesk/Net.h>
#include <vesk/OutputStream.h>
#include <vesk/Thread.h>

namespace {

constexpr int kBodySize = 1 << 20;
constexpr int kPiece = 16 * 1024;  // a servlet writes its body in pieces of this size

// Page-like text: repetitive markup with varying numbers, which gzip shrinks about as
// much as a real HTML page.
std::string makeBody() {
        std::string body;
        unsigned seed = 12345;
        for (int row = 0; body.size() < kBodySize; row++) {
                seed = seed * 1103515245 + 12345;
                body += "<tr class=\"row" + std::to_string(row % 2) + "\"><td>" +
                        std::to_string(row) + "</td><td>item-" + std::to_string(seed % 100000) +
                        "</td><td>" + std::to_string((seed >> 8) % 1000) + "." +
                        std::to_string((seed >> 4) % 100) + "</td></tr>\n";
        }
        body.resize(kBodySize);
        return body;
}

// A connected loopback pair: the writer's descriptor and a thread that reads the other
// end until it closes, counting the bytes.
class Connection {
public:
        int writer = -1;
        std::atomic<long long> received{0};

        Connection() {
                int listener = socket(AF_INET, SOCK_STREAM, 0);
                struct sockaddr_in addr = {};
                addr.sin_family = AF_INET;
                addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                socklen_t len = sizeof addr;
                if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
                    listen(listener, 1) != 0 ||
                    getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
                        perror("listen");
                        exit(1);
                }
                writer = socket(AF_INET, SOCK_STREAM, 0);
                if (connect(writer, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
                        perror("connect");
                        exit(1);
                }
                int reader = accept(listener, nullptr, nullptr);
                close(listener);
                if (reader < 0) {
                        perror("accept");
                        exit(1);
                }
                drain = std::thread([this, reader] {
                        std::vector<char> buf(256 * 1024);
                        ssize_t n;
                        while ((n = read(reader, buf.data(), buf.size())) > 0)
                                received += n;
                        close(reader);
                });
        }
        // Ends the writing side and waits until the reader has seen everything; the count.
        long long finish() {
                if (drain.joinable()) {
                        shutdown(writer, SHUT_WR);
                        drain.join();
                }
                return received;
        }
        ~Connection() {
                finish();
                close(writer);
        }
        Connection(const Connection&) = delete;
        Connection& operator=(const Connection&) = delete;

private:
        std::thread drain;
};

struct Mode {
        const char* name;
        bool
            blocking;  // the plain loop writes to a blocking socket, the streams as the server does
        std::function<void(int fd, const std::string& body)> send;
};

void writeLoop(int fd, const std::string& body) {
        const char* p = body.data();
        size_t left = body.size();
        while (left > 0) {
                ssize_t n = write(fd, p, left);
                if (n <= 0) {
                        perror("write");
                        exit(1);
                }
                p += n;
                left -= static_cast<size_t>(n);
        }
}

// One response body through a fresh stream, as a servlet writes it: in pieces, then the
// end of the body and a flush that waits until the socket took everything. The stream
// flushes whenever its buffer size is reached: 1450 bytes unless bufferSize is given.
void streamed(int fd, const std::string& body, bool chunked, int gzipLevel, int bufferSize = 0) {
        OutputStream_T S = OutputStream_new(fd);
        if (bufferSize > 0)
                OutputStream_setBufferSize(S, bufferSize);
        if (chunked)
                OutputStream_setChunked(S, 1);
        if (gzipLevel >= 0)
                OutputStream_startCompress(S, gzipLevel);
        for (size_t at = 0; at < body.size(); at += kPiece)
                OutputStream_write(S, body.data() + at,
                                   static_cast<int>(std::min<size_t>(kPiece, body.size() - at)));
        OutputStream_end(S);
        if (chunked)
                OutputStream_endChunked(S);
        while (OutputStream_flush(S) > 0 || OutputStream_buffered(S) > 0) {
                if (OutputStream_isClosed(S)) {
                        fprintf(stderr, "stream closed\n");
                        exit(1);
                }
        }
        OutputStream_free(&S);
}

double median(std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
        Arena_init();
        Exception_init();
        Thread_init();
        int bodies = argc > 1 ? atoi(argv[1]) : 64;
        int rounds = argc > 2 ? atoi(argv[2]) : 5;
        if (bodies < 1 || rounds < 1) {
                fprintf(stderr, "usage: %s [bodies per round] [rounds]\n", argv[0]);
                return 2;
        }
        const std::string body = makeBody();
        std::vector<Mode> modes = {
            {"write loop", true, writeLoop},
            {"OutputStream plain", false,
             [](int fd, const std::string& b) { streamed(fd, b, false, -1); }},
            {"OutputStream chunked", false,
             [](int fd, const std::string& b) { streamed(fd, b, true, -1); }},
            {"OutputStream plain 64K", false,
             [](int fd, const std::string& b) { streamed(fd, b, false, -1, 65536); }},
            {"OutputStream chunked 64K", false,
             [](int fd, const std::string& b) { streamed(fd, b, true, -1, 65536); }},
            {"OutputStream gzip 1", false,
             [](int fd, const std::string& b) { streamed(fd, b, false, 1); }},
            {"OutputStream gzip 6", false,
             [](int fd, const std::string& b) { streamed(fd, b, false, 6); }},
            {"OutputStream chunked gzip 6", false,
             [](int fd, const std::string& b) { streamed(fd, b, true, 6); }},
        };
        printf(
            "%d bodies of 1 MiB per round, %d rounds; body MiB/s (median, best), wire bytes/body\n",
            bodies, rounds);
        for (const Mode& mode : modes) {
                std::vector<double> rates;
                long long wire = 0;
                for (int r = 0; r < rounds; r++) {
                        Connection c;
                        if (!mode.blocking)
                                Net_setNonBlocking(c.writer);
                        auto start = std::chrono::steady_clock::now();
                        for (int i = 0; i < bodies; i++)
                                mode.send(c.writer, body);
                        wire = c.finish();
                        double seconds =
                            std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
                                .count();
                        rates.push_back(bodies / seconds);
                }
                printf("%-28s %8.1f %8.1f %10lld\n", mode.name, median(rates),
                       *std::max_element(rates.begin(), rates.end()), wire / bodies);
        }
        return 0;
}
