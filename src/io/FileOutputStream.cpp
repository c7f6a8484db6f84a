#include <errno.h>
#include <stdarg.h>
#include <unistd.h>

#include <vesk/File.h>
#include <vesk/FileOutputStream.h>
#include <vesk/Mem.h>
#include <vesk/OutputStream.h>
#include <vesk/System.h>
#include <vesk/assert.h>

struct FileOutputStream_S {
        int fd;
        int isClosed;
        OutputStream_T stream;
};

namespace {

// Writing reports a failure by a flag; a file stream turns that flag into an exception.
void check(FileOutputStream_T S) {
        if (OutputStream_isClosed(S->stream))
                THROW(IOException, "%s", File_getLastError());
}

}  // namespace

FileOutputStream_T FileOutputStream_new(File_T file) {
        assert(file);
        int fd = File_open(File_getPath(file), "a");
        if (fd < 0)
                return nullptr;
        FileOutputStream_T S;
        NEW0(S);
        S->fd = fd;
        S->stream = OutputStream_new(fd);
        OutputStream_setBufferSize(S->stream, 4096);
        return S;
}

void FileOutputStream_free(FileOutputStream_T* S) {
        assert(S && *S);
        FileOutputStream_T s = *S;
        *S = nullptr;
        // Free everything even when closing fails, and report the failure last.
        TRY
                if (!s->isClosed) FileOutputStream_close(s);
        FINALLY
                OutputStream_free(&s->stream);
                FREE(s);
        END_TRY;
}

void FileOutputStream_close(FileOutputStream_T S) {
        assert(S);
        OutputStream_end(S->stream);
        while (OutputStream_flush(S->stream) > 0)
                ;
        bool lost = OutputStream_isClosed(S->stream);
        int error = errno;
        if (!File_close(S->fd)) {
                lost = true;
                error = errno;
        }
        S->isClosed = true;
        if (lost)
                THROW(IOException, "%s", System_getError(error));
}

void FileOutputStream_write(FileOutputStream_T S, const void* data, int size) {
        assert(S);
        if (!data || size < 1)
                return;
        OutputStream_write(S->stream, data, size);
        check(S);
}

void FileOutputStream_print(FileOutputStream_T S, const char* format, ...) {
        assert(S);
        if (!format || !*format)
                return;
        va_list ap;
        va_start(ap, format);
        OutputStream_vprint(S->stream, format, ap);
        va_end(ap);
        check(S);
}

void FileOutputStream_vprint(FileOutputStream_T S, const char* format, va_list ap) {
        assert(S);
        if (!format || !*format)
                return;
        OutputStream_vprint(S->stream, format, ap);
        check(S);
}

int FileOutputStream_flush(FileOutputStream_T S) {
        assert(S);
        int n = OutputStream_flush(S->stream);
        check(S);
        return n;
}

off_t FileOutputStream_size(FileOutputStream_T S) {
        assert(S);
        FileOutputStream_flush(S);
        // Harmless: the file is open for appending, so the next write goes to the end anyway.
        return lseek(S->fd, 0, SEEK_END);
}

int FileOutputStream_isClosed(FileOutputStream_T S) {
        assert(S);
        return OutputStream_isClosed(S->stream);
}

int FileOutputStream_getTimeout(FileOutputStream_T S) {
        assert(S);
        return OutputStream_getTimeout(S->stream);
}

void FileOutputStream_setTimeout(FileOutputStream_T S, int timeout) {
        assert(S);
        assert(timeout >= 0);
        OutputStream_setTimeout(S->stream, timeout);
}

int FileOutputStream_isCompressed(FileOutputStream_T S) {
        assert(S);
        return OutputStream_isCompressed(S->stream);
}

int FileOutputStream_getBufferSize(FileOutputStream_T S) {
        assert(S);
        return OutputStream_getBufferSize(S->stream);
}

void FileOutputStream_setBufferSize(FileOutputStream_T S, int size) {
        assert(S);
        OutputStream_setBufferSize(S->stream, size);
}

void FileOutputStream_startCompress(FileOutputStream_T S, int level) {
        assert(S);
        if (FileOutputStream_size(S) != 0)
                THROW(IOException, "File not empty. Compress append is not supported");
        if (!OutputStream_startCompress(S->stream, level))
                THROW(AssertException, "Failed to set the stream in compressed mode");
}
