#include <string.h>

#include <vesk/Authenticator.h>
#include <vesk/Base64.h>
#include <vesk/Context.h>
#include <vesk/LoginConfig.h>
#include <vesk/Realm.h>
#include <vesk/Str.h>
#include <vesk/URL.h>

#include "authenticate/Authenticators.hpp"

namespace {

constexpr char kPrefix[] = "Basic ";
constexpr size_t kPrefixLength = sizeof kPrefix - 1;
// The encoded credentials read at most; more is cut before decoding.
constexpr size_t kEncoded = 192;

// The user of the Authorization header with a right password, or NULL.
Principal_T credentials(HttpRequest_T req) {
        const char* authorization = HttpRequest_getAuthorization(req);
        if (!authorization || !Str_startsWith(authorization, kPrefix))
                return nullptr;
        char encoded[kEncoded + 1] = {};
        strncpy(encoded, authorization + kPrefixLength, kEncoded);
        Str_trim(encoded);
        char decoded[256];
        if (Base64_decode(decoded, encoded) == 0)
                return nullptr;
        char* colon = strchr(decoded, ':');
        if (!colon || colon == decoded || !colon[1])
                return nullptr;
        *colon = 0;
        // Decoded like a URL as well: a '+' is a space and %xx a byte.
        const char* name = URL_unescape(decoded);
        const char* password = URL_unescape(colon + 1);
        return Realm_authenticate(Realm_getInstance(), name, password);
}

}  // namespace

int BasicAuthenticator_authenticate(HttpRequest_T req, HttpResponse_T res, LoginConfig_T config) {
        if (HttpRequest_getUserPrincipal(req))
                return true;
        if (Context_getSessionManager(HttpRequest_getContext(req)) &&
            !HttpRequest_getSession(req, 1)) {
                HttpResponse_sendError(res, 500, "Cannot create a new session");
                return false;
        }
        if (Principal_T principal = credentials(req)) {
                Authenticator_register(req, res, principal, "BASIC");
                return true;
        }
        const char* realm = LoginConfig_getRealmName(config);
        HttpResponse_setHeader(res, "WWW-Authenticate", "Basic realm=\"%s\"",
                               realm ? realm : HttpRequest_getServerName(req));
        HttpResponse_sendError(res, 401,
                               "Your are not authorized to access the requested resource");
        return false;
}
