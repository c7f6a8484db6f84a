// Replacing every match of one text by another, shared by Str and StringBuffer.
#pragma once

#include <string.h>

namespace vesk {

// Matches of old in the length bytes at s, overlapping ones included: the most matches a
// replacement can meet, which sizes the room it needs.
inline long countMatches(const char* s, size_t length, const char* old, size_t oldLength) {
        long count = 0;
        const char* end = s + length;
        for (const char* p = s; (p = static_cast<const char*>(
                                     memmem(p, static_cast<size_t>(end - p), old, oldLength)));
             p++)
                count++;
        return count;
}

struct Replaced {
        char* end;  // the NUL that ends the text written
        int count;
};

// Writes the text from r to end, and the NUL at end, to w with every match of old replaced
// by new_. Matches are taken from the left and the search goes on behind each one, so
// overlapping matches counted above are not all replaced. w may be r, or lie before it,
// as long as the writer never passes the reader.
inline Replaced replaceMatches(char* w, const char* r, const char* end, const char* old,
                               size_t oldLength, const char* new_, size_t newLength) {
        int count = 0;
        for (const char* m; (m = static_cast<const char*>(
                                 memmem(r, static_cast<size_t>(end - r), old, oldLength)));
             r = m + oldLength) {
                size_t segment = static_cast<size_t>(m - r);
                memmove(w, r, segment);
                w += segment;
                memcpy(w, new_, newLength);
                w += newLength;
                count++;
        }
        size_t tail = static_cast<size_t>(end - r);
        memmove(w, r, tail + 1);
        return {w + tail, count};
}

}  // namespace vesk
