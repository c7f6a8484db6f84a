#include <pthread.h>
#include <stdarg.h>
#include <string.h>

#include <atomic>

#include <vdb/vdb.h>

#include <vesk/Build.h>
#include <vesk/Context.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/HttpSession.h>
#include <vesk/Mem.h>
#include <vesk/Principal.h>
#include <vesk/Realm.h>
#include <vesk/SessionManager.h>
#include <vesk/Str.h>
#include <vesk/StringBuffer.h>
#include <vesk/Table.h>
#include <vesk/Time.h>
#include <vesk/assert.h>

#include "http/SessionBlob.hpp"
#include "thread/Lock.hpp"
#include "util/Holder.hpp"

// Several requests of one session run at once. The attribute table, the principal and
// the auth type are guarded by the mutex; the times and flags are atomics read and
// written relaxed, since a request that sees a neighbour's time one step late decides
// nothing differently.
struct HttpSession_S {
        char* id;
        char* authType;
        std::atomic<int> isNew;
        std::atomic<int> isValid;
        std::atomic<int> isPersistent;
        Context_T context;
        Table_T attributes;
        std::atomic<int> isDirty;
        Principal_T principal;
        std::atomic<time_t> creationTime;
        std::atomic<time_t> lastAccessedTime;
        std::atomic<time_t> thisAccessedTime;
        std::atomic<int> maxInactiveInterval;
        SessionManager_T manager;
        pthread_mutex_t mutex;
        std::atomic<int> refcount;
};

namespace {

constexpr auto relaxed = std::memory_order_relaxed;

const char* const kIllegalBlob = "Illegal format of Session data blob";

using Connection = vesk::Holder<Connection_T, Connection_close>;
void freeBuffer(StringBuffer_T buffer) {
        StringBuffer_free(&buffer);
}

using Buffer = vesk::Holder<StringBuffer_T, freeBuffer>;

void freeAttribute(vesk::SessionAttribute* a) {
        FREE(a->name);
        FREE(a->value);
        FREE(a);
}

vesk::SessionAttribute* newAttribute(const char* name, char* value) {
        vesk::SessionAttribute* a;
        NEW(a);
        a->name = Str_dup(name);
        a->value = value;
        return a;
}

// Adds or replaces name; the table takes value.
void putAttribute(Table_T attributes, const char* name, char* value) {
        auto a = static_cast<vesk::SessionAttribute*>(Table_get(attributes, name));
        if (a) {
                FREE(a->value);
                a->value = value;
                return;
        }
        a = newAttribute(name, value);
        Table_put(attributes, a->name, a);
}

// The decimal length that runs from start up to the ':' at end, or -1.
long readLength(const char* start, const char* end) {
        if (start == end)
                return -1;
        long n = 0;
        for (const char* p = start; p < end; p++) {
                if (*p < '0' || *p > '9' || n > (1L << 40))
                        return -1;
                n = n * 10 + (*p - '0');
        }
        return n;
}

// Reads one "length:text;" field at p, before end; cuts the ';' to zero and returns the
// text, moving p past it. NULL when no ':' is left. Anything malformed raises.
char* readField(char*& p, char* end) {
        char* colon = static_cast<char*>(memchr(p, ':', static_cast<size_t>(end - p)));
        if (!colon)
                return nullptr;
        long length = readLength(p, colon);
        char* text = colon + 1;
        if (length < 0 || length >= end - text || text[length] != ';')
                THROW(AssertException, "%s", kIllegalBlob);
        text[length] = 0;
        p = text + length + 1;
        return text;
}

void addToBlob(const void* key, void** value, void* cl) {
        (void)key;
        auto a = static_cast<vesk::SessionAttribute*>(*value);
        StringBuffer_append(static_cast<StringBuffer_T>(cl), "%ld:%s;%ld:%s;",
                            static_cast<long>(strlen(a->name)), a->name,
                            static_cast<long>(strlen(a->value)), a->value);
}

ConnectionPool_T database() {
        return Realm_getDatabase(Realm_getInstance());
}

Connection connect() {
        ConnectionPool_T pool = database();
        return Connection(pool ? ConnectionPool_getConnection(pool) : nullptr);
}

}  // namespace

/* -------------------------------------------------------------- The blob format */

