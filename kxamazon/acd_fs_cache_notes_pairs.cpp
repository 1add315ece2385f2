#include "kxamazon/acd_fs_cache.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/utils.h"
#include "kxamazon/sqlite_utils.h"

namespace
{

// 1 with the text when the query (a format that takes the node's id) finds one row, else 0.
int read_note(const char* caller, const acd_node_t* node, const char* query, char** text)
{
    if (text)
        *text = nullptr;
    if (!acd_cache_db() || !node || !text)
        return 0;
    sql_table_ptr table;
    int nrow = 0;
    int rc = sql_get_table_mprintf(acd_cache_db(), SQL_HERE, out(table), &nrow, nullptr, query, node->id);
    if (rc != SQLITE_OK || nrow == 0)
        return 0;
    if (nrow > 1) {
        LOG_ERROR("%s: Is it possible? node %s, nrow = %d\n", caller, acd_node_to_string(node), nrow);
        return 0;
    }
    *text = safe_strdup(table.get()[1]);
    return *text ? 1 : 0;
}

int delete_note(sqlite3* db, const acd_node_t* node, const char* statement)
{
    if (!db || !node)
        return -1;
    return sql_exec_mprintf(db, SQL_HERE, statement, node->id) == SQLITE_OK ? 0 : -1;
}

// Gives the configured pair the flags of its cached row, if it has one.
void restore_flags(acd_sync_pair_entry_t* entry, char** rows, int nrow, int ncol)
{
    if (!entry->local_drive_path || !entry->cloud_drive_path)
        return;
    for (char** row = rows; row != rows + nrow * ncol; row += ncol) {
        if (std::strcmp(row[0], entry->local_drive_path) != 0 ||
            std::strcmp(row[1], entry->cloud_drive_path) != 0)
            continue;
        int need_downsync = std::atoi(row[2]), need_upsync = std::atoi(row[3]);
        LOG_DEBUG("Found cached entry %s <===> %s cached (%d %d), (%d %d)\n", row[0], row[1], need_downsync,
                  need_upsync, entry->need_full_downsync, entry->need_full_upsync);
        entry->need_full_downsync = need_downsync;
        entry->need_full_upsync = need_upsync;
    }
}

// A pair that cannot be stored does not keep the others from it.
int replace_pairs(const char* caller, sqlite3* db, const acd_sync_pair_list_t* list)
{
    int rc = sql_exec_mprintf(db, SQL_HERE, "DELETE FROM sync_folders");
    if (rc != SQLITE_OK)
        return rc;
    const acd_sync_pair_entry_t* entry;
    TAILQ_FOREACH (entry, list, entries) {
        acd_cache_error_t result = acd_cache_cache_sync_pair(db, entry);
        if (result != ACD_CACHE_ERR_OK)
            LOG_ERROR("%s: Failed to cache sync pair! %d\n", caller, result);
        LOG_DEBUG("%s: Load sync pair entry %s <===> %s %d %d\n", caller, entry->local_drive_path,
                  entry->cloud_drive_path, entry->need_full_downsync, entry->need_full_upsync);
    }
    return SQLITE_OK;
}

} // namespace

int acd_cache_is_cloud_node_renamed(const acd_node_t* node, char** old_name)
{
    return read_note(__func__, node,
                     "SELECT renamed_node.name FROM renamed_node, node WHERE renamed_node.id=%Q AND "
                     "renamed_node.id=node.id AND node.modified > renamed_node.modified",
                     old_name);
}

int acd_cache_is_cloud_node_moved(const acd_node_t* node, char** old_path)
{
    return read_note(__func__, node, "SELECT old_path FROM moved_node WHERE id=%Q", old_path);
}

int acd_cache_has_content_before_change(const acd_node_t* node)
{
    string_ptr md5;
    if (!read_note(__func__, node, "SELECT md5 FROM temp.content_before_move WHERE id=%Q", out(md5)))
        read_note(__func__, node, "SELECT md5 FROM renamed_node WHERE id=%Q", out(md5));
    return md5 && *md5 && node->md5 && std::strcmp(md5.get(), node->md5) == 0;
}

void acd_cache_forget_content(const acd_node_t* node)
{
    if (acd_cache_db() && node)
        sql_exec_mprintf(acd_cache_db(), SQL_HERE, "UPDATE `node` SET md5=NULL WHERE id=%Q", node->id);
}

void acd_cache_note_arrival(const acd_node_t* node)
{
    if (acd_cache_db() && node)
        sql_exec_mprintf(acd_cache_db(), SQL_HERE,
                         "INSERT OR REPLACE INTO `moved_node` (id, old_path) VALUES (%Q,%Q)", node->id, "");
}

