#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <stdint.h>
#include <unistd.h>

#include <algorithm>

#include <vesk/Context.h>
#include <vesk/Dispatcher.h>
#include <vesk/Engine.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/Host.h>
#include <vesk/Build.h>
#include <vesk/HttpConnector.h>
#include <vesk/Metrics.h>
#include <vesk/HttpLexer.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/HttpStore.h>
#include <vesk/InetAddress.h>
#include <vesk/InputStream.h>
#include <vesk/Logger.h>
#include <vesk/Mem.h>
#include <vesk/Net.h>
#include <vesk/OutputStream.h>
#include <vesk/Reactor.h>
#include <vesk/SSL.h>
#include <vesk/ServerSocket.h>
#include <vesk/Str.h>
#include <vesk/System.h>
#include <vesk/Time.h>
#include <vesk/assert.h>

#include "ssl/SSLTransport.hpp"
#include "kernel/Context.hpp"

namespace {

// A connection closing behind its answer while the client may still be sending: it is
// half-closed and read until the client closes too. It lives in the connection's arena.
struct Linger {
        InetAddress_T inet;
        EventHandler_T handler;
        int64_t deadline;  // Time_milli when the connection closes, whatever the client does
        long drained;
        Linger* prev;
        Linger* next;
};

// An accepted connection and its Reactor slot, kept until the connection closes.
struct Open {
        InetAddress_T inet;
        EventHandler_T handler;
};

}  // namespace

struct HttpConnector_S {
        int port;
        int secure;
        int ipVersion;
        char* bindAddress;
        int proxyPort;
        char* proxyName;
        char* proxyScheme;
        int redirectPort;
        int enableLookups;
        const char* scheme;
        int processorThreads;
        int processorTimeout;
        int connectionTimeout;  // milliseconds
        int keepAliveTimeout;   // milliseconds
        int keepAliveRequests;
        int contentLengthLimit;
        int contentLengthBufferLimit;
        int strict;
        int maxParameterCount;
        Engine_T engine;
        Reactor_T reactor;
        Dispatcher_T dispatcher;
        ServerSocket_T serverSocket;
        EventHandler_T acceptHandler;
        EventHandler_T responseHandler;
        int responsePipe[2];  // read end, then write end
        int connections;      // accepted and not yet closed; touched on the Reactor thread only
        int busy;             // dispatched and not yet answered in full; Reactor thread only
        int draining;         // stopping: no new connections, none kept alive
        Linger* lingering;    // half-closed connections still read; Reactor thread only
        Open* open;           // by descriptor: the connections a stop must close; Reactor thread
        int openSize;
};

