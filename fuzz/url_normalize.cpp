// URL_unescape and URL_normalize on any path: the result holds no dot segment, never
// climbs above its start, and normalising again changes nothing. URL_escape is undone by
// URL_unescape for every text without '+', which unescaping turns into a blank.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include <vesk/Arena.h>
#include <vesk/Exception.h>
#include <vesk/Mem.h>
#include <vesk/URL.h>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
        Arena_init();
        Exception_init();
        return 0;
}

namespace {

void check(bool ok) {
        if (!ok)
                __builtin_trap();
}

void checkPath(const std::string& path) {
        size_t start = 0;
        while (start <= path.size()) {
                size_t end = path.find('/', start);
                if (end == std::string::npos)
                        end = path.size();
                std::string segment = path.substr(start, end - start);
                check(segment != ".." && segment != ".");
                start = end + 1;
        }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
        std::string text(reinterpret_cast<const char*>(data), size);
        text = text.c_str();
        std::string path = text;
        URL_unescape(path.data());
        path.resize(strlen(path.c_str()));
        bool wasEmpty = path.empty();
        URL_normalize(path.data());
        path.resize(strlen(path.c_str()));
        check(!path.empty() || wasEmpty);
        checkPath(path);
        std::string again = path;
        URL_normalize(again.data());
        check(strcmp(again.c_str(), path.c_str()) == 0);
        if (text.find('+') == std::string::npos) {
                char* escaped = URL_escape(text.c_str());
                for (const char* p = escaped; *p; p++)
                        check(!URL_isunsafe(*p) || *p == '%');
                URL_unescape(escaped);
                check(strcmp(escaped, text.c_str()) == 0);
                FREE(escaped);
        }
        return 0;
}
