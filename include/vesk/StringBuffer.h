/*
 * StringBuffer: growable text for building responses and markup.
 *
 * A StringBuffer_T holds a terminated text on the heap and grows by the exact
 * need plus 256 bytes. It takes no arena; StringBuffer_free(&S) frees it and
 * clears the caller's reference. Text handed out (toString, substring and the
 * compressed form) stays the buffer's and is valid until the next change.
 * Index operations accept 0 up to and including the length, so an index may
 * stand on the terminator; others raise "Index out of bounds". S is checked
 * as "S" everywhere. Not safe for concurrent use.
 */
#ifndef VESK_STRINGBUFFER_INCLUDED
#define VESK_STRINGBUFFER_INCLUDED

#include <stdarg.h>

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct StringBuffer_S* StringBuffer_T;

/* A buffer of capacity 256 holding a copy of s; an absent s gives an empty buffer. */
VESK_API StringBuffer_T StringBuffer_new(const char* s);
/* An empty buffer of capacity hint; hint below 1 raises "Illegal hint value". */
VESK_API StringBuffer_T StringBuffer_create(int hint);
/* Frees the buffer and its compressed form, and clears *S. Checks "S && *S". */
VESK_API void StringBuffer_free(StringBuffer_T* S);
/* Appends the formatted text; an absent or empty format does nothing. Returns S. */
VESK_API StringBuffer_T StringBuffer_append(StringBuffer_T S, const char* fmt, ...)
    VESK_PRINTF(2, 3);
VESK_API StringBuffer_T StringBuffer_vappend(StringBuffer_T S, const char* fmt, va_list ap)
    VESK_PRINTF(2, 0);
/* Clears, then appends. Returns S. */
VESK_API StringBuffer_T StringBuffer_set(StringBuffer_T S, const char* fmt, ...) VESK_PRINTF(2, 3);
VESK_API StringBuffer_T StringBuffer_vset(StringBuffer_T S, const char* fmt, va_list ap)
    VESK_PRINTF(2, 0);
/* Empties the text and drops the compressed form; the capacity stays. Returns S. */
VESK_API StringBuffer_T StringBuffer_clear(StringBuffer_T S);
/* Bytes of text, the terminator not counted. */
VESK_API int StringBuffer_length(StringBuffer_T S);
/* The text itself, owned by S. */
VESK_API const char* StringBuffer_toString(StringBuffer_T S);
/* The byte at index. */
VESK_API char StringBuffer_charAt(StringBuffer_T S, int index);
/* Sets the byte at index. At the terminator a non-zero c is appended; a zero c before it
   ends the text there. */
VESK_API void StringBuffer_setCharAt(StringBuffer_T S, int index, char c);
/* A pointer into the text at index; nothing is copied. */
VESK_API const char* StringBuffer_substring(StringBuffer_T S, int index);
/* Ends the text at index. Returns S. */
VESK_API StringBuffer_T StringBuffer_delete(StringBuffer_T S, int index);
/* First place of s, byte for byte, or -1; absent or empty s, or an empty buffer, give -1. */
VESK_API int StringBuffer_indexOf(StringBuffer_T S, const char* s);
/* Last place of s, as StringBuffer_indexOf. */
VESK_API int StringBuffer_lastIndexOf(StringBuffer_T S, const char* s);
/* Strips whitespace at both ends. Returns S. */
VESK_API StringBuffer_T StringBuffer_trim(StringBuffer_T S);
/* Replaces each a by b, case counting, from the left; returns the number replaced. */
VESK_API int StringBuffer_replace(StringBuffer_T S, const char* a, const char* b);
/* The text as a gzip stream at level 0-9, its size in *len; NULL with *len 0 for an empty
   buffer. The block is S's, valid until the next call, StringBuffer_clear or _free.
   Checks "S", "level >= 0 && level <= 9" and "len"; a zlib failure raises
   "compression failed: <reason>". */
VESK_API const unsigned char* StringBuffer_toCompressed(StringBuffer_T S, int level, int* len);

VESK_END_DECLS

#endif
