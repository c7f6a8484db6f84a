#include <stdio.h>

#include <vesk/Arena.h>
#include <vesk/Config.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/File.h>
#include <vesk/List.h>
#include <vesk/Str.h>
#include <vesk/Table.h>
#include <vesk/URL.h>
#include <vesk/XMLParser.h>
#include <vesk/assert.h>

namespace {

Arena_T arena = nullptr;
Table_T mimeMapping = nullptr;
List_T welcomeFiles = nullptr;

constexpr int kBuffer = 256;

// The states of the descriptor's machine.
enum { kBeforeRoot = 0, kWebApp = 1, kAfterRoot = 2, kMimeMapping = 3, kWelcomeFileList = 4 };

struct ParseState {
        int state;
        const char* file;
        char mimeType[kBuffer + 1];
        char extension[kBuffer + 1];
};

void saxStartDocument(void* ctx) {
        auto a = static_cast<ParseState*>(ctx);
        a->state = kBeforeRoot;
        Error_debug("Start parsing the standard deployment descriptor '%s'\n", a->file);
}

void saxEndDocument(void* ctx) {
        auto a = static_cast<ParseState*>(ctx);
        if (a->state != kAfterRoot)
                THROW(AssertException, "The Parser is not in the correct stop state");
        Error_debug("End parsing the deployment descriptor '%s'\n", a->file);
}

void saxError(const char* message, void*) {
        THROW(AssertException, "%s", message);
}

void saxStartElement(const char* name, const char**, const char* text, void* ctx) {
        auto a = static_cast<ParseState*>(ctx);
        switch (a->state) {
        case kBeforeRoot:
                if (!Str_isEqual(name, "web-app"))
                        THROW(AssertException, "XML parse error -- invalid element <%s>", name);
                a->state = kWebApp;
                break;
        case kWebApp:
                // Everything but the two lists is an application's matter and skipped here.
                if (Str_isEqual(name, "mime-mapping")) {
                        a->state = kMimeMapping;
                        *a->mimeType = *a->extension = 0;
                } else if (Str_isEqual(name, "welcome-file-list")) {
                        a->state = kWelcomeFileList;
                }
                break;
        case kMimeMapping:
                if (Str_isEqual(name, "extension"))
                        Str_copy(a->extension, text, kBuffer);
                else if (Str_isEqual(name, "mime-type"))
                        Str_copy(a->mimeType, text, kBuffer);
                else
                        THROW(AssertException, "XML parse error -- invalid element <%s>", name);
                break;
        case kWelcomeFileList:
                if (!Str_isEqual(name, "welcome-file"))
                        THROW(AssertException, "XML parse error -- invalid element <%s>", name);
                Config_addWelcomeFile(text);
                break;
        default:
                // A second root after the first has closed.
                THROW(AssertException, "XML parse error -- invalid element <%s>", name);
        }
}

void saxEndElement(const char* name, void* ctx) {
        auto a = static_cast<ParseState*>(ctx);
        switch (a->state) {
        case kWebApp:
                if (Str_isEqual(name, "web-app"))
                        a->state = kAfterRoot;
                break;
        case kMimeMapping:
                if (Str_isEqual(name, "mime-mapping")) {
                        if (*a->extension && *a->mimeType)
                                Config_addMimeType(a->extension, a->mimeType);
                        a->state = kWebApp;
                } else if (!Str_isEqual(name, "extension") && !Str_isEqual(name, "mime-type")) {
                        THROW(AssertException, "XML parse error -- invalid element </%s>", name);
                }
                break;
        case kWelcomeFileList:
                if (Str_isEqual(name, "welcome-file-list"))
                        a->state = kWebApp;
                else if (!Str_isEqual(name, "welcome-file"))
                        THROW(AssertException, "XML parse error -- invalid element </%s>", name);
                break;
        default:
                break;
        }
}

}  // namespace

void Config_init(void) {
        if (!arena)
                arena = Arena_new();
        if (!welcomeFiles)
                welcomeFiles = List_alloc(arena);
        if (!mimeMapping)
                mimeMapping = Table_alloc(arena, 20, Str_cmp, Str_hash);
}

void Config_destroy(void) {
        assert(arena);
        Arena_dispose(&arena);
        mimeMapping = nullptr;
        welcomeFiles = nullptr;
}

void Config_parseDeploy(const char* file) {
        assert(file);
        if (!File_isFile(file))
                THROW(AssertException, "Could not read the default deployment descriptor '%s'",
                      file);
        Config_init();
        ParseState a = {};
        a.file = file;
        // A file URL needs an absolute path: a relative one would read as a host.
        char absolute[4097];
        const char* path = file;
        if (!File_isPathAbsolute(file) && File_getRealPath(file, absolute))
                path = absolute;
        XMLParser_T parser = XMLParser_new(URL_create("file://%s", path), &a);
        XMLParser_setErrorHandler(parser, saxError);
        XMLParser_setStartDocumentHandler(parser, saxStartDocument);
        XMLParser_setEndDocumentHandler(parser, saxEndDocument);
        XMLParser_setStartElementHandler(parser, saxStartElement);
        XMLParser_setEndElementHandler(parser, saxEndElement);
        TRY
                XMLParser_parse(parser);
        ELSE
                int line = XMLParser_getCurrentLine(parser);
                XMLParser_free(&parser);
                THROW(AssertException, "%s in '%s' at line %d", Exception_frame.message, file, line);
        END_TRY;
        XMLParser_free(&parser);
}

const char* Config_getMimeType(const char* path) {
        assert(path);
        const char* extension = File_extension(path);
        if (!extension || !mimeMapping)
                return nullptr;
        return static_cast<const char*>(Table_get(mimeMapping, extension));
}

void Config_addMimeType(const char* extension, const char* mimeType) {
        assert(extension);
        assert(mimeType);
        assert(arena);
        char* key = Str_toLower(STR_DUP_ARENA(arena, extension));
        char* value = Str_toLower(STR_DUP_ARENA(arena, mimeType));
        Table_put(mimeMapping, key, value);
}

List_T Config_getWelcomeFiles(void) {
        return welcomeFiles;
}

void Config_addWelcomeFile(const char* welcomeFile) {
        assert(arena);
        // An empty <welcome-file/> has no text: it keeps its place as an absent entry.
        const char* base = File_basename(welcomeFile);
        List_append(welcomeFiles, base ? Str_toLower(STR_DUP_ARENA(arena, base)) : nullptr);
}
