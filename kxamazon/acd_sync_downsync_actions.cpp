#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "common/utils.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_sync_downsync.h"
#include "kxamazon/acd_sync_echo.h"
#include "kxamazon/acd_sync_letters.h"
#include "kxamazon/acd_sync_report.h"
#include "kxamazon/acd_sync_utils.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/download_note.h"
#include "kxamazon/global.h"
#include "kxamazon/linux_fs.h"

namespace
{

// Removes one entry, a folder only when it is empty.
void delete_local_entry(const char* function_name, const char* path, bool is_folder)
{
    acd_sync_expect_delete_echo(path);
    if ((is_folder ? rmdir(path) : unlink(path)) != 0) {
        acd_sync_take_echo(path);
        LOG_ERROR("%s: Local: Failed to delete %s %s!\n", function_name, is_folder ? "folder" : "file", path);
        return;
    }
    report_sync_action(is_folder ? sync_folder_action_to_string(SYNC_FOLDER_ACTION_DELETE)
                                 : sync_file_action_to_string(SYNC_FILE_ACTION_DELETE),
                       "LOGMSG_AMAZONDRIVE_LOCAL_DELETE", path);
}

// One that was cut, and when it began.
struct removal_t {
    timespec begun;
    time_t cloud_mtime;
};

// What came since, or is newer than the cloud's change, is the owner's.
int delete_older_entry(const char* full_path, const struct dirent* entry, void* arg)
{
    const auto* removal = static_cast<const removal_t*>(arg);
    struct stat st;
    const bool is_folder = entry->d_type == DT_DIR;
    if (lstat(full_path, &st) != 0)
        return 0;
    const bool came_before =
        st.st_ctim.tv_sec < removal->begun.tv_sec ||
        (st.st_ctim.tv_sec == removal->begun.tv_sec && st.st_ctim.tv_nsec < removal->begun.tv_nsec);
    if (is_folder || (came_before && st.st_mtime <= removal->cloud_mtime))
        delete_local_entry("op_downsync_delete_node_linux_fs", full_path, is_folder);
    return 0;
}

// The path of that name in the folder that holds path.
string_ptr sibling_path(const char* path, const char* name)
{
    const int folder_len = static_cast<int>(std::strrchr(path, '/') - path);
    return string_ptr(asprintf_str("%.*s/%s", folder_len, path, name));
}

acd_fs_error_t download_node(const acd_node_t* node, const acd_sync_path_t* sync_path)
{
    const char* local_path = sync_path->local_node_path;
    add_log("LOGMSG_AMAZONDRIVE_DOWNLOADING", local_path, nullptr);
    auto rc = acd_fs_download_file(node->id, local_path);
    if (rc != ACD_FS_ERR_OK) {
        handle_acd_fs_error(rc, "op_downsync_add_node", __FILE_NAME__, __LINE__);
        LOG_ERROR("Failed to download file '%s' --> '%s'\n", sync_path->cloud_node_path, local_path);
        return rc;
    }
    report_sync_action(sync_file_action_to_string(SYNC_FILE_ACTION_ADD), "LOGMSG_AMAZONDRIVE_LOCAL_DOWNLOAD",
                       local_path);
    return rc;
}

int rename_local(const char* local_drive_path, const char* old_path, const char* new_path)
{
    if (leads_through_link("op_downsync_rename_node", local_drive_path, old_path))
        return -1;
    const int rc = std::rename(old_path, new_path);
    if (rc == 0)
        acd_sync_expect_move_echo(old_path);
    return rc;
}

} // namespace

const char* sync_folder_action_to_string(sync_folder_action_t action)
{
    static const char* const labels[] = {"Local:NA:FOLDER",     "Local:Add:FOLDER",  "Local:Delete:FOLDER",
                                         "Local:Rename:FOLDER", "Local:Move:FOLDER", "Local:Mtime:FOLDER"};
    return sync_action_label(labels, action);
}

const char* sync_file_action_to_string(sync_file_action_t action)
{
    static const char* const labels[] = {"Local:NA:FILE",     "Local:Add:FILE",    "Local:Overwrite:FILE",
                                         "Local:Delete:FILE", "Local:Rename:FILE", "Local:Move:FILE"};
    return sync_action_label(labels, action);
}

void add_local_folder(const char* function_name, const char* cloud_path, const char* local_path)
{
    if (mkdir_p(local_path, global.dmode) != 0) {
        LOG_ERROR("%s: Failed to create dir %s ---> %s\n", function_name, cloud_path, local_path);
        return;
    }
    report_sync_action(sync_folder_action_to_string(SYNC_FOLDER_ACTION_ADD), "LOGMSG_AMAZONDRIVE_LOCAL_ADD",
                       local_path);
}

