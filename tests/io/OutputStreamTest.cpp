#include <gtest/gtest.h>

#include <string>
#include <thread>

#include <vesk/Arena.h>
#include <vesk/Chain.h>
#include <vesk/InetAddress.h>
#include <vesk/OutputStream.h>

#include "support/Gzip.hpp"
#include "support/StreamSupport.hpp"
#include "support/Support.hpp"

namespace {

int countCalls(Chain_T C, void* count) {
        (void)C;
        ++*static_cast<int*>(count);
        return 0;
}

std::string text(size_t n) {
        std::string s;
        for (size_t i = 0; s.size() < n; i++)
                s += "row " + std::to_string(i) + " of a text that compresses well\n";
        s.resize(n);
        return s;
}

// A response head in a chain of its own, as the response module makes it.
Chain_T head(Arena_T arena, const char* text) {
        Chain_T h = Chain_alloc(arena);
        Chain_print(h, "%s", text);
        return h;
}

constexpr const char* kHead = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

}  // namespace

TEST(Chain, NotifyFiresAtTheLimitOnly) {
        Arena_T A = Arena_new();
        for (int n : {8191, 8192}) {
                Chain_T C = Chain_alloc(A);
                int calls = 0;
                Chain_setLimit(C, 8192, countCalls, &calls);
                std::string data(static_cast<size_t>(n), 'x');
                Chain_write(C, data.data(), n);
                EXPECT_EQ(calls, n == 8192 ? 1 : 0);
                EXPECT_EQ(Chain_size(C), n);
        }
        Arena_dispose(&A);
}

TEST(Chain, PrintKeepsLongTextsWholeAndTheBufferBoundary) {
        Chain_T C = Chain_new();
        std::string longText(1451, 'a');
        Chain_print(C, "%s", longText.c_str());
        EXPECT_EQ(Chain_size(C), 1451);
        Chain_clear(C);
        EXPECT_EQ(Chain_size(C), 0);
        // 1450 bytes: the terminator of the format buffer goes out in place of the last.
        Chain_print(C, "%s", std::string(1450, 'b').c_str());
        EXPECT_EQ(Chain_size(C), 1450);
        Chain_free(&C);
        Arena_T A = Arena_new();
        Chain_T inArena = Chain_alloc(A);
        EXPECT_EQ(assertion([&] { Chain_free(&inArena); }), "! (*C)->arena");
        Arena_dispose(&A);
}

TEST(Chain, AppendReusesFreeNodes) {
        Chain_T C = Chain_new();
        ChainNode_T small = Chain_append(C, 10);
        EXPECT_EQ(Chain_append(C, 5), small);  // the empty only node serves
        ChainNode_T big = Chain_append(C, 5000);
        EXPECT_NE(big, small);
        EXPECT_EQ(big->next, small);  // kept free behind the new one
        Chain_write(C, "abc", 3);
        EXPECT_EQ(big->avail - big->pos, 3);
        EXPECT_EQ(Chain_append(C, 8), small);
        // Appending behind an empty node is a fault.
        EXPECT_EQ(assertion([&] { Chain_append(C, 10); }),
                  "(C->last->avail - (C->last->start + chain_chunk_size)) > 0");
        Chain_clear(C);
        EXPECT_EQ(Chain_size(C), 0);
        EXPECT_EQ(Chain_append(C, 4000), big);
        Chain_free(&C);
}

TEST(OutputStream, ChunkedResponseFraming) {
        Loopback L;
        Arena_T A = InetAddress_getArena(L.peer);
        OutputStream_T out = InetAddress_getOutputStream(L.peer);
        OutputStream_setBufferSize(out, 8192);
        std::string body = text(3000);
        OutputStream_write(out, body.data(), 3000);
        OutputStream_setChunked(out, 1);
        OutputStream_commit(out, head(A, kHead));
        OutputStream_endChunked(out);
        int sent = OutputStream_flush(out);
        // Nodes of 1450 bytes each become one chunk: 1450, 1450 and 100.
        std::string expect = std::string(kHead) + "5aa\r\n" + body.substr(0, 1450) + "\r\n5aa\r\n" +
                             body.substr(1450, 1450) + "\r\n64\r\n" + body.substr(2900) +
                             "\r\n0\r\n\r\n";
        EXPECT_EQ(sent, static_cast<int>(expect.size()));
        EXPECT_EQ(L.receive(expect.size()), expect);
        EXPECT_EQ(OutputStream_getBytesWritten(out), 3000);
        EXPECT_EQ(OutputStream_buffered(out), 0);
}

