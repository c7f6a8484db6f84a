/*
 * DefaultServlet: the built-in servlet that serves static files from an application's
 * document base. Every Context makes one, mapped to "/", so it answers every request no
 * other servlet takes.
 *
 * It answers conditional requests (If-Match, If-None-Match, If-Modified-Since,
 * If-Unmodified-Since), finds welcome files, redirects directories to their slash form,
 * and hands the body to the response as a FileCache mapping, gzip-compressed when the
 * client takes it. It never serves anything under a WEB-INF directory (Context_isPrivatePath),
 * not even as a welcome file, never follows a symbolic link, and refuses PUT, DELETE and
 * TRACE with 403.
 */
#ifndef VESK_DEFAULTSERVLET_INCLUDED
#define VESK_DEFAULTSERVLET_INCLUDED

#include <vesk/Export.h>
#include <vesk/Wrapper.h>

VESK_BEGIN_DECLS

/* Installs the file-serving handlers on the virtual servlet D. Checks "D",
   "Wrapper_isVirtual(D)". */
VESK_API void CreateDefaultServlet(Wrapper_T D);

VESK_END_DECLS

#endif
