// Fuzz target for the XML parser: each input is parsed as text in memory and again as a
// stream, through every handler, so that the lexer's sliding buffer and the grammar see
// the same bytes both ways.
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include <vesk/Arena.h>
#include <vesk/Exception.h>
#include <vesk/InputStream.h>
#include <vesk/XMLParser.h>

namespace {

// Touches every byte a handler is given, so that a stale or unterminated text shows.
size_t touched;

void onStartElement(const char* name, const char** attributes, const char* cdata, void*) {
        touched += strlen(name);
        for (int i = 0; attributes[i]; i += 2)
                touched += strlen(attributes[i]) + strlen(attributes[i + 1]);
        if (cdata)
                touched += strlen(cdata);
        touched += XMLParser_getAttribute("name", attributes) != nullptr;
}

void onEndElement(const char* name, void*) {
        touched += strlen(name);
}

void onError(const char* message, void*) {
        touched += strlen(message);
}

void parse(XMLParser_T P) {
        XMLParser_setStartElementHandler(P, onStartElement);
        XMLParser_setEndElementHandler(P, onEndElement);
        XMLParser_setErrorHandler(P, onError);
        // Too many attributes on one element raise; that is an answer, not a fault.
        TRY
                XMLParser_parse(P);
        CATCH(AssertException)
        END_TRY;
        XMLParser_free(&P);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
        Arena_init();
        Exception_init();
        return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
        std::string text(reinterpret_cast<const char*>(data), size);
        parse(XMLParser_createFromBuffer(text.c_str(), nullptr));

        int fd = memfd_create("fuzz_xml", 0);
        if (fd < 0)
                return 0;
        if (write(fd, data, size) == static_cast<ssize_t>(size) && lseek(fd, 0, SEEK_SET) == 0) {
                InputStream_T stream = InputStream_new(fd);
                parse(XMLParser_createFromStream(stream, nullptr));
                InputStream_free(&stream);
        }
        close(fd);
        return 0;
}