namespace {

// Each read that brings no complete head costs the connection this much of its budget.
constexpr int kHeadReadCost = 1000;
// The longest a TLS handshake may take in all, however its client spaces its bytes, unless
// connectionTimeout is longer still.
constexpr int kHandshakeTime = 10000;
constexpr int kReadSize = 4096;
// Finished answers taken from the response pipe in one read.
constexpr int kResponseBatch = 32;

constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
constexpr int kContinueSize = sizeof kContinue - 1;

// A lingering close ends when the client closes, or at the first of these bounds: a
// silence, a time in all, and the bytes read, which let a 10 MiB upload refused with 413
// be sent in full and its answer be read.
constexpr int kLingerSilence = 5000;    // milliseconds
constexpr int64_t kLingerTime = 30000;  // milliseconds
constexpr long kLingerBytes = 64L << 20;
// Reads of a lingering connection per event, so that one client cannot hold the loop.
constexpr int kLingerReads = 32;
constexpr int kLingerReadSize = 16384;

const char* remote(InetAddress_T inet) {
        return InetAddress_getRemoteHostAddress(inet);
}

// Every connection of the connector ends here, orderly or with a reset.
void closeConnection(InetAddress_T inet, bool reset) {
        HttpConnector_T H = InetAddress_getConnector(inet);
        if (H) {
                H->connections--;
                Metrics_connections(-1);
                int fd = InetAddress_getSocket(inet);
                if (fd >= 0 && fd < H->openSize && H->open[fd].inet == inet)
                        H->open[fd] = {};
        }
        if (HttpRequest_T request = InetAddress_getRequest(inet))
                HttpRequest_end(request);  // a request cut off still gives back its session
        if (reset)
                InetAddress_abort(&inet);
        else
                InetAddress_free(&inet);
}

void _doHandshake(EventHandler_T handler, int revents);
bool awaitHandshake(HttpConnector_T H, EventHandler_T handler, SSL_T ssl);
void _readRequest(EventHandler_T handler, int revents);
void _readNextRequest(EventHandler_T handler, int revents);
void _handlePostData(EventHandler_T handler, int revents);
void _skipBody(EventHandler_T handler, int revents);
void s_endResponse(EventHandler_T handler, int revents);
void _linger(EventHandler_T handler, int revents);

/* ----------------------------------------------------------- Lingering close */

// Closes a lingering connection; its record goes with the connection's arena.
void endLinger(HttpConnector_T H, Linger* L) {
        if (L->prev)
                L->prev->next = L->next;
        else
                H->lingering = L->next;
        if (L->next)
                L->next->prev = L->prev;
        // The watcher goes before the descriptor closes.
        Reactor_removeHandler(H->reactor, L->handler);
        closeConnection(L->inet, false);
}

// Ends a connection whose client may still be sending. Closing a socket with unread bytes
// resets the connection, and the reset destroys an answer the client has not read yet:
// so the sending side is shut down, and what the client still sends is read and dropped
// until it closes its side too, or a bound is reached.
void linger(InetAddress_T inet) {
        HttpConnector_T H = InetAddress_getConnector(inet);
        EventHandler_T handler =
            H ? Reactor_createHandler(H->reactor, InetAddress_getSocket(inet)) : nullptr;
        if (!handler) {
                closeConnection(inet, false);
                return;
        }
        InetAddress_halfClose(inet);
        auto L = static_cast<Linger*>(ARENA_CALLOC(InetAddress_getArena(inet), 1, sizeof(Linger)));
        L->inet = inet;
        L->handler = handler;
        L->deadline = Time_milli() + kLingerTime;
        L->next = H->lingering;
        if (L->next)
                L->next->prev = L;
        H->lingering = L;
        EventHandler_setData(handler, L);
        EventHandler_setHandler(handler, _linger);
        EventHandler_setTimeout(handler, kLingerSilence);
        if (!Reactor_registerHandler(H->reactor, handler, Reactor_Read))
                endLinger(H, L);
}

void _linger(EventHandler_T handler, int revents) {
        Linger* L = static_cast<Linger*>(EventHandler_getData(handler));
        HttpConnector_T H = InetAddress_getConnector(L->inet);
        if (revents != Reactor_Read) {
                endLinger(H, L);  // silence, or an event no lingering connection expects
                return;
        }
        char sink[kLingerReadSize];
        for (int i = 0; i < kLingerReads; i++) {
                errno = 0;
                ssize_t n = Net_read(EventHandler_getHandle(handler), sink, sizeof sink, 0);
                if (n == 0 && errno == EAGAIN)
                        break;
                if (n <= 0 || (L->drained += n) >= kLingerBytes) {
                        endLinger(H, L);
                        return;
                }
        }
        // The handler's timeout counts whole seconds, so less than one left is none left.
        int64_t left = L->deadline - Time_milli();
        if (left < 1000) {
                endLinger(H, L);
                return;
        }
        EventHandler_setTimeout(handler, static_cast<int>(std::min<int64_t>(kLingerSilence, left)));
        if (!Reactor_registerHandler(H->reactor, handler, Reactor_Read))
                endLinger(H, L);
}

// Whether the client has sent more than this connection has read: bytes in the input
// buffer, bytes on the socket, or a body framed by Transfer-Encoding, which is never read
// to its last byte.
bool unreadInput(InetAddress_T inet, HttpRequest_T request) {
        return (request && HttpRequest_containsHeader(request, "Transfer-Encoding")) ||
               InputStream_buffered(InetAddress_getInputStream(inet)) > 0 ||
               Net_canRead(InetAddress_getSocket(inet), 0);
}

// The last resort when no HttpResponse can be used: a complete error page written
// straight to the socket, flushed once, and the connection closed. A HEAD gets the head
// alone, and the message, whatever it holds, is text in the page and not markup.
void _sendError(InetAddress_T inet, int status, const char* format, ...) VESK_PRINTF(3, 4);
void _sendError(InetAddress_T inet, int status, const char* format, ...) {
        const char* reason = HttpResponse_status(status);
        OutputStream_T out = InetAddress_getOutputStream(inet);
        // The page carries its own head: flushing must not commit a response object, and
        // the stream of a HEAD, which drops bodies, must let the head through.
        OutputStream_setResponse(out, nullptr, nullptr);
        OutputStream_setDiscard(out, 0);
        HttpRequest_T request = InetAddress_getRequest(inet);
        bool head = request && HttpRequest_method(request) == HttpRequest_HEAD;
        char date[30];
        Time_gmtstring(Time_now(), date);
        char* message = nullptr;
        if (format) {
                va_list ap;
                va_start(ap, format);
                message = Str_vcat(format, ap);
                va_end(ap);
        }
        const char* text = message ? message : "";
        const char* page = Str_entityify_arena(InetAddress_getArena(inet), text, __func__,
                                               __FILE__, __LINE__);
        OutputStream_print(out,
                           "HTTP/1.1 %d %s\r\nDate: %s\r\nConnection: close\r\nServer: "
                           "Vesk/2.0\r\nContent-Type: text/html\r\n\r\n",
                           status, reason, date);
        if (!head)
                OutputStream_print(out,
                                   "<html>\r\n<head><title>%d %s</title></head>\r\n<body "
                                   "bgcolor=\"white\">\r\n<h2>%s</h2>%s\r\n<hr>Vesk/2.0\r\n</body>"
                                   "\r\n</html>\r\n",
                                   status, reason, reason, page);
        OutputStream_flush(out);
        Error_error("[client %s] HTTP %d %s %s\n", remote(inet), status, reason, text);
        FREE(message);
        // The client may be sending still: a refused upload above all.
        linger(inet);
}

void _awaitAnswer(EventHandler_T handler, int revents);

// Hands a complete request to a processor thread. The connection's watcher stays armed for
// reading meanwhile, with no timeout, so that the event loop tells the kernel nothing for
// the connection until its answer is out and it is re-armed for the next head.
void dispatch(HttpConnector_T H, EventHandler_T handler, InetAddress_T inet,
              HttpRequest_T request) {
        Metrics_queued(1);
        if (!Dispatcher_add(H->dispatcher, request)) {
                Metrics_queued(-1);
                _sendError(inet, 500, "Could not add request to Dispatcher");
                return;
        }
        H->busy++;
        EventHandler_setData(handler, inet);
        EventHandler_setHandler(handler, _awaitAnswer);
        EventHandler_setTimeout(handler, 0);
        Reactor_registerHandler(H->reactor, handler, Reactor_Read);
}

// A raise while a request was processed: logged, and the client answered 500.
void answerRaised(const Exception_Frame& frame, HttpRequest_T req, HttpResponse_T res) {
        const char* name = frame.exception->name;
        Error_error("%s: %s raised in %s at %s:%d when processing URL %s\n", name, frame.message,
                    frame.func, frame.file, frame.line, HttpRequest_getRequestURI(req));
        HttpResponse_sendError(res, 500, "%s: %s. See error log for details", name, frame.message);
}

// A raise while an answer was finalized: logged only, what is buffered still goes out.
void logRaisedAtEnd(const Exception_Frame& frame, HttpRequest_T req) {
        Error_error("%s: %s raised in %s at %s:%d when ending URL %s\n", frame.exception->name,
                    frame.message, frame.func, frame.file, frame.line,
                    HttpRequest_getRequestURI(req));
}

// Answers on the event loop, with no processor thread, a request that the default servlet
// can serve from the file cache at once: the same invoke, finalizing, counting, writing and
// logging as a dispatched request gets, less the two thread switches. A request it cannot
// answer so is left untouched for dispatch. TLS connections always take the usual way.
bool answerOnLoop(HttpConnector_T H, EventHandler_T handler, InetAddress_T inet,
                  HttpRequest_T request) {
        if (InetAddress_getSSL(inet))
                return false;
        HttpResponse_T response = HttpRequest_getResponse(request);
        Context_T context = HttpRequest_getContext(request);
        bool answered = false;
        TRY
                Exception_wrapper(
                    pthread_setspecific(Request_Arena, HttpRequest_getArena(request)));
                answered = Context_invokeCached(context, request, response);
        ELSE
                answerRaised(Exception_frame, request, response);
                answered = true;
        FINALLY
                pthread_setspecific(Request_Arena, nullptr);
        END_TRY;
        if (!answered)
                return false;
        // The answer was built in microseconds; it is counted as a processor thread's would
        // be, from here, so that a request left for dispatch is never counted twice.
        long long started = Metrics_begin();
        TRY
                HttpResponse_finalize(response);
        ELSE
                logRaisedAtEnd(Exception_frame, request);
        END_TRY;
        Metrics_end(request, response, started);
        H->busy++;
        EventHandler_setData(handler, inet);
        EventHandler_setHandler(handler, s_endResponse);
        EventHandler_setTimeout(handler, H->keepAliveTimeout);
        s_endResponse(handler, Reactor_Write);
        return true;
}

// The client sent more, or closed, while its request is processed: nothing is read before
// the answer is out, so the watcher stands down until then.
void _awaitAnswer(EventHandler_T handler, int revents) {
        (void)handler;
        (void)revents;
}

// The watcher of a connection that was armed while its request was processed.
EventHandler_T watcherOf(HttpConnector_T H, InetAddress_T inet) {
        int fd = InetAddress_getSocket(inet);
        if (fd >= 0 && fd < H->openSize && H->open[fd].inet == inet)
                return H->open[fd].handler;
        return nullptr;
}

// A dispatched request is over: its answer went out, or its connection is ending. A stop
// in progress waits for the count to reach zero.
void settle(HttpConnector_T H) {
        H->busy--;
}

/* ------------------------------------------------------------- Accepting */

// Starts TLS on a new connection with the identity of the host bound to the address it
// reached. On false, *refused tells whether the client's first bytes were refused, in which
// case the TLS alert that says why is already on its way.
bool _doSSLAccept(HttpConnector_T H, InetAddress_T inet, bool* refused) {
        *refused = false;
        const char* local = InetAddress_getLocalHostAddress(inet);
        // The TLS identity belongs to the Host bound to the interface the client reached.
        Host_T host = Engine_findHostWithAddress(H->engine, local);
        if (!host) {
                Error_error(
                    "SSL Connector: No host registered to accept secure connection for "
                    "%s.\nPlease set the attributes; address and certificate for the <Host> in "
                    "server.xml\nwhich should process SSL requests directed at this interface\n",
                    local);
                return false;
        }
        bool accepted = false;
        TRY
                Host_SSLAccept(host, inet);
                accepted = true;
        ELSE
                Error_debug("%s: Cannot accept secure connection from [%s] %s\n",
                                 Exception_frame.exception->name, InetAddress_getRemoteHostName(inet),
                                 Exception_frame.message);
                *refused = true;
        END_TRY;
        return accepted;
}

// Arms a new connection for its handshake or its first head; false when the Reactor cannot
// take it.
bool admit(HttpConnector_T H, InetAddress_T inet) {
        EventHandler_T handler = Reactor_createHandler(H->reactor, InetAddress_getSocket(inet));
        if (!handler)
                return false;
        InetAddress_setEnableLookups(inet, H->enableLookups);
        InetAddress_setConnector(inet, H);
        InetAddress_setKeepAliveRequests(inet, H->keepAliveRequests);
        H->connections++;
        Metrics_connections(1);
        int fd = InetAddress_getSocket(inet);
        if (fd < H->openSize)
                H->open[fd] = {inet, handler};
        InetAddress_setNonBlocking(inet);
        EventHandler_setData(handler, inet);
        SSL_T ssl = InetAddress_getSSL(inet);
        if (ssl && SSLTransport_handshaking(ssl))
                return awaitHandshake(H, handler, ssl);
        if (ssl)
                Metrics_tlsHandshake(H, 1);  // a quick client's, done within the accept
        EventHandler_setHandler(handler, _readRequest);
        EventHandler_setTimeout(handler, H->connectionTimeout);
        return Reactor_registerHandler(H->reactor, handler, Reactor_Read);
}

// Takes every pending connection in one readiness event.
void _doAccept(EventHandler_T handler, int revents) {
        (void)revents;
        HttpConnector_T H = static_cast<HttpConnector_T>(EventHandler_getData(handler));
        for (InetAddress_T inet; (inet = Net_accept(H->serverSocket));) {
                bool refused;
                if (H->secure && !_doSSLAccept(H, inet, &refused)) {
                        Metrics_tlsHandshake(H, 0);
                        // A refused handshake closes in order, as it does when the refusal
                        // comes later, so that the client reads the alert rather than a reset.
                        if (refused)
                                InetAddress_free(&inet);
                        else
                                InetAddress_abort(&inet);
                        continue;
                }
                if (!admit(H, inet)) {
                        // A full handler table ends here: the client sees a reset, and the
                        // connections still pending wait for the next event.
                        Error_error("Could not register new connection with Reactor -- %s\n",
                                    System_getLastError());
                        closeConnection(inet, true);
                        return;
                }
        }
}

/* ------------------------------------------------------------ The handshake */

// The handshake runs on a clock of its own, so that a slow link does not spend the budget
// of the request that follows: each wait for the client lasts at most connectionTimeout,
// and all of the handshake ends within kHandshakeTime of the accept (or connectionTimeout,
// if longer), however the client spaces its bytes. The head's budget starts whole after it.
int handshakeTime(HttpConnector_T H) {
        return std::max(H->connectionTimeout, kHandshakeTime);
}

// Arms the handler for the next step of the handshake, in the direction that the TLS layer
// waits for; false when no time is left or the Reactor cannot take it.
bool awaitHandshake(HttpConnector_T H, EventHandler_T handler, SSL_T ssl) {
        int64_t left = SSLTransport_started(ssl) + handshakeTime(H) - Time_milli();
        // The handler's timeout counts whole seconds, so less than one left is none left.
        if (left < 1000)
                return false;
        int64_t wait =
            H->connectionTimeout > 0 ? std::min<int64_t>(H->connectionTimeout, left) : left;
        EventHandler_setHandler(handler, _doHandshake);
        EventHandler_setTimeout(handler, static_cast<int>(wait));
        return Reactor_registerHandler(H->reactor, handler,
                                       SSLTransport_wantsWrite(ssl) ? Reactor_Write : Reactor_Read);
}

void _doHandshake(EventHandler_T handler, int revents) {
        InetAddress_T inet = static_cast<InetAddress_T>(EventHandler_getData(handler));
        HttpConnector_T H = InetAddress_getConnector(inet);
        SSL_T ssl = InetAddress_getSSL(inet);
        int step = -1;
        if (revents == Reactor_Read || revents == Reactor_Write)
                step = SSLTransport_handshake(ssl);
        else if (revents != Reactor_Timeout)
                Error_error("Unexpected event [%d] received in _doHandshake\n", revents);
        if (step == 1) {
                Metrics_tlsHandshake(H, 1);
                EventHandler_setHandler(handler, _readRequest);
                EventHandler_setTimeout(handler, H->connectionTimeout);
                // The head may have come with the handshake's last bytes and now wait in the
                // TLS layer, which the socket does not signal.
                if (SSLTransport_buffered(ssl))
                        _readRequest(handler, Reactor_Read);
                else if (!Reactor_registerHandler(H->reactor, handler, Reactor_Read))
                        _sendError(inet, 500, "Could not register with Reactor");
                return;
        }
        if (step == 0 && awaitHandshake(H, handler, ssl))
                return;
        // No HTTP answer is possible before the handshake is done. A refused handshake is
        // closed in order, so that the client reads the TLS alert that says why, rather
        // than a reset; a client out of time is reset, as for a head.
        bool refused = step < 0 && revents != Reactor_Timeout;
        if (refused)
                Error_debug("[client %s] secure connection closed -- handshake failed\n",
                            remote(inet));
        else
                Error_debug("[client %s] secure connection closed -- handshake took too long\n",
                            remote(inet));
        Metrics_tlsHandshake(H, 0);
        closeConnection(inet, !refused);
}

/* --------------------------------------------------------- Reading a request */

// What the client expects before it sends a body: 1 for "100-continue", 0 for nothing,
// -1 for anything else, which this server cannot meet.
int expectation(HttpRequest_T request) {
        const char** values = HttpRequest_getHeaderValues(request, "Expect");
        if (!values)
                return 0;
        for (; *values; values++)
                if (!Str_isEqual(*values, "100-continue"))
                        return -1;
        return 1;
}

// Ends a body that cannot be read: its store goes first, then the connection.
void dropBody(HttpStore_T store, InetAddress_T inet) {
        if (store)
                HttpStore_destroy(store);
        closeConnection(inet, true);
}

// Writes what is left of the interim "100 Continue"; the handler's state counts what has
// gone out. Straight to the socket, as the output stream would put a response head in
// front of it. 1 when all of it is out (the state is 0 again), 0 when the handler now
// waits to write the rest, -1 when the connection failed and is gone (with store, if
// any).
int sendContinue(EventHandler_T handler, InetAddress_T inet, HttpStore_T store) {
        SSL_T ssl = InetAddress_getSSL(inet);
        int sent = EventHandler_getState(handler);
        while (sent < kContinueSize) {
                errno = 0;
                int n =
                    ssl ? SSLTransport_write(ssl, kContinue + sent, kContinueSize - sent, 0)
                        : static_cast<int>(Net_write(InetAddress_getSocket(inet), kContinue + sent,
                                                     static_cast<size_t>(kContinueSize - sent), 0));
                if (n == 0 && errno == EAGAIN) {
                        EventHandler_setState(handler, sent);
                        if (Reactor_registerHandler(InetAddress_getConnector(inet)->reactor,
                                                    handler, Reactor_Write))
                                return 0;
                }
                if (n <= 0) {
                        Error_debug(
                            "[client %s] could not send 100 Continue -- connection was "
                            "closed\n",
                            remote(inet));
                        dropBody(store, inet);
                        return -1;
                }
                sent += n;
        }
        EventHandler_setState(handler, 0);
        return 1;
}

// The socket took more of the interim answer: once all of it is out, the body is awaited.
void continueBody(EventHandler_T handler, InetAddress_T inet, HttpStore_T store) {
        if (sendContinue(handler, inet, store) > 0 &&
            !Reactor_registerHandler(InetAddress_getConnector(inet)->reactor, handler,
                                     Reactor_Read)) {
                if (store)
                        HttpStore_destroy(store);
                _sendError(inet, 500, "Could not register with Reactor");
        }
}

void _readRequest(EventHandler_T handler, int revents) {
        InetAddress_T inet = static_cast<InetAddress_T>(EventHandler_getData(handler));
        HttpConnector_T H = InetAddress_getConnector(inet);
        if (revents != Reactor_Read) {
                if (revents == Reactor_Timeout) {
                        // Silence before any request is answered; silence after one is the
                        // normal end of keep-alive. Until the first, the connection's counter
                        // still holds all of its requests.
                        if (InetAddress_getKeepAlive(inet) == H->keepAliveRequests) {
                                _sendError(inet, 408, nullptr);
                                return;
                        }
                } else {
                        Error_error("Unexpected event [%d] received in _readRequest\n", revents);
                }
                closeConnection(inet, true);
                return;
        }
        char* buffer = nullptr;
        int n = InputStream_hasRequest(InetAddress_getInputStream(inet), &buffer);
        if (n == -1) {
                closeConnection(inet, false);
                return;
        }
        if (n == 0) {
                // Every incomplete read costs a second, however long the client took, so a
                // client trickling its head gets a bounded number of events. A handler
                // without a timeout has no budget to spend.
                int budget = EventHandler_getTimeout(handler);
                if (budget > 0) {
                        budget -= kHeadReadCost;
                        if (budget < 1) {
                                Error_debug(
                                    "[client %s] read request timed out -- partial or "
                                    "no request received\n",
                                    remote(inet));
                                closeConnection(inet, true);
                                return;
                        }
                        EventHandler_setTimeout(handler, budget);
                }
                if (!Reactor_registerHandler(H->reactor, handler, Reactor_Read))
                        _sendError(inet, 500, "Could not register with Reactor");
                return;
        }
        if (n == -2) {
                _sendError(inet, 400, "Request too large");
                return;
        }
        HttpRequest_T request = HttpRequest_new(InetAddress_getArena(inet));
        struct HttpLexer_S parser;
        memset(&parser, 0, sizeof parser);
        parser.status = 200;
        parser.request = request;
        parser.inet = inet;
        parser.cursor = buffer;
        parser.limit = buffer + n;
        int status = HttpLexer_parse(&parser);
        if (status != 200) {
                _sendError(inet, status, "%s", parser.message);
                return;
        }
        Context_T context = Engine_map(H->engine, request);
        if (!context) {
                _sendError(inet, 404, "No Context found");
                return;
        }
        // After the mapping, so that the virtual host is chosen from what the client sent.
        if (H->proxyScheme)
                HttpRequest_setScheme(request, H->proxyScheme);
        if (H->proxyName)
                HttpRequest_setServerName(request, H->proxyName);
        if (H->proxyPort > 0)
                HttpRequest_setServerPort(request, H->proxyPort);
        HttpRequest_setContext(request, context);
        HttpResponse_setContext(parser.response, context);
        int expects = expectation(request);
        if (expects < 0) {
                _sendError(inet, 417, "Only 100-continue can be expected");
                return;
        }
        // The interim answer goes only to a client that waits for it: one whose body has
        // not begun to arrive.
        bool interim =
            expects && parser.http11 && InputStream_buffered(InetAddress_getInputStream(inet)) == 0;
        if (parser.hasBody) {
                HttpStore_T store = HttpStore_alloc(inet, parser.contentKind, parser.contentLength,
                                                    H->contentLengthBufferLimit,
                                                    HttpRequest_getContentEncoding(request));
                if (!store) {
                        _sendError(inet, 500, "Cannot process POST data");
                        return;
                }
                EventHandler_setData(handler, store);
                EventHandler_setHandler(handler, _handlePostData);
                EventHandler_setTimeout(handler, H->connectionTimeout);
                if (interim && sendContinue(handler, inet, store) < 1)
                        return;
                // Body bytes may already sit in the input buffer behind the head.
                _handlePostData(handler, Reactor_Read);
                return;
        }
        // A body on a method that takes none is read all the same, and dropped, so that
        // none of its bytes can pass for the next request on the connection.
        if (parser.hasContentLength && parser.contentLength > 0) {
                EventHandler_setData(handler, inet);
                EventHandler_setHandler(handler, _skipBody);
                EventHandler_setTimeout(handler, H->connectionTimeout);
                if (interim && sendContinue(handler, inet, nullptr) < 1)
                        return;
                _skipBody(handler, Reactor_Read);
                return;
        }
        if (answerOnLoop(H, handler, inet, request))
                return;
        dispatch(H, handler, inet, request);
}

// A kept-alive connection is idle until its client sends again or the wait ends; from
// then on it reads as a new one does.
void _readNextRequest(EventHandler_T handler, int revents) {
        Metrics_idleConnections(-1);
        EventHandler_setHandler(handler, _readRequest);
        _readRequest(handler, revents);
}

void _handlePostData(EventHandler_T handler, int revents) {
        HttpStore_T store = static_cast<HttpStore_T>(EventHandler_getData(handler));
        InetAddress_T inet = HttpStore_getInetAddress(store);
        HttpConnector_T H = InetAddress_getConnector(inet);
        if (revents == Reactor_Timeout) {
                Error_error("[client %s] could not read request body -- read timed out\n",
                            remote(inet));
                dropBody(store, inet);
                return;
        }
        if (revents == Reactor_Write) {
                continueBody(handler, inet, store);
                return;
        }
        if (revents != Reactor_Read) {
                Error_error("Unexpected event [%d] received in _handlePostData\n", revents);
                dropBody(store, inet);
                return;
        }
        HttpRequest_T request = InetAddress_getRequest(inet);
        InputStream_T in = InetAddress_getInputStream(inet);
        long length = HttpRequest_getContentLength(request);
        char buffer[kReadSize + 1] = {};
        for (;;) {
                int n = InputStream_readBytes(in, buffer, kReadSize);
                if (n < 0) {
                        Error_error("[client %s] could not read request body -- network error\n",
                                    remote(inet));
                        dropBody(store, inet);
                        return;
                }
                if (n == 0 && Inputstream_peerClosed(in)) {
                        Error_error(
                            "[client %s] could not read request body -- peer closed "
                            "connection\n",
                            remote(inet));
                        dropBody(store, inet);
                        return;
                }
                if (!HttpStore_write(store, buffer, n)) {
                        Error_error(
                            "[client %s] could not process request body -- store write "
                            "error\n",
                            remote(inet));
                        dropBody(store, inet);
                        return;
                }
                // A gzip body is counted by the compressed bytes that arrived.
                long uploaded = HttpStore_getUploadedDataSize(store);
                if (uploaded >= length) {
                        HttpStore_close(store);
                        HttpRequest_setStore(request, store);
                        dispatch(H, handler, inet, request);
                        return;
                }
                if (length > uploaded + InputStream_buffered(in)) {
                        // Each wait for more of the body gets the full timeout again, so a
                        // client that keeps sending is never timed out.
                        if (!Reactor_registerHandler(H->reactor, handler, Reactor_Read)) {
                                HttpStore_destroy(store);
                                _sendError(inet, 500, "Could not register with Reactor");
                        }
                        return;
                }
        }
}

// Reads a body that no servlet will see, on a method that takes none, and drops it. The
// handler's data is the connection and its state counts the bytes read.
void _skipBody(EventHandler_T handler, int revents) {
        InetAddress_T inet = static_cast<InetAddress_T>(EventHandler_getData(handler));
        HttpConnector_T H = InetAddress_getConnector(inet);
        if (revents == Reactor_Timeout) {
                Error_error("[client %s] could not read request body -- read timed out\n",
                            remote(inet));
                closeConnection(inet, true);
                return;
        }
        if (revents == Reactor_Write) {
                continueBody(handler, inet, nullptr);
                return;
        }
        if (revents != Reactor_Read) {
                Error_error("Unexpected event [%d] received in _skipBody\n", revents);
                closeConnection(inet, true);
                return;
        }
        HttpRequest_T request = InetAddress_getRequest(inet);
        InputStream_T in = InetAddress_getInputStream(inet);
        int length = HttpRequest_getContentLength(request);
        char buffer[kReadSize];
        for (;;) {
                int skipped = EventHandler_getState(handler);
                // Never past the body: what follows it belongs to no request.
                int want = std::min(length - skipped, kReadSize);
                int n = InputStream_readBytes(in, buffer, want);
                if (n < 0) {
                        Error_error("[client %s] could not read request body -- network error\n",
                                    remote(inet));
                        closeConnection(inet, true);
                        return;
                }
                skipped += n;
                EventHandler_setState(handler, skipped);
                if (skipped >= length) {
                        EventHandler_setState(handler, 0);
                        dispatch(H, handler, inet, request);
                        return;
                }
                if (n < want) {
                        // The stream ran dry: the rest must come from the network.
                        if (Inputstream_peerClosed(in)) {
                                Error_error(
                                    "[client %s] could not read request body -- peer closed "
                                    "connection\n",
                                    remote(inet));
                                closeConnection(inet, true);
                        } else if (!Reactor_registerHandler(H->reactor, handler, Reactor_Read)) {
                                _sendError(inet, 500, "Could not register with Reactor");
                        }
                        return;
                }
        }
}

/* ------------------------------------------------------------- Processing */

// Runs on a processor thread from Dispatcher_add until the pointer is in the pipe.
void process(HttpRequest_T req, HttpResponse_T response, InetAddress_T inet, Context_T context) {
        TRY
                Exception_wrapper(pthread_setspecific((Request_Arena), (HttpRequest_getArena(req))));
                int parsed = HttpRequest_parseStore(req);
                InetAddress_setBlocking(inet);
                if (parsed == 0)
                        Context_invoke(context, req, response);
                else
                        HttpResponse_sendError(response, 400, "Too many parameters");
        ELSE
                answerRaised(Exception_frame, req, response);
        FINALLY
                pthread_setspecific(Request_Arena, nullptr);
                SSLThreadCleanup();
                HttpResponse_finalize(response);
                InetAddress_setNonBlocking(inet);
        END_TRY;
}

void Processor_Thread(void* item) {
        HttpRequest_T req = static_cast<HttpRequest_T>(item);
        HttpConnector_T H = HttpRequest_getConnector(req);
        InetAddress_T inet = HttpRequest_getInetAddress(req);
        Context_T context = HttpRequest_getContext(req);
        HttpResponse_T response = HttpRequest_getResponse(req);
        Metrics_queued(-1);
        long long started = Metrics_begin();
        // Whatever happened, the connection goes back to the Reactor thread: a raise from
        // the error page or the finalizing itself is logged, and what is buffered goes out.
        TRY
                process(req, response, inet, context);
        ELSE
                logRaisedAtEnd(Exception_frame, req);
        END_TRY;
        Metrics_end(req, response, started);
        ssize_t n;
        do
                n = write(H->responsePipe[1], &inet, sizeof inet);
        while (n < 0 && errno == EINTR);
        if (n < 1)
                Error_debug("Failed writing to Response Pipe\n");
}

/* ------------------------------------------------------ Ending a response */

// Sends the answer a processor thread finished for inet.
void endProcessed(HttpConnector_T H, InetAddress_T inet) {
        // Disarmed and armed again in this callback, the watcher costs the loop no call
        // to the kernel, as long as the answer goes out at once.
        EventHandler_T writer = watcherOf(H, inet);
        if (writer)
                Reactor_removeHandler(H->reactor, writer);
        else
                writer = Reactor_createHandler(H->reactor, InetAddress_getSocket(inet));
        if (!writer) {
                settle(H);
                _sendError(inet, 500, "Could not create a new write handler");
                return;
        }
        EventHandler_setData(writer, inet);
        EventHandler_setHandler(writer, s_endResponse);
        EventHandler_setTimeout(writer, H->keepAliveTimeout);
        // The connection sat idle while its request was processed, so its socket almost
        // always takes the answer now: write at once, and wait for the socket only for
        // what it did not take.
        s_endResponse(writer, Reactor_Write);
}

void _processResponse(EventHandler_T handler, int revents) {
        (void)revents;
        HttpConnector_T H = static_cast<HttpConnector_T>(EventHandler_getData(handler));
        // Every write to the pipe is one pointer, which a pipe passes whole, so a read takes
        // whole pointers only: as many as have come, up to a batch, for one wake-up of the
        // loop. The level-triggered watcher fires again while more are waiting.
        InetAddress_T done[kResponseBatch];
        ssize_t n;
        do
                n = read(H->responsePipe[0], done, sizeof done);
        while (n < 0 && errno == EINTR);
        if (n < 1) {
                Error_debug("Failed reading from Response Pipe\n");
                return;
        }
        for (size_t i = 0; i < static_cast<size_t>(n) / sizeof done[0]; i++)
                endProcessed(H, done[i]);
}

// A field of the access line between double quotes, with the quote and the backslash
// written as \xHH, so that what the client sent cannot close the field early. The logger
// writes control bytes so.
const char* quoted(Arena_T arena, const char* s) {
        if (!s)
                return "-";
        if (!strpbrk(s, "\"\\"))
                return s;
        char* q = static_cast<char*>(ARENA_ALLOC(arena, static_cast<int>(4 * strlen(s) + 1)));
        char* w = q;
        for (; *s; s++) {
                if (*s == '"' || *s == '\\')
                        w += sprintf(w, "\\x%02X", static_cast<unsigned char>(*s));
                else
                        *w++ = *s;
        }
        *w = 0;
        return q;
}

// One line in the combined log format, written once the response has gone out in full.
void accessLog(Logger_T log, InetAddress_T inet, HttpRequest_T req, HttpResponse_T res) {
        char date[256];
        Time_fmt(date, sizeof date, "[%d/%b/%Y:%H:%M:%S %z]", Time_now());
        Arena_T arena = InetAddress_getArena(inet);
        const char* user = HttpRequest_getRemoteUser(req);
        Logger_flog(log, "%s - %s %s \"%s %s %s\" %d %lld \"%s\" \"%s\"\n",
                    InetAddress_getRemoteHostName(inet), user ? user : "-", date,
                    HttpRequest_getMethod(req), quoted(arena, HttpRequest_getRequestURI(req)),
                    HttpRequest_getProtocol(req), HttpResponse_getStatus(res),
                    HttpResponse_getBytesWritten(res),
                    quoted(arena, HttpRequest_getHeader(req, "Referer")),
                    quoted(arena, HttpRequest_getHeader(req, "User-Agent")));
}

void s_endResponse(EventHandler_T handler, int revents) {
        InetAddress_T inet = static_cast<InetAddress_T>(EventHandler_getData(handler));
        HttpConnector_T H = InetAddress_getConnector(inet);
        if (revents == Reactor_Write) {
                OutputStream_T out = InetAddress_getOutputStream(inet);
                if (OutputStream_flush(out) < 0) {
                        Error_debug(
                            "[client %s] could not send full response -- connection "
                            "was closed\n",
                            remote(inet));
                        settle(H);
                        closeConnection(inet, true);
                        return;
                }
                if (OutputStream_buffered(out) != 0) {
                        if (!Reactor_registerHandler(H->reactor, handler, Reactor_Write)) {
                                settle(H);
                                _sendError(inet, 500, "Could not register with Reactor");
                        }
                        return;
                }
        } else {
                if (revents == Reactor_Timeout)
                        Error_error(
                            "[client %s] could not send a full response -- write timed "
                            "out\n",
                            remote(inet));
                else
                        Error_error("Unexpected event [%d] received in s_endResponse\n", revents);
                settle(H);
                closeConnection(inet, true);
                return;
        }
        settle(H);
        HttpRequest_T request = InetAddress_getRequest(inet);
        HttpResponse_T response = InetAddress_getResponse(inet);
        Logger_T log = Host_getAccessLogger(Context_getHost(HttpResponse_getContext(response)));
        if (log)
                accessLog(log, inet, request, response);
        Metrics_responseSent(response);
        HttpRequest_end(request);
        if (!HttpResponse_getKeepAlive(response) || H->draining) {
                if (unreadInput(inet, request))
                        linger(inet);
                else
                        closeConnection(inet, false);
                return;
        }
        // Bytes the client sent behind this request are dropped here: no pipelining.
        InetAddress_release(inet);
        EventHandler_setData(handler, inet);
        EventHandler_setTimeout(handler, H->keepAliveTimeout);
        EventHandler_setHandler(handler, _readNextRequest);
        if (!Reactor_registerHandler(H->reactor, handler, Reactor_Read)) {
                Error_error("Could not register keep-alive connection from [%s] with Reactor\n",
                            remote(inet));
                closeConnection(inet, true);
                return;
        }
        Metrics_idleConnections(1);
}

/* ---------------------------------------------------------------- Start */

void _createResponsePipe(HttpConnector_T H) {
        if (pipe2(H->responsePipe, O_CLOEXEC) != 0)
                THROW(IOException, "Cannot create response pipeline -- %s\n",
                      System_getLastError());
        // Read only when readable, and drained at stop without waiting.
        fcntl(H->responsePipe[0], F_SETFL, fcntl(H->responsePipe[0], F_GETFL) | O_NONBLOCK);
}

void closeResponsePipe(HttpConnector_T H) {
        for (int i = 1; i >= 0; i--) {
                if (H->responsePipe[i] >= 0)
                        close(H->responsePipe[i]);
                H->responsePipe[i] = -1;
        }
}

// A persistent handler without timeout, above the connections' priority, so that finished
// work and new connections are seen before more requests are read.
EventHandler_T persistentHandler(HttpConnector_T H, int fd, void (*callback)(EventHandler_T, int)) {
        EventHandler_T handler = Reactor_createHandler(H->reactor, fd);
        if (handler) {
                EventHandler_setData(handler, H);
                EventHandler_setTimeout(handler, 0);
                EventHandler_setPersistent(handler, 1);
                EventHandler_setPriority(handler, 1);
                EventHandler_setHandler(handler, callback);
        }
        return handler;
}

void _startProcess(HttpConnector_T H) {
        H->responseHandler = persistentHandler(H, H->responsePipe[0], _processResponse);
        assert(H->responseHandler);
        if (!Reactor_registerHandler(H->reactor, H->responseHandler, Reactor_Read))
                THROW(AssertException, "Could not register response handler");
        H->acceptHandler = persistentHandler(H, ServerSocket_getSocket(H->serverSocket), _doAccept);
        assert(H->acceptHandler);
        if (!Reactor_registerHandler(H->reactor, H->acceptHandler, Reactor_Read))
                THROW(AssertException, "Could not register accept handler");
}

// Connections whose answer is still in the pipe at stop are closed, so that no body file
// outlives the server.
void drainResponsePipe(HttpConnector_T H) {
        InetAddress_T inet;
        while (read(H->responsePipe[0], &inet, sizeof inet) == sizeof inet) {
                HttpRequest_T request = InetAddress_getRequest(inet);
                if (request)
                        HttpRequest_end(request);
                if (EventHandler_T handler = watcherOf(H, inet))
                        Reactor_removeHandler(H->reactor, handler);
                closeConnection(inet, true);
        }
}

// Connections still open once the processor threads are gone and the lingering ones are
// closed: idle between requests, or in the middle of a head or a body. A stop closes them
// rather than leave them to the process's end, as a server inside a longer-lived process
// would leak their memory and descriptors.
void closeOpenConnections(HttpConnector_T H) {
        for (int fd = 0; fd < H->openSize; fd++) {
                Open o = H->open[fd];
                if (!o.inet)
                        continue;
                void* data = EventHandler_getData(o.handler);
                Reactor_removeHandler(H->reactor, o.handler);
                // A connection reading a body holds its store as the handler's data.
                if (data && data != o.inet)
                        HttpStore_destroy(static_cast<HttpStore_T>(data));
                closeConnection(o.inet, true);
        }
}

char* copy(const char* s) {
        return s ? Str_dup(s) : nullptr;
}

// Timeouts are set in seconds and kept in milliseconds; one past what fits is as good as
// none.
int milliseconds(int seconds) {
        return seconds > INT_MAX / 1000 ? INT_MAX / 1000 * 1000 : seconds * 1000;
}

}  // namespace

