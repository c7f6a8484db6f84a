// What the library itself calls on the file cache, beside its public face.
#pragma once

#include <vesk/FileCache.h>

// The mapping of path already in the cache, as FileCache_get would give it, with one more
// reference; NULL when it is not cached or the cache is busy. Never maps, never waits.
FileMap_T FileCache_find(FileCache_T F, int compress, const char* path);