// It stands among the moves under an id that no node has.
void acd_cache_note_removal(const acd_node_t* node)
{
    if (!acd_cache_db() || !node)
        return;
    timespec now;
    clock_gettime(CLOCK_REALTIME_COARSE, &now); // as the file system tells the time
    sql_exec_mprintf(acd_cache_db(), SQL_HERE,
                     "INSERT OR REPLACE INTO `moved_node` (id, old_path) VALUES ('remove ' || %Q,'%lld %ld')",
                     node->id, static_cast<long long>(now.tv_sec), now.tv_nsec);
}

int acd_cache_is_being_removed(const acd_node_t* node, timespec* begun)
{
    string_ptr text;
    long long sec = 0;
    if (!read_note(__func__, node, "SELECT old_path FROM moved_node WHERE id='remove ' || %Q", out(text)))
        return 0;
    if (std::sscanf(text.get(), "%lld %ld", &sec, &begun->tv_nsec) != 2)
        return 0;
    begun->tv_sec = sec;
    return 1;
}

void acd_cache_delete_removal_note(const acd_node_t* node)
{
    delete_note(acd_cache_db(), node, "DELETE FROM `moved_node` WHERE id='remove ' || %Q;");
}

int acd_cache_delete_renamed_node(const acd_node_t* node, sqlite3* db)
{
    return delete_note(db, node, "DELETE FROM `renamed_node` WHERE id=%Q;");
}

int acd_cache_delete_moved_node(const acd_node_t* node)
{
    delete_note(acd_cache_db(), node, "DELETE FROM temp.content_before_move WHERE id=%Q;");
    return delete_note(acd_cache_db(), node, "DELETE FROM `moved_node` WHERE id=%Q;");
}

int acd_cache_delete_trash_nodes()
{
    sqlite3* db = acd_cache_db();
    if (!db)
        return 0;
    sql_table_ptr table;
    int nrow = 0;
    sql_get_table_mprintf(db, SQL_HERE, out(table), &nrow, nullptr,
                          "SELECT id FROM node WHERE node.status='TRASH' OR node.status='PURGED'");
    for (int i = 1; i <= nrow; ++i) {
        const char* id = table.get()[i];
        // A parent link without its node would drop one name from the paths of what is below it.
        int rc = sql_in_transaction(db, SQL_HERE, [=] {
            return sql_exec_mprintf(db, SQL_HERE,
                                    "DELETE FROM `node` WHERE id=%Q;DELETE FROM `parents` WHERE node_id=%Q;",
                                    id, id);
        });
        if (rc != SQLITE_OK)
            LOG_ERROR("%s: Failed to delete node id = %s\n", __func__, id);
    }
    return 0;
}

acd_cache_error_t acd_cache_cache_sync_pair(sqlite3* db, const acd_sync_pair_entry_t* entry)
{
    if (!db || !entry || !entry->local_drive_path || !entry->cloud_drive_path)
        return ACD_CACHE_ERR_INVALID_ARGUMENTS;
    int rc = sql_exec_mprintf(
        db, SQL_HERE,
        "INSERT OR REPLACE INTO `sync_folders` "
        "(local_drive_path,cloud_drive_path,need_full_downsync,need_full_upsync) VALUES (%Q,%Q,%d,%d)",
        entry->local_drive_path, entry->cloud_drive_path, entry->need_full_downsync, entry->need_full_upsync);
    if (rc != SQLITE_OK)
        return ACD_CACHE_ERR_DB_ERROR;
    LOG_DEBUG("%s: Cache sync pair entry %s <===> %s %d %d\n", __func__, entry->local_drive_path,
              entry->cloud_drive_path, entry->need_full_downsync, entry->need_full_upsync);
    return ACD_CACHE_ERR_OK;
}

acd_cache_error_t acd_cache_load_sync_pair_config(acd_sync_pair_list_t* list)
{
    sqlite3* db = acd_cache_db();
    if (!db || !list)
        return ACD_CACHE_ERR_INVALID_ARGUMENTS;
    sql_table_ptr table;
    int nrow = 0, ncol = 0;
    if (sql_get_table_mprintf(db, SQL_HERE, out(table), &nrow, &ncol,
                              "SELECT local_drive_path, cloud_drive_path, need_full_downsync, "
                              "need_full_upsync FROM sync_folders") != SQLITE_OK)
        return ACD_CACHE_ERR_DB_ERROR;

    acd_sync_pair_entry_t* entry;
    TAILQ_FOREACH (entry, list, entries)
        restore_flags(entry, table.get() + ncol, nrow, ncol);
    int rc =
        sql_in_transaction(db, SQL_HERE, [=, caller = __func__] { return replace_pairs(caller, db, list); });
    return rc == SQLITE_OK ? ACD_CACHE_ERR_OK : ACD_CACHE_ERR_DB_ERROR;
}