/* --------------------------------------------------------------- Public */

HttpConnector_T HttpConnector_new(void) {
        HttpConnector_T H;
        NEW0(H);
        H->port = 8080;
        H->ipVersion = 4;
        H->scheme = "http";
        H->processorThreads = 128;
        H->processorTimeout = 30;
        H->connectionTimeout = 30000;
        H->contentLengthLimit = HTTPCONNECTOR_CONTENT_LENGTH_LIMIT;
        H->contentLengthBufferLimit = 32768;
        H->maxParameterCount = HTTPCONNECTOR_MAX_PARAMETER_COUNT;
        H->keepAliveRequests = HTTPCONNECTOR_KEEP_ALIVE_REQUESTS;
        H->keepAliveTimeout = milliseconds(HTTPCONNECTOR_KEEP_ALIVE_TIMEOUT);
        H->reactor = Reactor_getInstance();
        H->responsePipe[0] = H->responsePipe[1] = -1;
        return H;
}

void HttpConnector_free(HttpConnector_T* H) {
        assert(H && *H);
        HttpConnector_T C = *H;
        if (C->serverSocket)
                ServerSocket_free(&C->serverSocket);
        if (C->dispatcher)
                Dispatcher_free(&C->dispatcher);
        closeResponsePipe(C);
        FREE(C->open);
        FREE(C->proxyScheme);
        FREE(C->proxyName);
        FREE(C->bindAddress);
        FREE(*H);
}

