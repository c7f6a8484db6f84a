/*
 * Str: operations on terminated byte strings.
 *
 * Free functions. Most edit the text in place and return it, so calls nest.
 * Nearly all take an absent (NULL) or empty text and hand it back unchanged:
 * web input is often absent and callers need not test first. Text is bytes;
 * case folding and character classes follow the process locale.
 *
 * Str_isEqual, Str_startsWith, Str_endsWith and Str_sub ignore case; Str_cmp
 * and Str_hash, the key functions for Table, do not.
 *
 * Heap forms return memory the caller frees with Mem_free. Arena forms take the
 * arena first and the caller's func, file and line last, which name the site in
 * a MemoryException. The arena escape, replace and entity forms return their
 * argument itself when nothing changes: never assume a fresh copy.
 *
 * Failed checks raise AssertException with the check's text; the number parsers
 * raise NumberFormatException.
 */
#ifndef VESK_STR_INCLUDED
#define VESK_STR_INCLUDED

#include <stdarg.h>
#include <stdbool.h>

#include <vesk/Arena.h>
#include <vesk/Export.h>

VESK_BEGIN_DECLS

/* True if s is present and not empty. */
#define STR_DEF(s) ((s) && *(s))
/* True if s is absent or empty. */
#define STR_UNDEF(s) (!STR_DEF(s))

/* Size of the buffer Str_ton writes into. */
#define STR_TON_SIZE 43

/* Comparison */

/* True if both are present and equal ignoring case. */
VESK_API bool Str_isEqual(const char* a, const char* b);
/* True if both are present and equal byte for byte. */
VESK_API bool Str_isByteEqual(const char* a, const char* b);
/* strcmp of two present texts; the comparator for text keys of Table. */
VESK_API int Str_cmp(const void* x, const void* y);
/* 0 if equal, non-zero if not, in time independent of where they differ. An absent text
   counts as empty; texts longer than 64 bytes never compare equal. */
VESK_API int Str_compareConstantTime(const char* a, const char* b);
/* True if a begins with b, ignoring case. Only the empty text begins with the empty text. */
VESK_API bool Str_startsWith(const char* a, const char* b);
/* True if a ends with b, ignoring case; the first byte of b is not compared, so
   "xbc" ends with "abc". An empty b ends every present a. */
VESK_API bool Str_endsWith(const char* a, const char* b);
/* First place of b in a, ignoring case; NULL if not found or either is absent or empty. */
VESK_API char* Str_sub(const char* a, const char* b);
/* True if s holds any byte of set. */
VESK_API bool Str_has(const char* set, const char* s);
/* True if s is not empty and holds only ASCII letters and digits. */
VESK_API bool Str_isalnum(const char* s);
/* True if s is longer than limit bytes. Checks "limit >= 0". */
VESK_API bool Str_lim(const char* s, int limit);
/* True if s matches the POSIX extended regular expression. Checks "pattern"; a bad
   pattern raises "regular expression error -- <reason>". */
VESK_API bool Str_match(const char* pattern, const char* s);

/* In-place editing; each returns s */

/* Ends s at its first CR or LF. */
VESK_API char* Str_chomp(char* s);
/* Strips whitespace from both ends. */
VESK_API char* Str_trim(char* s);
/* Strips leading whitespace, moving the text down. */
VESK_API char* Str_ltrim(char* s);
/* Strips trailing whitespace. */
VESK_API char* Str_rtrim(char* s);
/* Turns every run of two or more whitespace bytes into one blank. */
VESK_API char* Str_wtrim(char* s);
/* Strips single quotes, double quotes and whitespace from both ends, in any mix. */
VESK_API char* Str_unquote(char* s);
VESK_API char* Str_toLower(char* s);
VESK_API char* Str_toUpper(char* s);
/* Removes every byte that is not an ASCII letter or digit. */
VESK_API char* Str_toalnum(char* s);
/* Replaces each byte from by to. */
VESK_API char* Str_replaceChar(char* s, char from, char to);
/* Ends s where Str_sub finds t. */
VESK_API char* Str_curtail(char* s, const char* t);
/* Cuts s to n bytes, the last three of them "..." when n > 2. Checks "n >= 0". */
VESK_API char* Str_trunc(char* s, int n);

