/*
 * Metrics: the server's numbers in the Prometheus text exposition format, for a scraper
 * to graph and alert on.
 *
 * Off until Metrics_configure; then every request a processor thread serves is counted
 * by host, context, servlet, method and status class, and timed, with atomic counters
 * and no lock on the request path (a lock is taken once per new series only). The
 * endpoint answers GET at the configured path to the listed client addresses, and 403
 * to every other client.
 *
 * The modules that serve call the counting operations below at one point each; while
 * metrics are off each of them costs a test of one flag.
 */
#ifndef VESK_METRICS_INCLUDED
#define VESK_METRICS_INCLUDED

#include <vesk/Export.h>
#include <vesk/File.h>
#include <vesk/HttpConnector.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>

VESK_BEGIN_DECLS

/* Turns the counting and the endpoint on: path (starting with "/"), the client addresses
   allowed (separated by blanks or commas) and the local port it answers on (0: every
   connector). Raises AssertException on a bad path or an empty list. */
VESK_API void Metrics_configure(const char* path, const char* allow, int port);
/* Turns counting and the endpoint off, and forgets every count. */
VESK_API void Metrics_reset(void);
/* Whether Metrics_configure turned metrics on. */
VESK_API int Metrics_isEnabled(void);
/* Marks a processor thread busy; the start time to give Metrics_end, 0 when off. */
VESK_API long long Metrics_begin(void);
/* Counts req, answered by res, started at started (from Metrics_begin). */
VESK_API void Metrics_end(HttpRequest_T req, HttpResponse_T res, long long started);
/* Counts the body bytes of res, which has gone out in full. */
VESK_API void Metrics_responseSent(HttpResponse_T res);
/* Counts connections opened (delta 1) and closed (delta -1). */
VESK_API void Metrics_connections(int delta);
/* Counts kept-alive connections that begin (delta 1) or end (delta -1) waiting for their
   next request. */
VESK_API void Metrics_idleConnections(int delta);
/* Counts requests that join (delta 1) or leave (delta -1) the queue of a connector's
   processor threads. */
VESK_API void Metrics_queued(int delta);
/* Counts a FileCache lookup that found the form asked for mapped (hit 1) or not (hit 0). */
VESK_API void Metrics_fileCacheLookup(int hit);
/* Counts a response answered from map: a gzip form served when map is compressed. */
VESK_API void Metrics_fileServed(FileMap_T map);
/* Counts a TLS handshake on connector, completed (1) or failed (0). */
VESK_API void Metrics_tlsHandshake(HttpConnector_T connector, int completed);
/* Whether req asks for the endpoint. */
VESK_API int Metrics_isEndpoint(HttpRequest_T req);
/* Answers req with the exposition, or 403 for a client not allowed. */
VESK_API void Metrics_serve(HttpRequest_T req, HttpResponse_T res);
/* The exposition now, as heap text for the caller to FREE. */
VESK_API char* Metrics_text(void);

VESK_END_DECLS

#endif
