#include <cstring>
#include <sys/stat.h>

#include "common/paths.h"
#include "common/utils.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_sync_downsync.h"
#include "kxamazon/acd_sync_echo.h"
#include "kxamazon/acd_sync_letters.h"
#include "kxamazon/acd_sync_upsync.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/global.h"
#include "kxamazon/linux_fs.h"
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

// The event is the echo of what was done here for the cloud. A node that is at the path is another one, which
// took it since. rc is what the cloud has there, or why not.
bool is_taken(const char* cloud_path, acd_fs_error_t* rc)
{
    node_ptr node;
    *rc = acd_fs_get_node(cloud_path, out(node));
    if (node)
        LOG_DEBUG("%s: %s left this path for the cloud, which has another node there now: %s\n",
                  "watch_notify", cloud_path, acd_node_to_short_string(node.get()));
    return *rc == ACD_FS_ERR_OK;
}

// Whether the cloud has a node at the path that is the twin of another local entry. One that was synced is in
// the cache, so that no request need be made.
bool is_others(const char* function_name, const char* local_path, const char* cloud_path)
{
    node_ptr node;
    acd_cache_get_node_at(cloud_path, out(node));
    return node && acd_sync_is_twin_of_another(function_name, node.get(), local_path, cloud_path);
}

void delete_node(const char* kind, const char* local_path, const char* cloud_path, bool is_echo)
{
    if (acd_fs_error_t rc; is_echo) {
        if (!is_taken(cloud_path, &rc))
            LOG_ERROR("Failed to delete %s %s! %d\n", kind, cloud_path, rc);
        return;
    }
    if (is_others("watch_notify", local_path, cloud_path))
        return;
    if (acd_fs_error_t rc = acd_fs_delete_file(cloud_path); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("Failed to delete %s %s! %d\n", kind, cloud_path, rc);
        return;
    }
    LOG_INFO("CloudDrive:Delete:%s %s\n", kind, cloud_path);
    add_log("LOGMSG_AMAZONDRIVE_SERVER_DELETE", cloud_path, nullptr);
}

void handle_event(watch_type_v2_t type, const char* local_path, const char* cloud_path, bool is_echo)
{
    switch (type) {
    case WATCH_TYPE_V2_ADD_FILE:
        return add_file(local_path, cloud_path);
    case WATCH_TYPE_V2_ADD_DIR:
        return add_folder(local_path, cloud_path);
    case WATCH_TYPE_V2_DEL_FILE:
        return delete_node("FILE", local_path, cloud_path, is_echo);
    case WATCH_TYPE_V2_DEL_DIR:
        return delete_node("FOLDER", local_path, cloud_path, is_echo);
    default:
        return;
    }
}

int add_entry(const char* full_path, const struct dirent* entry, void* arg)
{
    struct stat st;
    const bool is_folder = entry->d_type == DT_DIR;
    if (is_folder && (lstat(full_path, &st) != 0 || st.st_dev != *static_cast<dev_t*>(arg)))
        return ACD_FS_ERR_SCAN_OP_CONTINUE;
    return watch_notify(full_path, is_folder ? WATCH_TYPE_V2_ADD_DIR : WATCH_TYPE_V2_ADD_FILE, nullptr);
}

// The cloud never had it at its old path: it was made, or written under another name, and renamed at once.
// What stands at the new path now comes up like anything new.
void add_moved(const char* local_path, watch_type_v2_t type)
{
    const bool is_folder = type == WATCH_TYPE_V2_MOVE_DIR;
    struct stat st;
    if (lstat(local_path, &st) != 0 || S_ISDIR(st.st_mode) != is_folder)
        return; // gone again
    watch_notify(local_path, is_folder ? WATCH_TYPE_V2_ADD_DIR : WATCH_TYPE_V2_ADD_FILE, nullptr);
    if (is_folder)
        linux_fs_scan_dir_op_first(local_path, 1, op_upsync_filter, add_entry, &st.st_dev);
}

bool has_time(const char* path, time_t mtime)
{
    struct stat st;
    return lstat(path, &st) == 0 && st.st_mtim.tv_sec == mtime && st.st_mtim.tv_nsec == 0;
}

// A file that was saved just before it was moved may not have come up yet; with the cloud's time it never
// would.
void settle_file(const acd_node_t* node, bool was_in_step, const char* local_path)
{
    if (!node || was_in_step || linux_fs_has_content(local_path, node->size_byte, node->md5)) {
        upsync_update_mtime_node(node, local_path);
        return;
    }
    set_mtime(local_path, node->modified_date + 1);
    watch_notify(local_path, WATCH_TYPE_V2_ADD_FILE, nullptr);
}

void fail_to_move_folder(const char* cloud_old, const char* cloud_new, acd_fs_error_t rc)
{
    LOG_ERROR("%s: Failed to move folder %s ---> %s \n! %d", "watch_notify_move", cloud_old, cloud_new, rc);
}

