/* libvdb's C face: a plain C11 program includes vdb.h and uses a pool, with an abort
   handler that returns, as C cannot throw. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vdb/vdb.h>

static int failures;
static int errors;
static char lastError[512];

#define CHECK(cond)                                                                              \
        do {                                                                                     \
                if (!(cond)) {                                                                   \
                        fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
                        failures++;                                                              \
                }                                                                                \
        } while (0)

static void keepError(const char* error) {
        errors++;
        snprintf(lastError, sizeof lastError, "%s", error);
}

int main(void) {
        char directory[] = "/tmp/vdb-c-XXXXXX";
        char url[160], file[64];
        if (!mkdtemp(directory))
                return 1;
        snprintf(file, sizeof file, "%s/c.db", directory);
        snprintf(url, sizeof url, "sqlite://%s?create=true", file);

        ConnectionPool_T pool = ConnectionPool_new(url);
        ConnectionPool_setAbortHandler(pool, keepError);
        ConnectionPool_setInitialConnections(pool, 1);
        CHECK(ConnectionPool_start(pool) == 1);
        Connection_T c = ConnectionPool_getConnection(pool);
        CHECK(c != NULL);
        CHECK(Connection_execute(c, "CREATE TABLE t (name TEXT, data BLOB)") == 1);
        PreparedStatement_T p = Connection_prepareStatement(c, "INSERT INTO t VALUES (?, ?)");
        PreparedStatement_setString(p, 1, "c");
        PreparedStatement_setBlob(p, 2, "a\0b", 3);
        CHECK(PreparedStatement_execute(p) == 1);
        ResultSet_T r =
            Connection_executeQuery(c, "SELECT name, data FROM t WHERE name = '%s'", "c");
        CHECK(ResultSet_next(r) == 1);
        CHECK(strcmp(ResultSet_getString(r, 1), "c") == 0);
        int size = 0;
        char* data = ResultSet_getBlob(r, 2, &size);
        CHECK(size == 3 && memcmp(data, "a\0b", 4) == 0);
        CHECK(errors == 0);

        CHECK(Connection_executeQuery(c, "SELECT * FROM missing") == NULL);
        CHECK(errors == 1 && strstr(lastError, "SQLite: ") == lastError);
        CHECK(strcmp(SQLException.name, "SQLException") == 0);
        Connection_close(c);
        ConnectionPool_free(&pool);
        CHECK(pool == NULL);

        remove(file);
        remove(directory);
        return failures != 0;
}
