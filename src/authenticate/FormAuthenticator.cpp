#include <vesk/Authenticator.h>
#include <vesk/Context.h>
#include <vesk/Cookie.h>
#include <vesk/Error.h>
#include <vesk/HttpConnector.h>
#include <vesk/HttpSession.h>
#include <vesk/LoginConfig.h>
#include <vesk/Realm.h>
#include <vesk/RequestDispatcher.h>
#include <vesk/Str.h>

#include "authenticate/Authenticators.hpp"

namespace {

constexpr char kSecurityCheck[] = "/v_security_check";
constexpr char kSavedRequest[] = "org.vesk.authenticator.REQUEST";
// How long a remembered login lasts: 90 days.
constexpr int kRememberSeconds = 7776000;

// A first visit to a protected page: remembers it and shows the login page instead.
void showLoginPage(HttpRequest_T req, HttpResponse_T res, LoginConfig_T config) {
        const char* page = LoginConfig_getLoginPage(config);
        RequestDispatcher_T login = page ? HttpRequest_getRequestDispatcher(req, page) : nullptr;
        if (!login) {
                HttpResponse_sendError(res, 500, "Unexpected error forwarding to login page");
                return;
        }
        HttpSession_T session = HttpRequest_getSession(req, 1);
        if (!session) {
                HttpResponse_sendError(res, 500, "Cannot create a new login session");
                return;
        }
        const char* query = HttpRequest_getQueryString(req);
        HttpSession_setAttribute(session, kSavedRequest, "%s%s%s", HttpRequest_getRequestURI(req),
                                 query && *query ? "?" : "", query ? query : "");
        RequestDispatcher_forward(login);
}

// Keeps the session, and so the login, for 90 days in a cookie of its own.
void rememberMe(HttpRequest_T req, HttpResponse_T res, HttpSession_T session) {
        Cookie_T cookie =
            Cookie_alloc(HttpRequest_getArena(req), "vsessionid", HttpSession_getId(session));
        HttpSession_setMaxInactiveInterval(session, kRememberSeconds);
        Cookie_setMaxAge(cookie, kRememberSeconds);
        const char* path = HttpRequest_getContextPath(req);
        Cookie_setPath(cookie, path && *path ? path : "/");
        Cookie_setHttpOnly(cookie, 1);
        Cookie_setSameSite(cookie, 1);
        const char* scheme = HttpConnector_getProxyScheme(HttpRequest_getConnector(req));
        if (HttpRequest_isSecure(req) || Str_isByteEqual(scheme, "https"))
                Cookie_setSecure(cookie, 1);
        HttpResponse_addCookie(res, cookie);
}

}  // namespace

int FormAuthenticator_authenticate(HttpRequest_T req, HttpResponse_T res, LoginConfig_T config) {
        if (HttpRequest_getUserPrincipal(req))
                return true;
        if (!Str_endsWith(HttpRequest_getRequestURI(req), kSecurityCheck)) {
                showLoginPage(req, res, config);
                return false;
        }
        HttpSession_T session = HttpRequest_getSession(req, 0);
        if (!session) {
                HttpResponse_sendError(res, 401,
                                       "Cannot authenticate, the login session cookie was not "
                                       "accepted or has expired");
                return false;
        }
        Principal_T principal =
            Realm_authenticate(Realm_getInstance(), HttpRequest_getParameter(req, "v_username"),
                               HttpRequest_getParameter(req, "v_password"));
        if (!principal) {
                const char* page = LoginConfig_getErrorPage(config);
                RequestDispatcher_T error =
                    page ? HttpRequest_getRequestDispatcher(req, page) : nullptr;
                if (!error) {
                        HttpResponse_sendError(res, 500,
                                               "Unexpected error forwarding to error page");
                        return false;
                }
                HttpResponse_setHeader(res, "x-auth", "denied");
                Error_error("Unauthorized, authentication failed for [%s] at %s\n",
                            HttpRequest_getRemoteAddr(req), HttpRequest_getRequestURL(req));
                RequestDispatcher_forward(error);
                return false;
        }
        Authenticator_register(req, res, principal, "FORM");
        const char* saved = HttpSession_getAttribute(session, kSavedRequest);
        if (!saved) {
                HttpResponse_sendError(res, 400, "Invalid direct reference to form login page");
                return false;
        }
        const char* remember = HttpRequest_getParameter(req, "v_remember_me");
        if (remember && *remember)
                rememberMe(req, res, session);
        // An unanchored match: any value holding one of these words turns the check off.
        const char* csrf = HttpRequest_getParameter(req, "v_csrf_protection");
        if (csrf && *csrf && Str_match("off|no|false", csrf))
                HttpSession_setAttribute(session, "v_csrf_protection", "off");
        HttpResponse_sendRedirect(res, "%s", saved);
        return false;
}
