/*
 * RequestDispatcher: forwards or includes a request within the same Context. It is
 * made by HttpRequest_getRequestDispatcher and lives in the parent request's Arena.
 * The inner request passes through Context_invoke, authentication included, and
 * carries the parent's path as the attributes "servlet.request_uri",
 * "servlet.context_path", "servlet.servlet_path", "servlet.path_info" and
 * "servlet.query_string" (the last two when present).
 */
#ifndef VESK_REQUESTDISPATCHER_INCLUDED
#define VESK_REQUESTDISPATCHER_INCLUDED

#include <vesk/Export.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>

VESK_BEGIN_DECLS

typedef struct RequestDispatcher_S* RequestDispatcher_T;

/* A dispatcher of the copy wrap of parent; checks "wrap" and "parent". */
VESK_API RequestDispatcher_T RequestDispatcher_new(HttpRequest_T parent, HttpRequest_T wrap);
/* Clears the buffer and runs the target in place of the caller; false, doing nothing,
   once the response is committed. Checks "D". */
VESK_API int RequestDispatcher_forward(RequestDispatcher_T D);
/* Runs the target into the response so far; true. Checks "D". */
VESK_API int RequestDispatcher_include(RequestDispatcher_T D);

VESK_END_DECLS

#endif
