#include <pthread.h>

#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/List.h>
#include <vesk/Mem.h>
#include <vesk/Observable.h>
#include <vesk/Str.h>
#include <vesk/Table.h>
#include <vesk/assert.h>

#include "thread/Lock.hpp"

struct Observable_S {
        pthread_rwlock_t lock;
        Table_T observers;  // key text to a List_T of records
};

namespace {

constexpr int kKeyHint = 29;

struct Record {
        void* observer;
        void (*update)(void* observer, void* object);
};

Table_T newTable() {
        return Table_new(kKeyHint, Str_cmp, Str_hash);
}

void freeTable(Table_T* observers) {
        Table_rewind(*observers);
        while (List_T records = static_cast<List_T>(Table_next(*observers))) {
                while (List_length(records) > 0) {
                        Record* r = static_cast<Record*>(List_pop(records));
                        FREE(r);
                }
                List_free(&records);
        }
        Table_free(observers);
}

// Removes and frees every record of observer in records. Called under the write lock.
void removeFrom(List_T records, void* observer) {
        for (;;) {
                Record* found = nullptr;
                for (list_t p = records->head; p && !found; p = p->next)
                        if (static_cast<Record*>(p->e)->observer == observer)
                                found = static_cast<Record*>(p->e);
                if (!found)
                        return;
                List_remove(records, found);
                FREE(found);
        }
}

}  // namespace

Observable_T Observable_new(void) {
        Observable_T O;
        NEW0(O);
        Exception_wrapper(pthread_rwlock_init(&O->lock, NULL));
        O->observers = newTable();
        return O;
}

void Observable_free(Observable_T* O) {
        assert(O && *O);
        freeTable(&(*O)->observers);
        Exception_wrapper(pthread_rwlock_destroy(&(*O)->lock));
        FREE(*O);
}

void Observable_addObserver(Observable_T O, void* observer, const char* forKey,
                            void (*update)(void* observer, void* object)) {
        assert(O);
        assert(observer);
        assert(forKey);
        assert(update);
        vesk::RWLock lock(O->lock, vesk::RWLock::Write);
        List_T records = static_cast<List_T>(Table_get(O->observers, forKey));
        if (!records) {
                records = List_new();
                Table_put(O->observers, forKey, records);
        }
        Record* r;
        NEW(r);
        r->observer = observer;
        r->update = update;
        List_append(records, r);
}

void Observable_removeObserver(Observable_T O, void* observer) {
        assert(O);
        assert(observer);
        vesk::RWLock lock(O->lock, vesk::RWLock::Write);
        Table_rewind(O->observers);
        while (List_T records = static_cast<List_T>(Table_next(O->observers)))
                removeFrom(records, observer);
}

void Observable_removeObserverForKey(Observable_T O, void* observer, const char* forKey) {
        assert(O);
        assert(observer);
        assert(forKey);
        vesk::RWLock lock(O->lock, vesk::RWLock::Write);
        List_T records = static_cast<List_T>(Table_get(O->observers, forKey));
        if (records)
                removeFrom(records, observer);
}

int Observable_notifyObservers(Observable_T O, const char* forKey, void* object) {
        assert(O);
        assert(forKey);
        // The read lock lets notifications run side by side, and is held through the
        // updates: an update that adds or removes an observer here would wait for itself.
        vesk::RWLock lock(O->lock, vesk::RWLock::Read);
        List_T records = static_cast<List_T>(Table_get(O->observers, forKey));
        if (!records)
                return true;
        int ok = true;
        TRY
                for (list_t p = records->head; p; p = p->next) {
                        Record* r = static_cast<Record*>(p->e);
                        r->update(r->observer, object);
                }
        ELSE
                Error_error("Observable: notification for key '%s' failed -- %s: %s\n", forKey,
                            Exception_frame.exception->name, Exception_frame.message);
                ok = false;
        END_TRY;
        return ok;
}

void Observable_clear(Observable_T O) {
        assert(O);
        vesk::RWLock lock(O->lock, vesk::RWLock::Write);
        freeTable(&O->observers);
        O->observers = newTable();
}
