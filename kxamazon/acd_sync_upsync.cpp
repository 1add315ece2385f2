#include "kxamazon/acd_sync_upsync.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "common/constants.h"
#include "common/utils.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_fs_io.h"
#include "kxamazon/acd_sync_letters.h"
#include "kxamazon/acd_sync_report.h"
#include "kxamazon/acd_sync_utils.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/linux_fs.h"

namespace
{

constexpr int entries_per_batch = 200;

const char* sync_file_action_to_string(sync_file_action_t action)
{
    static const char* const labels[] = {"Cloud:NA:FILE",     "Cloud:Add:FILE",    "Cloud:Overwrite:FILE",
                                         "Cloud:Delete:FILE", "Cloud:Rename:FILE", "Cloud:Move:FILE"};
    return sync_action_label(labels, action);
}

// Spares the service: a pause after every entry, and a longer one after every 201st of the process.
void pace()
{
    static int n_scan_nodes = 0;
    kx_sleep_ms(kx_upsync_entry_ms);
    if (n_scan_nodes++ >= entries_per_batch) {
        kx_sleep_ms(kx_upsync_batch_ms);
        n_scan_nodes = 0;
    }
}

// What the walk is to answer for an entry: 0 when it may be uploaded.
int check_entry(const char* full_path, const acd_sync_path_t* sync_path)
{
    constexpr const char* name = "op_upsync";
    const char* local_drive_path = sync_path->local_drive_path;
    struct stat drive;
    struct stat entry;
    if (stat_local_drive_path(name, local_drive_path, &drive) != 0)
        return ACD_FS_ERR_LOCAL_IO;
    if (stat(full_path, &entry) != 0) {
        LOG_ERROR("%s: Local node path %s does not exist!\n", name, full_path);
        return ACD_FS_ERR_LOCAL_IO;
    }
    if (entry.st_dev == drive.st_dev)
        return 0;
    LOG_INFO("DO NOT upsync accross devices! local drive %s device: %d/%d, local path %s device: %d/%d.\n",
             local_drive_path, static_cast<int>(major(drive.st_dev)), static_cast<int>(minor(drive.st_dev)),
             full_path, static_cast<int>(major(entry.st_dev)), static_cast<int>(minor(entry.st_dev)));
    return ACD_FS_ERR_SCAN_OP_CONTINUE;
}

string_ptr cloud_path_of(const acd_sync_path_t* sync_path, const char* full_path)
{
    const char* rest = full_path + std::strlen(sync_path->local_drive_path);
    if (std::strcmp(sync_path->cloud_drive_path, "/") == 0)
        rest++;
    return string_ptr(asprintf_str("%s%s", sync_path->cloud_drive_path, rest));
}

void upload_entry(const char* full_path, unsigned char type, acd_sync_path_t* sync_path)
{
    sync_node_scope node_paths(sync_path, cloud_path_of(sync_path, full_path),
                               string_ptr(safe_strdup(full_path)));
    LOG_DEBUG("%s: %s ===> %s, %s ---> %s\n", "op_upsync", sync_path->local_drive_path,
              sync_path->cloud_drive_path, sync_path->local_node_path, sync_path->cloud_node_path);
    if (type == DT_DIR)
        acd_upsync_folder(sync_path->local_node_path, sync_path->cloud_node_path);
    else if (type == DT_REG)
        acd_upsync_file(sync_path->local_node_path, sync_path->cloud_node_path);
}

} // namespace

int op_upsync_filter(const struct dirent* entry)
{
    return (entry->d_type == DT_DIR || entry->d_type == DT_REG) && entry->d_name[0] != '\0' &&
           std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0;
}

