#include "kxamazon/acd_sync_downsync.h"

#include <cstdlib>
#include <cstring>
#include <optional>
#include <sys/stat.h>

#include "common/utils.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_sync_letters.h"
#include "kxamazon/acd_sync_utils.h"

namespace
{

// None when the local node is missing.
std::optional<time_t> local_mtime(const acd_sync_path_t* sync_path)
{
    struct stat st;
    if (stat(sync_path->local_node_path, &st) != 0)
        return std::nullopt;
    return st.st_mtime;
}

bool is_deleted(const acd_node_t* node)
{
    return node->status == NODE_STATUS_TRASH || node->status == NODE_STATUS_PURGED;
}

// Whether an available node that the local drive lacks is there under an older name. The change feed takes
// the moved nodes out before any decision, so one that is still noted as moved must not get here.
bool was_renamed(const acd_node_t* node, const char* decision)
{
    string_ptr old_name;
    if (acd_cache_is_cloud_node_renamed(node, out(old_name)))
        return true;
    string_ptr old_path;
    if (acd_cache_is_cloud_node_moved(node, out(old_path))) {
        LOG_ERROR("%s: shall not see SYNC_FOLDER_ACTION_MOVE\n", decision);
        acd_cache_delete_moved_node(node); // or every start would end here
        std::exit(1);
    }
    return false;
}

} // namespace

int op_default_filter(const acd_node_t* node)
{
    return node->name[0] != '\0' && (node->kind == NODE_KIND_FILE || node->kind == NODE_KIND_FOLDER) &&
           node->status != NODE_STATUS_PENDING && node->status != NODE_STATUS_UNKNOWN;
}

// The order of a full pass:
//   1. the local drive must stand: a share that is gone must not come back as a plain folder;
//   2. the cloud folder is made where it is missing, so that the walk has something to walk;
//   3. below the drive, the local twin of the folder is made, as the walk begins with what is in it;
//   4. the walk takes each folder before what it holds, so a file finds its folder made. The walk writes each
//      node to the cache before it is decided on: the decisions ask the cache for older names.
// A folder's time is set when it is made, before its files arrive. What they do to it leaves it newer than
// the cloud's, which the decisions take for nothing to do.
int acd_downsync_cloud_drive_path(const char* cloud_drive_path, const char* cloud_folder_path,
                                  const char* local_drive_path, acd_node_op_t op)
{
    if (!cloud_drive_path || !cloud_folder_path || !local_drive_path)
        return -1;
    const char* const name = __func__;
    acd_sync_forget_names();
    LOG_INFO("Start full downsync cloud folder path. %s ===> %s, cloud folder path = %s\n", cloud_drive_path,
             local_drive_path, cloud_folder_path);
    struct stat st;
    if (stat_local_drive_path(name, local_drive_path, &st) != 0)
        return -1;

    const auto finish = [&](int rc) {
        if (rc == 0)
            LOG_INFO("%s: Full downsync cloud folder path successfully. %s ===> %s, cloud folder path = %s\n",
                     name, cloud_drive_path, local_drive_path, cloud_folder_path);
        else
            LOG_INFO("%s: Failed to full download folder drive path! %s ===> %s, cloud folder path = %s\n",
                     name, cloud_drive_path, local_drive_path, cloud_folder_path);
        return rc;
    };
    sync_path_ptr sync_path(acd_create_sync_path(cloud_drive_path, local_drive_path));
    if (auto rc = acd_fs_mkdir(cloud_folder_path); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to create cloud folder path %s. fs_err = %d\n", name, cloud_folder_path, rc);
        HANDLE_ACD_FS_ERROR(rc);
        return finish(-1);
    }
    if (std::strcmp(cloud_folder_path, cloud_drive_path) != 0) {
        string_ptr local_folder(get_local_node_path(cloud_drive_path, local_drive_path, cloud_folder_path));
        add_local_folder(name, cloud_folder_path, local_folder.get());
    }
    auto rc = acd_fs_scan_dir_ex(cloud_folder_path, 1, op_default_filter, op, sync_path.get());
    if (rc != ACD_FS_ERR_OK) {
        HANDLE_ACD_FS_ERROR(rc);
        LOG_ERROR("%s: Failed to scan cloud folder path %s. fs_err = %d\n", name, cloud_folder_path, rc);
        return finish(-1);
    }
    return finish(0);
}

acd_fs_error_t op_full_download(const char* cloud_node_path, const acd_node_t* node,
                                acd_sync_path_t* sync_path)
{
    const char* cloud_drive_path = sync_path->cloud_drive_path;
    const char* local_drive_path = sync_path->local_drive_path;
    if (node->is_root || std::strcmp(cloud_node_path, cloud_drive_path) == 0)
        return ACD_FS_ERR_OK;
    if (std::strcmp(cloud_drive_path, "/") == 0 && is_regular_nas_cloud_drive(cloud_node_path))
        return ACD_FS_ERR_SCAN_OP_CONTINUE;
    struct stat st;
    if (stat_local_drive_path(__func__, local_drive_path, &st) != 0)
        return ACD_FS_ERR_LOCAL_IO;

    sync_node_scope node_paths(
        sync_path, string_ptr(safe_strdup(cloud_node_path)),
        string_ptr(get_local_node_path(cloud_drive_path, local_drive_path, cloud_node_path)));
    LOG_DEBUG("%s: %s <===> %s, %s ---> %s\n", __func__, cloud_drive_path, local_drive_path, cloud_node_path,
              sync_path->local_node_path);
    acd_sync_find_other_letters(node, sync_path);
    if (leads_through_link(__func__, local_drive_path, sync_path->local_node_path))
        return ACD_FS_ERR_SCAN_OP_CONTINUE;
    if (node->kind == NODE_KIND_FOLDER)
        op_downsync_node_folder(node, sync_path);
    else if (node->kind == NODE_KIND_FILE)
        op_downsync_node_file(node, sync_path);
    return ACD_FS_ERR_OK;
}

