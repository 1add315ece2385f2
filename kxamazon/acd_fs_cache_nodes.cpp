#include "kxamazon/acd_fs_cache.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "common/paths.h"
#include "common/utils.h"
#include "kxamazon/sqlite_utils.h"

namespace
{

constexpr size_t path_size = 4096; // the closing NUL included

// A chain of parents that fits into a path takes far fewer steps of SQLite's machine.
constexpr int max_path_steps = 500000;

constexpr int node_columns = 9;

// The folders found last, for as long as nothing is written through the handle. A walk asks for the same few
// folders at each entry; compiling the statement anew would cost more than all the rest of the entry.
class found_folders
{
public:
    // A copy; null when it must be read.
    acd_node_t* get(const std::string& key)
    {
        if (int changes = sqlite3_total_changes(acd_cache_db()); changes != changes_) {
            forget();
            changes_ = changes;
        }
        auto place = nodes_.find(key);
        return place == nodes_.end() ? nullptr : acd_node_dup(place->second.get());
    }
    void put(const std::string& key, const acd_node_t* node)
    {
        if (node->kind != NODE_KIND_FOLDER)
            return;
        if (nodes_.size() >= most_nodes)
            forget();
        nodes_[key].reset(acd_node_dup(node));
    }
    void forget() { nodes_.clear(); }

private:
    static constexpr size_t most_nodes = 64;
    std::unordered_map<std::string, node_ptr> nodes_; // by parent's id, "/" and name
    int changes_ = 0;
};

found_folders s_found;

// Stops a statement that takes too many steps while it lives.
class step_limit
{
public:
    step_limit(sqlite3* db, int steps) : db_(db)
    {
        sqlite3_progress_handler(
            db_, steps, [](void*) { return 1; }, nullptr);
    }
    ~step_limit() { sqlite3_progress_handler(db_, 0, nullptr, nullptr); }
    step_limit(const step_limit&) = delete;
    step_limit& operator=(const step_limit&) = delete;

private:
    sqlite3* db_;
};

// "/a/b/c" from the names "/", "a", "b", "c".
std::string join_names(char** names, int count)
{
    std::string path = names[0];
    for (int i = 1; i < count; ++i) {
        if (i > 1)
            path += '/';
        path += names[i];
    }
    return path;
}

acd_cache_error_t __acd_cache_get_node_path(const char* id, char** path)
{
    *path = nullptr;
    sqlite3* db = acd_cache_db();
    sql_table_ptr table;
    int nrow = 0;
    // The feed may move two folders into each other's place one at a time; until the second one is cached
    // their parents form a ring, which the query would follow for ever.
    step_limit limit(db, max_path_steps);
    int rc = sql_get_table_mprintf(
        db, SQL_HERE, out(table), &nrow, nullptr,
        "WITH RECURSIVE parent_of_node(k,n) AS (VALUES(0,%Q) UNION SELECT parent_of_node.k+1, "
        "parents.parent_id FROM parents, parent_of_node WHERE parents.node_id=parent_of_node.n) SELECT "
        "node.name FROM node INNER JOIN parent_of_node ON node.id=parent_of_node.n ORDER BY parent_of_node.k "
        "DESC",
        id);
    if (rc != SQLITE_OK)
        return ACD_CACHE_ERR_DB_ERROR;
    char** names = table.get() + 1;
    if (nrow == 0 || std::strcmp(names[0], "/") != 0)
        return ACD_CACHE_ERR_RESOURCE_NOT_FOUND;
    std::string text = join_names(names, nrow);
    if (text.size() >= path_size) // a path cut short would name another node
        return ACD_CACHE_ERR_RESOURCE_NOT_FOUND;
    *path = safe_strdup(text.c_str());
    return *path ? ACD_CACHE_ERR_OK : ACD_CACHE_ERR_INTERNAL_ERROR;
}

// The folders written lately that the cache had not known. A listing writes many that nobody asks for.
std::unordered_set<std::string>& unknown_folders()
{
    static std::unordered_set<std::string> ids;
    return ids;
}

void remember_unknown_folder(const char* id)
{
    constexpr size_t most_folders = 1024;
    if (unknown_folders().size() >= most_folders)
        unknown_folders().clear();
    unknown_folders().insert(id);
}

// Keeps the path of a node whose parent is about to change. stays says that the cache has that parent
// already.
int update_moved_node(const acd_node_t* node, const char* new_parent, bool& stays)
{
    const char* id = node->id;
    sqlite3* db = acd_cache_db();
    sql_table_ptr table;
    int nrow = 0;
    int rc = sql_get_table_mprintf(db, SQL_HERE, out(table), &nrow, nullptr,
                                   "SELECT parent_id FROM parents WHERE node_id=%Q", id);
    if (rc == SQLITE_OK && nrow == 0 && node->kind == NODE_KIND_FOLDER)
        remember_unknown_folder(id);
    stays = rc == SQLITE_OK && nrow > 0 && new_parent && std::strcmp(table.get()[1], new_parent) == 0;
    if (rc != SQLITE_OK || nrow == 0 || stays)
        return rc;
    string_ptr old_path;
    if (__acd_cache_get_node_path(id, out(old_path)) != ACD_CACHE_ERR_OK)
        return SQLITE_OK;
    rc = sql_exec_mprintf(
        db, SQL_HERE, "INSERT OR IGNORE INTO temp.content_before_move SELECT id, md5 FROM node WHERE id=%Q",
        id);
    if (rc != SQLITE_OK)
        return rc;
    return sql_exec_mprintf(db, SQL_HERE, "INSERT OR REPLACE INTO `moved_node` (id, old_path) VALUES (%Q,%Q)",
                            id, old_path.get());
}

// Beyond 2^63 SQLite rounds a size to a real; as the negative number of the same bits it comes back whole.
int write_huge_size(sqlite3* db, const acd_node_t* node)
{
    const auto size = static_cast<int64_t>(node->size_byte);
    if (size >= 0)
        return SQLITE_OK;
    return sql_exec_mprintf(db, SQL_HERE, "UPDATE `node` SET size=%lld WHERE id=%Q",
                            static_cast<long long>(size), node->id);
}

int write_root(sqlite3* db, const acd_node_t* node)
{
    int rc = sql_exec_mprintf(
        db, SQL_HERE,
        "INSERT OR REPLACE INTO `node` (id,name,kind,md5,status,created,modified,size) VALUES "
        "(%Q,\"/\",%Q,%Q,%Q,strftime('%%s',%Q),strftime('%%s',%Q),%lu)",
        node->id, acd_enum_kind_to_string(node->kind), node->md5, acd_enum_status_to_string(node->status),
        acd_time_to_string(node->create_date), acd_time_to_string(node->modified_date), node->size_byte);
    if (rc != SQLITE_OK)
        return rc;
    return sql_exec_mprintf(
        db, SQL_HERE,
        "INSERT OR IGNORE INTO `parents` (node_id,parent_id) VALUES (%Q,\"no_parent_for_root\")", node->id);
}

int write_row(sqlite3* db, const acd_node_t* node)
{
    // Names compare without regard to case in the cache, but not on the local side.
    int rc = sql_exec_mprintf(db, SQL_HERE,
                              "INSERT OR REPLACE INTO `renamed_node` SELECT "
                              "id,name,kind,md5,status,created,modified,size,timestamp FROM node WHERE id=%Q "
                              "AND name!=%Q"
                              " COLLATE BINARY",
                              node->id, node->name);
    if (rc != SQLITE_OK)
        return rc;
    rc = sql_exec_mprintf(
        db, SQL_HERE,
        "INSERT OR REPLACE INTO `node` (id,name,kind,md5,status,created,modified,size) VALUES "
        "(%Q,%Q,%Q,%Q,%Q,strftime('%%s',%Q),strftime('%%s',%Q),%lu)",
        node->id, node->name, acd_enum_kind_to_string(node->kind), node->md5,
        acd_enum_status_to_string(node->status), acd_time_to_string(node->create_date),
        acd_time_to_string(node->modified_date), node->size_byte);
    return rc == SQLITE_OK ? write_huge_size(db, node) : rc;
}

// The move notes come first: they need the path with the name that the row still has.
int write_node(sqlite3* db, const acd_node_t* node)
{
    int rc = SQLITE_OK;
    bool stays = false;
    for (uint64_t i = 0; rc == SQLITE_OK && i < node->parents.count; ++i)
        rc = update_moved_node(node, node->parents.id_array[i], stays);
    if (rc == SQLITE_OK)
        rc = write_row(db, node);
    // Writing the link that stands once more would change a page of the table and of each index for nothing.
    if (stays && node->parents.count == 1)
        return rc;
    for (uint64_t i = 0; rc == SQLITE_OK && i < node->parents.count; ++i)
        rc = sql_exec_mprintf(db, SQL_HERE,
                              "INSERT OR REPLACE INTO `parents` (node_id,parent_id) VALUES (%Q,%Q)", node->id,
                              node->parents.id_array[i]);
    return rc;
}

int forget_node(sqlite3* db, const char* id)
{
    return sql_exec_mprintf(db, SQL_HERE,
                            "DELETE FROM `node` WHERE id=%Q;DELETE FROM `parents` WHERE node_id=%Q;"
                            "DELETE FROM `renamed_node` WHERE id=%Q;DELETE FROM `moved_node` WHERE id=%Q;",
                            id, id, id, id);
}

// A record from the columns id, name, kind, md5, status, created, modified, size, parent_id.
acd_node_t* parse_node_row(char** row, int ncol)
{
    if (ncol < node_columns) {
        LOG_ERROR("%s: Failed to parse node!\n", __func__);
        return nullptr;
    }
    acd_node_t node = {};
    node.id = row[0];
    node.name = row[1];
    node.kind = acd_string_to_enum_kind(row[2]);
    node.md5 = row[3];
    node.status = acd_string_to_enum_status(row[4]);
    node.create_date = row[5] ? std::strtoll(row[5], nullptr, 0) : 0;
    node.modified_date = row[6] ? std::strtoll(row[6], nullptr, 0) : 0;
    node.size_byte = row[7] ? std::strtoull(row[7], nullptr, 0) : 0;
    node.parents = {1, &row[8]};
    return acd_node_dup(&node);
}

acd_cache_error_t parse_only_row(char** table, int nrow, int ncol, acd_node_t** node)
{
    if (nrow != 1)
        return ACD_CACHE_ERR_RESOURCE_NOT_FOUND;
    *node = parse_node_row(table + ncol, ncol);
    return *node ? ACD_CACHE_ERR_OK : ACD_CACHE_ERR_INTERNAL_ERROR;
}

constexpr char root_query[] =
    "SELECT id, name, kind, md5, status, created, modified, size, parent_id FROM node, "
    "parents WHERE node.id = parents.node_id AND node.name=%Q";
constexpr char child_query[] =
    "SELECT id, name, kind, md5, status, created, modified, size, parent_id FROM node, parents WHERE "
    "node.id = parents.node_id AND parents.parent_id=%Q AND node.name=%Q AND node.status = \"AVAILABLE\"";

template <class... Texts>
acd_cache_error_t read_node(acd_node_t** node, const char* query, Texts... texts)
{
    sql_table_ptr table;
    int nrow = 0, ncol = 0;
    int rc = sql_get_table_mprintf(acd_cache_db(), SQL_HERE, out(table), &nrow, &ncol, query, texts...);
    return rc == SQLITE_OK ? parse_only_row(table.get(), nrow, ncol, node) : ACD_CACHE_ERR_DB_ERROR;
}

// What read finds, kept for the next time.
template <class Read>
acd_cache_error_t find_or_read(const std::string& key, acd_node_t** node, Read read)
{
    if ((*node = s_found.get(key)))
        return ACD_CACHE_ERR_OK;
    acd_cache_error_t rc = read(node);
    if (rc == ACD_CACHE_ERR_OK)
        s_found.put(key, *node);
    return rc;
}

} // namespace

