#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <ctype.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vesk/Crypto.h>
#include <vesk/File.h>
#include <vesk/Mem.h>
#include <vesk/Net.h>
#include <vesk/Str.h>
#include <vesk/System.h>
#include <vesk/assert.h>

namespace {

constexpr char kSeparator = '/';

// The mapping of a File. Only the cache maps files; what the File itself needs is to
// know whether a mapping exists and how to release it.
struct FileMap {
        File_S* file;
        int size;
        void* address;
};

}  // namespace

struct File_S {
        char md[MD_SIZE];  // first, so that the object's address is the digest text
        char* path;
        struct stat* stat;  // &statBuffer, or NULL when the last stat failed
        struct stat statBuffer;
        char etag[26];
        FileMap map;
};

namespace {

void restat(File_T F) {
        F->stat = (*F->path && ::stat(F->path, &F->statBuffer) == 0) ? &F->statBuffer : nullptr;
}

void unmap(File_T F) {
        if (F->map.address && munmap(F->map.address, static_cast<size_t>(F->map.size)) == 0)
                F->map = FileMap{};
}

char typeOf(mode_t mode) {
        switch (mode & S_IFMT) {
        case S_IFBLK:
                return 'b';
        case S_IFIFO:
                return 'p';
        case S_IFCHR:
                return 'c';
        case S_IFDIR:
                return 'd';
        case S_IFREG:
                return 'r';
        case S_IFLNK:
                return 'l';
        case S_IFSOCK:
                return 's';
        default:
                return '?';
        }
}

// stat of path into buffer, failing for an absent path as the system call would.
bool statPath(const char* path, struct stat& buffer) {
        if (!path) {
                errno = ENOENT;
                return false;
        }
        return ::stat(path, &buffer) == 0;
}

bool accessible(const char* path, int how) {
        if (!path) {
                errno = ENOENT;
                return false;
        }
        return access(path, how) == 0;
}

// Closes a descriptor when the scope ends, however it ends.
struct Descriptor {
        int fd;
        ~Descriptor() {
                if (fd >= 0)
                        File_close(fd);
        }
};

}  // namespace

File_T File_new(const char* format, ...) {
        if (!format) {
                THROW(AssertException, "Illegal path parameter value - null");
                return nullptr;
        }
        File_T F;
        NEW0(F);
        va_list ap;
        va_start(ap, format);
        F->path = Str_vcat(format, ap);
        va_end(ap);
        restat(F);
        return F;
}

File_T File_reset(File_T F, const char* format, ...) {
        assert(F);
        if (!format) {
                THROW(AssertException, "Illegal path parameter value - null");
                return F;
        }
        va_list ap;
        va_start(ap, format);
        char* path = Str_vcat(format, ap);
        va_end(ap);
        FREE(F->path);
        F->path = path;
        unmap(F);
        restat(F);
        F->etag[0] = 0;
        return F;
}

File_T File_update(File_T F) {
        assert(F);
        unmap(F);
        F->etag[0] = 0;
        restat(F);
        return F;
}

void File_free(File_T* F) {
        assert(F && *F);
        unmap(*F);
        FREE((*F)->path);
        FREE(*F);
}

const char* File_getPath(File_T F) {
        assert(F);
        return F->path;
}

int File_exist(File_T F) {
        assert(F);
        return F->stat != nullptr;
}

off_t File_getSize(File_T F) {
        assert(F);
        return F->stat ? F->stat->st_size : -1;
}

time_t File_getMtime(File_T F) {
        assert(F);
        return F->stat ? F->stat->st_mtime : -1;
}

time_t File_getCtime(File_T F) {
        assert(F);
        return F->stat ? F->stat->st_ctime : -1;
}

time_t File_getAtime(File_T F) {
        assert(F);
        return F->stat ? F->stat->st_atime : -1;
}

int File_getMod(File_T F) {
        assert(F);
        return F->stat ? static_cast<int>(F->stat->st_mode) : -1;
}

int File_setMod(File_T F, mode_t mode) {
        assert(F);
        if (!F->stat)
                return false;
        // The type bits stay: only the permissions change.
        F->stat->st_mode = (F->stat->st_mode & S_IFMT) | (mode & ~S_IFMT);
        return File_chmod(F->path, mode);
}

int File_isaFile(File_T F) {
        assert(F);
        return F->stat ? S_ISREG(F->stat->st_mode) : -1;
}

char File_getType(File_T F) {
        assert(F);
        return F->stat ? typeOf(F->stat->st_mode) : '?';
}

const char* File_md(File_T F, const char* algorithm) {
        assert(F);
        if (!F->stat) {
                errno = ENOENT;
                return nullptr;
        }
        Descriptor file{File_open(F->path, "r")};
        if (file.fd < 0)
                return nullptr;
        if (!Crypto_digestStream(algorithm, file.fd, F->md)) {
                F->md[0] = 0;
                errno = EINVAL;
        }
        return F->md[0] ? F->md : nullptr;
}