// The time is set last, since writing the content sets it too, and after a failure all the same. Only then is
// the download over: what ends the process before that leaves the note of it.
int op_downsync_add_node(const acd_node_t* node, acd_sync_path_t* sync_path)
{
    if (node->kind == NODE_KIND_FOLDER) {
        add_local_folder(__func__, sync_path->cloud_node_path, sync_path->local_node_path);
        return op_downsync_update_mtime_node(node, sync_path);
    }
    if (node->kind != NODE_KIND_FILE)
        return 0;
    download_note note(sync_path->local_node_path, node->modified_date);
    auto rc = download_node(node, sync_path);
    if (rc == ACD_FS_ERR_STOPPED)
        return rc;
    if (rc != ACD_FS_ERR_OK)
        acd_cache_forget_content(node);
    op_downsync_update_mtime_node(node, sync_path);
    if (!note.finish())
        HANDLE_ACD_FS_ERROR(ACD_FS_IO_ERR_READ_WRITE_ERROR);
    return 0;
}

int op_downsync_update_mtime_node(const acd_node_t* node, acd_sync_path_t* sync_path)
{
    set_mtime(sync_path->local_node_path, node->modified_date);
    LOG_INFO("Set local node path %s mtime to %s\n", sync_path->local_node_path,
             acd_time_to_string(node->modified_date));
    return 0;
}

int op_downsync_delete_node_linux_fs_filter(const struct dirent* entry)
{
    return (entry->d_type == DT_DIR || entry->d_type == DT_REG) && std::strcmp(entry->d_name, ".") != 0 &&
           std::strcmp(entry->d_name, "..") != 0;
}

int op_downsync_delete_node_linux_fs(const char* full_path, const struct dirent* entry, void*)
{
    delete_local_entry(__func__, full_path, entry->d_type == DT_DIR);
    return 0;
}

// The cloud's kind decides how the local node goes, so that a local entry of the other kind, which the cloud
// never held, stays. What the filter hides (links, devices) stays too, and with it the folder.
int op_downsync_delete_node(const acd_node_t* node, acd_sync_path_t* sync_path)
{
    const char* path = sync_path->local_node_path;
    struct stat st;
    if (stat(path, &st) != 0) {
        LOG_DEBUG("%s: Cannot stat path %s\n", __func__, path);
        return -1;
    }
    const bool is_folder = node->kind == NODE_KIND_FOLDER;
    if (is_folder) {
        acd_cache_note_removal(node);
        linux_fs_scan_dir_op_next(path, 1, op_downsync_delete_node_linux_fs_filter,
                                  op_downsync_delete_node_linux_fs, nullptr);
    }
    delete_local_entry(__func__, path, is_folder);
    if (is_folder)
        acd_cache_delete_removal_note(node);
    return 0;
}

int op_downsync_resume_delete(const acd_node_t* node, acd_sync_path_t* sync_path)
{
    removal_t removal = {};
    struct stat st;
    if (!acd_cache_is_being_removed(node, &removal.begun))
        return 0;
    removal.cloud_mtime = node->modified_date;
    const char* path = sync_path->local_node_path;
    if (lstat(path, &st) == 0 && S_ISDIR(st.st_mode)) {
        linux_fs_scan_dir_op_next(path, 1, op_downsync_delete_node_linux_fs_filter, delete_older_entry,
                                  &removal);
        delete_local_entry("op_downsync_delete_node", path, true);
    }
    acd_cache_delete_removal_note(node);
    return 1;
}

int op_downsync_rename_node(const acd_node_t* node, acd_sync_path_t* sync_path)
{
    string_ptr old_name;
    if (!acd_cache_is_cloud_node_renamed(node, out(old_name))) {
        LOG_ERROR("%s: If cloud node name was not changed, I should not be called!\n", __func__);
        std::exit(1);
    }
    const char* new_path = sync_path->local_node_path;
    const std::string old_path =
        acd_sync_standing_path(sync_path->local_drive_path, sibling_path(new_path, old_name.get()).get());
    LOG_DEBUG("Renmae acd node from %s to %s!\n", old_path.c_str(), new_path);
    const std::string old_cloud_path = sibling_path(sync_path->cloud_node_path, old_name.get()).get();
    const int rc = op_downsync_is_of_another(node, old_cloud_path.c_str())
                       ? -1
                       : rename_local(sync_path->local_drive_path, old_path.c_str(), new_path);
    if (rc != 0)
        LOG_ERROR("%s: Failed to rename %s to %s, node %s\n", __func__, old_path.c_str(), new_path,
                  acd_node_to_short_string(node));
    else
        report_sync_move(node->kind == NODE_KIND_FOLDER
                             ? sync_folder_action_to_string(SYNC_FOLDER_ACTION_RENAME)
                             : sync_file_action_to_string(SYNC_FILE_ACTION_RENAME),
                         "LOGMSG_AMAZONDRIVE_LOCAL_RENAME", old_path.c_str(), new_path);
    op_downsync_settle_node(node, sync_path);
    acd_cache_delete_renamed_node(node);
    return rc;
}
