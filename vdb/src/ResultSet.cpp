#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <math.h>
#include <stdlib.h>

#include <vdb/ResultSet.h>

#include "Handles.hpp"

namespace {

// SQLError unless columnIndex names a column of R.
void checkIndex(ResultSet_T R, int columnIndex) {
        int n = R->rows->columnCount();
        if (columnIndex < 1 || columnIndex > n)
                vdb::fail("%s: column %d is out of range, the result has %d",
                          R->connection->backend(), columnIndex, n);
}

// SQLError unless columnIndex names a column of R's current row.
void checkColumn(ResultSet_T R, int columnIndex) {
        checkIndex(R, columnIndex);
        if (!R->onRow)
                vdb::fail("%s: no current row to read column %d from", R->connection->backend(),
                          columnIndex);
}

// The column's number; a fraction is cut off. 0 for SQL NULL.
long long number(ResultSet_T R, int columnIndex, long long min, long long max, const char* type) {
        checkColumn(R, columnIndex);
        const char* text = R->rows->text(columnIndex - 1);
        if (!text)
                return 0;
        auto blank = [](const char* end) {
                while (isspace(static_cast<unsigned char>(*end)))
                        end++;
                return *end == 0;
        };
        char* end;
        errno = 0;
        long long n = strtoll(text, &end, 10);
        bool inRange = errno != ERANGE;
        if (end == text || !blank(end)) {
                errno = 0;
                double d = strtod(text, &end);
                if (end == text || !blank(end) || !isfinite(d))
                        vdb::fail("%s: column %d (%s) holds no number: %s",
                                  R->connection->backend(), columnIndex,
                                  R->rows->columnName(columnIndex - 1), vdb::quote(text).c_str());
                inRange =
                    d > static_cast<double>(LLONG_MIN) - 1 && d < static_cast<double>(LLONG_MAX);
                n = inRange ? static_cast<long long>(d) : 0;
        }
        if (!inRange || n < min || n > max)
                vdb::fail("%s: column %d (%s) holds %s, out of the range of %s",
                          R->connection->backend(), columnIndex,
                          R->rows->columnName(columnIndex - 1), text, type);
        return n;
}

}  // namespace

int ResultSet_next(ResultSet_T R) {
        VDB_CHECK(R);
        return vdb::guard(R->connection->handler(), 0, [&] {
                R->onRow = false;
                R->blobs.clear();
                R->onRow = R->rows->next();
                return R->onRow ? 1 : 0;
        });
}

int ResultSet_getColumnCount(ResultSet_T R) {
        VDB_CHECK(R);
        return R->rows->columnCount();
}

const char* ResultSet_getColumnName(ResultSet_T R, int columnIndex) {
        VDB_CHECK(R);
        return vdb::guard<const char*>(R->connection->handler(), nullptr, [&] {
                checkIndex(R, columnIndex);
                return R->rows->columnName(columnIndex - 1);
        });
}

int ResultSet_isnull(ResultSet_T R, int columnIndex) {
        VDB_CHECK(R);
        return vdb::guard(R->connection->handler(), 1, [&] {
                checkColumn(R, columnIndex);
                return R->rows->isNull(columnIndex - 1) ? 1 : 0;
        });
}

const char* ResultSet_getString(ResultSet_T R, int columnIndex) {
        VDB_CHECK(R);
        return vdb::guard<const char*>(R->connection->handler(), nullptr, [&] {
                checkColumn(R, columnIndex);
                return R->rows->text(columnIndex - 1);
        });
}

int ResultSet_getInt(ResultSet_T R, int columnIndex) {
        VDB_CHECK(R);
        return vdb::guard(R->connection->handler(), 0, [&] {
                return static_cast<int>(number(R, columnIndex, INT_MIN, INT_MAX, "int"));
        });
}

long long ResultSet_getLLong(ResultSet_T R, int columnIndex) {
        VDB_CHECK(R);
        return vdb::guard(R->connection->handler(), 0LL, [&] {
                return number(R, columnIndex, LLONG_MIN, LLONG_MAX, "long long");
        });
}

void* ResultSet_getBlob(ResultSet_T R, int columnIndex, int* size) {
        VDB_CHECK(R);
        VDB_CHECK(size);
        *size = 0;
        return vdb::guard<void*>(R->connection->handler(), nullptr, [&]() -> void* {
                checkColumn(R, columnIndex);
                if (R->rows->isNull(columnIndex - 1))
                        return nullptr;
                R->blobs.resize(static_cast<size_t>(R->rows->columnCount()));
                std::string& blob = R->blobs[static_cast<size_t>(columnIndex - 1)];
                R->rows->bytes(columnIndex - 1, blob);
                if (blob.size() > INT_MAX)
                        vdb::fail("%s: column %d holds %zu bytes, more than an int can count",
                                  R->connection->backend(), columnIndex, blob.size());
                *size = static_cast<int>(blob.size());
                return blob.data();
        });
}