void acd_cache_forget_found()
{
    s_found.forget();
}

acd_cache_error_t acd_cache_node(const acd_node_t* node)
{
    sqlite3* db = acd_cache_db();
    if (!db || !node)
        return ACD_CACHE_ERR_INVALID_ARGUMENTS;
    if (node->kind == NODE_KIND_ASSET) {
        LOG_ERROR("%s: DO NOT CACHE ASSET NODE!\n", __func__);
        return ACD_CACHE_ERR_INVALID_ARGUMENTS;
    }
    if (!node->is_root && !acd_node_has_local_name(node)) {
        sql_in_transaction(db, SQL_HERE, [=] { return forget_node(db, node->id); });
        return ACD_CACHE_ERR_INVALID_ARGUMENTS;
    }
    LOG_DEBUG("%s: Caching node ..., node = %s\n", __func__, acd_node_to_short_string(node));
    int rc = sql_in_transaction(db, SQL_HERE,
                                [=] { return node->is_root ? write_root(db, node) : write_node(db, node); });
    return rc == SQLITE_OK ? ACD_CACHE_ERR_OK : ACD_CACHE_ERR_DB_ERROR;
}

acd_cache_error_t acd_cache_get_root_node(acd_node_t** node)
{
    if (node)
        *node = nullptr;
    if (!acd_cache_db() || !node)
        return ACD_CACHE_ERR_INVALID_ARGUMENTS;
    return find_or_read("/", node, [](acd_node_t** root) { return read_node(root, root_query, "/"); });
}

