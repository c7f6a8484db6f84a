// What the library itself calls on the default servlet, beside its public face.
#pragma once

#include <vesk/DefaultServlet.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>

// Answers a GET or HEAD mapped to the default servlet as it would, if the file's current form
// is in the FileCache: 1 then. 0, with req and res untouched, for anything that would need the
// disk read, the file mapped or an error page; it never waits. Checks "req", "res".
int DefaultServlet_serveCached(HttpRequest_T req, HttpResponse_T res);
