#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <ctype.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zlib.h>

#include <vesk/Container.h>
#include <vesk/Crypto.h>
#include <vesk/Error.h>
#include <vesk/File.h>
#include <vesk/Mem.h>
#include <vesk/Net.h>
#include <vesk/Str.h>
#include <vesk/System.h>
#include <vesk/Time.h>

#include "io/FileMap.hpp"
#include "io/MapGuard.hpp"
#include "util/Holder.hpp"

#include <vesk/assert.h>

namespace {

constexpr char kSeparator = '/';
// Bytes handed to the compressor at a time.
constexpr int kCompressChunk = 16384;

}  // namespace

struct File_S {
        char md[MD_SIZE];  // first, so that the object's address is the digest text
        char* path;
        struct stat* stat;  // &statBuffer, or NULL when the last stat failed
        struct stat statBuffer;
        char etag[26];
        FileMap_S map;
};

namespace {

void restat(File_T F) {
        F->stat = (*F->path && ::stat(F->path, &F->statBuffer) == 0) ? &F->statBuffer : nullptr;
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

using Descriptor = vesk::Descriptor<File_close>;

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
        File_unmap(F);
        restat(F);
        F->etag[0] = 0;
        return F;
}

File_T File_update(File_T F) {
        assert(F);
        File_unmap(F);
        F->etag[0] = 0;
        restat(F);
        return F;
}

void File_free(File_T* F) {
        assert(F && *F);
        File_unmap(*F);
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
        Descriptor file(File_open(F->path, "r"));
        if (!file)
                return nullptr;
        if (!Crypto_digestStream(algorithm, file.get(), F->md)) {
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

namespace {

// Maps size bytes of path into F's record by mode. The descriptor is not needed once the
// mapping exists, so it is closed on the way out, keeping the errno of a failed mmap.
bool mapfile(File_T F, const char* path, const char* mode, off_t size) {
        F->map.mode[0] = mode[0];
        F->map.mode[1] = mode[0] ? mode[1] : 0;
        F->map.file = F;
        Descriptor fd(File_open(path, mode));
        if (!fd)
                return false;
        bool writable = F->map.mode[1] == '+';
        void* address =
            mmap(nullptr, static_cast<size_t>(size), writable ? PROT_READ | PROT_WRITE : PROT_READ,
                 writable ? MAP_SHARED : MAP_PRIVATE, fd.get(), 0);
        if (address == MAP_FAILED) {
                F->map.address = nullptr;
                return false;
        }
        F->map.address = address;
        F->map.size = static_cast<int>(size);
        // The descriptor names the very file mapped, whatever replaces its path later.
        bool sendable = F->map.mode[1] == 0 && size > FileMap_SendfileSize;
        F->map.fd = sendable ? fd.release() : -1;
        return true;
}

// Compresses F's mapping into gz. The bytes reach zlib through a buffer: a file truncated
// while it is read faults on its mapping, and that may stop a copy, never the compressor
// in the middle of its work. False if the file changed under the mapping.
bool compressMapping(File_T F, gzFile gz) {
        char chunk[kCompressChunk];
        const char* from = static_cast<const char*>(F->map.address);
        int written = 0;
        for (int at = 0; at < F->map.size; at += kCompressChunk) {
                int n = F->map.size - at < kCompressChunk ? F->map.size - at : kCompressChunk;
                if (!MapGuard_copy(chunk, from + at, static_cast<size_t>(n))) {
                        Error_error(
                            "File_map: compression failed -- %s changed while it was "
                            "read\n",
                            F->path);
                        return false;
                }
                written += gzwrite(gz, chunk, static_cast<unsigned>(n));
        }
        if (written < F->map.size) {
                int code;
                Error_error("File_map: compression failed -- %s\n", gzerror(gz, &code));
        }
        return true;
}

// Replaces F's plain mapping by a mapping of its gzip form. The compressed copy is
// deleted as soon as it is mapped: the mapping keeps the data alive, and no file is left
// behind in the work directory, even by a crash later on.
bool compress(File_T F) {
        char temporary[4097] = "";
        char id[33];
        assert(F->map.address);
        bool failed = Crypto_sessionId(id) == nullptr;
        if (!failed)
                snprintf(temporary, sizeof temporary, "%s%s%s", Container_WorkDir, SEPARATOR, id);
        gzFile gz = failed ? nullptr : gzopen(temporary, "wb6");
        if (!gz) {
                Error_debug("File_map: can't open temporary file %s -- %s\n", temporary,
                            System_getLastError());
                failed = true;
        } else {
                if (!compressMapping(F, gz))
                        failed = true;
                int status = gzclose(gz);
                if (status != Z_OK)
                        Error_error("File_map: %s\n", zError(status));
        }
        File_unmap(F);
        if (!failed) {
                struct stat st;
                if (::stat(temporary, &st) != 0) {
                        Error_error("File_map: cannot stat compressed file %s -- %s\n", temporary,
                                    System_getLastError());
                        failed = true;
                } else {
                        failed = st.st_size > INT_MAX || !mapfile(F, temporary, "rz", st.st_size);
                }
        }
        if (*temporary)
                File_delete(temporary);
        if (failed) {
                errno = EIO;
                return false;
        }
        return true;
}

}  // namespace

FileMap_T File_map(File_T F, const char* mode) {
        assert(F);
        if (F->map.address)
                return &F->map;
        File_update(F);
        if (!F->stat) {
                errno = ENOENT;
                return nullptr;
        }
        if (F->stat->st_size < 1) {
                errno = ENODATA;
                return nullptr;
        }
        if (!S_ISREG(F->stat->st_mode) || !mode || mode[0] != 'r') {
                errno = EINVAL;
                return nullptr;
        }
        // The record counts bytes in an int.
        if (F->stat->st_size > INT_MAX) {
                errno = EFBIG;
                return nullptr;
        }
        if (!mapfile(F, F->path, mode, F->stat->st_size) || (mode[1] == 'z' && !compress(F))) {
                int saved = errno;
                F->map = FileMap_S{};
                errno = saved;
                return nullptr;
        }
        F->map.mtime = Time_gmt(F->stat->st_mtime);
        return &F->map;
}

int File_unmap(File_T F) {
        assert(F);
        if (!F->map.address)
                return true;
        if (munmap(F->map.address, static_cast<size_t>(F->map.size)) != 0)
                return false;
        if (F->map.fd >= 0)
                close(F->map.fd);
        F->map = FileMap_S{};
        return true;
}

File_T FileMap_getFile(FileMap_T M) {
        assert(M);
        return M->file;
}

void* FileMap_getAddress(FileMap_T M) {
        assert(M);
        return M->address;
}

int FileMap_getSize(FileMap_T M) {
        assert(M);
        return M->size;
}

time_t FileMap_getMtime(FileMap_T M) {
        assert(M);
        return M->mtime;
}

int FileMap_isCompressed(FileMap_T M) {
        assert(M);
        return M->mode[1] == 'z';
}

int FileMap_isCurrent(FileMap_T M, const struct stat* st) {
        assert(M);
        assert(st);
        // The stat data of the source when it was mapped; a compressed form keeps it too.
        const struct stat* was = M->file ? M->file->stat : nullptr;
        // A file replaced by a rename is another inode; one rewritten in place has a new
        // change time even when its size and modification time were put back.
        return was && was->st_dev == st->st_dev && was->st_ino == st->st_ino &&
               was->st_size == st->st_size && was->st_mtim.tv_sec == st->st_mtim.tv_sec &&
               was->st_mtim.tv_nsec == st->st_mtim.tv_nsec &&
               was->st_ctim.tv_sec == st->st_ctim.tv_sec &&
               was->st_ctim.tv_nsec == st->st_ctim.tv_nsec;
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
        // Linux releases the descriptor even when close is interrupted; closing again could
        // close a descriptor that another thread has just been given.
        return close(fd) == 0 || errno == EINTR;
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