acd_cache_error_t acd_cache_get_child_node(const acd_node_t* parent, const char* name, acd_node_t** node)
{
    if (node)
        *node = nullptr;
    if (!acd_cache_db() || !parent || !name || !node)
        return ACD_CACHE_ERR_INVALID_ARGUMENTS;
    acd_cache_error_t result =
        find_or_read(std::string(parent->id) + "/" + name, node,
                     [&](acd_node_t** child) { return read_node(child, child_query, parent->id, name); });
    if (result == ACD_CACHE_ERR_OK) {
        LOG_DEBUG("%s: Get a child node from cache! parent_node = %s\n", __func__,
                  acd_node_to_short_string(parent));
        LOG_DEBUG("%s: child_node_name = %s, child node = %s\n", __func__, name,
                  acd_node_to_short_string(*node));
    }
    return result;
}

int acd_cache_take_unknown_folder(const acd_node_t* node)
{
    return static_cast<int>(unknown_folders().erase(node->id));
}

acd_cache_error_t acd_cache_get_node_at(const char* path, acd_node_t** node)
{
    *node = nullptr;
    node_ptr found;
    acd_cache_error_t rc = acd_cache_get_root_node(out(found));
    for (const std::string& name : split_path(path)) {
        if (rc != ACD_CACHE_ERR_OK)
            return rc;
        node_ptr child;
        rc = acd_cache_get_child_node(found.get(), name.c_str(), out(child));
        found = std::move(child);
    }
    *node = found.release();
    return rc;
}

acd_cache_error_t acd_cache_get_node_path(const acd_node_t* node, char** path)
{
    if (path)
        *path = nullptr;
    if (!acd_cache_db() || !node || !path)
        return ACD_CACHE_ERR_INVALID_ARGUMENTS;
    acd_cache_error_t rc = __acd_cache_get_node_path(node->id, path);
    if (rc == ACD_CACHE_ERR_RESOURCE_NOT_FOUND)
        LOG_DEBUG("%s: Cache miss! Node %s is neither file nor folder\n", __func__,
                  acd_node_to_short_string(node));
    return rc;
}
