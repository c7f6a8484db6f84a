// URL_new on any text: parse, then read every part back.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include <vesk/Arena.h>
#include <vesk/Exception.h>
#include <vesk/URL.h>

// Keeps the reads from being optimised away.
volatile size_t sink;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
        Arena_init();
        Exception_init();
        return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
        std::string text(reinterpret_cast<const char*>(data), size);
        URL_T u = URL_new(text.c_str());
        if (!u)
                return 0;
        size_t total = strlen(URL_getProtocol(u)) + strlen(URL_toString(u));
        for (const char* s : {URL_getUser(u), URL_getPassword(u), URL_getHost(u), URL_getPath(u),
                              URL_getQueryString(u), URL_getRef(u)})
                if (s)
                        total += strlen(s);
        if (const char** names = URL_getParameterNames(u))
                for (const char** n = names; *n; n++)
                        if (const char* v = URL_getParameter(u, *n))
                                total += strlen(v);
        int port = URL_getPort(u);
        if (port < -1 || port > 65535)
                __builtin_trap();
        URL_setPath(u, "/x");
        total += strlen(URL_toString(u));
        URL_free(&u);
        sink = total;
        return 0;
}
