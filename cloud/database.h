// SQLite with C++ manners: a database owns its prepared statements, a query binds, steps and resets one.
//
// Not locked: the owner of a database calls from one thread at a time. Every failure throws
// std::runtime_error with SQLite's message.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <sqlite3.h>

namespace kxcloud
{

// A value to bind.
struct sql_value_t {
    sql_value_t(int64_t value) : number(value) {}
    sql_value_t(std::string value) : is_text(true), text(std::move(value)) {}

    bool is_text = false;
    int64_t number = 0;
    std::string text;
};

// One use of a prepared statement; while it lives the same SQL cannot be run again.
class query
{
public:
    query(sqlite3_stmt* statement, const std::vector<sql_value_t>& values);
    ~query();
    query(const query&) = delete;
    query& operator=(const query&) = delete;

    bool step(); // false after the last row
    int64_t number(int column) const { return sqlite3_column_int64(statement_, column); }
    std::string text(int column) const;

private:
    sqlite3_stmt* statement_;
};

class database
{
public:
    explicit database(const std::string& path); // ":memory:" for one that is gone at the end
    ~database();
    database(const database&) = delete;
    database& operator=(const database&) = delete;

    void run_script(const char* sql);
    query ask(const std::string& sql, const std::vector<sql_value_t>& values = {});
    void run(const std::string& sql, const std::vector<sql_value_t>& values = {});

private:
    sqlite3* handle_ = nullptr;
    std::unordered_map<std::string, sqlite3_stmt*> statements_;
};

// Undone at the end of its life unless it was committed.
class transaction
{
public:
    explicit transaction(database& where) : where_(where) { where_.run_script("BEGIN"); }
    ~transaction()
    {
        if (!committed_)
            where_.run_script("ROLLBACK");
    }
    transaction(const transaction&) = delete;
    transaction& operator=(const transaction&) = delete;

    void commit()
    {
        where_.run_script("COMMIT");
        committed_ = true;
    }

private:
    database& where_;
    bool committed_ = false;
};

} // namespace kxcloud
