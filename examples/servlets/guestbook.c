/* The example's guestbook: a C servlet that keeps the last few entries in memory and shows
   them through the server page templates/guestbook.csp. A GET renders the book; a POST
   adds an entry and redirects back to the book, so a reload does not post it twice. The
   servlet only fills the page's data set: the template escapes what visitors wrote. */
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <vesk/vesk.h>

#define ENTRIES 20
#define NAME_LENGTH 40
#define MESSAGE_LENGTH 500

struct entry {
        char name[NAME_LENGTH + 1];
        char message[MESSAGE_LENGTH + 1];
        time_t when;
};

/* The book is a ring: entry `written % ENTRIES` is overwritten next. Requests run on
   several processor threads, hence the lock. */
static struct entry book[ENTRIES];
static long written;
static pthread_mutex_t bookLock = PTHREAD_MUTEX_INITIALIZER;

static void addValue(ServerPage_T page, int index, const char* field, const char* value) {
        char name[64];
        snprintf(name, sizeof name, "Guestbook.entries.%d.%s", index, field);
        ServerPage_add(page, name, value);
}

/* Renders the book; error, name and message refill the form after a refused post. */
static int render(HttpResponse_T res, const char* error, const char* name, const char* message) {
        ServerPage_T page = HttpResponse_getServerPage(res, "/templates/guestbook.csp");
        if (!page) {
                HttpResponse_sendError(res, 500, "The guestbook's template cannot be read");
                return 0;
        }
        pthread_mutex_lock(&bookLock);
        int shown = written < ENTRIES ? (int)written : ENTRIES;
        for (int i = 0; i < shown; i++) {
                const struct entry* e = &book[(written - 1 - i) % ENTRIES];
                char when[32];
                addValue(page, i, "name", e->name);
                addValue(page, i, "message", e->message);
                addValue(page, i, "when", Time_fmt(when, sizeof when, "%Y-%m-%d %H:%M", e->when));
        }
        ServerPage_addInt(page, "Guestbook.count", shown);
        ServerPage_addInt(page, "Guestbook.total", (int)written);
        pthread_mutex_unlock(&bookLock);
        ServerPage_addInt(page, "Guestbook.keep", ENTRIES);
        ServerPage_addInt(page, "Guestbook.nameLength", NAME_LENGTH);
        ServerPage_addInt(page, "Guestbook.messageLength", MESSAGE_LENGTH);
        if (error) {
                ServerPage_add(page, "Guestbook.error", error);
                ServerPage_add(page, "Form.name", name);
                ServerPage_add(page, "Form.message", message);
        }
        ServerPage_write(page);
        return 0;
}

/* The parameter's value without surrounding white space, in the request's arena. */
static char* field(HttpRequest_T req, const char* parameter) {
        const char* value = HttpRequest_getParameterDefault(req, parameter, "");
        return Str_trim(
            Str_dup_arena(HttpRequest_getArena(req), value, __func__, __FILE__, __LINE__));
}

void init(ServletConfig_T config) {
        ServletContext_log(ServletConfig_getServletContext(config),
                           "guestbook: ready, keeps the last %d entries\n", ENTRIES);
}

int doGet(HttpRequest_T req, HttpResponse_T res) {
        (void)req;
        return render(res, NULL, NULL, NULL);
}

int doPost(HttpRequest_T req, HttpResponse_T res) {
        char* name = field(req, "name");
        char* message = field(req, "message");
        const char* error = NULL;
        if (!*name)
                error = "Please give your name.";
        else if (!*message)
                error = "Please write a message.";
        else if (strlen(name) > NAME_LENGTH)
                error = "Your name is too long.";
        else if (strlen(message) > MESSAGE_LENGTH)
                error = "Your message is too long.";
        if (error) {
                HttpResponse_setStatus(res, 400);
                return render(res, error, name, message);
        }
        pthread_mutex_lock(&bookLock);
        struct entry* e = &book[written % ENTRIES];
        strcpy(e->name, name);
        strcpy(e->message, message);
        e->when = time(NULL);
        written++;
        pthread_mutex_unlock(&bookLock);
        HttpResponse_sendRedirect(res, "%s/guestbook", HttpRequest_getContextPath(req));
        return 0;
}
