// What the connector keeps reachable for its tests, and what it asks of the start-up code.
//
// The two fixed durations of a connection (keep-alive idle and writing out the end of a
// response) are constants of the server; tests shorten them here so that nothing waits
// 15 seconds. The thread key Request_Arena is made by Build_init, which the connector
// runs when it starts, for a server started without a Container.
#pragma once

#include <errno.h>
#include <pthread.h>
#include <string.h>

#include <vesk/Build.h>
#include <vesk/Exception.h>
#include <vesk/HttpRequest.h>

namespace connectorseam {

// Milliseconds a kept-alive connection may idle, and a response's end may take to go out.
inline int keepAliveTimeout = 15000;

// Open connections of H; read on the Reactor thread only.
int connections(HttpConnector_T H);

}  // namespace connectorseam

// Build_init: creates Request_Arena (declared in Build.h) once per process.
inline void ConnectorSeam_initRequestArena() {
        Build_init();
}
