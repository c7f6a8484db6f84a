// libFuzzer target: HttpLexer_parse over a request head in a buffer of exactly its size,
// as the connector hands it over, on a connection whose socket is never touched: once
// without a connector (lenient, the default cap) and once on a strict connector with a cap
// of a few parameters.
#include <netinet/in.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <vesk/Arena.h>
#include <vesk/Exception.h>
#include <vesk/HttpConnector.h>
#include <vesk/HttpLexer.h>
#include <vesk/HttpRequest.h>
#include <vesk/InetAddress.h>
#include <vesk/Thread.h>

namespace {

HttpConnector_T strict;

void parse(const uint8_t* data, size_t size, HttpConnector_T connector) {
        struct sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        InetAddress_T inet =
            InetAddress_new(0, -1, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr, 0);
        InetAddress_setConnector(inet, connector);
        char* head = static_cast<char*>(malloc(size));
        memcpy(head, data, size);
        struct HttpLexer_S parser;
        memset(&parser, 0, sizeof parser);
        parser.status = 200;
        parser.request = HttpRequest_new(InetAddress_getArena(inet));
        parser.inet = inet;
        parser.cursor = head;
        parser.limit = head + size;
        int status = HttpLexer_parse(&parser);
        if (status == 200) {
                HttpRequest_getQueryString(parser.request);
                HttpRequest_getRequestURL(parser.request);
        } else if (parser.message[sizeof parser.message - 1] != 0) {
                abort();
        }
        free(head);
        InetAddress_abort(&inet);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
        Arena_init();
        Exception_init();
        Thread_init();
        strict = HttpConnector_new();
        HttpConnector_setStrict(strict, 1);
        HttpConnector_setMaxParameterCount(strict, 4);
        return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
        if (size == 0 || size > 65536)
                return 0;
        parse(data, size, nullptr);
        parse(data, size, strict);
        return 0;
}
