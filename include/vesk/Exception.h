/*
 * Exception: the one way a function reports that it cannot do its job.
 *
 * An exception type is an immutable Exception_T object; types are told apart by
 * the object's address, never by name. Exception_throw (or THROW) raises one.
 * The nearest active protected block of the same thread takes it; if the thread
 * has none, the decision is made at the raising site: Container_AbortHandler is
 * called, which by default logs and ends the process.
 *
 * Protected blocks are written in C++ code as
 *
 *     TRY
 *         body
 *     CATCH(IOException)
 *         handler, sees Exception_frame.message, .func, .file, .line
 *     ELSE
 *         handler for any other type
 *     FINALLY
 *         final section
 *     END_TRY;
 *
 * Handlers are tested in order of writing. The final section runs whether or
 * not a handler ran, except when a handler itself raises: that exception goes
 * straight to the next block out. An exception no handler took is raised again
 * to the next block out after the final section, keeping its function, file and
 * line. Messages are cut to 510 characters. Leaving a block by return, break or
 * a foreign C++ exception keeps the thread's record of active blocks exact.
 */
#ifndef VESK_EXCEPTION_INCLUDED
#define VESK_EXCEPTION_INCLUDED

#include <errno.h>
#include <pthread.h>
#include <string.h>

#include <vesk/Export.h>

VESK_BEGIN_DECLS

/* One exception type. */
typedef struct Exception_T {
        const char* name;
} Exception_T;

/* Room for a formatted message: 510 characters, a terminator and a spare byte. */
#define EXCEPTION_MESSAGE_LENGTH 512

/* One active protected block and what is known of the exception that reached it. */
typedef struct Exception_Frame Exception_Frame;
struct Exception_Frame {
        int line;
        void* env; /* the native exception carries control; kept for the record's shape */
        const char* func;
        const char* file;
        const Exception_T* exception;
        Exception_Frame* prev;
        char message[EXCEPTION_MESSAGE_LENGTH];
};

/* States of one protected block. */
enum { Exception_entered = 0, Exception_thrown, Exception_handled, Exception_finalized };

VESK_API extern const Exception_T AssertException;
VESK_API extern const Exception_T MemoryException;
VESK_API extern const Exception_T IOException;
VESK_API extern const Exception_T NumberFormatException;

/* Thread key whose value is the innermost active Exception_Frame of the thread. */
VESK_API extern pthread_key_t Exception_stack;

/* Creates the Exception_stack key, once per process however often called. */
VESK_API void Exception_init(void);

/* Raises `e` with an optional printf-style cause. Returns only when no block is
   active in the thread and Container_AbortHandler returns. */
VESK_API void Exception_throw(const Exception_T* e, const char* func, const char* file, int line,
                              const char* cause, ...) VESK_PRINTF(5, 6);

/* Raises e with the present function, file and line; the first variadic
   argument is the cause format (NULL for none). */
#define THROW(e, ...) Exception_throw(&(e), __func__, __FILE__, __LINE__, __VA_ARGS__)

/* Runs a threading call through the one check: status 0 or ETIMEDOUT passes,
   anything else raises AssertException "<the call as written> -- <error text>". */
#define Exception_wrapper(F)                                                            \
        do {                                                                            \
                int _wstatus = (F);                                                     \
                if (_wstatus != 0 && _wstatus != ETIMEDOUT)                             \
                        Exception_throw(&AssertException, __func__, __FILE__, __LINE__, \
                                        "%s -- %s", #F, strerror(_wstatus));            \
        } while (0)

VESK_END_DECLS

#ifdef __cplusplus

/* What a raise inside a protected block throws natively. The frame that caught it
   already holds the exception's details; the object itself carries nothing. */
struct Exception_Raised {};

/* The record of one protected block. Entering pushes the frame; every way out of
   the body that is not a raise (normal end, return, break, a foreign exception)
   pops it here, so the thread's stack of frames never points at a dead frame. */
class Exception_Block {
public:
        Exception_Frame frame;
        int flag = Exception_entered;

        Exception_Block() noexcept {
                frame.message[0] = 0;
                frame.exception = nullptr;
                frame.func = frame.file = nullptr;
                frame.line = 0;
                frame.env = nullptr;
                frame.prev = static_cast<Exception_Frame*>(pthread_getspecific(Exception_stack));
                pthread_setspecific(Exception_stack, &frame);
        }
        ~Exception_Block() { leave(); }
        Exception_Block(const Exception_Block&) = delete;
        Exception_Block& operator=(const Exception_Block&) = delete;

        /* The body (or a handler, or the final section) ended without a raise. */
        void leave() noexcept {
                if (pthread_getspecific(Exception_stack) == &frame)
                        pthread_setspecific(Exception_stack, frame.prev);
        }
        /* A raise reached this block. From the body it arrives here; from a handler or
           the final section it belongs to the next block out and keeps going. */
        void arrived() {
                if (flag != Exception_entered)
                        throw;
                flag = Exception_thrown;
        }
        bool takes(const Exception_T* e) noexcept {
                if (flag == Exception_thrown && (e == nullptr || frame.exception == e)) {
                        flag = Exception_handled;
                        return true;
                }
                return false;
        }
        void finalize() noexcept {
                if (flag == Exception_entered)
                        flag = Exception_finalized;
        }
        /* Raises the frame's exception to the next block out with its own location.
           The stored message passes the format step once more, as a rethrow does. */
        void rethrow() {
                char text[EXCEPTION_MESSAGE_LENGTH];
                size_t j = 0;
                for (size_t i = 0; frame.message[i] && j < sizeof text - 1; i++) {
                        text[j++] = frame.message[i];
                        if (frame.message[i] == '%' && frame.message[i + 1] == '%')
                                i++;
                }
                text[j] = 0;
                Exception_throw(frame.exception, frame.func, frame.file, frame.line, "%s", text);
        }
};

#define VESK_TRY_CLOSE_                    \
        }                                  \
        Exception_block.leave();           \
        }                                  \
        catch (const Exception_Raised&) {  \
                Exception_block.arrived(); \
        }

#define TRY                                                               \
        {                                                                 \
                Exception_Block Exception_block;                          \
                Exception_Frame& Exception_frame = Exception_block.frame; \
                (void)Exception_frame;                                    \
                try {                                                     \
                        {
#define CATCH(e)                         \
        VESK_TRY_CLOSE_                  \
        if (Exception_block.takes(&(e))) \
                try {                    \
                        {
#define ELSE                                \
        VESK_TRY_CLOSE_                     \
        if (Exception_block.takes(nullptr)) \
                try {                       \
                        {
#define FINALLY                     \
        VESK_TRY_CLOSE_             \
        Exception_block.finalize(); \
        try {                       \
                {
#define END_TRY                                       \
        VESK_TRY_CLOSE_                               \
        if (Exception_block.flag == Exception_thrown) \
                Exception_block.rethrow();            \
        }

/* Rethrows the exception a handler is handling, keeping its location. */
#define RETHROW Exception_block.rethrow()

#endif /* __cplusplus */

#endif
