// What the library itself calls on a context, beside its public face.
#pragma once

#include <vesk/Context.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>

// Context_invoke for a request the default servlet can answer from the FileCache at once
// (DefaultServlet_serveCached): a GET or HEAD in a context without security constraints, naming
// no session. 1 when answered; 0 when req must go through Context_invoke, with nothing
// answered.
int Context_invokeCached(Context_T C, HttpRequest_T req, HttpResponse_T res);
