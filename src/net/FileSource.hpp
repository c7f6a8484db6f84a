// Where Net_sendfile, Net_sendfileb and OutputStream_setFileMap get mapped files.
//
// The file cache plugs in here: FileSource_get becomes
// FileCache_get(FileCache_getInstance(), 0, path), FileSource_return becomes
// FileCache_return, FileSource_size becomes File_size, and the two accessors read the
// map's address and size. Until the cache exists no mapping can be had: sending a file
// reports -1 with errno ENOSYS, and no FileMap_T can reach a stream.
#pragma once

#include <errno.h>
#include <sys/stat.h>

#include <vesk/OutputStream.h>

// The file's size in bytes, or -1 when it cannot be read.
inline long long FileSource_size(const char* path) {
        struct stat st;
        return stat(path, &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

// The plain mapping of path with one more reference, or NULL.
inline FileMap_T FileSource_get(const char* path) {
        (void)path;
        errno = ENOSYS;
        return nullptr;
}

// Gives one reference back.
inline void FileSource_return(FileMap_T map) {
        (void)map;
}

// The first mapped byte, or NULL when unmapped.
inline const char* FileSource_address(FileMap_T map) {
        (void)map;
        return nullptr;
}

// Bytes mapped.
inline int FileSource_length(FileMap_T map) {
        (void)map;
        return 0;
}
