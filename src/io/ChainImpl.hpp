// The Chain record, shared by Chain and OutputStream, which frames and writes its nodes.
#pragma once

#include <zlib.h>

#include <vesk/Chain.h>

struct Chain_S {
        ChainNode_T first;
        ChainNode_T last;
        int size;
        Arena_T arena;
        int limit;
        void* notifyArg;
        Chain_Notify notify;
        int compressed;
        z_stream zstream;
};

// Payload bytes of a normal node and of a node that takes compressed output.
constexpr int kChainNodeSize = 1450;
constexpr int kChainCompressNodeSize = 16394;

// A node lent to a mapped file points outside its own buffer, which follows the node.
inline char* ChainNode_buffer(ChainNode_T n) {
        return reinterpret_cast<char*>(n + 1);
}
inline bool ChainNode_isMapped(ChainNode_T n) {
        return n->start != ChainNode_buffer(n);
}
// Nothing left to send in n.
inline bool ChainNode_isDrained(ChainNode_T n) {
        return n->pos == n->avail;
}
// Empties n and gives it its own buffer back.
inline void ChainNode_reset(ChainNode_T n) {
        n->start = ChainNode_buffer(n);
        n->pos = n->avail = n->start + chain_chunk_size;
        n->limit = n->end;
        n->framed = 0;
}