void HttpConnector_start(HttpConnector_T H) {
        assert(H);
        Error_debug(
            "Starting IPv%d Connector with scheme '%s' at %s:%d with %d processor threads\n",
            H->ipVersion, H->scheme, H->bindAddress ? H->bindAddress : "*", H->port,
            H->processorThreads);
        if (H->serverSocket)
                ServerSocket_free(&H->serverSocket);  // left closed by an earlier stop
        if (!H->dispatcher)
                H->dispatcher =
                    Dispatcher_new(H->processorThreads, H->processorTimeout, Processor_Thread);
        if (H->responsePipe[0] < 0)
                _createResponsePipe(H);
        if (!H->open) {
                H->openSize = Reactor_getConcurrency(H->reactor);
                H->open = static_cast<Open*>(CALLOC(H->openSize, sizeof(Open)));
        }
        H->serverSocket = ServerSocket_new(H->port, H->bindAddress, H->ipVersion);
        // With port 0 the system picked one; the connector reports where it listens.
        H->port = ServerSocket_getPort(H->serverSocket);
        ServerSocket_setConnectionTimeout(H->serverSocket, H->connectionTimeout);
        ServerSocket_setSecure(H->serverSocket, H->secure);
        _startProcess(H);
}

void HttpConnector_stop(HttpConnector_T H) {
        assert(H);
        Error_debug("Stopping IPv%d Connector with scheme '%s' at %s:%d\n", H->ipVersion, H->scheme,
                    H->bindAddress ? H->bindAddress : "*", H->port);
        // The watchers go before their descriptors close: the event loop must never be left
        // watching a closed descriptor whose number the next socket may get.
        if (H->acceptHandler)
                Reactor_removeHandler(H->reactor, H->acceptHandler);
        if (H->responseHandler)
                Reactor_removeHandler(H->reactor, H->responseHandler);
        H->acceptHandler = H->responseHandler = nullptr;
        if (H->serverSocket)
                ServerSocket_close(H->serverSocket);
        if (H->dispatcher)
                Dispatcher_free(&H->dispatcher);
        if (H->responsePipe[0] >= 0)
                drainResponsePipe(H);
        closeResponsePipe(H);
        // Their answers are out: a stop does not wait for clients that keep sending.
        while (H->lingering)
                endLinger(H, H->lingering);
        closeOpenConnections(H);
        H->busy = 0;
        H->draining = 0;
        Error_debug("Connector stopped\n");
}