namespace vesk {

StringBuffer_T encodeSessionAttributes(Table_T attributes) {
        if (Table_length(attributes) == 0)
                return nullptr;
        StringBuffer_T blob = StringBuffer_create(512);
        Table_map(attributes, addToBlob, blob);
        return blob;
}

void decodeSessionAttributes(char* data, int size, Table_T attributes) {
        assert(data);
        assert(size >= 0);
        char* end = data + size;
        for (char* p = data; p < end;) {
                char* name = readField(p, end);
                if (!name)
                        return;
                char* value = readField(p, end);
                if (!value)
                        THROW(AssertException, "%s", kIllegalBlob);
                putAttribute(attributes, name, Str_dup(value));
        }
}

void clearSessionAttributes(Table_T attributes) {
        void** all = Table_toArray(attributes);
        for (int i = 0; all[i]; i += 2) {
                auto a = static_cast<SessionAttribute*>(all[i + 1]);
                Table_remove(attributes, a->name);
                freeAttribute(a);
        }
        FREE(all);
}

}  // namespace vesk

/* ------------------------------------------------------------------- Lifecycle */

HttpSession_T HttpSession_new(SessionManager_T manager) {
        assert(manager);
        HttpSession_T S;
        NEW0(S);
        S->isNew = 1;
        S->isValid = 1;
        S->maxInactiveInterval = -1;
        S->manager = manager;
        S->context = SessionManager_getContext(manager);
        S->attributes = Table_new(15, Str_cmp, Str_hash);
        Exception_wrapper(pthread_mutex_init(&S->mutex, nullptr));
        return S;
}

void HttpSession_free(HttpSession_T* S) {
        assert(S && *S);
        HttpSession_T s = *S;
        vesk::clearSessionAttributes(s->attributes);
        Table_free(&s->attributes);
        FREE(s->authType);
        FREE(s->id);
        if (s->principal)
                Principal_decrement(s->principal);
        Exception_wrapper(pthread_mutex_destroy(&s->mutex));
        FREE(*S);
}

/* ------------------------------------------------------------------- Database */

void HttpSession_store(HttpSession_T S) {
        assert(S);
        Connection connection = connect();
        if (!connection) {
                Error_error("Cannot save session %s to database -- Connection not available\n",
                            S->id);
                return;
        }
        Buffer blob;
        TRY
                Connection_T c = connection.get();
                {
                        vesk::Lock lock(S->mutex);
                        blob.reset(vesk::encodeSessionAttributes(S->attributes));
                }
                PreparedStatement_T find =
                    Connection_prepareStatement(c, "select ctime from session where id=?;");
                PreparedStatement_setString(find, 1, S->id);
                ResultSet_T r = PreparedStatement_executeQuery(find);
                const char* sql =
                    r && ResultSet_next(r)
                        ? "update session set context=?, ctime=?, atime=?, itime=?, authtype=?, "
                          "principal=?, data=? where id=?;"
                        : "insert into session(context, ctime, atime, itime, authtype, principal, "
                          "data, id) values(?, ?, ?, ?, ?, ?, ?, ?);";
                PreparedStatement_T p = Connection_prepareStatement(c, sql);
                PreparedStatement_setString(p, 1, Context_getContextPath(S->context));
                PreparedStatement_setLLong(p, 2, S->creationTime.load(relaxed));
                PreparedStatement_setLLong(p, 3, S->lastAccessedTime.load(relaxed));
                PreparedStatement_setInt(p, 4, S->maxInactiveInterval.load(relaxed));
                {
                        vesk::Lock lock(S->mutex);
                        PreparedStatement_setString(p, 5, S->authType);
                        PreparedStatement_setString(
                            p, 6, S->principal ? Principal_getName(S->principal) : nullptr);
                }
                StringBuffer_T b = blob.get();
                PreparedStatement_setBlob(p, 7, b ? StringBuffer_toString(b) : nullptr,
                                          b ? StringBuffer_length(b) : 0);
                PreparedStatement_setString(p, 8, S->id);
                PreparedStatement_execute(p);
                S->isDirty = 0;
        CATCH(SQLException)
                Error_error("SQLException storing Session %s -- %s\n", S->id,
                            Exception_frame.message);
        END_TRY;
}

