#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>

#include <vesk/Arena.h>
#include <vesk/Chain.h>
#include <vesk/File.h>
#include <vesk/FileCache.h>
#include <vesk/Mem.h>
#include <vesk/Net.h>
#include <vesk/OutputStream.h>
#include <vesk/assert.h>

#include "io/ChainImpl.hpp"
#include "io/FileMap.hpp"
#include "io/MapGuard.hpp"
#include "ssl/SSLTransport.hpp"

namespace {

constexpr int kDefaultTimeout = 3000;
constexpr int kMaxGather = 64;
// Mapped bytes pass into TLS through a buffer of one record's size.
constexpr int kMappedChunk = 16384;

}  // namespace

struct OutputStream_S {
        int socket;
        SSL_T ssl;
        Chain_T chain;
        Chain_T headers;
        Arena_T arena;
        int timeout;
        int isClosed;
        int chunked;
        int commited;
        int endChunk;
        // The response whose body this is, and what the stream asks of it; none when calls
        // is NULL.
        const OutputStream_Response* calls;
        void* response;
        long long bytesWritten;
        // A chunk went out since the head: every later chunk line and the final chunk
        // then begin with the CR LF that ends the data before them.
        int chunkSent;
        // The body is measured and dropped, as for the answer to a HEAD: only the head
        // is ever buffered, and compression is claimed in the head but never run.
        int discard;
        long long discarded;
        int gzipClaimed;
        // The file mapping lent to the chain, held by the response while it is sent.
        FileMap_T fileMap;
};