void HttpConnector_quiesce(HttpConnector_T H) {
        assert(H);
        if (H->acceptHandler)
                Reactor_removeHandler(H->reactor, H->acceptHandler);
        H->acceptHandler = nullptr;
        if (H->serverSocket)
                ServerSocket_close(H->serverSocket);
        H->draining = 1;
}

int HttpConnector_getConnections(HttpConnector_T H) {
        assert(H);
        return H->connections;
}

int HttpConnector_getBusy(HttpConnector_T H) {
        assert(H);
        return H->busy;
}

void HttpConnector_setPort(HttpConnector_T H, int port) {
        assert(H);
        assert(port >= 0);
        H->port = port;
}

int HttpConnector_getPort(HttpConnector_T H) {
        assert(H);
        return H->port;
}

void HttpConnector_setSecure(HttpConnector_T H, int secure) {
        assert(H);
        H->secure = secure ? 1 : 0;
        H->scheme = secure ? "https" : "http";
}

int HttpConnector_getSecure(HttpConnector_T H) {
        assert(H);
        return H->secure;
}

const char* HttpConnector_getScheme(HttpConnector_T H) {
        assert(H);
        return H->scheme;
}

void HttpConnector_setIPVersion(HttpConnector_T H, int ipVersion) {
        assert(H);
        assert(ipVersion == 4 || ipVersion == 6);
        H->ipVersion = ipVersion;
}

