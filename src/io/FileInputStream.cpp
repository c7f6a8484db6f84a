#include <errno.h>
#include <unistd.h>

#include <vesk/File.h>
#include <vesk/FileInputStream.h>
#include <vesk/InputStream.h>
#include <vesk/Mem.h>
#include <vesk/System.h>
#include <vesk/assert.h>

struct FileInputStream_S {
        int fd;
        InputStream_T stream;
};

namespace {

// Reading reports a failure by a flag; a file stream turns that flag into an exception.
template <typename T>
T checked(FileInputStream_T S, T result) {
        if (InputStream_isClosed(S->stream))
                THROW(IOException, "%s", File_getLastError());
        return result;
}

}  // namespace

FileInputStream_T FileInputStream_new(File_T file) {
        assert(file);
        int fd = File_open(File_getPath(file), "r");
        if (fd < 0)
                return nullptr;
        FileInputStream_T S;
        NEW(S);
        S->fd = fd;
        S->stream = InputStream_new(fd);
        return S;
}

void FileInputStream_free(FileInputStream_T* S) {
        assert(S && *S);
        FileInputStream_T s = *S;
        *S = nullptr;
        bool closed = File_close(s->fd);
        int error = errno;
        InputStream_free(&s->stream);
        FREE(s);
        if (!closed)
                THROW(IOException, "%s", System_getError(error));
}

void FileInputStream_close(FileInputStream_T S) {
        assert(S);
        if (!File_close(S->fd))
                THROW(IOException, "%s", File_getLastError());
}

int FileInputStream_read(FileInputStream_T S) {
        assert(S);
        return checked(S, InputStream_read(S->stream));
}

int FileInputStream_readBytes(FileInputStream_T S, void* buffer, int size) {
        assert(S);
        return checked(S, InputStream_readBytes(S->stream, buffer, size));
}

char* FileInputStream_readLine(FileInputStream_T S, char* buffer, int size) {
        assert(S);
        return checked(S, InputStream_readLine(S->stream, buffer, size));
}

int FileInputStream_isClosed(FileInputStream_T S) {
        assert(S);
        return InputStream_isClosed(S->stream);
}

int FileInputStream_getTimeout(FileInputStream_T S) {
        assert(S);
        return InputStream_getTimeout(S->stream);
}

void FileInputStream_setTimeout(FileInputStream_T S, int timeout) {
        assert(S);
        assert(timeout >= 0);
        InputStream_setTimeout(S->stream, timeout);
}

off_t FileInputStream_pos(FileInputStream_T S) {
        assert(S);
        return lseek(S->fd, 0, SEEK_CUR);
}

int FileInputStream_rewind(FileInputStream_T S) {
        assert(S);
        InputStream_clear(S->stream);
        return lseek(S->fd, 0, SEEK_SET) == 0;
}

off_t FileInputStream_seek(FileInputStream_T S, off_t offset, int whence) {
        assert(S);
        InputStream_clear(S->stream);
        off_t current = lseek(S->fd, 0, SEEK_CUR);
        off_t end = lseek(S->fd, 0, SEEK_END);
        if (end < 0)
                return -1;
        off_t target;
        switch (whence) {
        case 'c':
                target = current + offset;
                break;
        case 'a':
                target = offset;
                break;
        case 'e':
                return offset >= 0 ? end : lseek(S->fd, offset, SEEK_END);
        default:
                errno = EINVAL;
                return -1;
        }
        // The descriptor stands at the end already: a seek never passes it.
        return target >= end ? end : lseek(S->fd, target, SEEK_SET);
}