namespace {

int notifyFlush(Chain_T C, void* stream) {
        (void)C;
        return OutputStream_flush(static_cast<OutputStream_T>(stream));
}

OutputStream_T init(OutputStream_T S, Arena_T arena, int socket) {
        S->socket = socket;
        S->arena = arena;
        S->timeout = kDefaultTimeout;
        S->chain = arena ? Chain_alloc(arena) : Chain_new();
        Chain_setLimit(S->chain, kChainNodeSize, notifyFlush, S);
        return S;
}

// Marks every node from first through last as carrying its own framing, so that no
// chunk line is put in front of it and no data is added behind it.
void seal(ChainNode_T first, ChainNode_T last) {
        for (ChainNode_T n = first; n; n = n->next) {
                if (!ChainNode_isDrained(n))
                        n->framed = 1;
                if (n == last)
                        break;
        }
}

// Puts a chunk line into the reserve in front of each node of new data: each node
// becomes one chunk, with no copy. Then adds the final chunk if it is due.
void chunkify(OutputStream_T S) {
        Chain_T C = S->chain;
        ChainNode_T from = S->headers ? S->headers->last->next : C->first;
        for (ChainNode_T node = from; node; node = node->next) {
                if (!node->framed && !ChainNode_isMapped(node) &&
                    node->pos - node->start == chain_chunk_size && !ChainNode_isDrained(node)) {
                        char line[32];
                        int n = snprintf(line, sizeof line, S->chunkSent ? "\r\n%x\r\n" : "%x\r\n",
                                         static_cast<unsigned>(node->avail - node->pos));
                        assert(n < chain_chunk_size);
                        node->pos -= n;
                        memcpy(node->pos, line, static_cast<size_t>(n));
                        node->framed = 1;
                        C->size += n;
                        S->bytesWritten -= n;
                        S->chunkSent = 1;
                }
                if (node == C->last)
                        break;
        }
        if (S->endChunk) {
                S->endChunk = 0;
                const char* end = S->chunkSent ? "\r\n0\r\n\r\n" : "0\r\n\r\n";
                int n = static_cast<int>(strlen(end));
                // The final chunk goes behind everything and must not start a flush of its own.
                Chain_Notify notify = C->notify;
                C->notify = nullptr;
                Chain_write(C, end, n);
                C->notify = notify;
                seal(C->first, C->last);
                S->bytesWritten -= n;
        }
        S->headers = nullptr;
}

// Gives a node that has been sent back to the free nodes behind last.
void recycleFirst(Chain_T C) {
        ChainNode_T p = C->first;
        if (p == C->last) {
                ChainNode_reset(p);
                return;
        }
        C->first = p->next;
        ChainNode_reset(p);
        p->next = C->last->next;
        C->last->next = p;
}

// Consumes n written bytes from the front of the chain.
void doWrite(Chain_T C, long n) {
        while (n > 0) {
                ChainNode_T p = C->first;
                assert(p);
                long len = p->avail - p->pos;
                if (n < len) {
                        p->pos += n;
                        C->size -= static_cast<int>(n);
                        return;
                }
                n -= len;
                C->size -= static_cast<int>(len);
                bool wasLast = p == C->last;
                recycleFirst(C);
                if (wasLast)
                        break;
        }
        while (C->first != C->last && ChainNode_isDrained(C->first))
                recycleFirst(C);
}

// Gathers the nodes to send, up to the node stop if given; mapped[i] tells whether iov[i]
// lies in a file mapping.
int gather(Chain_T C, struct iovec* iov, bool* mapped, ChainNode_T stop) {
        int count = 0;
        for (ChainNode_T p = C->first; p && p != stop && count < kMaxGather; p = p->next) {
                if (!ChainNode_isDrained(p)) {
                        iov[count].iov_base = p->pos;
                        iov[count].iov_len = static_cast<size_t>(p->avail - p->pos);
                        mapped[count] = ChainNode_isMapped(p);
                        count++;
                }
                if (p == C->last)
                        break;
        }
        return count;
}

// A file that shrank under its mapping cannot be sent: its mapping leaves the cache, so
// that no later response gets the missing pages, and the next request maps the file anew.
void discardMapping(OutputStream_T S) {
        if (S->fileMap)
                FileCache_discard(FileCache_getInstance(), S->fileMap);
}

// Writes node by node through TLS; a write that takes nothing ends the round. TLS reads
// what it encrypts in user space, so mapped bytes are copied out first, where a fault of
// a truncated file stops the copy and not the process.
long writeSSL(OutputStream_T S, const struct iovec* iov, const bool* mapped, int count) {
        long total = 0;
        char copy[kMappedChunk];
        for (int i = 0; i < count; i++) {
                size_t done = 0;
                while (done < iov[i].iov_len) {
                        const char* from = static_cast<char*>(iov[i].iov_base) + done;
                        size_t size = iov[i].iov_len - done;
                        if (mapped[i]) {
                                size = std::min(size, sizeof copy);
                                if (!MapGuard_copy(copy, from, size)) {
                                        discardMapping(S);
                                        return -1;
                                }
                                from = copy;
                        }
                        int n =
                            SSLTransport_write(S->ssl, from, static_cast<int>(size), S->timeout);
                        if (n < 0)
                                return -1;
                        if (n == 0)
                                return total;
                        done += static_cast<size_t>(n);
                        total += n;
                }
        }
        return total;
}

// The node of the response's file mapping when it goes out by sendfile: a large plain
// mapping on a plain socket. TLS encrypts in user space and needs the bytes there.
ChainNode_T sendfileNode(OutputStream_T S) {
        FileMap_T map = S->fileMap;
        if (S->ssl || !map || map->fd < 0)
                return nullptr;
        for (ChainNode_T p = S->chain->first; p; p = p->next) {
                if (p->start == map->address && !ChainNode_isDrained(p))
                        return p;
                if (p == S->chain->last)
                        break;
        }
        return nullptr;
}

// Runs a send call once, and once more after waiting for the socket when it would block
// and the stream has a timeout, as Net_writev does; bytes sent, 0 when none could be.
template <typename Call>
long sendWaiting(OutputStream_T S, Call call) {
        for (bool waited = false;; waited = true) {
                ssize_t n;
                do
                        n = call();
                while (n < 0 && errno == EINTR);
                if (n >= 0 || errno != EAGAIN)
                        return n;
                if (waited || S->timeout <= 0 || !Net_canWrite(S->socket, S->timeout))
                        return 0;
        }
}

// Sends the head in front of a file that goes by sendfile. The kernel holds it back for
// the file's first bytes: sent on its own, a small segment ahead of the file halved the
// rate at which a client took large files.
long sendHead(OutputStream_T S, struct iovec* iov, int count) {
        struct msghdr msg = {};
        msg.msg_iov = iov;
        msg.msg_iovlen = static_cast<size_t>(count);
        return sendWaiting(S, [&] {
                ssize_t n = sendmsg(S->socket, &msg, MSG_NOSIGNAL | MSG_MORE);
                return n < 0 && errno == ENOTSOCK ? writev(S->socket, iov, count) : n;
        });
}

// Sends what is left of node from the file it maps. A file that ends before its mapping
// does fails as a bad address, as the missing pages of a mapping would.
long sendMapped(OutputStream_T S, ChainNode_T node) {
        off_t offset = node->pos - node->start;
        size_t count = static_cast<size_t>(node->avail - node->pos);
        long n = sendWaiting(S, [&] {
                errno = 0;
                return sendfile(S->socket, S->fileMap->fd, &offset, count);
        });
        if (n == 0 && errno == 0) {
                errno = EFAULT;
                return -1;
        }
        return n;
}

int writeLoop(OutputStream_T S) {
        Chain_T C = S->chain;
        int total = 0;
        do {
                struct iovec iov[kMaxGather];
                bool mapped[kMaxGather];
                ChainNode_T file = sendfileNode(S);
                int count = gather(C, iov, mapped, file);
                long n;
                if (S->ssl) {
                        if (count == 0)
                                return total;
                        n = writeSSL(S, iov, mapped, count);
                } else {
                        if (file)
                                n = count > 0 ? sendHead(S, iov, count) : sendMapped(S, file);
                        else
                                n = Net_writev(S->socket, iov, count, S->timeout);
                        // The kernel meets a truncated file's missing pages as a bad address.
                        if (n < 0 && errno == EFAULT)
                                discardMapping(S);
                }
                if (n < 0) {
                        S->isClosed = 1;
                        return -1;
                }
                if (n == 0)
                        return total;
                total += static_cast<int>(n);
                S->bytesWritten += n;
                doWrite(C, n);
        } while (C->size > 0);
        return total;
}

}  // namespace

