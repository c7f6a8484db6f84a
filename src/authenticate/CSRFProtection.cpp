#include <vesk/Context.h>
#include <vesk/Error.h>
#include <vesk/HttpSession.h>
#include <vesk/SecurityCollection.h>
#include <vesk/SecurityConstraint.h>
#include <vesk/Str.h>

#include "authenticate/Authenticators.hpp"

namespace {

constexpr char kMissing[] = "Missing required CSRF Token";

// The collection that protects the request's path against CSRF, if one does and names
// the request's method (or none).
SecurityCollection_T protecting(HttpRequest_T req, Context_T context) {
        const char* uri = HttpRequest_getRequestURI(req);
        List_T constraints = Context_getSecurityConstraintsWithCSRFProtection(context);
        for (list_t p = constraints->head; p; p = p->next) {
                SecurityCollection_T c = SecurityConstraint_getCSRFProtectedCollection(
                    static_cast<SecurityConstraint_T>(p->e), uri);
                if (c) {
                        if (SecurityCollection_hasMethods(c) &&
                            !SecurityCollection_findMethod(c, HttpRequest_getMethod(req)))
                                return nullptr;
                        return c;
                }
        }
        return nullptr;
}

}  // namespace

int CSRFProtection_check(HttpRequest_T req, HttpResponse_T res, Context_T context) {
        if (!protecting(req, context))
                return true;
        HttpSession_T session = HttpRequest_getSession(req, 0);
        if (!session) {
                HttpResponse_sendError(res, 403, "%s", kMissing);
                return false;
        }
        if (HttpSession_hasAttribute(session, "v_csrf_protection"))
                return true;
        // The parameter wins; a missing or empty one falls back to the header.
        const char* token = HttpRequest_getParameterDefault(
            req, "CSRFToken", HttpRequest_getHeader(req, "CSRFToken"));
        if (!token || !*token) {
                HttpResponse_sendError(res, 403, "%s", kMissing);
                return false;
        }
        // The token is the session id, compared in constant time.
        if (Str_compareConstantTime(token, HttpSession_getId(session)) != 0) {
                HttpResponse_sendError(res, 403, "Invalid CSRF Token");
                Error_error("CSRF Token does not match for [%s] at %s\n",
                            HttpRequest_getRemoteAddr(req), HttpRequest_getRequestURL(req));
                return false;
        }
        return true;
}