int HttpConnector_getIPVersion(HttpConnector_T H) {
        assert(H);
        return H->ipVersion;
}

void HttpConnector_setBindAddress(HttpConnector_T H, const char* bindAddress) {
        assert(H);
        FREE(H->bindAddress);
        H->bindAddress = Str_isEqual(bindAddress, "*") ? nullptr : copy(bindAddress);
}

const char* HttpConnector_getBindAddress(HttpConnector_T H) {
        assert(H);
        return H->bindAddress;
}

void HttpConnector_setProxyName(HttpConnector_T H, const char* proxyName) {
        assert(H);
        FREE(H->proxyName);
        H->proxyName = copy(proxyName);
}

const char* HttpConnector_getProxyName(HttpConnector_T H) {
        assert(H);
        return H->proxyName;
}

void HttpConnector_setProxyScheme(HttpConnector_T H, const char* proxyScheme) {
        assert(H);
        FREE(H->proxyScheme);
        H->proxyScheme = copy(proxyScheme);
}

const char* HttpConnector_getProxyScheme(HttpConnector_T H) {
        assert(H);
        return H->proxyScheme;
}

void HttpConnector_setProxyPort(HttpConnector_T H, int proxyPort) {
        assert(H);
        assert(proxyPort >= 0);
        H->proxyPort = proxyPort;
}

