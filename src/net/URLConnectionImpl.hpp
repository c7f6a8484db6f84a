// The life of a URLConnection is its URL's: URL_getConnection makes it, URL_free frees it.
#pragma once

#include <vesk/URL.h>
#include <vesk/URLConnection.h>

// A connection for U with method GET and no headers.
URLConnection_T URLConnection_new(URL_T U);

// Closes the socket or the file, frees the headers and the object; clears *C.
void URLConnection_free(URLConnection_T* C);
