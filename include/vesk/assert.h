/*
 * assert: precondition and invariant checks, compiled into every build.
 *
 * A false condition raises AssertException with the enclosing function, file
 * and line and the literal text of the condition as the message. This replaces
 * the C library's macro of the same name; include it after system headers.
 */
#ifndef VESK_ASSERT_INCLUDED
#define VESK_ASSERT_INCLUDED

#include <vesk/Exception.h>

VESK_BEGIN_DECLS

/* Callable form for code that needs an address: reports function "assert" and message "e". */
VESK_API void(assert)(int e);

VESK_END_DECLS

#undef assert
#define assert(e)      \
        ((void)((e) || \
                (Exception_throw(&AssertException, __func__, __FILE__, __LINE__, "%s", #e), 0)))

#endif
