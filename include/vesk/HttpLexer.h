/*
 * HttpLexer: the request head, the form body and the multipart body, scanned in place.
 *
 * HttpLexer_parse reads a complete request head between cursor and limit of the
 * caller's record, fills the request, creates and wires the response and returns 200;
 * or returns the status to answer with and leaves a message (possibly empty) in the
 * record. It writes NUL bytes into the head and copies text only into the request.
 * The caller sets status to 200 and sets request, inet, cursor and limit; the rest is
 * the lexer's. The url-encoded and multipart scanners add parameters or parts to the
 * request and write into their buffer, which must hold one writable byte behind its
 * length. None of them keeps state between calls.
 *
 * A connector with strict set holds the head to the standard's rules where the lexer is
 * otherwise lenient. Without a connector (a bare connection) the lexer is lenient and a
 * request may carry HTTPCONNECTOR_MAX_PARAMETER_COUNT parameters.
 */
#ifndef VESK_HTTPLEXER_INCLUDED
#define VESK_HTTPLEXER_INCLUDED

#include <vesk/Export.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/InetAddress.h>

VESK_BEGIN_DECLS

/* Size of the error text in the record. */
#define HTTPLEXER_MESSAGE_SIZE 1024

/* The parser record, on the caller's stack for one head. */
typedef struct HttpLexer_S {
        int status;              /* caller: 200; the result */
        int http11;              /* protocol is HTTP/1.1 */
        int keepAlive;           /* the client asks to keep the connection */
        int port;                /* from the "Host" header */
        const char* host;        /* set once a "Host" header was seen */
        const char* contentType; /* "Content-Type" */
        long contentLength;      /* "Content-Length" */
        int hasContentLength;
        int hasBody;                          /* a body is to be read into a store */
        int method;                           /* 0 GET .. 6 OPTIONS */
        HttpRequest_T request;                /* caller */
        HttpResponse_T response;              /* made at the end of the head */
        InetAddress_T inet;                   /* caller */
        int contentKind;                      /* 0 form, 1 multipart, 2 XML */
        char* cursor;                         /* caller: the head's first byte; then the position */
        char* marker;                         /* backtrack position */
        char* limit;                          /* caller: one past the head's last byte */
        char* token;                          /* start of the current token */
        char* contextMarker;                  /* end of a token when look-ahead went further */
        char message[HTTPLEXER_MESSAGE_SIZE]; /* error text; empty for none */
} * HttpLexer_T;

/* Parses the head into the record's request; the status, also stored in the record. */
VESK_API int HttpLexer_parse(HttpLexer_T L);
/* Adds the parameters of url-encoded data of length bytes at buffer to request; 0, or -1
   when the request would hold more parameters than its connector allows, the rest dropped. */
VESK_API int HttpLexer_parseUrlencoded(HttpRequest_T request, char* buffer, int length);
/* Adds the parts of a multipart/form-data body to request; other failures are logged. 0, or
   -1 when its fields and the request's parameters would exceed the connector's cap. */
VESK_API int HttpLexer_parseMultipart(HttpRequest_T request, char* buffer, int length);

VESK_END_DECLS

#endif
