// Thin wrappers over SQLite that log failures with their caller's file and line. They neither open nor close
// databases. The _mprintf forms build the statement with SQLite's own printf, so %q and %Q quote values.
// A result of -1 is this module's own; every other one is SQLite's.
#pragma once

#include <functional>

#include <sqlite3.h>

#include "common/owners.h"

using sql_text_ptr = owner<char, sqlite3_free>;
using sql_table_ptr = owner<char*, sqlite3_free_table>;

// The two arguments that name the calling line.
#define SQL_HERE __FILE_NAME__, __LINE__

// Runs a statement once. Busy and locked are returned without a message; other failures are logged.
int sql_exec(sqlite3* db, const char* file, int line, const char* sql);
int sql_exec_mprintf(sqlite3* db, const char* file, int line, const char* fmt, ...);

// Reads a result table, waiting for a busy database up to five times. *table is the caller's
// (sqlite3_free_table) and null on failure: ncol column names, then nrow rows. nrow and ncol may be null.
int _sql_get_table(sqlite3* db, const char* file, int line, char*** table, int* nrow, int* ncol,
                   const char* sql);
int sql_get_table_mprintf(sqlite3* db, const char* file, int line, char*** table, int* nrow, int* ncol,
                          const char* fmt, ...);

// Reads one number; a NULL cell reads as 0 and clears *not_null (which may be null). No row leaves both
// untouched and is success; more than one cell is -1.
int sql_get_int_mprintf(sqlite3* db, const char* file, int line, int* value, int* not_null, const char* fmt,
                        ...);

// Runs write, which answers a SQLite code, in one transaction: kept whole when it answers 0, else undone
// whole. Returns its code, or that of the statement that could not begin or commit. Not to be nested.
int sql_in_transaction(sqlite3* db, const char* file, int line, const std::function<int()>& write);
