#include <gtest/gtest.h>

#include <errno.h>

#include <string>

#include <vesk/Arena.h>
#include <vesk/InetAddress.h>
#include <vesk/InputStream.h>

#include "support/StreamSupport.hpp"
#include "support/Support.hpp"

namespace {

// The server side's input stream, never waiting, as on the reactor thread.
InputStream_T reactorStream(Loopback& L) {
        InetAddress_setNonBlocking(L.peer);
        return InetAddress_getInputStream(L.peer);
}

// Feeds text one piece at a time and calls hasRequest after each; the first result
// that is not 0, and the number of calls it took.
std::pair<int, int> feed(Loopback& L, const std::string& text, size_t piece) {
        InputStream_T in = reactorStream(L);
        char* buffer = nullptr;
        int calls = 0;
        for (size_t at = 0; at < text.size(); at += piece) {
                L.send(text.substr(at, piece));
                calls++;
                int r = InputStream_hasRequest(in, &buffer);
                EXPECT_NE(buffer, nullptr);
                if (r != 0)
                        return {r, calls};
        }
        return {0, calls};
}

std::string readAll(InputStream_T in) {
        std::string out;
        for (int c; (c = InputStream_read(in)) != -1;)
                out += static_cast<char>(c);
        return out;
}

}  // namespace

TEST(InputStream, HeadFoundAtTheSamePlaceWholeOrByteByByte) {
        const std::string head = "GET /index.html HTTP/1.1\r\nHost: a\r\n\r\n";
        const std::string body = "BODY";
        Loopback whole;
        EXPECT_EQ(feed(whole, head + body, 4096).first, static_cast<int>(head.size()));
        InputStream_T in = InetAddress_getInputStream(whole.peer);
        // The stream stands at the body, for the reads that follow.
        char b[5] = {};
        EXPECT_EQ(InputStream_readBytes(in, b, 4), 4);
        EXPECT_STREQ(b, "BODY");

        Loopback trickle;
        auto [end, calls] = feed(trickle, head, 1);
        EXPECT_EQ(end, static_cast<int>(head.size()));
        EXPECT_EQ(calls, static_cast<int>(head.size()));
}

TEST(InputStream, LeadingWhiteSpaceIsLimited) {
        Loopback ok;
        std::string head = "GET / HTTP/1.0\n\n";
        EXPECT_EQ(feed(ok, std::string(21, '\n') + head + "x", 4096).first,
                  21 + static_cast<int>(head.size()));
        Loopback hostile;
        EXPECT_EQ(feed(hostile, std::string(22, ' ') + head, 4096).first, -1);
        // Spread over several reads the count carries on.
        Loopback split;
        EXPECT_EQ(feed(split, std::string(30, '\r'), 10).first, -1);
}

TEST(InputStream, HeadEndingInTwoLineFeedsNeedsOneMoreByte) {
        Loopback L;
        InputStream_T in = reactorStream(L);
        char* buffer;
        L.send("GET / HTTP/1.0\n\n");
        EXPECT_EQ(InputStream_hasRequest(in, &buffer), 0);
        L.send("B");
        EXPECT_EQ(InputStream_hasRequest(in, &buffer), 16);
        EXPECT_EQ(std::string(buffer, 16), "GET / HTTP/1.0\n\n");
}

TEST(InputStream, HeadOfExactlyTheBufferSize) {
        std::string filler = "GET / HTTP/1.1\r\nX: " + std::string(4096 - 23, 'a');
        Loopback full;
        EXPECT_EQ(feed(full, filler + "\r\n\r\n", 1000).first, 4096);

        Loopback overflow;
        EXPECT_EQ(feed(overflow, filler + "\r\n\r\n" + "more", 1000).first, 4096);

        Loopback noEnd;
        EXPECT_EQ(feed(noEnd, filler + "aaaa", 1000).first, -2);
}

