// What the connector keeps reachable for its tests, and what it asks of the start-up code.
//
// The two fixed durations of a connection (keep-alive idle and writing out the end of a
// response) are constants of the server; tests shorten them here so that nothing waits
// 15 seconds. The thread key Request_Arena is made by Build_init; until that module
// is linked in, the connector makes the key itself, once, when it starts.
#pragma once

#include <errno.h>
#include <pthread.h>
#include <string.h>

#include <vesk/Exception.h>
#include <vesk/HttpRequest.h>

namespace connectorseam {

// Milliseconds a kept-alive connection may idle, and a response's end may take to go out.
inline int keepAliveTimeout = 15000;

// Open connections of H; read on the Reactor thread only.
int connections(HttpConnector_T H);

}  // namespace connectorseam

// The arena of the request a processor thread serves.
inline pthread_key_t Request_Arena;

// Build_init: creates Request_Arena once per process.
inline void ConnectorSeam_initRequestArena() {
        static const bool made = [] {
                Exception_wrapper(pthread_key_create(&(Request_Arena), NULL));
                return true;
        }();
        (void)made;
}
