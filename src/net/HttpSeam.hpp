// What the connection and its output stream ask of the HTTP response and request.
//
// The response module plugs in here: the bodies become HttpResponse_commit,
// HttpResponse_free, HttpRequest_getAcceptEncoding(HttpResponse_getRequest(response))
// and HttpResponse_setHeader(response, "Content-Encoding", "gzip"). Until it exists no
// response object can be made, so a connection never holds one and a stream given an
// opaque pointer treats it as a response whose client takes no gzip.
#pragma once

#include <vesk/InetAddress.h>

// Writes the response head into the response's head chain and commits the stream.
inline void HttpSeam_commit(HttpResponse_T response) {
        (void)response;
}

// Frees the response's own resources (mapped files, pages); clears *response.
inline void HttpSeam_free(HttpResponse_T* response) {
        *response = nullptr;
}

// True when the response's client takes gzip.
inline int HttpSeam_acceptsGzip(HttpResponse_T response) {
        (void)response;
        return 0;
}

// Marks the response body as gzip.
inline void HttpSeam_setGzipEncoding(HttpResponse_T response) {
        (void)response;
}
