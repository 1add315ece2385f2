#include "kxamazon/sqlite_utils.h"

#include <cstdarg>
#include <cstdlib>

#include "common/constants.h"
#include "common/utils.h"

namespace
{

constexpr int max_attempts = 5;

bool is_busy(int rc)
{
    return rc == SQLITE_BUSY || rc == SQLITE_LOCKED;
}

int read_table(sqlite3* db, const char* file, int line, char*** table, int* nrow, int* ncol, const char* fmt,
               va_list args)
{
    sql_text_ptr sql(sqlite3_vmprintf(fmt, args));
    if (!sql) {
        *table = nullptr;
        return SQLITE_NOMEM;
    }
    return _sql_get_table(db, file, line, table, nrow, ncol, sql.get());
}

} // namespace

int sql_exec(sqlite3* db, const char* file, int line, const char* sql)
{
    sql_text_ptr message;
    int rc = sqlite3_exec(db, sql, nullptr, nullptr, out(message));
    if (rc != SQLITE_OK && !is_busy(rc))
        LOG_ERROR("%s:%d Error sql=%s ==> sq3rc=%d emsg=%s\n", file, line, sql, rc, message.get());
    return rc;
}

int sql_exec_mprintf(sqlite3* db, const char* file, int line, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    sql_text_ptr sql(sqlite3_vmprintf(fmt, args));
    va_end(args);
    // SQLite runs a null statement as an empty one, which would pass for success.
    int rc = sql ? sql_exec(db, file, line, sql.get()) : SQLITE_NOMEM;
    if (rc != SQLITE_OK)
        LOG_ERROR("%s:%d SQL=%s ==> %d\n", file, line, sql.get(), rc);
    return rc;
}

int _sql_get_table(sqlite3* db, const char* file, int line, char*** table, int* nrow, int* ncol,
                   const char* sql)
{
    int rows = 0, columns = 0, rc = SQLITE_OK;
    sql_text_ptr message;
    for (int attempt = 1;; ++attempt) {
        rc = sqlite3_get_table(db, sql, table, &rows, &columns, out(message));
        if (!is_busy(rc) || attempt == max_attempts)
            break;
        kx_sleep_ms(kx_sql_busy_ms);
    }
    if (rc != SQLITE_OK)
        LOG_ERROR("%s:%d SQL=%s ==> %dx%d %d (%s)\n", file, line, sql, rows, columns, rc,
                  message ? message.get() : "success");
    if (nrow)
        *nrow = rows;
    if (ncol)
        *ncol = columns;
    return rc;
}

int sql_get_table_mprintf(sqlite3* db, const char* file, int line, char*** table, int* nrow, int* ncol,
                          const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int rc = read_table(db, file, line, table, nrow, ncol, fmt, args);
    va_end(args);
    return rc;
}

int sql_get_int_mprintf(sqlite3* db, const char* file, int line, int* value, int* not_null, const char* fmt,
                        ...)
{
    sql_table_ptr table;
    int nrow = 0, ncol = 0;
    va_list args;
    va_start(args, fmt);
    int rc = read_table(db, file, line, out(table), &nrow, &ncol, fmt, args);
    va_end(args);
    if (rc != SQLITE_OK)
        return rc;

    if (nrow == 1) {
        const char* cell = table.get()[ncol];
        *value = cell ? static_cast<int>(std::strtol(cell, nullptr, 10)) : 0;
        if (not_null)
            *not_null = cell != nullptr;
    }
    if (nrow > 1 || ncol > 1) {
        LOG_ERROR("%s:%d Not a scaler result. (nrow=%d ncol=%d)\n", file, line, nrow, ncol);
        return -1;
    }
    return SQLITE_OK;
}

int sql_in_transaction(sqlite3* db, const char* file, int line, const std::function<int()>& write)
{
    int rc = sql_exec_mprintf(db, file, line, "BEGIN IMMEDIATE");
    if (rc != SQLITE_OK)
        return rc;
    rc = write();
    if (rc == SQLITE_OK)
        rc = sql_exec_mprintf(db, file, line, "COMMIT");
    // A full disk and its like have ended the transaction already.
    if (rc != SQLITE_OK && !sqlite3_get_autocommit(db))
        sql_exec_mprintf(db, file, line, "ROLLBACK");
    return rc;
}
