#include <stdio.h>
#include <string.h>

#include <vesk/Arena.h>
#include <vesk/Chain.h>
#include <vesk/Error.h>
#include <vesk/Mem.h>
#include <vesk/assert.h>

#include "io/ChainImpl.hpp"

namespace {

// Payload room of a node's own buffer.
int capacity(ChainNode_T n) {
        return static_cast<int>(n->end - (ChainNode_buffer(n) + chain_chunk_size));
}

bool isEmpty(ChainNode_T n) {
        return !ChainNode_isMapped(n) && n->avail - n->start == chain_chunk_size;
}

// Room that writing may use: none in a mapped node or one that already carries its
// chunk line, whose length must not change.
int room(ChainNode_T n) {
        if (ChainNode_isMapped(n) || n->framed)
                return 0;
        return static_cast<int>(n->limit - n->avail);
}

// Takes the first free node behind last with room for size out of the free list.
ChainNode_T takeFree(Chain_T C, int size) {
        for (ChainNode_T prev = C->last, p = C->last->next; p; prev = p, p = p->next)
                if (capacity(p) >= size) {
                        prev->next = p->next;
                        ChainNode_reset(p);
                        p->next = nullptr;
                        return p;
                }
        return nullptr;
}

// Closes the node that deflate filled and opens a fresh one for its output.
void nextCompressNode(Chain_T C) {
        C->last->avail = reinterpret_cast<char*>(C->zstream.next_out);
        assert((C->last->limit - C->last->avail) == 0);
        if (C->notify && C->limit <= kChainCompressNodeSize)
                C->notify(C, C->notifyArg);
        ChainNode_T n = Chain_append(C, kChainCompressNodeSize);
        C->zstream.next_out = reinterpret_cast<Bytef*>(n->avail);
        C->zstream.avail_out = static_cast<uInt>(n->limit - n->avail);
}

// Runs deflate over the pending input, growing size by what it produces.
void deflateChain(Chain_T C, int flush) {
        int status;
        do {
                if (C->zstream.avail_out == 0)
                        nextCompressNode(C);
                C->size += static_cast<int>(C->zstream.avail_out);
                status = deflate(&C->zstream, flush);
                C->size -= static_cast<int>(C->zstream.avail_out);
        } while (status == Z_OK && (flush == Z_FINISH || C->zstream.avail_in > 0));
}

void writeCompressed(Chain_T C, const void* data, int n) {
        C->zstream.next_in = static_cast<Bytef*>(const_cast<void*>(data));
        C->zstream.avail_in = static_cast<uInt>(n);
        deflateChain(C, Z_NO_FLUSH);
        C->zstream.next_in = nullptr;
        C->zstream.avail_in = 0;
}

bool overLimit(Chain_T C) {
        return C->notify && C->size >= C->limit;
}

Chain_T init(Chain_T C, Arena_T arena) {
        C->arena = arena;
        return C;
}

}  // namespace

Chain_T Chain_new(void) {
        Chain_T C;
        NEW0(C);
        return init(C, nullptr);
}

Chain_T Chain_alloc(Arena_T arena) {
        assert(arena);
        auto C = static_cast<Chain_T>(ARENA_CALLOC(arena, 1, sizeof(struct Chain_S)));
        return init(C, arena);
}

void Chain_free(Chain_T* C) {
        assert(C && *C);
        assert(!(*C)->arena);
        if ((*C)->compressed)
                deflateEnd(&(*C)->zstream);
        for (ChainNode_T n = (*C)->first, next; n; n = next) {
                next = n->next;
                FREE(n);
        }
        FREE(*C);
}

void Chain_setLimit(Chain_T C, int limit, Chain_Notify notify, void* arg) {
        assert(C);
        assert(notify);
        C->limit = limit;
        C->notify = notify;
        C->notifyArg = arg;
}

int Chain_getLimit(Chain_T C) {
        assert(C);
        return C->limit;
}

int Chain_size(Chain_T C) {
        assert(C);
        return C->size;
}

int Chain_isCompressed(Chain_T C) {
        assert(C);
        return C->compressed;
}

ChainNode_T Chain_node(Chain_T C, int size) {
        assert(C);
        assert(size > 0);
        int bytes = static_cast<int>(sizeof(struct Chain_Node)) + chain_chunk_size + size;
        auto n = static_cast<ChainNode_T>(C->arena ? ARENA_ALLOC(C->arena, bytes) : ALLOC(bytes));
        n->next = nullptr;
        n->end = ChainNode_buffer(n) + chain_chunk_size + size;
        ChainNode_reset(n);
        return n;
}

