// The login methods and the token check behind Authenticator_invoke. Each answers true to
// go on, or false after making the response itself (the unsupported methods make none).
#pragma once

#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/LoginConfig.h>

int BasicAuthenticator_authenticate(HttpRequest_T req, HttpResponse_T res, LoginConfig_T config);
int FormAuthenticator_authenticate(HttpRequest_T req, HttpResponse_T res, LoginConfig_T config);
// Login by client certificate is not supported: always false, and no response is made.
int SSLAuthenticator_authenticate(void);
// Login against a directory is not supported: always false, and no response is made.
int LDAPAuthenticator_authenticate(void);
// The CSRF token check of the context's protected paths: false after answering 403.
int CSRFProtection_check(HttpRequest_T req, HttpResponse_T res, Context_T context);
