/*
 * Authenticator: the security gate of a web application, run for each request between
 * mapping and the servlet.
 *
 * It checks the CSRF token of paths under "csrf-protect", then for a request under the
 * descriptor's security constraints the transport, the client address, the login by the
 * descriptor's method (BASIC or FORM) and the user's roles. Without a Realm database it
 * checks nothing. A request it refuses or answers itself (a login challenge, a login
 * page, a redirect, an error) gets its response here, and the servlet does not run.
 * Absent arguments fail their checks.
 */
#ifndef VESK_AUTHENTICATOR_INCLUDED
#define VESK_AUTHENTICATOR_INCLUDED

#include <vesk/Export.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>

VESK_BEGIN_DECLS

/* 0 to go on to the servlet; non-zero when the response has been made here. */
VESK_API int Authenticator_invoke(HttpRequest_T req, HttpResponse_T res);

/* Records a successful login of principal, whose reference the request takes over, with
   authType ("BASIC", "FORM") on the request and, if it has one, its session, so that the
   session's later requests need no login. */
VESK_API void Authenticator_register(HttpRequest_T req, HttpResponse_T res, Principal_T principal,
                                     const char* authType);

VESK_END_DECLS

#endif