/* Creation on the heap; an absent source gives NULL */

/* A copy of s. */
VESK_API char* Str_dup(const char* s);
/* A copy of at most n bytes of s. Checks "n >= 0". */
VESK_API char* Str_ndup(const char* s, int n);
/* The formatted text, allocated to its exact size. */
VESK_API char* Str_cat(const char* fmt, ...) VESK_PRINTF(1, 2);
VESK_API char* Str_vcat(const char* fmt, va_list ap) VESK_PRINTF(1, 0);

/* Into the caller's buffer */

/* Copies at most n bytes of src and a terminator into dest, which holds n + 1 bytes.
   An absent src or n below 1 leaves dest empty. Returns dest. */
VESK_API char* Str_copy(char* dest, const char* src, int n);
/* Joins texts up to the first NULL into dest, at most n bytes and a terminator. Use the
   macro Str_join, which closes the list. Checks "dest". Returns dest. */
VESK_API char* _Str_join(char* dest, int n, ...);
#define Str_join(dest, n, ...) _Str_join((dest), (n), __VA_ARGS__, (const char*)0)
/* Writes n in decimal at the end of buf, STR_TON_SIZE bytes, and returns where the
   number starts inside buf. Checks "buf". */
VESK_API char* Str_ton(long n, char* buf);

/* Creation in an arena; checks "A" */

/* A copy of s in A. */
VESK_API char* Str_dup_arena(Arena_T A, const char* s, const char* func, const char* file,
                             int line);
/* A copy of at most n bytes of s in A. Checks "n >= 0". */
VESK_API char* Str_ndup_arena(Arena_T A, const char* s, int n, const char* func, const char* file,
                              int line);
/* The formatted text in A; an absent format gives NULL. */
VESK_API char* Str_cat_arena(Arena_T A, const char* func, const char* file, int line,
                             const char* fmt, ...) VESK_PRINTF(5, 6);
VESK_API char* Str_vcat_arena(Arena_T A, const char* func, const char* file, int line,
                              const char* fmt, va_list ap) VESK_PRINTF(5, 0);
/* s with a backslash ahead of each byte found in chars; s itself if none is. */
VESK_API char* Str_escape_arena(Arena_T A, const char* chars, const char* s, const char* func,
                                const char* file, int line);
/* Replaces each old in s by new, case counting. Grows into a copy in A; otherwise edits s
   in place. Returns s itself if old does not occur. */
VESK_API char* Str_replace_arena(Arena_T A, char* s, const char* old, const char* new_,
                                 const char* func, const char* file, int line);
/* s with " ' < > & written as entities for markup, an & that already starts an entity
   kept; s itself if none of those bytes occurs. */
VESK_API char* Str_entityify_arena(Arena_T A, const char* s, const char* func, const char* file,
                                   int line);

#define STR_DUP_ARENA(A, s) Str_dup_arena((A), (s), __func__, __FILE__, __LINE__)
#define STR_NDUP_ARENA(A, s, n) Str_ndup_arena((A), (s), (n), __func__, __FILE__, __LINE__)
#define STR_CAT_ARENA(A, ...) Str_cat_arena((A), __func__, __FILE__, __LINE__, __VA_ARGS__)

/* Numbers and sizes */

/* Base-10 numbers; what follows the number is ignored. Absent, empty or non-numeric text,
   or a value out of range, raises NumberFormatException "For input string <s>". */
VESK_API int Str_parseInt(const char* s);
VESK_API long long Str_parseLLong(const char* s);
VESK_API float Str_parseFloat(const char* s);
VESK_API double Str_parseDouble(const char* s);
/* The ELF symbol hash of the text; the hash for text keys of Table. Checks "x". */
VESK_API unsigned int Str_hash(const void* x);
/* Writes bytes as "1.5 kB" and the like into s, of at least 10 bytes; returns s.
   Checks "s" and "bytes < 1e+24". */
VESK_API char* Str_bytesToSize(double bytes, char* s);
/* Writes milliseconds as "999 ms", "1.500 m" and the like into s, of at least 23 bytes;
   returns s. Checks "s". */
VESK_API char* Str_milliToTime(double milli, char* s);

VESK_END_DECLS

#endif
