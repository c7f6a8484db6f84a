#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>

#include <vesk/Container.h>
#include <vesk/Error.h>
#include <vesk/File.h>
#include <vesk/HttpLexer.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpStore.h>
#include <vesk/Mem.h>
#include <vesk/Net.h>
#include <vesk/Str.h>
#include <vesk/System.h>
#include <vesk/assert.h>

#include "http/PartImpl.hpp"

namespace {

using Writer = bool (*)(HttpStore_T S, const unsigned char* bytes, int n);

// Room added to an inflating buffer at a time, and the output block of an inflating file.
constexpr int kInflateChunk = 16384;
// What an inflated body may grow to, so that a small bomb cannot exhaust memory or disk.
constexpr long kInflateLimit = 1L << 30;

}  // namespace

struct HttpStore_S {
        int uploaded;
        int stored;
        int bufferSize;
        int inMemory;
        int contentKind;
        int encoding;
        int inflating;
        InetAddress_T inet;
        File_T file;  // the body file while it is mapped for parsing
        z_stream zs;
        char* buffer;
        int fd;
        char* path;
        Writer writer;
};

namespace {

bool writeBuffer(HttpStore_T S, const unsigned char* bytes, int n) {
        if (n == 0)
                return true;
        if (static_cast<long>(S->stored) + n > S->bufferSize) {
                Error_debug("Client is sending more data than declared in Content-Length\n");
                return false;
        }
        memcpy(S->buffer + S->stored, bytes, static_cast<size_t>(n));
        S->stored += n;
        S->buffer[S->stored] = 0;
        return true;
}

bool writeFile(HttpStore_T S, const unsigned char* bytes, int n) {
        while (n > 0) {
                ssize_t w = write(S->fd, bytes, static_cast<size_t>(n));
                if (w < 1) {
                        if (w < 0 && errno == EINTR)
                                continue;
                        Error_error("Write to http store file failed -- %s\n",
                                    System_getLastError());
                        return false;
                }
                bytes += w;
                n -= static_cast<int>(w);
                S->stored += static_cast<int>(w);
        }
        return true;
}

bool streamError(HttpStore_T S, const char* reason) {
        Error_error("[client %s] compressed stream error -- %s\n",
                    InetAddress_getRemoteHostAddress(S->inet), reason);
        return false;
}

// One inflate step into next_out/avail_out. False on a corrupt stream. The rest of the
// input after the end of the stream is taken as consumed, so that the connector sees
// the declared length arrive.
bool inflateStep(HttpStore_T S, int& result) {
        uInt before = S->zs.avail_in;
        result = inflate(&S->zs, Z_NO_FLUSH);
        if (result == Z_BUF_ERROR && S->zs.avail_in == 0)
                result = Z_OK;
        if (result != Z_OK && result != Z_STREAM_END)
                return streamError(S, zError(result));
        S->uploaded += static_cast<int>(before - S->zs.avail_in);
        if (result == Z_STREAM_END) {
                S->uploaded += static_cast<int>(S->zs.avail_in);
                S->zs.avail_in = 0;
        }
        return true;
}

// Grows the buffer when less than n + 1 bytes are free.
bool getBuffer(HttpStore_T S, int n) {
        if (S->bufferSize - S->stored < n + 1) {
                long size = static_cast<long>(S->bufferSize) + std::max(n, kInflateChunk);
                if (size > kInflateLimit)
                        return streamError(S, "inflated body too large");
                S->bufferSize = static_cast<int>(size);
                RESIZE(S->buffer, S->bufferSize + 1);
        }
        return true;
}

bool decompressBuffer(HttpStore_T S, const unsigned char* bytes, int n) {
        if (n == 0)
                return true;
        S->zs.next_in = const_cast<Bytef*>(bytes);
        S->zs.avail_in = static_cast<uInt>(n);
        for (;;) {
                if (!getBuffer(S, n))
                        return false;
                S->zs.next_out = reinterpret_cast<Bytef*>(S->buffer + S->stored);
                S->zs.avail_out = static_cast<uInt>(S->bufferSize - S->stored);
                int result;
                bool ok = inflateStep(S, result);
                S->stored = static_cast<int>(reinterpret_cast<char*>(S->zs.next_out) - S->buffer);
                S->buffer[S->stored] = 0;
                if (!ok)
                        return false;
                if (S->zs.avail_out > 0 || S->zs.avail_in == 0)
                        return true;
        }
}

bool decompressFile(HttpStore_T S, const unsigned char* bytes, int n) {
        if (n == 0)
                return true;
        unsigned char out[kInflateChunk];
        S->zs.next_in = const_cast<Bytef*>(bytes);
        S->zs.avail_in = static_cast<uInt>(n);
        for (;;) {
                S->zs.next_out = out;
                S->zs.avail_out = sizeof out;
                int result;
                if (!inflateStep(S, result))
                        return false;
                int produced = static_cast<int>(sizeof out - S->zs.avail_out);
                if (S->stored + static_cast<long>(produced) > kInflateLimit)
                        return streamError(S, "inflated body too large");
                if (!writeFile(S, out, produced))
                        return false;
                if (S->zs.avail_out > 0 || S->zs.avail_in == 0)
                        return true;
        }
}

void closeFile(HttpStore_T S) {
        if (S->fd >= 0) {
                close(S->fd);
                S->fd = -1;
        }
}

// Gives back what a store that could not be completed already holds.
void undo(HttpStore_T S) {
        if (S->inMemory) {
                FREE(S->buffer);
        } else {
                closeFile(S);
                File_delete(S->path);
        }
}

}  // namespace