TEST(OutputStream, EmptyChunkedBodyAndLaterChunks) {
        Loopback L;
        Arena_T A = InetAddress_getArena(L.peer);
        OutputStream_T out = InetAddress_getOutputStream(L.peer);
        OutputStream_setChunked(out, 1);
        OutputStream_commit(out, head(A, kHead));
        OutputStream_endChunked(out);
        OutputStream_flush(out);
        EXPECT_EQ(L.receive(strlen(kHead) + 5), std::string(kHead) + "0\r\n\r\n");
        EXPECT_EQ(OutputStream_getBytesWritten(out), 0);

        // A head flushed on its own: the first chunk behind it still has no leading CR LF.
        InetAddress_release(L.peer);
        out = InetAddress_getOutputStream(L.peer);
        OutputStream_setChunked(out, 1);
        OutputStream_commit(out, head(InetAddress_getArena(L.peer), kHead));
        OutputStream_flush(out);
        OutputStream_print(out, "%s", "hello");
        OutputStream_flush(out);
        OutputStream_print(out, "%s", "world!");
        OutputStream_endChunked(out);
        OutputStream_flush(out);
        std::string expect = std::string(kHead) + "5\r\nhello\r\n6\r\nworld!\r\n0\r\n\r\n";
        EXPECT_EQ(L.receive(expect.size()), expect);
        EXPECT_EQ(OutputStream_getBytesWritten(out), 11);
}

TEST(OutputStream, GzipBodyReadsBackByteIdentical) {
        Loopback L;
        OutputStream_T out = InetAddress_getOutputStream(L.peer);
        EXPECT_TRUE(OutputStream_startCompress(out, 6));
        EXPECT_TRUE(OutputStream_isCompressed(out));
        std::string body = text(300000);
        // Written in pieces of odd sizes, across many compression nodes.
        for (size_t at = 0; at < body.size(); at += 7777)
                OutputStream_write(out, body.data() + at,
                                   static_cast<int>(std::min<size_t>(7777, body.size() - at)));
        OutputStream_end(out);
        EXPECT_FALSE(OutputStream_isCompressed(out));
        std::thread flusher([&] {
                while (OutputStream_buffered(out) > 0 && OutputStream_flush(out) > 0)
                        ;
                Net_shutdown(L.fd(), SHUT_WR);
        });
        std::string got = L.receive();
        flusher.join();
        EXPECT_EQ(gunzip(got), body);
        EXPECT_EQ(OutputStream_getBytesWritten(out), static_cast<long long>(got.size()));
}

TEST(OutputStream, ClearDropsEverythingAlsoWhileCompressing) {
        OutputStream_T out = OutputStream_new(-1);
        OutputStream_write(out, "abc", 3);
        OutputStream_startCompress(out, 1);
        std::string body = text(50000);
        OutputStream_write(out, body.data(), static_cast<int>(body.size()));
        OutputStream_clear(out);
        EXPECT_EQ(OutputStream_buffered(out), 0);
        EXPECT_EQ(OutputStream_getBytesWritten(out), 0);
        EXPECT_FALSE(OutputStream_isCompressed(out));
        EXPECT_EQ(OutputStream_flush(out), 0);
        OutputStream_free(&out);
}

