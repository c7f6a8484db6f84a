/*
 * Observable: publish and subscribe by text key.
 *
 * Observers are called in the order they were added to a key, and one added twice is
 * called twice. Notifications for any keys may run at the same time; adding or removing
 * an observer waits for them, so an update function must not add or remove observers of
 * the same Observable. An update that raises stops that notification: the observers
 * behind it are not called, the failure is logged and the notification returns false.
 * Keys are not copied and must outlive the Observable; observers stay the caller's.
 * Observable_free(&O) clears the caller's pointer. Bad arguments raise AssertException.
 */
#ifndef VESK_OBSERVABLE_INCLUDED
#define VESK_OBSERVABLE_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Observable_S* Observable_T;

/* An Observable with no observers; free it with Observable_free. */
VESK_API Observable_T Observable_new(void);

/* Frees the Observable and every observer record, and clears *O. */
VESK_API void Observable_free(Observable_T* O);

/* Adds observer under forKey, to be called as update(observer, object) by each notification. */
VESK_API void Observable_addObserver(Observable_T O, void* observer, const char* forKey,
                                     void (*update)(void* observer, void* object));

/* Removes every record of observer, under all keys. */
VESK_API void Observable_removeObserver(Observable_T O, void* observer);

/* Removes every record of observer under forKey. */
VESK_API void Observable_removeObserverForKey(Observable_T O, void* observer, const char* forKey);

/* Calls the observers of forKey with object; true unless an update raised. */
VESK_API int Observable_notifyObservers(Observable_T O, const char* forKey, void* object);

/* Removes every observer under every key. */
VESK_API void Observable_clear(Observable_T O);

VESK_END_DECLS

#endif