TEST(InputStream, EndOfStreamAndNoData) {
        Loopback L;
        InputStream_T in = reactorStream(L);
        char* buffer;
        EXPECT_EQ(InputStream_hasRequest(in, &buffer), 0);
        // With no data and no waiting a read is -1 and the stream stays usable.
        EXPECT_EQ(InputStream_read(in), -1);
        EXPECT_FALSE(InputStream_isClosed(in));
        EXPECT_FALSE(Inputstream_peerClosed(in));
        char line[16];
        EXPECT_EQ(InputStream_readLine(in, line, sizeof line), nullptr);

        L.send("GET");
        L.closeClient();
        EXPECT_EQ(InputStream_hasRequest(in, &buffer), 0);
        Net_canRead(L.fd(), 2000);
        EXPECT_EQ(InputStream_hasRequest(in, &buffer), -1);
        EXPECT_TRUE(Inputstream_peerClosed(in));
        EXPECT_FALSE(InputStream_isClosed(in));
}

TEST(InputStream, ReadWaitsForItsTimeoutOnly) {
        Loopback L;
        InputStream_T in = InetAddress_getInputStream(L.peer);
        InputStream_setTimeout(in, 30);
        EXPECT_EQ(InputStream_read(in), -1);
        EXPECT_FALSE(Inputstream_peerClosed(in));

        L.send("line one\nline two");
        char line[64];
        EXPECT_STREQ(InputStream_readLine(in, line, sizeof line), "line one\n");
        EXPECT_EQ(InputStream_buffered(in), 8);
        EXPECT_EQ(InputStream_readText(in, line, 5), 4);
        EXPECT_STREQ(line, "line");
        EXPECT_EQ(InputStream_readText(in, line, sizeof line), 4);
        EXPECT_STREQ(line, " two");
}

TEST(InputStream, ChunkedBodyDeliversEachChunkWithItsCarriageReturn) {
        Loopback L;
        InputStream_T in = InetAddress_getInputStream(L.peer);
        InputStream_setChunked(in, 1);
        L.send("5;name=value\r\nhello\r\n0000006\r\n world\r\n0\r\nTrailer: x\r\n\r\n");
        EXPECT_EQ(readAll(in), "hello\r world\r");
        EXPECT_FALSE(InputStream_isChunked(in));
        EXPECT_FALSE(InputStream_isClosed(in));
        // The trailer is left for the caller.
        char line[32];
        EXPECT_STREQ(InputStream_readLine(in, line, sizeof line), "Trailer: x\r\n");
}

TEST(InputStream, BadChunkTokensCloseTheStream) {
        for (const char* body : {"12345678\r\nx", "zz", "5"}) {
                Loopback L;
                InputStream_T in = InetAddress_getInputStream(L.peer);
                InputStream_setTimeout(in, 0);
                InputStream_setChunked(in, 1);
                L.send(body);
                EXPECT_EQ(InputStream_read(in), -1) << body;
                EXPECT_TRUE(InputStream_isClosed(in)) << body;
                char b[4];
                EXPECT_EQ(InputStream_readBytes(in, b, 4), -1);
        }
}

TEST(InputStream, SkipAndClear) {
        Loopback L;
        InputStream_T in = InetAddress_getInputStream(L.peer);
        InputStream_setTimeout(in, 100);
        L.send("0123456789");
        EXPECT_EQ(InputStream_skip(in, 0), 0);
        EXPECT_EQ(InputStream_skip(in, 4), 4);
        EXPECT_EQ(InputStream_read(in), '4');
        InputStream_clear(in);
        EXPECT_EQ(InputStream_buffered(in), 0);
        EXPECT_EQ(InputStream_skip(in, 3), -1);
        EXPECT_FALSE(InputStream_isClosed(in));
}

TEST(InputStream, LifecycleChecks) {
        InputStream_T S = InputStream_new(-1);
        // A bad descriptor is an error, not an end: the stream closes for good.
        EXPECT_EQ(InputStream_read(S), -1);
        EXPECT_TRUE(InputStream_isClosed(S));
        InputStream_free(&S);
        Arena_T A = Arena_new();
        InputStream_T inArena = InputStream_alloc(A, -1);
        EXPECT_EQ(assertion([&] { InputStream_free(&inArena); }), "! (*S)->arena");
        Arena_dispose(&A);
}
