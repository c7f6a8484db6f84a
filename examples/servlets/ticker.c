/* The example's timed servlet: its init starts a scheduler with a periodic task that
   refreshes a value every five seconds, on the clock's multiples of five as crontab
   would, and its page shows what the task last did. Requests never wait for the task:
   they read what it left, under a lock, since the task runs on the scheduler's thread. */
#include <pthread.h>
#include <stdio.h>

#include <vesk/vesk.h>

#define INTERVAL 5000

static Scheduler_T scheduler;
static Task_T refresh;

static struct {
        pthread_mutex_t lock;
        long refreshes;
        time_t last;
        unsigned long value;
} state = {PTHREAD_MUTEX_INITIALIZER, 0, 0, 1};

/* A value worth refreshing: the next step of a small pseudo-random sequence. */
static void step(Task_T task) {
        (void)task;
        pthread_mutex_lock(&state.lock);
        state.value = (state.value * 1103515245UL + 12345UL) % 2147483648UL;
        state.refreshes++;
        state.last = Time_now();
        pthread_mutex_unlock(&state.lock);
}

void init(ServletConfig_T config) {
        scheduler = Scheduler_new(1);
        refresh = Scheduler_createTask(scheduler, "ticker refresh");
        Task_setPeriodic(refresh, 0, INTERVAL);
        Task_setWorker(refresh, step);
        Scheduler_add(refresh);
        ServletContext_log(ServletConfig_getServletContext(config),
                           "ticker: refreshing every %d seconds\n", INTERVAL / 1000);
}

void destroy(void) {
        Task_cancel(refresh);
        Scheduler_free(&scheduler);
}

int doGet(HttpRequest_T req, HttpResponse_T res) {
        (void)req;
        OutputStream_T out = HttpResponse_getOutputStream(res);
        char last[32] = "not yet";
        char next[32] = "";
        pthread_mutex_lock(&state.lock);
        long refreshes = state.refreshes;
        unsigned long value = state.value;
        if (state.last)
                Time_fmt(last, sizeof last, "%H:%M:%S", state.last);
        pthread_mutex_unlock(&state.lock);
        Time_fmt(next, sizeof next, "%H:%M:%S", Task_nextRun(refresh));
        HttpResponse_setHeader(res, "Refresh", "%d", INTERVAL / 1000);
        HttpResponse_setContentType(res, "text/html; charset=utf-8");
        OutputStream_print(out,
                           "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
                           "<title>Ticker - Vesk example application</title>\n"
                           "<link rel=\"stylesheet\" href=\"/demo/style.css\">\n</head>\n<body>\n"
                           "<header class=\"site\"><a class=\"brand\" href=\"/demo/\">Vesk demo</a>"
                           "</header>\n<main>\n<h1>Ticker</h1>\n");
        OutputStream_print(out,
                           "<p class=\"lead\">A task of the servlet's own scheduler refreshes this "
                           "value every %d seconds; the page reloads itself as often.</p>\n",
                           INTERVAL / 1000);
        OutputStream_print(out,
                           "<dl>\n<dt>Value</dt><dd><code>%lu</code></dd>\n"
                           "<dt>Refreshes so far</dt><dd>%ld</dd>\n"
                           "<dt>Last refresh</dt><dd>%s</dd>\n"
                           "<dt>Next refresh</dt><dd>%s</dd>\n</dl>\n</main>\n</body>\n</html>\n",
                           value, refreshes, last, next);
        return 0;
}
