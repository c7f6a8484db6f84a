#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <zlib.h>

#include <vesk/Mem.h>
#include <vesk/StringBuffer.h>
#include <vesk/assert.h>

#include "util/Holder.hpp"
#include "util/Replace.hpp"

struct StringBuffer_S {
        int used;          // bytes of text, the terminator not counted
        int length;        // capacity of buffer
        char* buffer;      // always terminated
        char* compressed;  // last result of StringBuffer_toCompressed, or NULL
};

namespace {

constexpr int kCapacity = 256;
constexpr int kSlack = 256;

inline bool space(char c) {
        return isspace(static_cast<unsigned char>(c));
}

StringBuffer_T ctor(int hint) {
        StringBuffer_T S;
        NEW(S);
        S->used = 0;
        S->length = hint;
        S->buffer = static_cast<char*>(ALLOC(hint));
        *S->buffer = 0;
        S->compressed = nullptr;
        return S;
}

// Makes room for n more bytes of text and a terminator: exact need plus 256, never doubling,
// since most buffers are built once to a size known only at the end.
void grow(StringBuffer_T S, long n) {
        long length = static_cast<long>(S->length) + n + kSlack;
        if (length > INT_MAX)
                THROW(AssertException, "StringBuffer: text of %ld bytes is too long", length);
        RESIZE(S->buffer, static_cast<int>(length));
        S->length = static_cast<int>(length);
}

void checkIndex(StringBuffer_T S, int index) {
        if (index < 0 || index > S->used)
                THROW(AssertException, "Index out of bounds");
}

// Ends a copied argument list on every way out.
struct VaEnd {
        va_list& ap;
        explicit VaEnd(va_list& list) : ap(list) {}
        ~VaEnd() { va_end(ap); }
        VaEnd(const VaEnd&) = delete;
        VaEnd& operator=(const VaEnd&) = delete;
};

}  // namespace

StringBuffer_T StringBuffer_new(const char* s) {
        size_t n = s ? strlen(s) : 0;
        // Sized as an append of s to an empty buffer of 256 bytes would leave it.
        long length = n < kCapacity ? kCapacity : kCapacity + static_cast<long>(n) + kSlack;
        if (length > INT_MAX)
                THROW(AssertException, "StringBuffer: text of %zu bytes is too long", n);
        StringBuffer_T S = ctor(static_cast<int>(length));
        memcpy(S->buffer, s ? s : "", n + 1);
        S->used = static_cast<int>(n);
        return S;
}

StringBuffer_T StringBuffer_create(int hint) {
        if (hint < 1)
                THROW(AssertException, "Illegal hint value");
        return ctor(hint);
}

void StringBuffer_free(StringBuffer_T* S) {
        assert(S && *S);
        FREE((*S)->compressed);
        FREE((*S)->buffer);
        FREE(*S);
}

StringBuffer_T StringBuffer_append(StringBuffer_T S, const char* fmt, ...) {
        assert(S);
        va_list ap;
        va_start(ap, fmt);
        StringBuffer_vappend(S, fmt, ap);
        va_end(ap);
        return S;
}

StringBuffer_T StringBuffer_vappend(StringBuffer_T S, const char* fmt, va_list ap) {
        assert(S);
        if (!fmt || !*fmt)
                return S;
        // Format straight into the free space; only if it does not fit, grow and format again
        // from a copy of the arguments taken beforehand.
        va_list again;
        va_copy(again, ap);
        VaEnd guard(again);
        size_t room = static_cast<size_t>(S->length - S->used);
        int n = vsnprintf(S->buffer + S->used, room, fmt, ap);
        if (n >= 0 && static_cast<size_t>(n) >= room) {
                S->buffer[S->used] = 0;  // keep the text whole should growing fail
                grow(S, n);
                n = vsnprintf(S->buffer + S->used, static_cast<size_t>(S->length - S->used), fmt,
                              again);
        }
        if (n < 0) {
                S->buffer[S->used] = 0;
                THROW(AssertException, "StringBuffer: format error -- %s", strerror(errno));
        }
        S->used += n;
        return S;
}

StringBuffer_T StringBuffer_set(StringBuffer_T S, const char* fmt, ...) {
        assert(S);
        StringBuffer_clear(S);
        va_list ap;
        va_start(ap, fmt);
        StringBuffer_vappend(S, fmt, ap);
        va_end(ap);
        return S;
}

StringBuffer_T StringBuffer_vset(StringBuffer_T S, const char* fmt, va_list ap) {
        assert(S);
        StringBuffer_clear(S);
        return StringBuffer_vappend(S, fmt, ap);
}

StringBuffer_T StringBuffer_clear(StringBuffer_T S) {
        assert(S);
        S->used = 0;
        *S->buffer = 0;
        FREE(S->compressed);
        return S;
}

int StringBuffer_length(StringBuffer_T S) {
        assert(S);
        return S->used;
}

const char* StringBuffer_toString(StringBuffer_T S) {
        assert(S);
        return S->buffer;
}

char StringBuffer_charAt(StringBuffer_T S, int index) {
        assert(S);
        checkIndex(S, index);
        return S->buffer[index];
}

