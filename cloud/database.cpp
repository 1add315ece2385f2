#include "cloud/database.h"

#include <stdexcept>

namespace kxcloud
{

namespace
{

void require(bool good, sqlite3* handle)
{
    if (!good)
        throw std::runtime_error(sqlite3_errmsg(handle));
}

} // namespace

query::query(sqlite3_stmt* statement, const std::vector<sql_value_t>& values) : statement_(statement)
{
    int column = 0;
    for (const sql_value_t& value : values) {
        ++column;
        if (value.is_text)
            sqlite3_bind_text(statement_, column, value.text.data(), static_cast<int>(value.text.size()),
                              SQLITE_TRANSIENT);
        else
            sqlite3_bind_int64(statement_, column, value.number);
    }
}

query::~query()
{
    sqlite3_reset(statement_);
}

bool query::step()
{
    int result = sqlite3_step(statement_);
    require(result == SQLITE_ROW || result == SQLITE_DONE, sqlite3_db_handle(statement_));
    return result == SQLITE_ROW;
}

std::string query::text(int column) const
{
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    return bytes ? std::string(bytes, static_cast<size_t>(sqlite3_column_bytes(statement_, column))) : "";
}

database::database(const std::string& path)
{
    if (sqlite3_open(path.c_str(), &handle_) != SQLITE_OK) {
        std::string message = path + ": " + sqlite3_errmsg(handle_);
        sqlite3_close(handle_);
        throw std::runtime_error(message);
    }
    // WAL with synchronous=NORMAL: a killed server loses nothing, and a write waits for no disk.
    run_script("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA cache_size=-65536");
}

database::~database()
{
    for (auto& [sql, statement] : statements_)
        sqlite3_finalize(statement);
    sqlite3_close(handle_);
}

void database::run_script(const char* sql)
{
    require(sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr) == SQLITE_OK, handle_);
}

query database::ask(const std::string& sql, const std::vector<sql_value_t>& values)
{
    sqlite3_stmt*& statement = statements_[sql];
    if (!statement)
        require(sqlite3_prepare_v2(handle_, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK, handle_);
    return query(statement, values);
}

void database::run(const std::string& sql, const std::vector<sql_value_t>& values)
{
    ask(sql, values).step();
}

} // namespace kxcloud