const char* File_etag(File_T F) {
        assert(F);
        if (!*F->etag && F->stat)
                snprintf(F->etag, sizeof F->etag, "\"%ld-%lld\"",
                         static_cast<long>(F->stat->st_mtime),
                         static_cast<long long>(F->stat->st_size));
        return F->etag;
}

off_t File_size(const char* path) {
        struct stat buffer;
        return statPath(path, buffer) ? buffer.st_size : -1;
}

time_t File_mtime(const char* path) {
        struct stat buffer;
        return statPath(path, buffer) ? buffer.st_mtime : -1;
}

time_t File_ctime(const char* path) {
        struct stat buffer;
        return statPath(path, buffer) ? buffer.st_ctime : -1;
}

time_t File_atime(const char* path) {
        struct stat buffer;
        return statPath(path, buffer) ? buffer.st_atime : -1;
}

int File_mod(const char* path) {
        struct stat buffer;
        return statPath(path, buffer) ? static_cast<int>(buffer.st_mode) : -1;
}

char File_type(const char* path) {
        struct stat buffer;
        return statPath(path, buffer) ? typeOf(buffer.st_mode) : '?';
}

int File_isFile(const char* path) {
        struct stat buffer;
        return statPath(path, buffer) && S_ISREG(buffer.st_mode);
}

int File_isDirectory(const char* path) {
        struct stat buffer;
        return statPath(path, buffer) && S_ISDIR(buffer.st_mode);
}

int File_existFile(const char* path) {
        struct stat buffer;
        return statPath(path, buffer);
}

int File_isReadable(const char* path) {
        return accessible(path, R_OK);
}

int File_isWritable(const char* path) {
        return accessible(path, W_OK);
}

int File_isExecutable(const char* path) {
        return accessible(path, X_OK);
}

int File_delete(const char* path) {
        if (!path) {
                errno = ENOENT;
                return false;
        }
        return remove(path) == 0;
}

int File_rename(const char* from, const char* to) {
        if (!from) {
                errno = ENOENT;
                return false;
        }
        if (!to) {
                errno = EINVAL;
                return false;
        }
        return rename(from, to) == 0;
}

int File_chmod(const char* path, mode_t mode) {
        if (!path) {
                errno = EINVAL;
                return false;
        }
        return chmod(path, mode) == 0;
}

char* File_getRealPath(const char* path, char* result) {
        if (!path || !result) {
                errno = EINVAL;
                return nullptr;
        }
        return realpath(path, result);
}

int File_isPathAbsolute(const char* path) {
        return path && *path == '/';
}

const char* File_extension(const char* path) {
        if (!path || !*path)
                return nullptr;
        const char* dot = strrchr(path, '.');
        return dot ? dot + 1 : nullptr;
}

const char* File_basename(const char* path) {
        if (!path)
                return nullptr;
        const char* slash = strrchr(path, kSeparator);
        return slash ? slash + 1 : path;
}

char* File_dirname(char* path) {
        if (!path || !*path)
                return path;
        char* slash = strrchr(path, kSeparator);
        if (slash)
                slash[1] = 0;
        else
                strcpy(path, ".");
        return path;
}

char* File_noExtension(char* path) {
        if (!path || !*path)
                return nullptr;
        char name[256];
        snprintf(name, sizeof name, "%s", File_basename(path));
        if (char* dot = strrchr(name, '.'))
                *dot = 0;
        // The base name is never longer than the path it came from.
        strcpy(path, name);
        return path;
}

char* File_removeTrailingSeparator(char* path) {
        if (!path || !*path)
                return path;
        size_t n = strlen(path);
        while (n > 1 &&
               (path[n - 1] == kSeparator || isspace(static_cast<unsigned char>(path[n - 1]))))
                n--;
        path[n] = 0;
        return path;
}

int File_open(const char* path, const char* mode) {
        if (!path || !mode) {
                errno = EINVAL;
                return -1;
        }
        bool plus = mode[0] && mode[1] == '+';
        int flags;
        switch (mode[0]) {
        case 'r':
                flags = plus ? O_RDWR : O_RDONLY;
                break;
        case 'w':
                flags = (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
                break;
        case 'a':
                flags = (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
                break;
        default:
                errno = EINVAL;
                return -1;
        }
        // Close-on-exec, so that descriptors of the server never leak into programs it runs.
        return open(path, flags | O_NONBLOCK | O_CLOEXEC, 0666);
}

int File_close(int fd) {
        int status;
        do
                status = close(fd);
        while (status == -1 && errno == EINTR);
        return status == 0;
}

int File_canRead(int fd, int timeout) {
        return Net_canRead(fd, timeout);
}

int File_canWrite(int fd, int timeout) {
        return Net_canWrite(fd, timeout);
}

mode_t File_umask(void) {
        mode_t mask = umask(0);
        umask(mask);
        return mask;
}

mode_t File_setUmask(mode_t mask) {
        return umask(mask);
}

const char* File_getLastError(void) {
        return System_getLastError();
}
