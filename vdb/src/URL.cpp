#include <ctype.h>
#include <string.h>
#include <strings.h>

#include <string_view>

#include "Error.hpp"
#include "URL.hpp"

namespace vdb {

namespace {

struct Known {
        const char* name;
        DatabaseURL::Protocol protocol;
};
constexpr Known kProtocols[] = {{"sqlite", DatabaseURL::SQLite},
                                {"postgresql", DatabaseURL::PostgreSQL}};

int hexValue(char c) {
        if (c >= '0' && c <= '9')
                return c - '0';
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

class Parser {
public:
        explicit Parser(const std::string& text) : text_(text) {}

        DatabaseURL parse() {
                DatabaseURL url;
                size_t colon = text_.find("://");
                if (colon == std::string::npos)
                        invalid("no protocol followed by \"://\"");
                int protocol = protocolOf(text_.c_str());
                if (protocol < 0)
                        invalid(format("the protocol \"%s\" is not supported",
                                       text_.substr(0, colon).c_str()));
                url.protocol = static_cast<DatabaseURL::Protocol>(protocol);
                std::string_view rest(text_);
                rest.remove_prefix(colon + 3);
                size_t question = rest.find('?');
                if (question != std::string_view::npos) {
                        parameters(rest.substr(question + 1), url);
                        rest = rest.substr(0, question);
                }
                if (url.protocol == DatabaseURL::SQLite) {
                        url.path = decode(rest, "path");
                        if (url.path.empty())
                                invalid("no database file");
                } else {
                        server(rest, url);
                }
                url.shown = masked();
                return url;
        }

private:
        [[noreturn]] void invalid(const std::string& why) {
                fail("vdb: invalid URL \"%s\" -- %s", masked().c_str(), why.c_str());
        }

        // The URL text with the password replaced, so that messages never show it.
        std::string masked() const {
                size_t start = text_.find("://");
                if (start == std::string::npos)
                        return text_;
                start += 3;
                size_t end = text_.find_first_of("/?", start);
                size_t at = text_.rfind('@', end == std::string::npos ? text_.size() : end);
                if (at == std::string::npos || at < start)
                        return text_;
                size_t colon = text_.find(':', start);
                if (colon == std::string::npos || colon > at)
                        return text_;
                return text_.substr(0, colon + 1) + "****" + text_.substr(at);
        }

        std::string decode(std::string_view s, const char* what) {
                std::string out;
                for (size_t i = 0; i < s.size(); i++) {
                        if (s[i] != '%') {
                                out += s[i];
                                continue;
                        }
                        int high = i + 2 < s.size() ? hexValue(s[i + 1]) : -1;
                        int low = high >= 0 ? hexValue(s[i + 2]) : -1;
                        if (low < 0 || (high == 0 && low == 0))
                                invalid(format("bad escape in the %s", what));
                        out += static_cast<char>(high * 16 + low);
                        i += 2;
                }
                return out;
        }

        // [user[:password]@][host|[v6]][:port][/database]
        void server(std::string_view rest, DatabaseURL& url) {
                size_t slash = rest.find('/');
                std::string_view authority = rest.substr(0, slash);
                if (slash != std::string_view::npos)
                        url.path = decode(rest.substr(slash + 1), "database name");
                size_t at = authority.rfind('@');
                if (at != std::string_view::npos) {
                        std::string_view user = authority.substr(0, at);
                        size_t colon = user.find(':');
                        if (colon != std::string_view::npos)
                                url.password = decode(user.substr(colon + 1), "password");
                        url.user = decode(user.substr(0, colon), "user");
                        authority.remove_prefix(at + 1);
                }
                std::string_view port;
                if (!authority.empty() && authority[0] == '[') {
                        size_t close = authority.find(']');
                        if (close == std::string_view::npos)
                                invalid("no \"]\" after the IPv6 address");
                        url.host = authority.substr(1, close - 1);
                        authority.remove_prefix(close + 1);
                        if (!authority.empty() && authority[0] != ':')
                                invalid("text after the IPv6 address");
                        if (!authority.empty())
                                port = authority.substr(1);
                } else {
                        size_t colon = authority.find(':');
                        url.host = decode(authority.substr(0, colon), "host");
                        if (colon != std::string_view::npos)
                                port = authority.substr(colon + 1);
                }
                if (!port.empty() || authority.find(':') != std::string_view::npos) {
                        long n = 0;
                        for (char c : port)
                                n = isdigit(static_cast<unsigned char>(c)) && n < 100000
                                        ? n * 10 + (c - '0')
                                        : 1L << 20;
                        if (port.empty() || n < 1 || n > 65535)
                                invalid(format("bad port \"%.*s\"", static_cast<int>(port.size()),
                                               port.data()));
                        url.port = std::string(port);
                }
        }

        void parameters(std::string_view query, DatabaseURL& url) {
                while (!query.empty()) {
                        size_t amp = query.find('&');
                        std::string_view pair = query.substr(0, amp);
                        query = amp == std::string_view::npos ? std::string_view()
                                                              : query.substr(amp + 1);
                        if (pair.empty())
                                continue;
                        size_t eq = pair.find('=');
                        if (eq == std::string_view::npos || eq == 0)
                                invalid(format("parameter \"%.*s\" is not name=value",
                                               static_cast<int>(pair.size()), pair.data()));
                        url.parameters.emplace_back(decode(pair.substr(0, eq), "parameter"),
                                                    decode(pair.substr(eq + 1), "parameter"));
                }
        }

        const std::string& text_;
};

}  // namespace

int protocolOf(const char* text) {
        if (!text)
                return -1;
        for (const Known& k : kProtocols) {
                size_t n = strlen(k.name);
                if (strncasecmp(text, k.name, n) == 0 &&
                    (text[n] == 0 || strncmp(text + n, "://", 3) == 0))
                        return k.protocol;
        }
        return -1;
}

DatabaseURL parseURL(const std::string& text) {
        return Parser(text).parse();
}

}  // namespace vdb