int HttpConnector_getProxyPort(HttpConnector_T H) {
        assert(H);
        return H->proxyPort;
}

void HttpConnector_setRedirectPort(HttpConnector_T H, int redirectPort) {
        assert(H);
        assert(redirectPort >= 0);
        H->redirectPort = redirectPort;
}

int HttpConnector_getRedirectPort(HttpConnector_T H) {
        assert(H);
        return H->redirectPort;
}

void HttpConnector_setEnableLookups(HttpConnector_T H, int enableLookups) {
        assert(H);
        H->enableLookups = enableLookups ? 1 : 0;
}

int HttpConnector_getEnableLookups(HttpConnector_T H) {
        assert(H);
        return H->enableLookups;
}

void HttpConnector_setProcessorThreads(HttpConnector_T H, int processors) {
        assert(H);
        assert(processors > 0);
        H->processorThreads = processors;
}

int HttpConnector_getProcessorThreads(HttpConnector_T H) {
        assert(H);
        return H->processorThreads;
}

void HttpConnector_setProcessorTimeout(HttpConnector_T H, int timeout) {
        assert(H);
        assert(timeout >= 0);
        H->processorTimeout = timeout;
}

int HttpConnector_getProcessorTimeout(HttpConnector_T H) {
        assert(H);
        return H->processorTimeout;
}

