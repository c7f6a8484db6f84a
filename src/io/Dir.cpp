#include <dirent.h>
#include <errno.h>
#include <glob.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vesk/Dir.h>
#include <vesk/File.h>
#include <vesk/Mem.h>
#include <vesk/assert.h>

namespace {

constexpr char kSeparator = '/';

struct Variant;

}  // namespace

struct Dir_S {
        int pos;
        File_T file;
        int isGlob;
        int isOpen;
        char path[PATH_MAX + 1];
        DIR* handle;  // the directory variant's stream
        int index;    // the glob variant's last entry, -1 before the first
        glob_t state;
        const Variant* variant;
};

namespace {

// The operations that differ between a directory and a glob pattern.
struct Variant {
        void (*free)(Dir_T D);
        bool (*next)(Dir_T D);
        void (*rewind)(Dir_T D);
};

void dirFree(Dir_T D) {
        closedir(D->handle);
}

bool dirNext(Dir_T D) {
        // readdir is safe here: each stream belongs to one Dir, and a Dir to one thread.
        struct dirent* entry = readdir(D->handle);
        if (!entry)
                return false;
        File_reset(D->file, "%s%s", D->path, entry->d_name);
        return true;
}

void dirRewind(Dir_T D) {
        rewinddir(D->handle);
}

void globFree(Dir_T D) {
        globfree(&D->state);
}

bool globNext(Dir_T D) {
        if (D->index + 1 >= static_cast<int>(D->state.gl_pathc))
                return false;
        const char* entry = D->state.gl_pathv[++D->index];
        File_reset(D->file, "%s%s", *entry == kSeparator ? "" : D->path, entry);
        return true;
}

void globRewind(Dir_T D) {
        D->index = -1;
}

constexpr Variant kDirectory{dirFree, dirNext, dirRewind};
constexpr Variant kGlob{globFree, globNext, globRewind};

void endWithSeparator(char* path) {
        size_t n = strlen(path);
        if (n > 0 && path[n - 1] != kSeparator && n < PATH_MAX) {
                path[n] = kSeparator;
                path[n + 1] = 0;
        }
}

// The base path: given is the formatted path or pattern, and never longer than 4095.
void fixPath(Dir_T D, const char* given) {
        D->path[0] = 0;
        if (D->isGlob) {
                if (File_isPathAbsolute(given)) {
                        char directory[PATH_MAX + 1];
                        snprintf(directory, sizeof directory, "%s", given);
                        if (!realpath(File_dirname(directory), D->path))
                                D->path[0] = 0;
                } else if (!Dir_cwd(D->path, sizeof D->path)) {
                        D->path[0] = 0;
                }
        } else if (File_isPathAbsolute(given)) {
                snprintf(D->path, sizeof D->path, "%s", given);
        } else if (!realpath(given, D->path)) {
                D->path[0] = 0;
        }
        endWithSeparator(D->path);
}

// Formats into buffer, which holds PATH_MAX bytes; raises if the text does not fit.
void formatPath(Dir_T D, char* buffer, const char* fmt, va_list ap) {
        int n = vsnprintf(buffer, PATH_MAX, fmt, ap);
        if (n < 0 || n > PATH_MAX - 1) {
                FREE(D);
                THROW(AssertException, "path too long");
        }
}

Dir_T make(bool isGlob) {
        Dir_T D;
        NEW0(D);
        D->isGlob = isGlob;
        D->index = -1;
        return D;
}

void install(Dir_T D, const Variant& variant) {
        D->file = File_new("%s", "");
        D->isOpen = true;
        D->variant = &variant;
}

}  // namespace

Dir_T Dir_new(const char* format, ...) {
        if (!format) {
                THROW(AssertException, "Illegal parameter value - null");
                return nullptr;
        }
        Dir_T D = make(false);
        char given[PATH_MAX];
        va_list ap;
        va_start(ap, format);
        formatPath(D, given, format, ap);
        va_end(ap);
        fixPath(D, given);
        D->handle = opendir(D->path);
        if (!D->handle) {
                int saved = errno;
                FREE(D);
                errno = saved;
                return nullptr;
        }
        install(D, kDirectory);
        return D;
}

Dir_T Dir_glob(const char* format, ...) {
        if (!format) {
                THROW(AssertException, "Illegal parameter value - null");
                return nullptr;
        }
        Dir_T D = make(true);
        char given[PATH_MAX];
        va_list ap;
        va_start(ap, format);
        formatPath(D, given, format, ap);
        va_end(ap);
        errno = 0;
        if (glob(given, GLOB_NOSORT, nullptr, &D->state) != 0) {
                int saved = errno ? errno : ENOENT;
                globfree(&D->state);
                FREE(D);
                errno = saved;
                return nullptr;
        }
        fixPath(D, given);
        install(D, kGlob);
        return D;
}

void Dir_free(Dir_T* D) {
        assert(D && *D);
        File_free(&(*D)->file);
        if ((*D)->isOpen)
                (*D)->variant->free(*D);
        FREE(*D);
}

File_T Dir_next(Dir_T D) {
        assert(D);
        if (!D->variant->next(D))
                return nullptr;
        D->pos++;
        return D->file;
}

void Dir_rewind(Dir_T D) {
        assert(D);
        D->pos = 0;
        D->variant->rewind(D);
}

void Dir_map(Dir_T D, void (*apply)(File_T file, void* ap), void* ap) {
        assert(D);
        assert(apply);
        D->variant->rewind(D);
        while (D->variant->next(D))
                apply(D->file, ap);
        Dir_rewind(D);
}

int Dir_pos(Dir_T D) {
        assert(D);
        return D->pos;
}

const char* Dir_getPath(Dir_T D) {
        assert(D);
        return D->path;
}

char* Dir_cwd(char* buffer, int size) {
        if (!buffer || size < 1) {
                errno = EINVAL;
                return nullptr;
        }
        return getcwd(buffer, static_cast<size_t>(size));
}

int Dir_chdir(const char* path) {
        if (!path) {
                errno = EINVAL;
                return false;
        }
        return chdir(path) == 0;
}

int Dir_delete(const char* path) {
        if (!path) {
                errno = EINVAL;
                return false;
        }
        return File_delete(path);
}

int Dir_mkdir(const char* path, mode_t mode) {
        if (!path || mkdir(path, 0777) != 0) {
                errno = EINVAL;
                return false;
        }
        if (mode)
                File_chmod(path, mode);
        return true;
}
