#include <ctype.h>
#include <errno.h>
#include <stdio.h>

#include <vesk/Arena.h>
#include <vesk/Error.h>
#include <vesk/InputStream.h>
#include <vesk/Mem.h>
#include <vesk/Net.h>
#include <vesk/assert.h>

#include "ssl/SSLTransport.hpp"

namespace {

// The largest request head the server takes: the buffer doubles as the parse buffer.
constexpr int kBufferSize = 4096;
constexpr int kDefaultTimeout = 3000;
// Leading white space in front of a request head may reach this index, no further.
constexpr int kMaxLeadingSpace = 20;
constexpr int kMaxChunkDigits = 7;
// While readText takes what has already arrived.
constexpr int kTextTimeout = 10;

}  // namespace

struct InputStream_S {
        int socket;
        SSL_T ssl;
        int pos;
        int length;
        Arena_T arena;
        int timeout;
        int started;
        int isClosed;
        int chunkSize;
        int chunked;
        int peerClosed;
        char buffer[kBufferSize + 1];
};

namespace {

InputStream_T init(InputStream_T S, Arena_T arena, int socket) {
        S->socket = socket;
        S->arena = arena;
        S->timeout = kDefaultTimeout;
        return S;
}

int readSome(InputStream_T S, char* at, int size, int timeout) {
        if (S->ssl)
                return SSLTransport_read(S->ssl, at, size, timeout);
        return static_cast<int>(Net_read(S->socket, at, static_cast<size_t>(size), timeout));
}

// Refills the empty buffer. An EAGAIN (a timeout, or no data yet) leaves the stream
// usable; an end of file marks the peer closed; an error closes the stream.
int fill(InputStream_T S) {
        if (S->isClosed)
                return -1;
        errno = 0;
        S->pos = S->length = 0;
        int n = readSome(S, S->buffer, kBufferSize, S->timeout);
        if (n > 0) {
                S->length += n;
                return n;
        }
        if (n < 0) {
                S->isClosed = 1;
                return -1;
        }
        if (errno != EAGAIN)
                S->peerClosed = 1;
        return -1;
}

int nextByte(InputStream_T S) {
        if (S->pos >= S->length && fill(S) < 0)
                return -1;
        return static_cast<unsigned char>(S->buffer[S->pos++]);
}

int closeChunked(InputStream_T S, const char* why) {
        if (why)
                Error_debug("%s", why);
        S->pos = S->length = 0;
        S->isClosed = 1;
        return -1;
}

// Inside a chunk header every failed read ends the stream, EAGAIN included: the body
// cannot be framed again after a partial token.
int chunkByte(InputStream_T S) {
        int c = nextByte(S);
        if (c < 0)
                S->isClosed = 1;
        return c;
}

// Reads the next chunk header, c being the byte that ended the previous chunk (or the
// first byte of the body), and returns the chunk's first byte.
int readChunkHeader(InputStream_T S, int c) {
        while (!isxdigit(c))
                if ((c = chunkByte(S)) < 0)
                        return -1;
        char token[kMaxChunkDigits + 1];
        int n = 0;
        while (isxdigit(c)) {
                if (n == kMaxChunkDigits)
                        return closeChunked(S, "InputStream: chunk too large\n");
                token[n++] = static_cast<char>(c);
                if ((c = chunkByte(S)) < 0)
                        return closeChunked(S, "InputStream: Invalid chunk token\n");
        }
        token[n] = 0;
        // Chunk extensions and the line end are dropped.
        while (c != '\n')
                if ((c = chunkByte(S)) < 0)
                        return closeChunked(S, "InputStream: Invalid chunk token\n");
        if (sscanf(token, "%x", &S->chunkSize) != 1)
                return closeChunked(S, "InputStream: Failed to parse chunk token as hex\n");
        if (S->chunkSize == 0) {
                // Trailers and the last line end stay unread.
                S->chunked = 0;
                return -1;
        }
        return nextByte(S);
}

}  // namespace

InputStream_T InputStream_new(int socket) {
        InputStream_T S;
        NEW0(S);
        return init(S, nullptr, socket);
}

InputStream_T InputStream_alloc(Arena_T arena, int socket) {
        assert(arena);
        auto S = static_cast<InputStream_T>(ARENA_CALLOC(arena, 1, sizeof(struct InputStream_S)));
        return init(S, arena, socket);
}

void InputStream_free(InputStream_T* S) {
        assert(S && *S);
        // The check's text is part of the interface.
        // clang-format off
        assert(! (*S)->arena);
        // clang-format on
        FREE(*S);
}

void InputStream_setSSL(InputStream_T S, SSL_T ssl) {
        assert(S);
        S->ssl = ssl;
}

int InputStream_isClosed(InputStream_T S) {
        assert(S);
        return S->isClosed;
}