// The order of a full pass: the drive's cloud folder first, as everything below needs a parent; then each
// local folder before what it holds, for the same reason. Nothing is removed from the cloud: a node without
// a local twin is new there or was deleted here while nobody watched; only the first guess loses no data.
int acd_upsync_local_path(const char* local_drive_path, const char* cloud_drive_path)
{
    if (!local_drive_path || !cloud_drive_path)
        return -1;
    LOG_INFO("Start full upsync cloud drive path. %s ===> %s\n", local_drive_path, cloud_drive_path);

    const char* const name = __func__;
    const auto finish = [&](int rc) {
        if (rc == 0)
            LOG_INFO("Full upsync cloud drive path successfully. %s ===> %s\n", local_drive_path,
                     cloud_drive_path);
        else
            LOG_INFO("%s: Failed to upsync cloud drive path! %s ===> %s\n", name, local_drive_path,
                     cloud_drive_path);
        return rc;
    };
    sync_path_ptr sync_path(acd_create_sync_path(cloud_drive_path, local_drive_path));
    if (auto rc = acd_fs_mkdir(cloud_drive_path); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to create cloud drive path %s. fs_err = %d\n", name, cloud_drive_path, rc);
        HANDLE_ACD_FS_ERROR(rc);
        return finish(-1);
    }
    auto rc = linux_fs_scan_dir_op_first(local_drive_path, 1, op_upsync_filter, op_upsync, sync_path.get());
    if (rc != ACD_FS_ERR_OK) {
        HANDLE_ACD_FS_ERROR(rc);
        LOG_ERROR("%s: Failed to scan local drive path %s. fs_err = %d\n", name, local_drive_path, rc);
        return finish(-1);
    }
    return finish(0);
}

int op_upsync(const char* full_path, const struct dirent* entry, void* arg)
{
    auto* sync_path = static_cast<acd_sync_path_t*>(arg);
    LOG_DEBUG("%s: path = %s, node = %d\n", __func__, full_path, entry->d_type);
    if (acd_io_is_stopped())
        return ACD_FS_ERR_STOPPED;
    const int rc = check_entry(full_path, sync_path);
    if (rc == 0)
        upload_entry(full_path, entry->d_type, sync_path);
    if (acd_io_is_stopped())
        return ACD_FS_ERR_STOPPED;
    pace();
    return rc;
}

// A node of any status counts: a folder that lies in the cloud's trash is not made again.
sync_folder_action_t get_upsync_folder_action(const char* local_path, const char* cloud_path)
{
    node_ptr node;
    const acd_fs_error_t rc = acd_fs_get_node(cloud_path, out(node));
    if (node && node->status == NODE_STATUS_AVAILABLE)
        acd_sync_note_letters(node.get(), local_path);
    return rc == ACD_FS_ERR_RESOURCE_NOT_FOUND ? SYNC_FOLDER_ACTION_ADD : SYNC_FOLDER_ACTION_NO_OP;
}

int acd_upsync_folder(const char* local_path, const char* cloud_path)
{
    if (!local_path || !cloud_path)
        return -1;
    const sync_folder_action_t action = get_upsync_folder_action(local_path, cloud_path);
    switch (action) {
    case SYNC_FOLDER_ACTION_NO_OP:
        return 0;
    case SYNC_FOLDER_ACTION_ADD:
        break;
    default:
        LOG_ERROR("%s: Unhandled action %d!\n", __func__, action);
        std::exit(1);
    }
    if (auto rc = acd_fs_mkdir(cloud_path); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to create directory cloud_node_path = %s!\n", __func__, cloud_path);
        return rc;
    }
    report_sync_action("Cloud:Add:FOLDER", "LOGMSG_AMAZONDRIVE_SERVER_ADD", cloud_path);
    return 0;
}