TEST(OutputStream, ADiscardingStreamSendsTheHeadAlone) {
        Loopback L;
        OutputStream_T out = InetAddress_getOutputStream(L.peer);
        OutputStream_setDiscard(out, 1);
        // Far past the buffer, through every writer: measured, never buffered.
        std::string body = text(100000);
        OutputStream_write(out, body.data(), static_cast<int>(body.size()));
        OutputStream_print(out, "%s-%d", "tail", 7);
        EXPECT_EQ(OutputStream_buffered(out), 0);
        EXPECT_EQ(OutputStream_getDiscarded(out), 100006);
        EXPECT_TRUE(OutputStream_startCompress(out, 6));
        EXPECT_TRUE(OutputStream_isCompressed(out));
        OutputStream_write(out, "more", 4);
        OutputStream_end(out);
        EXPECT_FALSE(OutputStream_isCompressed(out));
        EXPECT_EQ(OutputStream_getDiscarded(out), 100010);
        OutputStream_clear(out);
        EXPECT_EQ(OutputStream_getDiscarded(out), 0);
        // Chunk framing and the final chunk are dropped with the body.
        OutputStream_setChunked(out, 1);
        OutputStream_commit(out, head(InetAddress_getArena(L.peer), kHead));
        OutputStream_write(out, body.data(), static_cast<int>(body.size()));
        OutputStream_endChunked(out);
        EXPECT_EQ(OutputStream_flush(out), static_cast<int>(strlen(kHead)));
        EXPECT_EQ(OutputStream_flush(out), 0);
        Net_shutdown(L.fd(), SHUT_WR);
        EXPECT_EQ(L.receive(), kHead);
        EXPECT_EQ(OutputStream_getBytesWritten(out), 0);
}

namespace {

// An owner as the response module is one: it puts its head in front of the body when
// asked, and says whether its client takes gzip.
struct Owner {
        OutputStream_T out;
        Chain_T head;
        bool takesGzip = false;
        int commits = 0;
        int gzipMarks = 0;
};

const OutputStream_Response kOwnerCalls = {
    [](void* o) {
            auto owner = static_cast<Owner*>(o);
            owner->commits++;
            OutputStream_commit(owner->out, owner->head);
    },
    [](void* o) { return static_cast<int>(static_cast<Owner*>(o)->takesGzip); },
    [](void* o) { static_cast<Owner*>(o)->gzipMarks++; }};

}  // namespace

TEST(OutputStream, AnAttachedResponseIsCommittedOnceAndAskedBeforeCompressing) {
        Loopback L;
        OutputStream_T out = InetAddress_getOutputStream(L.peer);
        const char* plainHead = "HTTP/1.1 200 OK\r\n\r\n";
        Owner owner{out, head(InetAddress_getArena(L.peer), plainHead)};
        OutputStream_setResponse(out, &kOwnerCalls, &owner);
        EXPECT_FALSE(OutputStream_startCompress(out, 6));
        EXPECT_FALSE(OutputStream_isCompressed(out));
        OutputStream_print(out, "%s", "hello");
        EXPECT_EQ(owner.commits, 0);
        OutputStream_flush(out);
        OutputStream_print(out, "%s", "!");
        OutputStream_flush(out);
        EXPECT_EQ(L.receive(strlen(plainHead) + 6), std::string(plainHead) + "hello!");
        EXPECT_EQ(owner.commits, 1);
        // The head is out: its Content-Encoding can no longer be set.
        owner.takesGzip = true;
        EXPECT_FALSE(OutputStream_startCompress(out, 6));
        EXPECT_EQ(owner.gzipMarks, 0);

        InetAddress_release(L.peer);
        out = InetAddress_getOutputStream(L.peer);
        Owner taker{out, head(InetAddress_getArena(L.peer), plainHead), true};
        OutputStream_setResponse(out, &kOwnerCalls, &taker);
        EXPECT_TRUE(OutputStream_startCompress(out, 6));
        EXPECT_EQ(taker.gzipMarks, 1);
        OutputStream_end(out);
        // Detached, the stream neither commits nor asks.
        taker.takesGzip = false;
        OutputStream_setResponse(out, nullptr, &taker);
        EXPECT_TRUE(OutputStream_startCompress(out, 6));
        OutputStream_end(out);
        OutputStream_flush(out);
        EXPECT_EQ(taker.commits, 0);
}

