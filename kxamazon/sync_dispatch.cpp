#include <cstring>

#include "common/utils.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_sync_downsync.h"
#include "kxamazon/acd_sync_upsync.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/global.h"
#include "kxamazon/sync.h"

namespace
{

constexpr size_t cloud_path_size = 4096;

// What the messages about a path without a pair show: they print the mapping's result, not the path.
const char* const no_path = "(null)";

// What follows folder in path, from the '/' on; null when path is not below folder.
const char* path_below(const char* folder, const char* path)
{
    size_t length = strlen(folder);
    return strncmp(path, folder, length) == 0 && path[length] == '/' ? path + length : nullptr;
}

// The pair's cloud folder as a prefix of paths below it.
const char* cloud_prefix(const acd_sync_pair_entry_t* pair)
{
    return strcmp(pair->cloud_drive_path, "/") == 0 ? "" : pair->cloud_drive_path;
}

void add_folder(const char* local_path, const char* cloud_path)
{
    if (acd_upsync_folder(local_path, cloud_path) != ACD_FS_ERR_OK)
        LOG_INFO("ERROR!!CloudDrive:Add:FOLDER %s\n", cloud_path);
}

void add_file(const char* local_path, const char* cloud_path)
{
    if (int rc = acd_upsync_file(local_path, cloud_path); rc != ACD_FS_ERR_OK)
        LOG_ERROR("%s: acd_upsync_file failed! %d\n", "watch_notify", rc);
}

void delete_node(const char* kind, const char* cloud_path)
{
    if (acd_fs_error_t rc = acd_fs_delete_file(cloud_path); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("Failed to delete %s %s! %d\n", kind, cloud_path, rc);
        return;
    }
    LOG_INFO("CloudDrive:Delete:%s %s\n", kind, cloud_path);
    add_log("LOGMSG_AMAZONDRIVE_SERVER_DELETE", cloud_path, nullptr);
}

void handle_event(watch_type_v2_t type, const char* local_path, const char* cloud_path)
{
    switch (type) {
    case WATCH_TYPE_V2_ADD_FILE:
        return add_file(local_path, cloud_path);
    case WATCH_TYPE_V2_ADD_DIR:
        return add_folder(local_path, cloud_path);
    case WATCH_TYPE_V2_DEL_FILE:
        return delete_node("FILE", cloud_path);
    case WATCH_TYPE_V2_DEL_DIR:
        return delete_node("FOLDER", cloud_path);
    default:
        return;
    }
}

void move_folder(const char* cloud_old, const char* cloud_new, const char* new_local_path)
{
    node_ptr node;
    if (auto rc = acd_fs_move_folder(cloud_old, cloud_new, out(node)); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to move folder %s ---> %s \n! %d", "watch_notify_move", cloud_old, cloud_new,
                  rc);
        return;
    }
    add_log("LOGMSG_AMAZONDRIVE_SERVER_MOVE", cloud_old, cloud_new, nullptr);
    LOG_INFO("Cloud:Move:FOLDER %s ---> %s \n.", cloud_old, cloud_new);
    upsync_update_mtime_node(node.get(), new_local_path);
}

// Unlike a folder's, a file's event is recorded even when the move failed.
void move_file(const char* cloud_old, const char* cloud_new, const char* new_local_path)
{
    node_ptr node;
    acd_fs_error_t rc = acd_fs_move_file(cloud_old, cloud_new, out(node));
    add_log("LOGMSG_AMAZONDRIVE_SERVER_MOVE", cloud_old, cloud_new, nullptr);
    if (rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to move file %s ---> %s \n! %d", "watch_notify_move", cloud_old, cloud_new, rc);
        return;
    }
    LOG_INFO("Cloud:Move:FILE %s ---> %s \n.", cloud_old, cloud_new);
    upsync_update_mtime_node(node.get(), new_local_path);
}

// Shows SYNCING in the status file for as long as it lives.
struct syncing_status {
    syncing_status() { write_status(SYNC_STATE_SYNCING); }
    ~syncing_status() { write_status(SYNC_STATE_UP_TO_DATE); }
    syncing_status(const syncing_status&) = delete;
    syncing_status& operator=(const syncing_status&) = delete;
};

} // namespace

char* get_cloud_node_path(const char* local_path)
{
    const acd_sync_pair_entry_t* pair;
    TAILQ_FOREACH (pair, global.sync_pairs, entries) {
        if (const char* rest = path_below(pair->local_drive_path, local_path))
            return asprintf_str("%s%s", cloud_prefix(pair), rest);
    }
    return nullptr;
}

// Every pair whose folder holds the path takes the change: one pair's folder may lie within another's.
int watch_notify(const char* local_path, watch_type_v2_t type, void*)
{
    LOG_DEBUG("watch_notify(%s,%d)\n", local_path, type);
    syncing_status status;
    if (type == WATCH_TYPE_V2_NONE || !local_path) {
        acd_downsync_changes(global.sync_pairs);
        return 0;
    }
    const acd_sync_pair_entry_t* pair;
    TAILQ_FOREACH (pair, global.sync_pairs, entries) {
        const char* rest = path_below(pair->local_drive_path, local_path);
        if (!rest)
            continue;
        char cloud_path[cloud_path_size];
        // A path that was cut would name another node.
        if (safe_snprintf(cloud_path, sizeof cloud_path, "%s%s", cloud_prefix(pair), rest) >=
            static_cast<int>(sizeof cloud_path)) {
            LOG_ERROR("%s: Cloud path of %s is too long!\n", __func__, local_path);
            continue;
        }
        handle_event(type, local_path, cloud_path);
    }
    return 0;
}

int watch_notify_move(const char* old_local_path, const char* new_local_path, watch_type_v2_t type)
{
    LOG_DEBUG("%s: %s %s ---> %s\n", __func__, watch_type_v2_to_string(type), old_local_path, new_local_path);
    syncing_status status;
    string_ptr cloud_old(get_cloud_node_path(old_local_path));
    if (!cloud_old) {
        LOG_ERROR("%s: Failed to get cloud node path for old local path %s!\n", __func__, no_path);
        return -1;
    }
    string_ptr cloud_new(get_cloud_node_path(new_local_path));
    if (!cloud_new) {
        LOG_ERROR("%s: Failed to get cloud node path for new local path %s!\n", __func__, no_path);
        return -1;
    }
    if (type == WATCH_TYPE_V2_MOVE_DIR)
        move_folder(cloud_old.get(), cloud_new.get(), new_local_path);
    else
        move_file(cloud_old.get(), cloud_new.get(), new_local_path);
    return 0;
}

int upsync_update_mtime_node(const acd_node_t* node, const char* local_path)
{
    if (!node)
        return 0;
    set_mtime(local_path, node->modified_date);
    LOG_INFO("Set local node path %s mtime to %s\n", local_path, acd_time_to_string(node->modified_date));
    return 0;
}
