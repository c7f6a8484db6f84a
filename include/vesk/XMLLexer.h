/*
 * XMLLexer: the scanner under XMLParser, over a stream read through a sliding buffer or
 * over a terminated text in memory.
 *
 * XMLLexer_nextToken returns 0 at the end of the input, one of the token codes below,
 * or a single byte that stands for itself; any code the grammar does not know makes it
 * fail. After a tag's '>' the lexer looks for text or a CDATA section, which it returns
 * trimmed as STRING. Comments, directives and a DTD are skipped; one nested inside
 * another of its kind, or one left open at the end, is logged through Error_error and
 * returned as the code 1. The stream stays the caller's and is read with
 * InputStream_readBytes, which must block until it has the size asked for or the end;
 * a short read ends the document. Lines count from 1 for a stream and from 0 for text
 * in memory. A NULL lexer fails the check "L".
 */
#ifndef VESK_XMLLEXER_INCLUDED
#define VESK_XMLLEXER_INCLUDED

#include <vesk/Export.h>
#include <vesk/InputStream.h>

VESK_BEGIN_DECLS

typedef struct XMLLexer_S* XMLLexer_T;

/* Token codes above the byte range. */
enum XMLLexer_Token {
        END_TAG = 258,   /* "/>" */
        CLOSE_TAG = 259, /* "</" */
        STRING = 260,    /* text or CDATA content */
        NAME = 261,      /* an element name, or a word where a name is not expected */
        KEY = 262,       /* an attribute name in front of '=' */
        VALUE = 263      /* '=' and an attribute value */
};

/* A lexer reading urlStream, which stays the caller's. Checks "urlStream". */
VESK_API XMLLexer_T XMLLexer_new(InputStream_T urlStream);
/* A lexer over xml, which must stay valid while it is used. Checks "xml". */
VESK_API XMLLexer_T XMLLexer_create(const char* xml);
/* Frees the lexer and its buffers and clears *L. Checks "L && *L". */
VESK_API void XMLLexer_free(XMLLexer_T* L);
/* The next token's code; 0 at the end and from then on. */
VESK_API int XMLLexer_nextToken(XMLLexer_T L);
/* The present token's text: for NAME, KEY and VALUE a heap copy the caller takes over and
   frees with Mem_free; for STRING the lexer's own text, valid until the next text is read;
   else NULL. */
VESK_API char* XMLLexer_currentToken(XMLLexer_T L);
/* The present line. */
VESK_API int XMLLexer_getLine(XMLLexer_T L);
/* The input from the start of the present token, the lexer's own text; "eof" once the
   stream buffer is gone, and always for text in memory. */
VESK_API const char* XMLLexer_getErrorContext(XMLLexer_T L);

VESK_END_DECLS

#endif
