/* The example's account page: a C servlet behind the application's FORM login that shows
   the logged-in user and the session the server keeps for them, through the server page
   templates/account.csp. Each visit counts up a session attribute, which outlives a server
   restart because the application's sessions are saved to the database. */
#include <stdio.h>
#include <time.h>

#include <vesk/vesk.h>

/* The roles the application knows. A user's roles can only be asked one by one, so the page
   shows those of these that the user has. */
static const char* const roles[] = {"member", "guest"};

/* The login remembers the page first asked for under this session attribute. */
#define SAVED_REQUEST "org.vesk.authenticator.REQUEST"

static void addTime(ServerPage_T page, const char* name, time_t when) {
        char text[32];
        ServerPage_add(page, name,
                       when > 0 ? Time_fmt(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", when) : "");
}

void init(ServletConfig_T config) {
        ServletContext_log(ServletConfig_getServletContext(config), "account: ready\n");
}

int doGet(HttpRequest_T req, HttpResponse_T res) {
        const char* user = HttpRequest_getRemoteUser(req);
        HttpSession_T session = HttpRequest_getSession(req, 0);
        /* The login constraint in WEB-INF/web.xml puts a user and a session here; without
           them it is not in force, and there is nothing to show. */
        if (!user || !session) {
                HttpResponse_sendError(res, 403,
                                       "The account page needs a login, and this server asked for none");
                return 0;
        }
        ServerPage_T page = HttpResponse_getServerPage(res, "/templates/account.csp");
        if (!page) {
                HttpResponse_sendError(res, 500, "The account page's template cannot be read");
                return 0;
        }
        int visits = HttpSession_getIntAttribute(session, "visits");
        visits = visits < 1 ? 1 : visits + 1;
        HttpSession_setAttribute(session, "visits", "%d", visits);

        ServerPage_add(page, "Account.user", user);
        ServerPage_add(page, "Account.authType", HttpRequest_getAuthType(req));
        int shown = 0;
        for (size_t i = 0; i < sizeof roles / sizeof roles[0]; i++) {
                if (HttpRequest_isUserInRole(req, roles[i])) {
                        char name[32];
                        snprintf(name, sizeof name, "Account.roles.%d", shown++);
                        ServerPage_add(page, name, roles[i]);
                }
        }
        ServerPage_add(page, "Account.session.id", HttpSession_getId(session));
        addTime(page, "Account.session.created", HttpSession_getCreationTime(session));
        addTime(page, "Account.session.lastAccessed", HttpSession_getLastAccessedTime(session));
        ServerPage_addInt(page, "Account.session.maxInactive",
                          HttpSession_getMaxInactiveInterval(session));
        ServerPage_addInt(page, "Account.visits", visits);
        ServerPage_add(page, "Account.savedRequest", HttpSession_getAttribute(session, SAVED_REQUEST));
        ServerPage_write(page);
        return 0;
}
