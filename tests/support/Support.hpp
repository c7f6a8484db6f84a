// Helpers shared by the tests.
#pragma once

#include <string>

#include <vesk/Exception.h>

// Runs f and returns "<ExceptionName>: <message>" for what it raised, or "" if nothing.
template <typename F>
std::string raised(F&& f) {
        std::string what;
        TRY
                f();
        ELSE
                what = std::string(Exception_frame.exception->name) + ": " + Exception_frame.message;
        END_TRY;
        return what;
}

// The message of an AssertException raised by f, or "" if f raised nothing.
template <typename F>
std::string assertion(F&& f) {
        std::string what;
        TRY
                f();
        CATCH(AssertException)
                what = Exception_frame.message;
        END_TRY;
        return what;
}

// True when no protected block of this thread is active.
inline bool stackEmpty() {
        return pthread_getspecific(Exception_stack) == nullptr;
}
