// Where Net_sendfile, Net_sendfileb and OutputStream_setFileMap get mapped files: the
// plain mappings of the process-wide file cache.
#pragma once

#include <vesk/File.h>
#include <vesk/FileCache.h>
#include <vesk/OutputStream.h>

// The file's size in bytes, or -1 when it cannot be read.
inline long long FileSource_size(const char* path) {
        return static_cast<long long>(File_size(path));
}

// The plain mapping of path with one more reference, or NULL.
inline FileMap_T FileSource_get(const char* path) {
        return FileCache_get(FileCache_getInstance(), 0, path);
}

// Gives one reference back.
inline void FileSource_return(FileMap_T map) {
        FileCache_return(FileCache_getInstance(), map);
}

// The first mapped byte, or NULL when unmapped.
inline const char* FileSource_address(FileMap_T map) {
        return static_cast<const char*>(FileMap_getAddress(map));
}

// Bytes mapped.
inline int FileSource_length(FileMap_T map) {
        return FileMap_getSize(map);
}
