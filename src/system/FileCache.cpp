#include <errno.h>
#include <pthread.h>
#include <string.h>

#include <atomic>

#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/File.h>
#include <vesk/FileCache.h>
#include <vesk/List.h>
#include <vesk/Mem.h>
#include <vesk/Metrics.h>
#include <vesk/Str.h>
#include <vesk/System.h>
#include <vesk/Table.h>

#include "io/FileMap.hpp"
#include "thread/Lock.hpp"

#include <vesk/assert.h>
#include "system/FileCache.hpp"

struct FileCache_S {
        int files;
        pthread_mutex_t mutex;
        Table_T tables[3];  // plain, compressed, and NULL to end the list
        int64_t maxSize;
        int64_t size;
        // Mappings taken out of the tables while still held: they are freed by their last
        // holder's return, or by FileCache_free.
        List_T discarded;
};

namespace {

constexpr int64_t kDefaultMaxSize = 10240000;
constexpr int64_t kSmallestMaxSize = 1024000;

std::atomic<FileCache_T> instance{nullptr};
pthread_mutex_t instanceMutex = PTHREAD_MUTEX_INITIALIZER;

int holders(FileMap_T map) {
        return FileMap_state(map).load() & FileMap_Count;
}

// Takes map out of its table, unmaps it and frees its File; under the cache's mutex.
// A mapping that its table does not hold is left alone, unless it was discarded.
bool drop(FileCache_T F, FileMap_T map) {
        File_T file = map->file;
        const char* path = file ? File_getPath(file) : "";
        if (!map->table) {
                if (!List_remove(F->discarded, map))
                        return false;
        } else if (Table_get(map->table, path) != map) {
                Error_error("File cache: requested to remove file (%s) not in cache\n", path);
                return false;
        } else {
                Table_remove(map->table, path);
        }
        F->size -= map->size;
        F->files--;
        File_free(&file);
        return true;
}

// Drops mappings that no one holds until incoming more bytes fit within the limit, plain
// ones before compressed ones, in the tables' own order. Mappings in use stay, so the
// limit may still be exceeded afterwards.
void evict(FileCache_T F, int64_t incoming) {
        int64_t total = F->size + incoming;
        for (int i = 0; F->tables[i] && total > F->maxSize; i++) {
                Table_T table = F->tables[i];
                Table_rewind(table);
                while (total > F->maxSize) {
                        FileMap_T map = static_cast<FileMap_T>(Table_next(table));
                        if (!map)
                                break;
                        int size = map->size;
                        if (holders(map) < 1 && drop(F, map))
                                total -= size;
                }
        }
}

}  // namespace

FileCache_T FileCache_getInstance(void) {
        FileCache_T F = instance.load(std::memory_order_acquire);
        if (F)
                return F;
        vesk::Lock lock(instanceMutex);
        F = instance.load(std::memory_order_relaxed);
        if (!F) {
                NEW0(F);
                Exception_wrapper(pthread_mutex_init(&F->mutex, NULL));
                F->tables[0] = Table_new(64, Str_cmp, Str_hash);
                F->tables[1] = Table_new(64, Str_cmp, Str_hash);
                F->discarded = List_new();
                F->maxSize = kDefaultMaxSize;
                instance.store(F, std::memory_order_release);
        }
        return F;
}

void FileCache_free(void) {
        vesk::Lock lock(instanceMutex);
        FileCache_T F = instance.load(std::memory_order_relaxed);
        if (!F)
                return;
        Error_debug("File cache finalized. Releasing %lld bytes in %d memory mapped file(s)\n",
                    static_cast<long long>(F->size), F->files);
        for (int i = 0; i < 2; i++) {
                Table_T table = F->tables[i];
                Table_rewind(table);
                while (FileMap_T map = static_cast<FileMap_T>(Table_next(table))) {
                        File_T file = map->file;
                        Table_remove(table, File_getPath(file));
                        File_free(&file);
                }
                Table_free(&F->tables[i]);
        }
        while (FileMap_T map = static_cast<FileMap_T>(List_pop(F->discarded))) {
                File_T file = map->file;
                File_free(&file);
        }
        List_free(&F->discarded);
        Exception_wrapper(pthread_mutex_destroy(&F->mutex));
        FREE(F);
        instance.store(nullptr, std::memory_order_release);
}

