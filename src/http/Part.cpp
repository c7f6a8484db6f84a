#include <errno.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <vesk/Container.h>
#include <vesk/File.h>
#include <vesk/Part.h>
#include <vesk/Str.h>
#include <vesk/System.h>
#include <vesk/assert.h>

#include "http/PartImpl.hpp"

namespace {

constexpr const char* kDefaultContentType = "text/plain";
constexpr int kPathSize = 4096;

}  // namespace

Part_T Part_alloc(Arena_T arena) {
        assert(arena);
        Part_T P = static_cast<Part_T>(ARENA_CALLOC(arena, 1, sizeof *P));
        P->arena = arena;
        P->contentType = kDefaultContentType;
        return P;
}

void Part_reset(Part_T P) {
        assert(P);
        Arena_T arena = P->arena;
        *P = Part_S{};
        P->arena = arena;
        P->contentType = kDefaultContentType;
}

const char* Part_getName(Part_T P) {
        assert(P);
        return P->name;
}

const char* Part_getFileName(Part_T P) {
        assert(P);
        return P->isFile ? P->fileName : nullptr;
}

const char* Part_getContentType(Part_T P) {
        assert(P);
        return P->contentType;
}

int Part_getSize(Part_T P) {
        assert(P);
        return P->size;
}

int Part_isaFile(Part_T P) {
        assert(P);
        return P->isFile;
}

const char* Part_getContent(Part_T P, size_t* size) {
        assert(P);
        assert(size);
        *size = static_cast<size_t>(P->size);
        if (P->content)
                P->content[P->size] = 0;
        return P->content;
}

const char* Part_getContentAsString(Part_T P) {
        size_t size;
        return Part_getContent(P, &size);
}

void Part_write(Part_T P, const char* filename, ...) {
        assert(P);
        assert(STR_DEF(filename));
        char name[kPathSize + 1];
        va_list ap;
        va_start(ap, filename);
        vsnprintf(name, sizeof name, filename, ap);
        va_end(ap);
        // A relative name is confined to the logs directory: only its last segment counts.
        char path[kPathSize + 1];
        if (name[0] == SEPARATOR_CHAR)
                Str_copy(path, name, kPathSize);
        else
                snprintf(path, sizeof path, "%s%slogs%s%s", Container_Home ? Container_Home : "",
                         SEPARATOR, SEPARATOR, File_basename(name));
        int fd = File_open(path, "w");
        if (fd < 0)
                THROW(IOException, "Part_write: Cannot write to '%s' -- %s", path,
                      System_getLastError());
        const char* p = P->content;
        long left = P->content ? P->size : 0;
        while (left > 0) {
                ssize_t n = write(fd, p, static_cast<size_t>(left));
                if (n < 0) {
                        if (errno == EINTR)
                                continue;
                        const char* error = System_getLastError();
                        File_close(fd);
                        THROW(IOException, "Part_write: error when writing to file -- %s", error);
                }
                p += n;
                left -= n;
        }
        File_close(fd);
}
