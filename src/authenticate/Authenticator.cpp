#include <vesk/Arena.h>
#include <vesk/Authenticator.h>
#include <vesk/Context.h>
#include <vesk/HttpSession.h>
#include <vesk/List.h>
#include <vesk/LoginConfig.h>
#include <vesk/Principal.h>
#include <vesk/Realm.h>
#include <vesk/SecurityConstraint.h>
#include <vesk/Str.h>
#include <vesk/assert.h>

#include "authenticate/Authenticators.hpp"

namespace {

constexpr char kSecurityCheck[] = "/v_security_check";
constexpr char kForbidden[] = "You do not have permission to access the requested resource.";

// The constraints that apply to the request, in declared order. The login target falls
// under every one, so that a login posted anywhere is checked.
List_T matching(HttpRequest_T req, List_T constraints) {
        const char* uri = HttpRequest_getRequestURI(req);
        const char* method = HttpRequest_getMethod(req);
        bool target = Str_endsWith(uri, kSecurityCheck);
        List_T found = List_alloc(HttpRequest_getArena(req));
        // The context keeps them newest first; pushing reverses that.
        for (list_t p = constraints->head; p; p = p->next) {
                auto constraint = static_cast<SecurityConstraint_T>(p->e);
                if (target || SecurityConstraint_included(constraint, uri, method))
                        List_push(found, constraint);
        }
        return found;
}

// Whether the request is for a page of the form login itself, which must stay reachable
// without a login.
bool isLoginPage(HttpRequest_T req, LoginConfig_T config) {
        const char* method = config ? LoginConfig_getAuthMethod(config) : nullptr;
        if (!method || *method != 'F')
                return false;
        const char* uri = HttpRequest_getRequestURI(req);
        const char* login = LoginConfig_getLoginPage(config);
        const char* error = LoginConfig_getErrorPage(config);
        return (login && Str_endsWith(uri, login)) || (error && Str_endsWith(uri, error));
}

// Logs the user in by the descriptor's method; false when the response is made.
bool login(HttpRequest_T req, HttpResponse_T res, LoginConfig_T config) {
        const char* method = config ? LoginConfig_getAuthMethod(config) : nullptr;
        switch (method ? *method : 0) {
        case 'B':
                return BasicAuthenticator_authenticate(req, res, config);
        case 'F':
                return FormAuthenticator_authenticate(req, res, config);
        case 'C':
                return SSLAuthenticator_authenticate();
        case 'L':
                return LDAPAuthenticator_authenticate();
        default:
                HttpResponse_sendError(res, 403, "%s", kForbidden);
                return false;
        }
}

}  // namespace

int Authenticator_invoke(HttpRequest_T req, HttpResponse_T res) {
        assert(req);
        assert(res);
        Context_T context = HttpRequest_getContext(req);
        Realm_T realm = Realm_getInstance();
        // Without a user database nothing is checked, not even the token.
        if (!Realm_getDatabase(realm))
                return 0;
        if (Context_containsCSRFProtection(context) && !CSRFProtection_check(req, res, context))
                return 1;
        List_T constraints = Context_getSecurityConstraints(context);
        if (List_length(constraints) == 0)
                return 0;
        List_T applying = matching(req, constraints);
        if (List_length(applying) == 0)
                return 0;
        // Protected content, and every answer about it, is never cached.
        HttpResponse_setHeader(res, "Pragma", "no-cache");
        HttpResponse_setHeader(res, "Cache-Control", "no-cache");
        HttpResponse_setHeader(res, "Expires", "Sun, 21 Feb 1993 00:29:55 GMT");
        LoginConfig_T config = Context_getLoginConfig(context);
        if (isLoginPage(req, config))
                return 0;
        if (!Realm_hasUserDataPermission(realm, req, res, applying) ||
            !Realm_hasIpAddressPermission(realm, req, res, applying))
                return 1;
        for (list_t p = applying->head; p; p = p->next) {
                // The first constraint that asks for no role lets the request in as it is.
                if (!SecurityConstraint_getAuthConstraint(static_cast<SecurityConstraint_T>(p->e)))
                        return 0;
                if (!login(req, res, config))
                        return 1;
        }
        return Realm_hasResourcePermission(realm, req, res, applying) ? 0 : 1;
}

void Authenticator_register(HttpRequest_T req, HttpResponse_T res, Principal_T principal,
                            const char* authType) {
        assert(req);
        assert(res);
        assert(principal);
        assert(authType);
        HttpRequest_setAuthType(req, authType);
        // The request holds one reference of its user: one it held before goes back.
        Principal_T previous = HttpRequest_getUserPrincipal(req);
        HttpRequest_setUserPrincipal(req, principal);
        if (previous)
                Principal_decrement(previous);
        if (HttpSession_T session = HttpRequest_getSession(req, 0)) {
                HttpSession_setAuthType(session, authType);
                HttpSession_setPrincipal(session, principal);
        }
}
