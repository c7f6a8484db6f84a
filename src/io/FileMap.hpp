// The FileMap record, embedded in each File and handed out by the file cache.
#pragma once

#include <time.h>

#include <atomic>

#include <vesk/File.h>
#include <vesk/Table.h>

struct FileMap_S {
        File_T file;    // the owner; freeing it unmaps and frees this record
        int size;       // bytes mapped: the compressed size for a compressed mapping
        void* address;  // NULL when unmapped
        time_t mtime;   // Time_gmt of the source's st_mtime when it was mapped
        char mode[2];   // 'r' then 0, 'z' (compressed) or '+' (writable)
        int refcount;   // holders and the purge mark; only through FileMap_state()
        Table_T table;  // the cache table that holds this mapping
        int fd = -1;    // the mapped file, kept open for sendfile by a large plain mapping
};

// A plain mapping larger than this keeps its file open, so that it can be sent with
// sendfile rather than copied out of the mapping.
constexpr int FileMap_SendfileSize = 65536;

// The holders' count and the purge mark share one word, so that the holder whose return
// takes the count to 0 sees in that same atomic step whether the mapping must go. With
// two words a mark set between the two reads could be lost.
constexpr int FileMap_Purge = 1 << 30;
constexpr int FileMap_Count = FileMap_Purge - 1;

// The word lives in Mem memory, where no std::atomic is ever constructed.
inline std::atomic_ref<int> FileMap_state(FileMap_S* map) {
        return std::atomic_ref<int>(map->refcount);
}
