// Sessions and authentication, as a server without them behaves: no session is ever found
// or made, and every request passes authentication. Each function carries the name and
// arguments of the operation of the module that replaces it; when those modules are built
// this file is deleted and their headers are included instead, with no caller changing.
#pragma once

#include <vesk/Arena.h>
#include <vesk/Build.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/Principal.h>
#include <vesk/Realm.h>

/* ------------------------------------------------------------- Authenticator */

// Non-zero when the authenticator has answered the request itself.
inline int Authenticator_invoke(HttpRequest_T req, HttpResponse_T res) {
        (void)req;
        (void)res;
        return 0;
}
