// A database URL taken apart. Parsing throws SQLError "vdb: invalid URL ..." with the reason.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vdb {

struct DatabaseURL {
        enum Protocol { SQLite, PostgreSQL };
        Protocol protocol;
        std::string user, password, host, port, path;                 // decoded; empty when absent
        std::vector<std::pair<std::string, std::string>> parameters;  // decoded, in order
        std::string shown;  // the text with the password masked, for messages
};

DatabaseURL parseURL(const std::string& text);

// The protocol named by text: a bare protocol name or the start of a URL; -1 if none.
int protocolOf(const char* text);

}  // namespace vdb
