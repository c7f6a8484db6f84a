// Authentication, as a server without it behaves: every request passes. The function
// carries the name and arguments of the operation that replaces it; when that module is
// built this file is deleted and its header is included instead, with no caller changing.
#pragma once

#include <vesk/Arena.h>
#include <vesk/Build.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>

/* ------------------------------------------------------------- Authenticator */

// Non-zero when the authenticator has answered the request itself.
inline int Authenticator_invoke(HttpRequest_T req, HttpResponse_T res) {
        (void)req;
        (void)res;
        return 0;
}
