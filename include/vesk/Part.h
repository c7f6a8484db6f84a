/*
 * Part: a named piece of a multipart or XML request body, a form field or a file.
 *
 * A part lives in the request's Arena; its content points into the request's body
 * store and is not copied, so it is valid until the request ends. Texts handed out
 * stay the part's. A NULL part fails the check "P".
 */
#ifndef VESK_PART_INCLUDED
#define VESK_PART_INCLUDED

#include <stddef.h>

#include <vesk/Arena.h>
#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Part_S* Part_T;

/* A new empty part in arena, content type "text/plain"; checks "arena". */
VESK_API Part_T Part_alloc(Arena_T arena);
/* Empties the part for reuse. */
VESK_API void Part_reset(Part_T P);
/* The form field's name. */
VESK_API const char* Part_getName(Part_T P);
/* The file name the client gave, or NULL for a plain field. */
VESK_API const char* Part_getFileName(Part_T P);
/* The content type; "text/plain" unless the client said otherwise. */
VESK_API const char* Part_getContentType(Part_T P);
/* The content's size in bytes. */
VESK_API int Part_getSize(Part_T P);
/* True for a file upload. */
VESK_API int Part_isaFile(Part_T P);
/* The content, terminated, with its size in *size; checks "size". */
VESK_API const char* Part_getContent(Part_T P, size_t* size);
/* The content as terminated text. */
VESK_API const char* Part_getContentAsString(Part_T P);
/* Writes the content to the formatted path: an absolute path as given, another one as
   its base name inside the home's logs directory. Raises IOException on failure;
   checks "STR_DEF(filename)". */
VESK_API void Part_write(Part_T P, const char* filename, ...) VESK_PRINTF(2, 3);

VESK_END_DECLS

#endif
