// What server pages ask of the session module: without it there are no sessions, and so
// none to invalidate. When it arrives, HttpSession_invalidate replaces the body.
#pragma once

#include <vesk/HttpRequest.h>

// HttpSession_invalidate.
inline void ServerPageSeam_invalidateSession(HttpSession_T session) {
        (void)session;
}