TEST(OutputStream, PartialWritesResumeWithoutSecondChunkLines) {
        Loopback L;
        InetAddress_setNonBlocking(L.peer);
        OutputStream_T out = InetAddress_getOutputStream(L.peer);
        OutputStream_setBufferSize(out, 1 << 30);  // buffer it all, flush by hand
        OutputStream_setChunked(out, 1);
        OutputStream_commit(out, head(InetAddress_getArena(L.peer), kHead));
        std::string body = text(8 << 20);
        OutputStream_write(out, body.data(), static_cast<int>(body.size()));
        OutputStream_endChunked(out);
        // Nobody reads yet: the socket fills, and a flush that cannot wait takes what fits.
        int first = OutputStream_flush(out);
        EXPECT_GT(first, 0);
        EXPECT_GT(OutputStream_buffered(out), 0);
        EXPECT_EQ(OutputStream_flush(out), 0);
        std::string got;
        std::thread reader([&] { got = L.receive(); });
        while (OutputStream_buffered(out) > 0)
                if (OutputStream_flush(out) == 0)
                        Net_canWrite(L.fd(), 1000);
        Net_shutdown(L.fd(), SHUT_WR);
        reader.join();
        ASSERT_GT(got.size(), strlen(kHead));
        EXPECT_EQ(got.substr(0, strlen(kHead)), kHead);
        // Undo the framing: each chunk is a size line and that many bytes.
        std::string decoded;
        size_t at = strlen(kHead);
        for (;;) {
                size_t eol = got.find("\r\n", at);
                ASSERT_NE(eol, std::string::npos);
                size_t n = std::stoul(got.substr(at, eol - at), nullptr, 16);
                at = eol + 2;
                if (n == 0)
                        break;
                decoded += got.substr(at, n);
                at += n;
                ASSERT_EQ(got.substr(at, 2), "\r\n");
                at += 2;
        }
        EXPECT_EQ(got.substr(at), "\r\n");
        EXPECT_EQ(decoded, body);
        EXPECT_EQ(OutputStream_getBytesWritten(out), static_cast<long long>(body.size()));
}

TEST(OutputStream, PeerGoneClosesTheStreamForGood) {
        Loopback L;
        OutputStream_T out = InetAddress_getOutputStream(L.peer);
        // A reset from the client makes the next write fail with no signal.
        struct linger reset = {1, 0};
        setsockopt(L.client, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        L.closeClient();
        std::string body = text(100000);
        OutputStream_write(out, body.data(), static_cast<int>(body.size()));
        OutputStream_flush(out);
        EXPECT_TRUE(OutputStream_isClosed(out));
        EXPECT_EQ(OutputStream_flush(out), -1);
        OutputStream_write(out, "dropped", 7);
        OutputStream_print(out, "%s", "dropped");
}

TEST(OutputStream, WritesToFilesAndChecks) {
        char path[] = "/tmp/vesk-output-XXXXXX";
        int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        OutputStream_T out = OutputStream_new(fd);
        OutputStream_print(out, "%s", "");
        OutputStream_write(out, nullptr, 5);
        EXPECT_EQ(OutputStream_buffered(out), 0);
        OutputStream_print(out, "%d-%s", 42, "x");
        EXPECT_EQ(OutputStream_flush(out), 4);
        OutputStream_free(&out);
        char got[8] = {};
        EXPECT_EQ(pread(fd, got, sizeof got, 0), 4);
        EXPECT_STREQ(got, "42-x");
        close(fd);
        unlink(path);
        Arena_T A = Arena_new();
        OutputStream_T inArena = OutputStream_alloc(A, -1);
        EXPECT_EQ(assertion([&] { OutputStream_free(&inArena); }), "! (*S)->arena");
        Arena_dispose(&A);
}