FileMap_T FileCache_get(FileCache_T F, int compress, const char* path) {
        assert(F);
        assert(path);
        int form = compress ? 1 : 0;
        vesk::Lock lock(F->mutex);
        FileMap_T map = static_cast<FileMap_T>(Table_get(F->tables[form], path));
        Metrics_fileCacheLookup(map != nullptr);
        if (!map) {
                // "%s", so that a '%' in the path stays part of the name.
                File_T file = File_new("%s", path);
                map = File_map(file, form ? "rz" : "r");
                if (!map) {
                        int error = errno;
                        File_free(&file);
                        Error_error("FileCache: cannot cache file '%s' -- %s\n", path,
                                    System_getError(error));
                        errno = error;
                        return nullptr;
                }
                if (F->maxSize > 0 && F->size + map->size > F->maxSize)
                        evict(F, map->size);
                // Without a limit a mapping lives only while someone holds it.
                FileMap_state(map).store(F->maxSize == 0 ? FileMap_Purge : 0);
                map->table = F->tables[form];
                Table_put(map->table, File_getPath(file), map);
                F->size += map->size;
                F->files++;
        }
        FileMap_state(map).fetch_add(1);
        return map;
}

FileMap_T FileCache_find(FileCache_T F, int compress, const char* path) {
        assert(F);
        assert(path);
        // The mutex is held while a file is mapped and compressed; a caller that must not
        // wait takes a busy cache for a miss.
        vesk::Lock lock(F->mutex, std::try_to_lock);
        if (!lock)
                return nullptr;
        FileMap_T map = static_cast<FileMap_T>(Table_get(F->tables[compress ? 1 : 0], path));
        if (map)
                FileMap_state(map).fetch_add(1);
        return map;
}

void FileCache_return(FileCache_T F, FileMap_T map) {
        assert(F);
        assert(map);
        // Every return but the last one of a marked mapping is one atomic step and no lock.
        std::atomic_ref<int> state = FileMap_state(map);
        int now = state.load();
        for (;;) {
                int count = now & FileMap_Count;
                if (count < 1) {
                        Error_error("FileCache: mapping of %s returned more often than taken\n",
                                    map->file ? File_getPath(map->file) : "?");
                        return;
                }
                if (count == 1 && (now & FileMap_Purge))
                        break;
                if (state.compare_exchange_weak(now, now - 1))
                        return;
        }
        // The last holder of a marked mapping lets go under the lock, where no new holder
        // can come and nothing else can free the mapping; a get that came in meanwhile
        // has made it not the last one after all.
        vesk::Lock lock(F->mutex);
        int left = state.fetch_sub(1) - 1;
        if ((left & FileMap_Count) < 1 && (left & FileMap_Purge))
                drop(F, map);
}

void FileCache_discard(FileCache_T F, FileMap_T map) {
        assert(F);
        assert(map);
        vesk::Lock lock(F->mutex);
        // Marked first: the holder whose return takes the count to 0 must see the mark.
        FileMap_state(map).fetch_or(FileMap_Purge);
        if (!map->table)
                return;
        const char* path = File_getPath(map->file);
        if (Table_get(map->table, path) == map)
                Table_remove(map->table, path);
        map->table = nullptr;
        List_push(F->discarded, map);
        // A holder that let go just before the mark came took no lock and dropped nothing.
        if (holders(map) < 1)
                drop(F, map);
}

void FileCache_setMaxSize(FileCache_T F, int64_t size) {
        assert(F);
        assert(size >= 0);
        vesk::Lock lock(F->mutex);
        F->maxSize = size > 0 && size < kSmallestMaxSize ? kSmallestMaxSize : size;
}

int64_t FileCache_getMaxSize(FileCache_T F) {
        assert(F);
        vesk::Lock lock(F->mutex);
        return F->maxSize;
}

int64_t FileCache_size(FileCache_T F) {
        assert(F);
        vesk::Lock lock(F->mutex);
        return F->size;
}

int FileCache_files(FileCache_T F) {
        assert(F);
        vesk::Lock lock(F->mutex);
        return F->files;
}

void FileMap_purge(FileMap_T M) {
        assert(M);
        FileMap_state(M).fetch_or(FileMap_Purge);
}

int FileMap_isPurged(FileMap_T M) {
        assert(M);
        return (FileMap_state(M).load() & FileMap_Purge) != 0;
}

int FileMap_getRefcount(FileMap_T M) {
        assert(M);
        return holders(M);
}
