/*
 * Chain: a list of buffers for output, with chain_chunk_size bytes reserved in front of
 * each node's data, so that a chunk-size line can later be put in front of buffered
 * data without copying it.
 *
 * Data runs from first to last; nodes behind last are free and are used again.
 * A notify function, called when the buffered size reaches the limit, lets a stream
 * flush the chain as it fills. A chain can gzip-compress what is written to it, and a
 * node can point straight into a mapped file. A chain made with Chain_alloc lives in its
 * arena and must not be freed with Chain_free. A NULL chain fails the check "C".
 */
#ifndef VESK_CHAIN_INCLUDED
#define VESK_CHAIN_INCLUDED

#include <stdarg.h>

#include <vesk/Arena.h>
#include <vesk/Export.h>

VESK_BEGIN_DECLS

/* Bytes reserved in front of each node's data for a chunk-size line. */
enum { chain_chunk_size = 10 };

/* One buffer. Data lies between pos and avail; room between avail and limit. A node
   lent to a mapped file points into the mapping; end keeps its own buffer's end and
   framed marks a node that already carries its chunk line. */
typedef struct Chain_Node* ChainNode_T;
struct Chain_Node {
        char* pos;
        char* start;
        char* avail;
        char* limit;
        ChainNode_T next;
        char* end;
        int framed;
};

typedef struct Chain_S* Chain_T;

/* Called with the chain and its argument when the buffered size reaches the limit; a
   negative result drops the rest of the write in progress. */
typedef int (*Chain_Notify)(Chain_T C, void* arg);

/* An empty chain on the heap. */
VESK_API Chain_T Chain_new(void);
/* An empty chain in arena. */
VESK_API Chain_T Chain_alloc(Arena_T arena);
/* Frees a heap chain, its nodes and any compression state; clears *C. */
VESK_API void Chain_free(Chain_T* C);
/* Calls notify(C, arg) whenever the buffered size reaches limit bytes. */
VESK_API void Chain_setLimit(Chain_T C, int limit, Chain_Notify notify, void* arg);
/* The limit given to Chain_setLimit. */
VESK_API int Chain_getLimit(Chain_T C);
/* Bytes buffered. */
VESK_API int Chain_size(Chain_T C);
/* True while output is compressed. */
VESK_API int Chain_isCompressed(Chain_T C);
/* A new unlinked node with size bytes of payload, owned by the chain's arena or the heap. */
VESK_API ChainNode_T Chain_node(Chain_T C, int size);
/* A node at the end of the data with room for size bytes; it becomes last. */
VESK_API ChainNode_T Chain_append(Chain_T C, int size);
/* Appends n bytes of data, compressed if compression is on. */
VESK_API void Chain_write(Chain_T C, const void* data, int n);
/* Appends formatted text. */
VESK_API void Chain_vprint(Chain_T C, const char* s, va_list ap) VESK_PRINTF(2, 0);
/* Appends formatted text. */
VESK_API void Chain_print(Chain_T C, const char* s, ...) VESK_PRINTF(2, 3);
/* Gzip-compresses what is written from now on, at level 0 to 9. */
VESK_API void Chain_startCompress(Chain_T C, int level);
/* Ends the gzip stream and writes its trailer; checks "C->compressed". */
VESK_API void Chain_stopCompress(Chain_T C);
/* Stops compression and empties every node; nodes are kept for reuse. */
VESK_API void Chain_clear(Chain_T C);

VESK_END_DECLS

#endif
