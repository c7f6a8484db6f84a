/*
 * XMLParser: an event-driven parser for the server's configuration files.
 *
 * A parser is made from a URL, a stream or a text in memory, given handlers, run once
 * with XMLParser_parse and freed with XMLParser_free(&P), which clears the caller's
 * pointer. It is no general XML processor: there are no entities, namespaces or DTD
 * handling; comments, directives and a DTD are skipped and may not nest; text may stand
 * only directly behind a start tag and reaches startElement as cdata, trimmed. An
 * element written <a/> gives startElement and then endElement; end tag names are not
 * compared with start tag names.
 *
 * Handlers may be left unset, and their events are dropped. Each gets the ctx given at
 * creation as its last argument. Texts handed to a handler stay the parser's and are
 * freed when the handler returns: a handler copies what it keeps. attributes holds
 * name, value, name, value, ... closed by NULL; an element may have at most 127
 * attributes, and the 128th raises AssertException. A syntax error calls errorHandler
 * once with "Parse error at line [n] near "..." -- <reason>" and parsing stops there.
 * Exceptions from the stream or from a handler pass through. A NULL parser fails the
 * check "P".
 */
#ifndef VESK_XMLPARSER_INCLUDED
#define VESK_XMLPARSER_INCLUDED

#include <stdbool.h>

#include <vesk/Export.h>
#include <vesk/InputStream.h>
#include <vesk/URL.h>

VESK_BEGIN_DECLS

typedef struct XMLParser_S* XMLParser_T;

/* Called once before the first element. */
typedef void (*XMLParser_StartDocument)(void* ctx);
/* Called once at the end, whether the document was good or not. */
typedef void (*XMLParser_EndDocument)(void* ctx);
/* Called for each start tag with its name, attribute pairs and text (NULL for none). */
typedef void (*XMLParser_StartElement)(const char* name, const char** attributes, const char* cdata,
                                       void* ctx);
/* Called for each end tag, and right after startElement for <name/>. */
typedef void (*XMLParser_EndElement)(const char* name, void* ctx);
/* Called once with the message of the syntax error that ended parsing. */
typedef void (*XMLParser_ErrorHandler)(const char* message, void* ctx);

/* A parser reading url's input stream; the parser owns url from here on. Checks "url".
   Raises what URL_getInputStream raises, after freeing url. */
VESK_API XMLParser_T XMLParser_new(URL_T url, void* ctx);
/* A parser reading stream, which stays the caller's. Checks "stream". */
VESK_API XMLParser_T XMLParser_createFromStream(InputStream_T stream, void* ctx);
/* A parser over the text xml, which must stay valid while parsing. Checks "xml". */
VESK_API XMLParser_T XMLParser_createFromBuffer(const char* xml, void* ctx);
/* Frees the parser, attribute texts left over, its URL and its lexer; clears *P. Checks
   "P && *P". */
VESK_API void XMLParser_free(XMLParser_T* P);
/* Runs startDocument, the parse and endDocument; true if the document was good. */
VESK_API bool XMLParser_parse(XMLParser_T P);
/* The line the lexer has reached. */
VESK_API int XMLParser_getCurrentLine(XMLParser_T P);
/* The value of the first attribute named name, ignoring case, or NULL. */
VESK_API const char* XMLParser_getAttribute(const char* name, const char** attributes);
/* Sets the startDocument handler. Checks "startDocument". */
VESK_API void XMLParser_setStartDocumentHandler(XMLParser_T P,
                                                XMLParser_StartDocument startDocument);
/* Sets the endDocument handler. Checks "endDocument". */
VESK_API void XMLParser_setEndDocumentHandler(XMLParser_T P, XMLParser_EndDocument endDocument);
/* Sets the startElement handler. Checks "startElement". */
VESK_API void XMLParser_setStartElementHandler(XMLParser_T P, XMLParser_StartElement startElement);
/* Sets the endElement handler. Checks "endElement". */
VESK_API void XMLParser_setEndElementHandler(XMLParser_T P, XMLParser_EndElement endElement);
/* Sets the errorHandler. Checks "errorHandler". */
VESK_API void XMLParser_setErrorHandler(XMLParser_T P, XMLParser_ErrorHandler errorHandler);

VESK_END_DECLS

#endif