HttpStore_T HttpStore_alloc(InetAddress_T inet, int contentKind, long length, long limit,
                            int encoding) {
        assert(inet);
        Arena_T arena = InetAddress_getArena(inet);
        HttpStore_T S = static_cast<HttpStore_T>(ARENA_CALLOC(arena, 1, sizeof *S));
        S->contentKind = contentKind;
        S->encoding = encoding;
        S->inet = inet;
        S->fd = -1;
        if (length > limit) {
                S->path = STR_CAT_ARENA(arena, "%s%s%s-postdata-XXXXXX", Container_WorkDir,
                                        SEPARATOR, Container_Name);
                S->fd = mkostemp(S->path, O_CLOEXEC);
                if (S->fd < 0) {
                        Error_error("Cannot create temp file '%s' -- %s\n", S->path,
                                    System_getLastError());
                        return nullptr;
                }
                Net_setNonBlocking(S->fd);
        } else {
                S->inMemory = 1;
                S->bufferSize = encoding ? kInflateChunk : static_cast<int>(std::max(length, 0L));
                S->buffer = static_cast<char*>(ALLOC(S->bufferSize + 1));
                S->buffer[0] = 0;
        }
        if (encoding) {
                S->writer = S->inMemory ? decompressBuffer : decompressFile;
                // 47: gzip or zlib framing, whichever the client sent.
                int result = inflateInit2(&S->zs, 47);
                if (result != Z_OK) {
                        Error_error("Decompress initialisation failed -- %s\n", zError(result));
                        undo(S);
                        return nullptr;
                }
                S->inflating = 1;
        } else {
                S->writer = S->inMemory ? writeBuffer : writeFile;
        }
        return S;
}

int HttpStore_write(HttpStore_T S, const void* bytes, int n) {
        assert(S);
        assert(n >= 0);
        return S->writer(S, static_cast<const unsigned char*>(bytes), n);
}

void HttpStore_close(HttpStore_T S) {
        assert(S);
        if (S->inMemory || S->fd < 0)
                return;
        // One byte more than the data, so that the scanners can rely on a terminator.
        const char nul = 0;
        ssize_t n;
        do
                n = write(S->fd, &nul, 1);
        while (n < 0 && errno == EINTR);
        if (n < 1)
                Error_error("Write to http store file failed -- %s\n", System_getLastError());
        closeFile(S);
}

void HttpStore_destroy(HttpStore_T S) {
        assert(S);
        closeFile(S);
        HttpStore_remove(S);
}

void HttpStore_remove(HttpStore_T S) {
        assert(S);
        if (S->inflating) {
                inflateEnd(&S->zs);
                S->inflating = 0;
        }
        if (S->inMemory) {
                if (S->buffer)
                        FREE(S->buffer);
        } else if (S->path) {
                closeFile(S);
                if (S->file)
                        File_free(&S->file);
                File_delete(S->path);
                S->path = nullptr;
        }
}

int HttpStore_parse(HttpStore_T S, HttpRequest_T request) {
        assert(S);
        assert(request);
        char* data;
        int length;
        if (!S->inMemory && S->path) {
                // Writable and shared: the scanners cut texts out of the body in place.
                if (!S->file)
                        S->file = File_new("%s", S->path);
                FileMap_T map = File_map(S->file, "r+");
                if (!map) {
                        Error_error("HttpStore_parse: Could not map post data file %s -- %s\n",
                                    S->path, File_getLastError());
                        File_free(&S->file);
                        return 0;
                }
                assert(FileMap_getSize(map) > HttpStore_getStoredDataSize(S));
                data = static_cast<char*>(FileMap_getAddress(map));
                length = FileMap_getSize(map) - 1;
        } else if (S->inMemory && S->buffer) {
                data = S->buffer;
                length = S->stored;
        } else {
                Error_error("HttpStore_parse: Unknown store type\n");
                return 0;
        }
        switch (S->contentKind) {
        case 0:
                return HttpLexer_parseUrlencoded(request, data, length);
        case 1:
                return HttpLexer_parseMultipart(request, data, length);
        case 2: {
                Part_T part = Part_alloc(HttpRequest_getArena(request));
                part->name = part->fileName = const_cast<char*>("XML");
                part->contentType = "text/xml";
                part->isFile = 1;
                part->content = data;
                part->size = length;
                data[length] = 0;
                HttpRequest_addPart(request, part);
                break;
        }
        default:
                break;
        }
        return 0;
}

int HttpStore_getStoredDataSize(HttpStore_T S) {
        assert(S);
        return S->stored;
}

int HttpStore_getUploadedDataSize(HttpStore_T S) {
        assert(S);
        return S->encoding ? S->uploaded : S->stored;
}

InetAddress_T HttpStore_getInetAddress(HttpStore_T S) {
        assert(S);
        return S->inet;
}

int HttpStore_getContentType(HttpStore_T S) {
        assert(S);
        return S->contentKind;
}
