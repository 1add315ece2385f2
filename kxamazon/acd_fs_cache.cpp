#include "kxamazon/acd_fs_cache.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <string>
#include <unistd.h>

#include "common/constants.h"
#include "common/utils.h"
#include "kxamazon/sqlite_utils.h"

namespace
{

constexpr int SCHEMA_VERSION = 1;

struct acd_cache_schema_t {
    const char* table;
    const char* create_sql;
    const char* reset_sql; // null: the table is never emptied
};

constexpr acd_cache_schema_t schema[] = {
    {"version", "CREATE TABLE IF NOT EXISTS `version` (`schema_version` INT PRIMARY KEY NOT NULL)", nullptr},
    {"node",
     "CREATE TABLE IF NOT EXISTS `node`(`id` VARCHAR PRIMARY KEY NOT NULL, `name` VARCHAR NOT NULL COLLATE "
     "NOCASE, `kind` VARCHAR NOT NULL COLLATE NOCASE, `md5` VARCHAR, `status` VARCHAR, `created` DATETIME "
     "NOT NULL, `modified` DATETIME NOT NULL, `size` UNSIGNED BIG INT NOT NULL, `timestamp` DATETIME DEFAULT "
     "CURRENT_TIMESTAMP)",
     "DELETE FROM node"},
    {"parents",
     "CREATE TABLE IF NOT EXISTS `parents`(`node_id` VARCHAR PRIMARY KEY NOT NULL, `parent_id` VARCHAR NOT "
     "NULL, UNIQUE(node_id, parent_id))",
     "DELETE FROM parents"},
    {"sync_folders",
     "CREATE TABLE IF NOT EXISTS `sync_folders`(`id` INTEGER PRIMARY KEY, `local_drive_path` VARCHAR NOT "
     "NULL, `cloud_drive_path` VARCHAR NOT NULL, `need_full_downsync` INT NOT NULL, `need_full_upsync` INT "
     "NOT NULL, UNIQUE(local_drive_path, cloud_drive_path))",
     "DELETE FROM sync_folders"},
    {"renamed_node",
     "CREATE TABLE IF NOT EXISTS `renamed_node`(`id` VARCHAR PRIMARY KEY NOT NULL, `name` VARCHAR NOT NULL "
     "COLLATE NOCASE, `kind` VARCHAR NOT NULL COLLATE NOCASE, `md5` VARCHAR, `status` VARCHAR, `created` "
     "DATETIME NOT NULL, `modified` DATETIME NOT NULL, `size` UNSIGNED BIG INT NOT NULL, `timestamp` "
     "DATETIME DEFAULT CURRENT_TIMESTAMP)",
     "DELETE FROM renamed_node"},
    {"moved_node",
     "CREATE TABLE IF NOT EXISTS `moved_node`(`id` VARCHAR PRIMARY KEY NOT NULL, `old_path` VARCHAR NOT NULL "
     "COLLATE NOCASE)",
     "DELETE FROM moved_node"},
};

// One handle for the process. No owner closes it at exit: a forked child that exits must leave the parent's
// database alone, and an unclosed one is as safe as after a crash.
sqlite3* s_db = nullptr;

// What makes the statements fast and whole; none of it changes what they mean. Ids are random, so a write
// touches a page of its own in every index: small pages write less, and a long log (32 MB) is copied back
// less often.
constexpr char tuning_sql[] = "PRAGMA page_size=2048;"
                              "PRAGMA journal_mode=WAL;"
                              "PRAGMA synchronous=NORMAL;"
                              "PRAGMA wal_autocheckpoint=16000;"
                              "PRAGMA secure_delete=OFF;"
                              "PRAGMA cache_size=-2560;";

constexpr char index_sql[] =
    // A child is looked up by its name: a folder may hold far more nodes than ever bear one name.
    "CREATE INDEX IF NOT EXISTS `node_by_name` ON `node`(`name`, `status`, `id`);"
    "CREATE INDEX IF NOT EXISTS `trash_node` ON `node`(`status`, `id`) "
    "WHERE status='TRASH' OR status='PURGED';"
    // A move note keeps the old path only; whether the content changed too need not outlive the process.
    "CREATE TEMP TABLE IF NOT EXISTS `content_before_move`(`id` VARCHAR PRIMARY KEY NOT NULL, `md5` VARCHAR)";

using sqlite_ptr = owner<sqlite3, sqlite3_close>;

void delete_db_file()
{
    // The log goes first: it must never stand beside a new file.
    for (const char* suffix : {"-wal", "-shm", "-journal", ""})
        unlink((std::string(kx_cache_path) + suffix).c_str());
}

int try_open(const char* path, sqlite_ptr& db)
{
    int rc = sqlite3_open_v2(path, out(db),
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
    if (rc != SQLITE_OK)
        db.reset();
    return rc;
}

int __open_db(int in_memory, sqlite_ptr& db)
{
    if (in_memory)
        return try_open(":memory:", db);
    mkdir_p(std::string(kx_cache_path, std::strrchr(kx_cache_path, '/')).c_str(), 0755);
    int rc = try_open(kx_cache_path, db);
    if (rc == SQLITE_OK)
        return rc;
    LOG_ERROR("%s: Failed to open db! %d\nDelete the db file and try again!\n", __func__, rc);
    delete_db_file();
    rc = try_open(kx_cache_path, db);
    if (rc != SQLITE_OK)
        LOG_ERROR("%s: Failed to open db after retry! %d\n", __func__, rc);
    return rc;
}

// A write-ahead log that outlived a crash may hold the pages that give the version, over a file that has
// none.
bool is_damaged(sqlite3* db)
{
    return std::any_of(std::begin(schema), std::end(schema), [db](const acd_cache_schema_t& row) {
        sql_table_ptr table;
        int rc = sql_get_table_mprintf(db, SQL_HERE, out(table), nullptr, nullptr,
                                       "SELECT * FROM `%s` LIMIT 1", row.table);
        return rc == SQLITE_CORRUPT || rc == SQLITE_NOTADB;
    });
}

// Replaces a database of another schema version, or one that cannot be read, by an empty one.
int upgrade_db(int in_memory, sqlite_ptr& db)
{
    int version = 0;
    int rc =
        sql_get_int_mprintf(db.get(), SQL_HERE, &version, nullptr, "SELECT `schema_version` FROM `version`");
    if (rc == SQLITE_OK && version == SCHEMA_VERSION && !is_damaged(db.get()))
        return SQLITE_OK;
    LOG_INFO("Incompatible schema (v%d) is detected. Drop the database for v%d!\n", version, SCHEMA_VERSION);
    db.reset();
    if (!in_memory)
        delete_db_file();
    return __open_db(in_memory, db);
}

// Puts the write-ahead log on the disk, if there is one; false when the disk refused. Closing the database
// file would drop this process's locks on it; SQLite holds none on its log.
bool sync_log()
{
    fd_owner file(open((std::string(kx_cache_path) + "-wal").c_str(), O_RDONLY | O_CLOEXEC));
    return !file || fdatasync(file.get()) == 0;
}

bool init_schema(sqlite3* db)
{
    // Without these the cache is slow but right; what fails here is logged.
    sqlite3_db_config(db, SQLITE_DBCONFIG_DQS_DML, 1, nullptr);
    sql_exec(db, SQL_HERE, tuning_sql);
    for (const auto& row : schema) {
        if (sql_exec(db, SQL_HERE, row.create_sql) != SQLITE_OK) {
            LOG_ERROR("%s: Failed to init table %s, create_sql = %s!\n", "acd_cache_init", row.table,
                      row.create_sql);
            return false;
        }
    }
    return sql_exec(db, SQL_HERE, index_sql) == SQLITE_OK &&
           sql_exec_mprintf(db, SQL_HERE, "INSERT or REPLACE INTO `version` (`schema_version`) VALUES(%d)",
                            SCHEMA_VERSION) == SQLITE_OK;
}

} // namespace

acd_cache_error_t acd_cache_init(int in_memory)
{
    acd_cache_deinit();
    // Both are refused once SQLite runs, which is harmless: they stay as the first call set them. The memory
    // statistics, which nobody reads, would cost a sixth of each write.
    sqlite3_config(SQLITE_CONFIG_SERIALIZED);
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    sqlite_ptr db;
    if (int rc = __open_db(in_memory, db)) {
        LOG_ERROR("%s: Failed to open db! %d\n", __func__, rc);
        return ACD_CACHE_ERR_DB_ERROR;
    }
    if (int rc = upgrade_db(in_memory, db)) {
        LOG_ERROR("%s: Failed to upgrade db! %d\n", __func__, rc);
        return ACD_CACHE_ERR_DB_ERROR;
    }
    if (!init_schema(db.get()))
        return ACD_CACHE_ERR_DB_ERROR;
    s_db = db.release();
    LOG_INFO("Cache: Initialized schema successfully!\n");
    return ACD_CACHE_ERR_OK;
}

acd_cache_error_t acd_cache_deinit()
{
    if (int rc = sqlite3_close(s_db)) {
        LOG_ERROR("%s: Failed to close database! %d\n", __func__, rc);
        return ACD_CACHE_ERR_DB_ERROR;
    }
    s_db = nullptr;
    acd_cache_forget_found();
    return ACD_CACHE_ERR_OK;
}

acd_cache_error_t acd_cache_reset()
{
    if (!s_db)
        return ACD_CACHE_ERR_INVALID_ARGUMENTS;
    for (const auto& row : schema) {
        if (row.reset_sql && sql_exec(s_db, SQL_HERE, row.reset_sql) != SQLITE_OK) {
            LOG_ERROR("%s: Failed to reset table %s, reset_sql = %s!\n", __func__, row.table, row.reset_sql);
            return ACD_CACHE_ERR_DB_ERROR;
        }
    }
    return ACD_CACHE_ERR_OK;
}

sqlite3* acd_cache_db()
{
    return s_db;
}

char* acd_cache_get_checkpoint()
{
    file_ptr file(std::fopen(ACD_FS_CHECKPOINT, "r"));
    if (!file) {
        LOG_ERROR("%s: Failed to open %s for reading!\n", __func__, ACD_FS_CHECKPOINT);
        return nullptr;
    }
    string_ptr checkpoint;
    int count = std::fscanf(file.get(), "%ms", static_cast<char**>(out(checkpoint)));
    // After a power cut some file systems leave zero bytes, which pass for a token.
    return count == 1 && checkpoint && *checkpoint ? checkpoint.release() : nullptr;
}

void acd_cache_cache_checkpoint(const char* checkpoint)
{
    if (!checkpoint)
        return;
    // After a power cut the feed must not go on from behind what the cache still knows.
    if (!sync_log() || replace_file(ACD_FS_CHECKPOINT, checkpoint, true) != 0)
        LOG_ERROR("%s: Failed to open %s for writing!\n", __func__, ACD_FS_CHECKPOINT);
}