acd_fs_error_t move_folder(const char* cloud_old, const char* cloud_new, const char* new_local_path)
{
    node_ptr node;
    if (auto rc = acd_fs_move_folder(cloud_old, cloud_new, out(node)); rc != ACD_FS_ERR_OK) {
        fail_to_move_folder(cloud_old, cloud_new, rc);
        return rc;
    }
    add_log("LOGMSG_AMAZONDRIVE_SERVER_MOVE", cloud_old, cloud_new, nullptr);
    LOG_INFO("Cloud:Move:FOLDER %s ---> %s \n.", cloud_old, cloud_new);
    upsync_update_mtime_node(node.get(), new_local_path);
    return ACD_FS_ERR_OK;
}

// Unlike a folder's, a file's event is recorded even when the move failed.
void fail_to_move_file(const char* cloud_old, const char* cloud_new, acd_fs_error_t rc)
{
    add_log("LOGMSG_AMAZONDRIVE_SERVER_MOVE", cloud_old, cloud_new, nullptr);
    LOG_ERROR("%s: Failed to move file %s ---> %s \n! %d", "watch_notify_move", cloud_old, cloud_new, rc);
}

acd_fs_error_t move_file(const char* cloud_old, const char* cloud_new, const char* new_local_path)
{
    node_ptr before;
    acd_fs_get_node(cloud_old, out(before));
    const bool was_in_step = before && has_time(new_local_path, before->modified_date);
    node_ptr node;
    acd_fs_error_t rc = acd_fs_move_file(cloud_old, cloud_new, out(node));
    if (rc != ACD_FS_ERR_OK) {
        fail_to_move_file(cloud_old, cloud_new, rc);
        return rc;
    }
    add_log("LOGMSG_AMAZONDRIVE_SERVER_MOVE", cloud_old, cloud_new, nullptr);
    LOG_INFO("Cloud:Move:FILE %s ---> %s \n.", cloud_old, cloud_new);
    settle_file(node.get(), was_in_step, new_local_path);
    return ACD_FS_ERR_OK;
}

// Names in the way, in the old folder and in the new, kept the node from being moved. Once its content is up
// at the new place the old one goes, unless something stands there here.
void leave_old_place(const char* old_local_path, const char* cloud_old, const char* new_local_path,
                     const char* cloud_new)
{
    node_ptr node;
    acd_fs_get_node(cloud_new, out(node));
    if (node && node->status == NODE_STATUS_AVAILABLE && !is_there(old_local_path) &&
        linux_fs_has_content(new_local_path, node->size_byte, node->md5))
        delete_node("FILE", old_local_path, cloud_old, false);
}

// An own move has nothing to move in the cloud; what was edited here since comes up.
void handle_move_echo(const char* cloud_old, const char* cloud_new, const char* new_local_path,
                      watch_type_v2_t type)
{
    const bool is_folder = type == WATCH_TYPE_V2_MOVE_DIR;
    if (acd_fs_error_t rc; !is_taken(cloud_old, &rc))
        (is_folder ? fail_to_move_folder : fail_to_move_file)(cloud_old, cloud_new, rc);
    if (!is_folder)
        watch_notify(new_local_path, WATCH_TYPE_V2_ADD_FILE, nullptr);
}

bool is_same_node(const char* cloud_path, const char* other_path)
{
    node_ptr node, other;
    acd_cache_get_node_at(cloud_path, out(node));
    acd_cache_get_node_at(other_path, out(other));
    return node && other && strcmp(node->id, other->id) == 0;
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
        acd_sync_forget_echoes();
        acd_downsync_changes(global.sync_pairs);
        return 0;
    }
    const bool is_delete = type == WATCH_TYPE_V2_DEL_FILE || type == WATCH_TYPE_V2_DEL_DIR;
    const bool is_echo = is_delete && acd_sync_take_echo(local_path);
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
        handle_event(type, local_path, cloud_path, is_echo);
    }
    notify_of_letters();
    return 0;
}

// Nobody told of them, but the upload found them.
void notify_of_letters()
{
    for (const acd_sync_letters_t& letters : acd_sync_take_letters())
        watch_notify_move(letters.old_path.c_str(), letters.new_path.c_str(),
                          letters.is_folder ? WATCH_TYPE_V2_MOVE_DIR : WATCH_TYPE_V2_MOVE_FILE);
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
    if (acd_sync_take_echo(old_local_path)) {
        handle_move_echo(cloud_old.get(), cloud_new.get(), new_local_path, type);
        return 0;
    }
    // What is not its own node stays in the cloud as it is.
    if (is_others(__func__, old_local_path, cloud_old.get())) {
        add_moved(new_local_path, type);
        return 0;
    }
    if (is_others(__func__, new_local_path, cloud_new.get()) &&
        !is_same_node(cloud_old.get(), cloud_new.get()))
        return 0;
    const auto move = type == WATCH_TYPE_V2_MOVE_DIR ? move_folder : move_file;
    const acd_fs_error_t rc = move(cloud_old.get(), cloud_new.get(), new_local_path);
    // Nothing to move there, or a name in its way: what lies at the new place goes up as new.
    if (rc == ACD_FS_ERR_RESOURCE_NOT_FOUND || rc == ACD_FS_ERR_RESOURCE_DUPLICATE)
        add_moved(new_local_path, type);
    if (rc == ACD_FS_ERR_RESOURCE_DUPLICATE && type == WATCH_TYPE_V2_MOVE_FILE)
        leave_old_place(old_local_path, cloud_old.get(), new_local_path, cloud_new.get());
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