HttpSession_T HttpSession_load(SessionManager_T manager, const char* id) {
        assert(id);
        Connection connection = connect();
        if (!connection) {
                Error_error("Cannot load session %s -- Connection not available\n", id);
                return nullptr;
        }
        HttpSession_T S = nullptr;
        vesk::Block<char> principal;
        TRY
                PreparedStatement_T p = Connection_prepareStatement(
                    connection.get(), "select * from session where id = ?;");
                PreparedStatement_setString(p, 1, id);
                ResultSet_T r = PreparedStatement_executeQuery(p);
                if (r && ResultSet_next(r)) {
                        S = HttpSession_new(manager);
                        S->id = Str_dup(id);
                        S->isPersistent = 1;
                        S->creationTime = ResultSet_getLLong(r, 3);
                        S->lastAccessedTime = ResultSet_getLLong(r, 4);
                        S->thisAccessedTime = S->lastAccessedTime.load();
                        S->maxInactiveInterval = ResultSet_getInt(r, 5);
                        S->authType = Str_dup(ResultSet_getString(r, 6));
                        principal.reset(Str_dup(ResultSet_getString(r, 7)));
                        int size = 0;
                        char* data = static_cast<char*>(ResultSet_getBlob(r, 8, &size));
                        if (data && size > 0)
                                vesk::decodeSessionAttributes(data, size, S->attributes);
                        // The Realm may need a connection of its own for the user: this one
                        // goes back first, so that a pool of one does not run dry.
                        connection.reset();
                        if (principal)
                                S->principal =
                                    Realm_getPrincipal(Realm_getInstance(), principal.get());
                        S->isDirty = 0;
                }
        ELSE
                Error_error("%s loading Session %s -- %s\n", Exception_frame.exception->name, id,
                            Exception_frame.message);
                if (S)
                        HttpSession_free(&S);
        END_TRY;
        return S;
}

/* ---------------------------------------------------------------- Properties */

const char* HttpSession_getId(HttpSession_T S) {
        assert(S);
        return S->id;
}

void HttpSession_setId(HttpSession_T S, const char* id) {
        assert(S);
        assert(id);
        char* copy = Str_dup(id);
        FREE(S->id);
        S->id = copy;
        time_t now = Time_now();
        S->creationTime.store(now, relaxed);
        S->lastAccessedTime.store(now, relaxed);
        S->thisAccessedTime.store(now, relaxed);
}

const char* HttpSession_getAuthType(HttpSession_T S) {
        assert(S);
        vesk::Lock lock(S->mutex);
        return S->authType;
}

void HttpSession_setAuthType(HttpSession_T S, const char* type) {
        assert(S);
        char* copy = Str_dup(type);
        vesk::Lock lock(S->mutex);
        FREE(S->authType);
        S->authType = copy;
        S->isDirty = 1;
}

Principal_T HttpSession_getPrincipal(HttpSession_T S) {
        assert(S);
        vesk::Lock lock(S->mutex);
        return S->principal;
}

void HttpSession_setPrincipal(HttpSession_T S, Principal_T principal) {
        assert(S);
        if (principal)
                Principal_increment(principal);
        Principal_T previous;
        {
                vesk::Lock lock(S->mutex);
                previous = S->principal;
                S->principal = principal;
                S->isDirty = 1;
        }
        // A second login on the same session replaces the user; the first one's
        // reference goes, so that its count stays exact.
        if (previous)
                Principal_decrement(previous);
}

int HttpSession_getMaxInactiveInterval(HttpSession_T S) {
        assert(S);
        return S->maxInactiveInterval.load(relaxed);
}

void HttpSession_setMaxInactiveInterval(HttpSession_T S, int seconds) {
        assert(S);
        S->maxInactiveInterval.store(seconds, relaxed);
        S->isDirty = 1;
}

time_t HttpSession_getCreationTime(HttpSession_T S) {
        assert(S);
        return S->isValid.load(relaxed) ? S->creationTime.load(relaxed) : -1;
}

time_t HttpSession_getLastAccessedTime(HttpSession_T S) {
        assert(S);
        return S->lastAccessedTime.load(relaxed);
}

int HttpSession_isNew(HttpSession_T S) {
        assert(S);
        return S->isNew.load(relaxed);
}

int HttpSession_isPersistent(HttpSession_T S) {
        assert(S);
        return S->isPersistent.load(relaxed);
}

void HttpSession_setPersistent(HttpSession_T S, int value) {
        assert(S);
        S->isPersistent.store(value, relaxed);
}

ServletContext_T HttpSession_getServletContext(HttpSession_T S) {
        assert(S);
        return Context_getServletContext(S->context);
}

/* ----------------------------------------------------------- Access and expiry */

void HttpSession_access(HttpSession_T S) {
        assert(S);
        S->isNew.store(0, relaxed);
        S->lastAccessedTime.store(S->thisAccessedTime.load(relaxed), relaxed);
        S->thisAccessedTime.store(Time_now(), relaxed);
}

// The test measures from the access before the latest one: it runs before this
// request's own access, so the gap that must stay within the interval is the one to
// the request two back.
int HttpSession_isValid(HttpSession_T S) {
        assert(S);
        int interval = S->maxInactiveInterval.load(relaxed);
        if (S->isValid.load(relaxed) && interval >= 0 &&
            Time_now() - S->lastAccessedTime.load(relaxed) >= interval)
                S->isValid.store(0, relaxed);
        return S->isValid.load(relaxed);
}