int Inputstream_peerClosed(InputStream_T S) {
        assert(S);
        return S->peerClosed;
}

int InputStream_getTimeout(InputStream_T S) {
        assert(S);
        return S->timeout;
}

void InputStream_setTimeout(InputStream_T S, int timeout) {
        assert(S);
        assert(timeout >= 0);
        S->timeout = timeout;
}

int InputStream_isChunked(InputStream_T S) {
        assert(S);
        return S->chunked;
}

void InputStream_setChunked(InputStream_T S, int chunked) {
        assert(S);
        S->chunked = chunked;
}

void InputStream_clear(InputStream_T S) {
        assert(S);
        S->pos = S->length = S->started = S->chunkSize = S->chunked = S->peerClosed = 0;
}

int InputStream_buffered(InputStream_T S) {
        assert(S);
        int n = S->length - S->pos;
        if (n > 0)
                return n;
        return S->ssl ? SSLTransport_pending(S->ssl) : 0;
}

int InputStream_read(InputStream_T S) {
        assert(S);
        int c = nextByte(S);
        if (c < 0 || !S->chunked)
                return c;
        // A chunk of n bytes hands out n + 1: the CR that ends it is the last. The LF
        // behind it is where the next header starts.
        if (S->chunkSize-- > 0)
                return c;
        return readChunkHeader(S, c);
}

int InputStream_readBytes(InputStream_T S, void* b, int n) {
        assert(S);
        assert(b);
        auto bytes = static_cast<unsigned char*>(b);
        int count = 0;
        for (int c; count < n && (c = InputStream_read(S)) != -1;)
                bytes[count++] = static_cast<unsigned char>(c);
        return S->isClosed ? -1 : count;
}

char* InputStream_readLine(InputStream_T S, char* s, int size) {
        assert(S);
        assert(s);
        if (size < 1)
                return nullptr;
        int n = 0;
        for (int c; n < size - 1 && (c = InputStream_read(S)) > 0;) {
                s[n++] = static_cast<char>(c);
                if (c == '\n')
                        break;
        }
        s[n] = 0;
        return n ? s : nullptr;
}

int InputStream_readText(InputStream_T S, char* s, int size) {
        assert(S);
        assert(s);
        if (size < 1)
                return S->isClosed ? -1 : 0;
        int n = 0;
        if (size - 1 >= 1) {
                int c = InputStream_read(S);
                if (c >= 0) {
                        s[n++] = static_cast<char>(c);
                        int timeout = S->timeout;
                        S->timeout = kTextTimeout;
                        while (n < size - 1 && (c = InputStream_read(S)) >= 0)
                                s[n++] = static_cast<char>(c);
                        S->timeout = timeout;
                }
        }
        s[n] = 0;
        return S->isClosed ? -1 : n;
}

int InputStream_skip(InputStream_T S, int n) {
        assert(S);
        if (n < 1)
                return 0;
        if (S->isClosed)
                return -1;
        for (;;) {
                int available = S->length - S->pos;
                if (n <= available) {
                        S->pos = n;
                        return n;
                }
                n -= available;
                if (fill(S) < 0)
                        // With no data in time the stream stays usable, but the skip ends
                        // here rather than spin on a silent peer.
                        return -1;
        }
}

int InputStream_hasRequest(InputStream_T S, char** buffer) {
        assert(S);
        assert(buffer);
        *buffer = S->buffer;
        if (S->isClosed)
                return -1;
        errno = 0;
        int n = readSome(S, S->buffer + S->length, kBufferSize - S->length, 0);
        if (n == 0) {
                if (errno == EAGAIN)
                        return 0;
                S->peerClosed = 1;
                return -1;
        }
        if (n < 0) {
                S->pos = S->length = 0;
                S->isClosed = 1;
                return -1;
        }
        S->length += n;
        const char* b = S->buffer;
        if (!S->started) {
                while (S->pos < S->length && isspace(static_cast<unsigned char>(b[S->pos]))) {
                        if (S->pos > kMaxLeadingSpace)
                                return -1;
                        S->pos++;
                }
                if (S->pos < S->length)
                        S->started = 1;
        }
        // pos carries over between calls, so no byte is looked at twice however the head
        // arrives. LF, any byte, LF ends a head; so does LF LF with a byte behind it.
        for (int i = S->pos; i + 2 < S->length; i++) {
                int end = 0;
                if (b[i] == '\n' && b[i + 2] == '\n')
                        end = i + 3;
                else if (b[i] == '\n' && b[i + 1] == '\n')
                        end = i + 2;
                if (end) {
                        S->pos = end;
                        return end;
                }
                S->pos = i + 1;
        }
        return S->length < kBufferSize ? 0 : -2;
}