// On equal times a deleted folder goes and a deleted file stays.
sync_folder_action_t get_downsync_folder_action(const acd_node_t* node, const acd_sync_path_t* sync_path)
{
    const char* acd = sync_path->cloud_node_path;
    const char* lcd = sync_path->local_node_path;
    const std::optional<time_t> local = local_mtime(sync_path);
    const time_t cloud = node->modified_date;
    if (node->status == NODE_STATUS_AVAILABLE && !local) {
        if (was_renamed(node, __func__))
            return SYNC_FOLDER_ACTION_RENAME;
        LOG_DEBUG("%s: Cloud node does not exist in local drive! acd: %s, lcd: %s\n", __func__, acd, lcd);
        return SYNC_FOLDER_ACTION_ADD;
    }
    if (node->status == NODE_STATUS_AVAILABLE) {
        if (*local >= cloud)
            return SYNC_FOLDER_ACTION_NO_OP;
        LOG_DEBUG("%s: Cloud node is newer than local node. acd: %s (mtime: %s), lcd: %s (mtime: %s)\n",
                  __func__, acd, acd_time_to_string(cloud), lcd, acd_time_to_string(*local));
        return SYNC_FOLDER_ACTION_UPDATE_MTIME;
    }
    if (is_deleted(node)) {
        if (!local || *local <= cloud)
            return SYNC_FOLDER_ACTION_DELETE;
        LOG_ERROR("%s: Is it possible? Cloud node %s (mtime: %s) is deleted, but it is older than local node "
                  "%s (mtime: %s)!\n",
                  __func__, acd, acd_time_to_string(cloud), lcd, acd_time_to_string(*local));
        return SYNC_FOLDER_ACTION_NO_OP;
    }
    LOG_DEBUG("%s: Ignore status %s, cloud node %s.\n", __func__, acd_enum_status_to_string(node->status),
              acd_node_to_short_string(node));
    return SYNC_FOLDER_ACTION_NO_OP;
}

sync_file_action_t get_downsync_file_action(const acd_node_t* node, const acd_sync_path_t* sync_path)
{
    const char* acd = sync_path->cloud_node_path;
    const char* lcd = sync_path->local_node_path;
    const std::optional<time_t> local = local_mtime(sync_path);
    const time_t cloud = node->modified_date;
    if (node->status == NODE_STATUS_AVAILABLE && !local)
        return was_renamed(node, __func__) ? SYNC_FILE_ACTION_RENAME : SYNC_FILE_ACTION_ADD;
    if (node->status == NODE_STATUS_AVAILABLE) {
        if (*local >= cloud)
            return SYNC_FILE_ACTION_NO_OP;
        LOG_DEBUG("%s: Cloud node is newer than local node! acd: %s (mtime: %s), lcd: %s (mtime: %s)\n",
                  __func__, acd, acd_time_to_string(cloud), lcd, acd_time_to_string(*local));
        return SYNC_FILE_ACTION_ADD;
    }
    if (is_deleted(node)) {
        if (!local)
            return SYNC_FILE_ACTION_NO_OP;
        if (*local < cloud)
            return SYNC_FILE_ACTION_DELETE;
        LOG_INFO("%s: Cloud node %s (mtime: %s) is deleted, but it is older than or equal to local node %s "
                 "(mtime: %s)!\n",
                 __func__, acd, acd_time_to_string(cloud), lcd, acd_time_to_string(*local));
        return SYNC_FILE_ACTION_NO_OP;
    }
    LOG_DEBUG("%s: Ignore status %s, cloud node %s.\n", __func__, acd_enum_status_to_string(node->status),
              acd_node_to_short_string(node));
    return SYNC_FILE_ACTION_NO_OP;
}

int op_downsync_node_folder(const acd_node_t* node, acd_sync_path_t* sync_path)
{
    if (is_deleted(node) && op_downsync_resume_delete(node, sync_path))
        return 0;
    switch (get_downsync_folder_action(node, sync_path)) {
    case SYNC_FOLDER_ACTION_ADD:
        return op_downsync_add_node(node, sync_path);
    case SYNC_FOLDER_ACTION_DELETE:
        return op_downsync_delete_node(node, sync_path);
    case SYNC_FOLDER_ACTION_RENAME:
        return op_downsync_rename_node(node, sync_path);
    case SYNC_FOLDER_ACTION_UPDATE_MTIME:
        return op_downsync_update_mtime_node(node, sync_path);
    default:
        LOG_INFO("Ignore folder %s --> %s\n", sync_path->cloud_node_path, sync_path->local_node_path);
        return 0;
    }
}

int op_downsync_node_file(const acd_node_t* node, acd_sync_path_t* sync_path)
{
    switch (get_downsync_file_action(node, sync_path)) {
    case SYNC_FILE_ACTION_ADD:
        return op_downsync_add_node(node, sync_path);
    case SYNC_FILE_ACTION_DELETE:
        return op_downsync_delete_node(node, sync_path);
    case SYNC_FILE_ACTION_RENAME:
        return op_downsync_rename_node(node, sync_path);
    default:
        LOG_INFO("Ignore file %s --> %s\n", sync_path->cloud_node_path, sync_path->local_node_path);
        return 0;
    }
}