void HttpConnector_setConnectionTimeout(HttpConnector_T H, int timeout) {
        assert(H);
        assert(timeout >= 0);
        H->connectionTimeout = milliseconds(timeout);
}

int HttpConnector_getConnectionTimeout(HttpConnector_T H) {
        assert(H);
        return H->connectionTimeout / 1000;
}

void HttpConnector_setContentLengthLimit(HttpConnector_T H, int limit) {
        assert(H);
        assert(limit >= 0);
        H->contentLengthLimit = limit;
}

int HttpConnector_getContentLengthLimit(HttpConnector_T H) {
        assert(H);
        return H->contentLengthLimit;
}

void HttpConnector_setContentLengthBufferLimit(HttpConnector_T H, int limit) {
        assert(H);
        assert(limit >= 0);
        H->contentLengthBufferLimit = limit;
}

int HttpConnector_getContentLengthBufferLimit(HttpConnector_T H) {
        assert(H);
        return H->contentLengthBufferLimit;
}

void HttpConnector_setStrict(HttpConnector_T H, int strict) {
        assert(H);
        H->strict = strict != 0;
}

int HttpConnector_getStrict(HttpConnector_T H) {
        assert(H);
        return H->strict;
}

void HttpConnector_setMaxParameterCount(HttpConnector_T H, int count) {
        assert(H);
        H->maxParameterCount = count < 0 ? -1 : count;
}

int HttpConnector_getMaxParameterCount(HttpConnector_T H) {
        assert(H);
        return H->maxParameterCount;
}

void HttpConnector_setKeepAliveRequests(HttpConnector_T H, int requests) {
        assert(H);
        assert(requests > 0);
        H->keepAliveRequests = requests;
}

int HttpConnector_getKeepAliveRequests(HttpConnector_T H) {
        assert(H);
        return H->keepAliveRequests;
}

void HttpConnector_setKeepAliveTimeout(HttpConnector_T H, int timeout) {
        assert(H);
        assert(timeout > 0);
        H->keepAliveTimeout = milliseconds(timeout);
}

int HttpConnector_getKeepAliveTimeout(HttpConnector_T H) {
        assert(H);
        return H->keepAliveTimeout / 1000;
}

void HttpConnector_setEngine(HttpConnector_T H, Engine_T engine) {
        assert(H);
        H->engine = engine;
}

Engine_T HttpConnector_getEngine(HttpConnector_T H) {
        assert(H);
        return H->engine;
}