ChainNode_T Chain_append(Chain_T C, int size) {
        assert(C);
        if (!C->first) {
                C->first = C->last = Chain_node(C, size);
                return C->first;
        }
        if (C->first == C->last && isEmpty(C->first)) {
                if (capacity(C->first) >= size)
                        return C->first;
                ChainNode_T n = takeFree(C, size);
                if (!n)
                        n = Chain_node(C, size);
                n->next = C->first;
                C->first = C->last = n;
                return n;
        }
        assert(C->last);
        if (!ChainNode_isMapped(C->last))
                assert((C->last->avail - (C->last->start + chain_chunk_size)) > 0);
        ChainNode_T n = takeFree(C, size);
        if (!n)
                n = Chain_node(C, size);
        n->next = C->last->next;
        C->last->next = n;
        C->last = n;
        return n;
}

void Chain_write(Chain_T C, const void* data, int n) {
        assert(C);
        if (n < 1 || !data)
                return;
        if (C->compressed) {
                writeCompressed(C, data, n);
                return;
        }
        if (!C->first)
                C->first = C->last = Chain_node(C, kChainNodeSize);
        auto bytes = static_cast<const char*>(data);
        while (n > 0) {
                int free = room(C->last);
                if (free == 0) {
                        if (C->last->next && isEmpty(C->last->next)) {
                                C->last = C->last->next;
                                continue;
                        }
                        if (overLimit(C)) {
                                if (C->notify(C, C->notifyArg) < 0)
                                        return;
                                // The flush may have emptied the chain, or taken nothing.
                                if (room(C->last) > 0 || (C->last->next && isEmpty(C->last->next)))
                                        continue;
                        }
                        Chain_append(C, kChainNodeSize);
                        continue;
                }
                int k = free < n ? free : n;
                memcpy(C->last->avail, bytes, static_cast<size_t>(k));
                C->last->avail += k;
                C->size += k;
                bytes += k;
                n -= k;
        }
        if (overLimit(C))
                C->notify(C, C->notifyArg);
}

void Chain_vprint(Chain_T C, const char* s, va_list ap) {
        assert(C);
        assert(s);
        char buffer[kChainNodeSize];
        va_list copy;
        va_copy(copy, ap);
        int n = vsnprintf(buffer, sizeof buffer, s, copy);
        va_end(copy);
        if (n < 0)
                return;
        if (n > kChainNodeSize) {
                char* text = static_cast<char*>(ALLOC(n + 1));
                vsnprintf(text, static_cast<size_t>(n) + 1, s, ap);
                Chain_write(C, text, n);
                FREE(text);
        } else {
                // A text of exactly the buffer's size goes out with its last byte replaced
                // by the terminator; longer texts take the second pass above.
                Chain_write(C, buffer, n);
        }
}

void Chain_print(Chain_T C, const char* s, ...) {
        assert(C);
        assert(s);
        va_list ap;
        va_start(ap, s);
        Chain_vprint(C, s, ap);
        va_end(ap);
}

void Chain_startCompress(Chain_T C, int level) {
        assert(C);
        C->compressed = 1;
        memset(&C->zstream, 0, sizeof C->zstream);
        int status = deflateInit2(&C->zstream, level, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
        if (status != Z_OK) {
                Error_debug("Error: deflateInit2: %s", zError(status));
                C->compressed = 0;
                return;
        }
        ChainNode_T n = Chain_append(C, kChainCompressNodeSize);
        C->zstream.next_out = reinterpret_cast<Bytef*>(n->avail);
        C->zstream.avail_out = static_cast<uInt>(n->limit - n->avail);
}

void Chain_stopCompress(Chain_T C) {
        assert(C);
        assert(C->compressed);
        C->zstream.next_in = nullptr;
        C->zstream.avail_in = 0;
        deflateChain(C, Z_FINISH);
        C->last->avail = reinterpret_cast<char*>(C->zstream.next_out);
        deflateEnd(&C->zstream);
        C->compressed = 0;
}

void Chain_clear(Chain_T C) {
        assert(C);
        if (C->compressed)
                Chain_stopCompress(C);
        for (ChainNode_T n = C->first; n; n = n->next)
                ChainNode_reset(n);
        C->last = C->first;
        C->size = 0;
}
