// Reading the bytes of a file mapping without letting a file that shrank end the process.
//
// Pages of a mapping that lie past the end of a file truncated after it was mapped raise
// SIGBUS when they are read. The kernel reports that to a system call as EFAULT, but a
// read in user space (a copy, a compressor, a cipher) is killed by it. Such reads go
// through MapGuard_copy, which turns the fault into a failed copy on this one thread.
#pragma once

#include <stddef.h>

// Copies n bytes from the mapping at from into to; false with errno EFAULT if a page of
// the source could not be read. A bus error anywhere else still ends the process, through
// whatever handled it before (the default action, or a sanitizer's report).
bool MapGuard_copy(void* to, const void* from, size_t n);
