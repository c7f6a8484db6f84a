// What the connection and its output stream ask of the HTTP response and request.
#pragma once

#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/InetAddress.h>

// Writes the response head into the response's head chain and commits the stream.
inline void HttpSeam_commit(HttpResponse_T response) {
        HttpResponse_commit(response);
}

// Frees the response's own resources (mapped files, pages); clears *response.
inline void HttpSeam_free(HttpResponse_T* response) {
        HttpResponse_free(response);
}

// True when the response's client takes gzip.
inline int HttpSeam_acceptsGzip(HttpResponse_T response) {
        HttpRequest_T request = HttpResponse_getRequest(response);
        return request && HttpRequest_getAcceptEncoding(request);
}

// Marks the response body as gzip.
inline void HttpSeam_setGzipEncoding(HttpResponse_T response) {
        HttpResponse_setHeader(response, "Content-Encoding", "gzip");
}