OutputStream_T OutputStream_new(int socket) {
        OutputStream_T S;
        NEW0(S);
        return init(S, nullptr, socket);
}

OutputStream_T OutputStream_alloc(Arena_T arena, int socket) {
        assert(arena);
        auto S = static_cast<OutputStream_T>(ARENA_CALLOC(arena, 1, sizeof(struct OutputStream_S)));
        return init(S, arena, socket);
}

void OutputStream_free(OutputStream_T* S) {
        assert(S && *S);
        // The check's text is part of the interface.
        // clang-format off
        assert(! (*S)->arena);
        // clang-format on
        OutputStream_end(*S);
        Chain_free(&(*S)->chain);
        FREE(*S);
}

void OutputStream_setBufferSize(OutputStream_T S, int n) {
        assert(S);
        S->chain->limit = n;
}

int OutputStream_getBufferSize(OutputStream_T S) {
        assert(S);
        return S->chain->limit;
}

int OutputStream_getTimeout(OutputStream_T S) {
        assert(S);
        return S->timeout;
}

void OutputStream_setTimeout(OutputStream_T S, int timeout) {
        assert(S);
        assert(timeout >= 0);
        S->timeout = timeout;
}

int OutputStream_isClosed(OutputStream_T S) {
        assert(S);
        return S->isClosed;
}

int OutputStream_isChunked(OutputStream_T S) {
        assert(S);
        return S->chunked;
}

void OutputStream_setChunked(OutputStream_T S, int chunked) {
        assert(S);
        S->chunked = chunked;
}

void OutputStream_setSSL(OutputStream_T S, SSL_T ssl) {
        assert(S);
        S->ssl = ssl;
}

void OutputStream_setResponse(OutputStream_T S, const OutputStream_Response* calls,
                              void* response) {
        assert(S);
        S->calls = calls;
        S->response = calls ? response : nullptr;
}

long long OutputStream_getBytesWritten(OutputStream_T S) {
        assert(S);
        return S->bytesWritten;
}

int OutputStream_buffered(OutputStream_T S) {
        assert(S);
        return S->chain->size;
}

