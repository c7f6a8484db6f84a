/*
 * ServerPageServlet: the built-in servlet for "*.csp". It renders the server page at the
 * servlet path (see ServerPage.h) as text/html; a page that does not exist is 404, and a
 * HEAD builds the page's data but renders nothing.
 */
#ifndef VESK_SERVERPAGESERVLET_INCLUDED
#define VESK_SERVERPAGESERVLET_INCLUDED

#include <vesk/Export.h>
#include <vesk/Wrapper.h>

VESK_BEGIN_DECLS

/* Installs the page handlers (GET, HEAD, POST) on the virtual servlet S. Checks "S",
   "Wrapper_isVirtual(S)". */
VESK_API void CreateServerPageServlet(Wrapper_T S);

VESK_END_DECLS

#endif
