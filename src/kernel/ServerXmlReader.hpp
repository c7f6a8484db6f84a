// The reader of conf/server.xml: it builds the Hosts, Contexts, loggers and connectors of
// the file into an Engine and its Service, and sets the file cache, the error log and the
// Realm as the file says.
#pragma once

#include <string>

#include <vesk/Engine.h>
#include <vesk/Service.h>

namespace vesk {

// Reads server_xml, with containerHome as the home of relative paths, into engine and
// service, and returns the defaultHost that <Engine> names ("" if no <Engine> came); the
// caller resolves it once every Host is known. A fault raises AssertException
// "<reason> -- in '<file>' near line <n>" after releasing the objects of the element that
// failed; what was already handed to engine and service stays theirs.
std::string ServerXmlReader_read(const char* containerHome, const char* server_xml,
                                 Engine_T engine, Service_T service);

}  // namespace vesk