void HttpSession_invalidate(HttpSession_T S) {
        assert(S);
        S->isValid.store(0, relaxed);
}

void HttpSession_increment(HttpSession_T S) {
        assert(S);
        S->refcount.fetch_add(1);
}

void HttpSession_decrement(HttpSession_T S) {
        assert(S);
        if (S->isValid.load(relaxed)) {
                S->refcount.fetch_sub(1);
                return;
        }
        // Once the count is down another thread may free the session, so the id and the
        // manager are taken before it.
        vesk::Block<char> id(Str_dup(S->id));
        SessionManager_T manager = S->manager;
        if (S->refcount.fetch_sub(1) <= 1 && id)
                SessionManager_remove(manager, id.get());
}

int HttpSession_refcount(HttpSession_T S) {
        assert(S);
        return S->refcount.load();
}

/* ------------------------------------------------------------------ Attributes */

void HttpSession_setAttribute(HttpSession_T S, const char* name, const char* format, ...) {
        assert(S);
        if (!name || !S->isValid.load(relaxed))
                return;
        if (!format) {
                HttpSession_removeAttribute(S, name);
                return;
        }
        va_list ap;
        va_start(ap, format);
        vesk::Block<char> value;
        TRY
                value.reset(Str_vcat(format, ap));
        FINALLY
                va_end(ap);
        END_TRY;
        vesk::Lock lock(S->mutex);
        putAttribute(S->attributes, name, value.release());
        S->isDirty = 1;
}

const char* HttpSession_getAttribute(HttpSession_T S, const char* name) {
        assert(S);
        if (!name)
                return nullptr;
        const char* copy = nullptr;
        TRY
                vesk::Lock lock(S->mutex);
                auto a = static_cast<vesk::SessionAttribute*>(Table_get(S->attributes, name));
                if (a)
                        copy = STR_DUP_ARENA(
                            static_cast<Arena_T>(pthread_getspecific(Request_Arena)), a->value);
        ELSE
                Error_error("%s: %s in HttpSession_getAttribute()\n",
                            Exception_frame.exception->name, Exception_frame.message);
                copy = nullptr;
        END_TRY;
        return copy;
}

int HttpSession_getIntAttribute(HttpSession_T S, const char* name) {
        assert(S);
        if (!name)
                return -1;
        vesk::Lock lock(S->mutex);
        auto a = static_cast<vesk::SessionAttribute*>(Table_get(S->attributes, name));
        return a && *a->value ? Str_parseInt(a->value) : -1;
}

int HttpSession_hasAttribute(HttpSession_T S, const char* name) {
        assert(S);
        if (!name)
                return 0;
        vesk::Lock lock(S->mutex);
        return Table_has(S->attributes, name);
}

void HttpSession_removeAttribute(HttpSession_T S, const char* name) {
        assert(S);
        if (!name || !S->isValid.load(relaxed))
                return;
        vesk::Lock lock(S->mutex);
        auto a = static_cast<vesk::SessionAttribute*>(Table_remove(S->attributes, name));
        if (a)
                freeAttribute(a);
        S->isDirty = 1;
}

void HttpSession_removeAttributes(HttpSession_T S) {
        assert(S);
        vesk::Lock lock(S->mutex);
        if (Table_length(S->attributes) == 0)
                return;
        vesk::clearSessionAttributes(S->attributes);
        S->isDirty = 1;
}

void HttpSession_removeAttributeNames(HttpSession_T S, const char* prefix) {
        assert(S);
        assert(prefix);
        vesk::Lock lock(S->mutex);
        if (Table_length(S->attributes) == 0)
                return;
        void** all = Table_toArray(S->attributes);
        for (int i = 0; all[i]; i += 2) {
                auto a = static_cast<vesk::SessionAttribute*>(all[i + 1]);
                if (Str_startsWith(a->name, prefix)) {
                        Table_remove(S->attributes, a->name);
                        freeAttribute(a);
                }
        }
        FREE(all);
        S->isDirty = 1;
}

namespace {

struct Apply {
        void (*apply)(const char* name, const char* value, void* ap);
        void* ap;
};

void applyOne(const void* key, void** value, void* cl) {
        (void)key;
        auto a = static_cast<vesk::SessionAttribute*>(*value);
        auto f = static_cast<Apply*>(cl);
        f->apply(a->name, a->value, f->ap);
}

}  // namespace

void HttpSession_map(HttpSession_T S, void (*apply)(const char* name, const char* value, void* ap),
                     void* ap) {
        assert(S);
        assert(apply);
        Apply f{apply, ap};
        vesk::Lock lock(S->mutex);
        Table_map(S->attributes, applyOne, &f);
}