int OutputStream_isCompressed(OutputStream_T S) {
        assert(S);
        return S->chain->compressed || S->gzipClaimed;
}

void OutputStream_setDiscard(OutputStream_T S, int discard) {
        assert(S);
        S->discard = discard;
}

long long OutputStream_getDiscarded(OutputStream_T S) {
        assert(S);
        return S->discarded;
}

void OutputStream_write(OutputStream_T S, const void* data, int n) {
        assert(S);
        if (S->isClosed || !data)
                return;
        if (S->discard) {
                if (n > 0)
                        S->discarded += n;
                return;
        }
        Chain_write(S->chain, data, n);
}

void OutputStream_vprint(OutputStream_T S, const char* format, va_list ap) {
        assert(S);
        if (S->isClosed || !format || !*format)
                return;
        if (S->discard) {
                int n = vsnprintf(nullptr, 0, format, ap);
                if (n > 0)
                        S->discarded += n;
                return;
        }
        Chain_vprint(S->chain, format, ap);
}

void OutputStream_print(OutputStream_T S, const char* format, ...) {
        assert(S);
        va_list ap;
        va_start(ap, format);
        OutputStream_vprint(S, format, ap);
        va_end(ap);
}

void OutputStream_endChunked(OutputStream_T S) {
        assert(S);
        S->endChunk = 1;
}

void OutputStream_commit(OutputStream_T S, Chain_T headers) {
        assert(S && headers);
        if (!headers->first)
                return;
        // The head is out of the response's hands now, so that compression can no longer
        // start behind it.
        S->commited = 1;
        Chain_T C = S->chain;
        S->headers = headers;
        S->chunkSent = 0;
        S->bytesWritten -= headers->size;
        // The head is already framed: the first chunk line goes behind it.
        seal(headers->first, headers->last);
        headers->last->next = C->first;
        C->first = headers->first;
        if (!C->last)
                C->last = headers->last;
        C->size += headers->size;
}

void OutputStream_clear(OutputStream_T S) {
        assert(S);
        S->bytesWritten = 0;
        S->discarded = 0;
        S->gzipClaimed = 0;
        Chain_clear(S->chain);
}

int OutputStream_flush(OutputStream_T S) {
        assert(S);
        if (S->isClosed)
                return -1;
        if (S->calls && !S->commited) {
                S->commited = 1;
                S->calls->commit(S->response);
        }
        if (S->discard) {
                // Nothing but the head is buffered, and it needs no framing.
                S->endChunk = 0;
                S->headers = nullptr;
        }
        if (S->chain->size == 0 && !S->endChunk)
                return 0;
        if (S->chunked)
                chunkify(S);
        return writeLoop(S);
}

int OutputStream_startCompress(OutputStream_T S, int level) {
        assert(S);
        assert((level >= 0) && (level <= 9));
        if (S->chain->compressed || S->gzipClaimed)
                return 1;
        if (S->calls) {
                // Once the head is out its Content-Encoding can no longer change.
                if (S->commited || !S->calls->acceptsGzip(S->response))
                        return 0;
                S->calls->setGzip(S->response);
        }
        if (S->discard) {
                S->gzipClaimed = 1;
                return 1;
        }
        Chain_startCompress(S->chain, level);
        return S->chain->compressed;
}

void OutputStream_stopCompress(OutputStream_T S) {
        assert(S);
        S->gzipClaimed = 0;
        if (S->chain->compressed)
                Chain_stopCompress(S->chain);
}

void OutputStream_end(OutputStream_T S) {
        OutputStream_stopCompress(S);
}

void OutputStream_setFileMap(OutputStream_T S, FileMap_T map) {
        assert(S);
        assert(map);
        char* address = static_cast<char*>(FileMap_getAddress(map));
        int size = FileMap_getSize(map);
        if (!address || size < 1)
                return;
        if (S->discard) {
                S->discarded += size;
                return;
        }
        // Mapped bytes cannot pass through the compressor.
        OutputStream_stopCompress(S);
        ChainNode_T n = Chain_append(S->chain, 1);
        n->pos = n->start = address;
        n->avail = n->limit = address + size;
        S->chain->size += size;
        S->fileMap = map;
}