// An upload and a download leave the local time at a whole second: one with a fraction was set by a later
// save within that second.
sync_file_action_t get_upsync_node_action(const acd_node_t* node, time_t local_mtime, long local_nsec)
{
    const time_t cloud_mtime = node->modified_date;
    switch (node->status) {
    case NODE_STATUS_AVAILABLE:
        return local_mtime > cloud_mtime || (local_mtime == cloud_mtime && local_nsec > 0)
                   ? SYNC_FILE_ACTION_OVERWRITE
                   : SYNC_FILE_ACTION_NO_OP;
    case NODE_STATUS_TRASH:
    case NODE_STATUS_PURGED:
        LOG_ERROR("Got trash node %s st.st_mtime = %lld, cloud_node->modified_date = %lld!\n",
                  acd_node_to_short_string(node), static_cast<long long>(local_mtime),
                  static_cast<long long>(cloud_mtime));
        // One second is allowed for: the trash time may be later than the last change by that much.
        return local_mtime + 1 >= cloud_mtime ? SYNC_FILE_ACTION_ADD : SYNC_FILE_ACTION_NO_OP;
    default:
        return SYNC_FILE_ACTION_ADD;
    }
}

int get_upsync_file_action(const char* local_path, const char* cloud_path, sync_file_action_t* action)
{
    *action = SYNC_FILE_ACTION_NO_OP;
    struct stat st;
    if (stat(local_path, &st) != 0 || S_ISDIR(st.st_mode)) {
        LOG_ERROR("%s: Cannot stat local node path %s\n", __func__, local_path);
        return -1;
    }
    node_ptr node;
    const bool found = acd_fs_get_node(cloud_path, out(node)) == ACD_FS_ERR_OK;
    *action = found ? get_upsync_node_action(node.get(), st.st_mtim.tv_sec, st.st_mtim.tv_nsec)
                    : SYNC_FILE_ACTION_ADD;
    if (*action == SYNC_FILE_ACTION_OVERWRITE &&
        acd_sync_is_twin_of_another(__func__, node.get(), local_path, cloud_path))
        *action = SYNC_FILE_ACTION_NO_OP;
    if (found && node->status == NODE_STATUS_AVAILABLE)
        acd_sync_note_letters(node.get(), local_path);
    return 0;
}

int acd_upsync_file(const char* local_path, const char* cloud_path)
{
    if (!local_path || !cloud_path)
        return -1;
    sync_file_action_t action;
    const int rc = get_upsync_file_action(local_path, cloud_path, &action);
    LOG_DEBUG("%s: get upsync file action = %d\n", __func__, action);
    if (acd_io_is_stopped()) // the action may come from a look-up that was not made
        return ACD_FS_ERR_STOPPED;
    switch (action) {
    case SYNC_FILE_ACTION_NO_OP:
        return rc;
    case SYNC_FILE_ACTION_ADD:
        return __acd_upsync_add_file(local_path, cloud_path);
    case SYNC_FILE_ACTION_OVERWRITE:
        return __acd_upsync_overwrite_file(local_path, cloud_path);
    default:
        LOG_ERROR("%s: Unhandled action %d!\n", __func__, action);
        std::exit(1);
    }
}

acd_fs_error_t __acd_upsync_add_file(const char* local_path, const char* cloud_path)
{
    add_log("LOGMSG_AMAZONDRIVE_UPLOADING", local_path, nullptr);
    node_ptr node;
    auto rc = acd_fs_upload_file(local_path, cloud_path, out(node));
    if (rc != ACD_FS_ERR_OK)
        LOG_ERROR("%s: Failed to upload! %d %s ---> %s!\n", __func__, rc, local_path, cloud_path);
    else
        report_sync_action(sync_file_action_to_string(SYNC_FILE_ACTION_ADD),
                           "LOGMSG_AMAZONDRIVE_SERVER_UPLOAD", cloud_path);
    return rc;
}

acd_fs_error_t __acd_upsync_overwrite_file(const char* local_path, const char* cloud_path)
{
    node_ptr node;
    auto rc = acd_fs_overwrite_file(local_path, cloud_path, out(node));
    if (rc != ACD_FS_ERR_OK)
        LOG_ERROR("%s: Failed to overwrite! %d %s ---> %s!\n", __func__, rc, local_path, cloud_path);
    else
        report_sync_action(sync_file_action_to_string(SYNC_FILE_ACTION_OVERWRITE), nullptr, cloud_path);
    return rc;
}
