// libFuzzer target: HttpLexer_parseMultipart and HttpLexer_parseUrlencoded over a body
// in a buffer with one writable byte behind it, as the body store hands it over. The
// first line of the input is the Content-Type, the rest the body.
#include <netinet/in.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <string>

#include <vesk/Arena.h>
#include <vesk/Exception.h>
#include <vesk/HttpLexer.h>
#include <vesk/HttpRequest.h>
#include <vesk/List.h>
#include <vesk/Part.h>
#include <vesk/Thread.h>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
        Arena_init();
        Exception_init();
        Thread_init();
        return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
        if (size > 1 << 20)
                return 0;
        const char* text = reinterpret_cast<const char*>(data);
        const char* lf = static_cast<const char*>(memchr(text, '\n', size));
        std::string type = lf ? std::string(text, static_cast<size_t>(lf - text)) : "";
        size_t offset = lf ? static_cast<size_t>(lf - text) + 1 : 0;
        size_t length = size - offset;
        Arena_T arena = Arena_new();
        HttpRequest_T request = HttpRequest_new(arena);
        HttpRequest_addHeader(request, "Content-Type", type.c_str());
        char* body = static_cast<char*>(malloc(length + 1));
        memcpy(body, text + offset, length);
        body[length] = 0;
        HttpLexer_parseMultipart(request, body, static_cast<int>(length));
        for (list_t p = HttpRequest_getParts(request)->head; p; p = p->next)
                Part_getContentAsString(static_cast<Part_T>(p->e));
        memcpy(body, text + offset, length);
        HttpLexer_parseUrlencoded(request, body, static_cast<int>(length));
        free(body);
        Arena_dispose(&arena);
        return 0;
}