void StringBuffer_setCharAt(StringBuffer_T S, int index, char c) {
        assert(S);
        checkIndex(S, index);
        if (index < S->used) {
                S->buffer[index] = c;
                if (c == 0)
                        S->used = index;
        } else if (c != 0) {
                // On the terminator: the byte extends the text, which stays terminated.
                if (S->used + 1 >= S->length)
                        grow(S, 1);
                S->buffer[S->used++] = c;
                S->buffer[S->used] = 0;
        }
}

const char* StringBuffer_substring(StringBuffer_T S, int index) {
        assert(S);
        checkIndex(S, index);
        return S->buffer + index;
}

StringBuffer_T StringBuffer_delete(StringBuffer_T S, int index) {
        assert(S);
        checkIndex(S, index);
        S->used = index;
        S->buffer[index] = 0;
        return S;
}

int StringBuffer_indexOf(StringBuffer_T S, const char* s) {
        assert(S);
        if (!s || !*s || S->used == 0)
                return -1;
        const void* p = memmem(S->buffer, static_cast<size_t>(S->used), s, strlen(s));
        return p ? static_cast<int>(static_cast<const char*>(p) - S->buffer) : -1;
}

int StringBuffer_lastIndexOf(StringBuffer_T S, const char* s) {
        assert(S);
        if (!s || !*s || S->used == 0)
                return -1;
        size_t n = strlen(s);
        if (n > static_cast<size_t>(S->used))
                return -1;
        // Find the first byte from the right, then compare the rest at that place.
        const char* p = S->buffer + (static_cast<size_t>(S->used) - n);
        for (size_t span = static_cast<size_t>(p - S->buffer) + 1;
             (p = static_cast<const char*>(memrchr(S->buffer, *s, span)));
             span = static_cast<size_t>(p - S->buffer))
                if (memcmp(p, s, n) == 0)
                        return static_cast<int>(p - S->buffer);
        return -1;
}

StringBuffer_T StringBuffer_trim(StringBuffer_T S) {
        assert(S);
        while (S->used > 0 && space(S->buffer[S->used - 1]))
                S->used--;
        S->buffer[S->used] = 0;
        int i = 0;
        while (i < S->used && space(S->buffer[i]))
                i++;
        if (i > 0) {
                memmove(S->buffer, S->buffer + i, static_cast<size_t>(S->used - i) + 1);
                S->used -= i;
        }
        return S;
}

int StringBuffer_replace(StringBuffer_T S, const char* a, const char* b) {
        assert(S);
        if (!a || !*a || !b || S->used == 0)
                return 0;
        size_t la = strlen(a);
        size_t lb = strlen(b);
        long count = vesk::countMatches(S->buffer, static_cast<size_t>(S->used), a, la);
        if (count == 0)
                return 0;
        long d = static_cast<long>(lb) - static_cast<long>(la);
        long shift = 0;
        if (d > 0) {
                shift = count * d;
                long need = S->used + 1L + shift;
                if (need > INT_MAX)
                        THROW(AssertException, "StringBuffer: text of %ld bytes is too long", need);
                if (need >= S->length) {
                        RESIZE(S->buffer, static_cast<int>(need));
                        S->length = static_cast<int>(need);
                }
                // Move the text up by the most it can grow, then write the result from the
                // start: the writer stays behind the reader, so no tail is moved per match.
                memmove(S->buffer + shift, S->buffer, static_cast<size_t>(S->used) + 1);
        }
        const char* text = S->buffer + shift;
        vesk::Replaced done =
            vesk::replaceMatches(S->buffer, text, text + S->used, a, la, b, lb);
        S->used = static_cast<int>(done.end - S->buffer);
        return done.count;
}

const unsigned char* StringBuffer_toCompressed(StringBuffer_T S, int level, int* len) {
        assert(S);
        assert(level >= 0 && level <= 9);
        assert(len);
        *len = 0;
        if (S->used < 1)
                return nullptr;
        z_stream stream{};
        int status = deflateInit2(&stream, level, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
        if (status != Z_OK)
                THROW(AssertException, "compression failed: %s", zError(status));
        vesk::Holder<z_stream*, deflateEnd> started(&stream);
        uLong bound = deflateBound(&stream, static_cast<uLong>(S->used));
        if (bound > INT_MAX)
                THROW(AssertException, "compression failed: %s", zError(Z_BUF_ERROR));
        if (S->compressed)
                RESIZE(S->compressed, static_cast<int>(bound));
        else
                S->compressed = static_cast<char*>(ALLOC(static_cast<int>(bound)));
        stream.next_in = reinterpret_cast<Bytef*>(S->buffer);
        stream.avail_in = static_cast<uInt>(S->used);
        stream.next_out = reinterpret_cast<Bytef*>(S->compressed);
        stream.avail_out = static_cast<uInt>(bound);
        // The output block is as large as deflate can need, so one call does all the work.
        status = deflate(&stream, Z_FINISH);
        if (status != Z_STREAM_END) {
                FREE(S->compressed);
                THROW(AssertException, "compression failed: %s", zError(status));
        }
        *len = static_cast<int>(bound - stream.avail_out);
        return reinterpret_cast<const unsigned char*>(S->compressed);
}
