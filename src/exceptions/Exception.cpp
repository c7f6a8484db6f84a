#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>

#include <vesk/Container.h>
#include <vesk/Exception.h>
#include <vesk/System.h>

const Exception_T AssertException = {"AssertException"};
const Exception_T MemoryException = {"MemoryException"};
const Exception_T IOException = {"IOException"};
const Exception_T NumberFormatException = {"NumberFormatException"};

pthread_key_t Exception_stack;

namespace {

pthread_once_t once = PTHREAD_ONCE_INIT;

void createKey() {
        // No destructor: a thread that leaves its outermost block holds an empty slot.
        int status = pthread_key_create(&Exception_stack, nullptr);
        if (status != 0)
                Exception_throw(&AssertException, __func__, __FILE__, __LINE__, "%s -- %s",
                                "pthread_key_create(&Exception_stack, NULL)",
                                System_getError(status));
}

inline const char* orUnknown(const char* s) {
        return s ? s : "?";
}

}  // namespace

void Exception_init(void) {
        pthread_once(&once, createKey);
}

void Exception_throw(const Exception_T* e, const char* func, const char* file, int line,
                     const char* cause, ...) {
        if (!e) {
                Exception_throw(&AssertException, __func__, __FILE__, __LINE__, "e");
                return;
        }
        va_list ap;
        auto* frame = static_cast<Exception_Frame*>(pthread_getspecific(Exception_stack));
        if (frame) {
                frame->exception = e;
                frame->func = func;
                frame->file = file;
                frame->line = line;
                if (cause) {
                        va_start(ap, cause);
                        // Told 511 bytes, so at most 510 characters survive.
                        vsnprintf(frame->message, EXCEPTION_MESSAGE_LENGTH - 1, cause, ap);
                        va_end(ap);
                }
                // Pop before the handler runs, so a raise inside it goes to the next block out.
                pthread_setspecific(Exception_stack, frame->prev);
                throw Exception_Raised{};
        }
        if (!cause) {
                Container_AbortHandler("%s: 0x%p\n raised in %s at %s:%d\n", e->name,
                                       static_cast<const void*>(e), orUnknown(func),
                                       orUnknown(file), line);
                return;
        }
        char message[EXCEPTION_MESSAGE_LENGTH] = "?";
        va_start(ap, cause);
        vsnprintf(message, EXCEPTION_MESSAGE_LENGTH - 1, cause, ap);
        va_end(ap);
        if (Container_Debug)
                Container_AbortHandler("%s: %s\n raised in %s at %s:%d\n", e->name, message,
                                       orUnknown(func), orUnknown(file), line);
        else
                Container_AbortHandler("%s: %s\n", e->name, message);
}
