// What the connector keeps reachable for its tests, and what it asks of the start-up code.
//
// The two fixed durations of a connection (keep-alive idle and writing out the end of a
// response) are constants of the server; tests shorten them here so that nothing waits
// 15 seconds.
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

// Requests of H handed to processor threads whose answer has not gone out in full.
int busy(HttpConnector_T H);

// The first step of a graceful stop: H accepts no more connections and keeps none alive,
// while the requests it has already read are answered.
void quiesce(HttpConnector_T H);

}  // namespace connectorseam
