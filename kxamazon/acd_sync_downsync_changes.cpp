#include <cstddef>
#include <sys/stat.h>

#include "common/paths.h"
#include "common/utils.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_fs_io.h"
#include "kxamazon/acd_sync_downsync.h"
#include "kxamazon/acd_sync_echo.h"
#include "kxamazon/acd_sync_letters.h"
#include "kxamazon/acd_sync_report.h"
#include "kxamazon/acd_sync_utils.h"
#include "kxamazon/global.h"
#include "kxamazon/linux_fs.h"

namespace
{

constexpr int fetch_all_changes = 1;
constexpr size_t max_changed_nodes = 10000;
constexpr size_t changes_chunk_size = 200;

bool is_of_kind(const acd_node_t* node, const char* path)
{
    struct stat st;
    return lstat(path, &st) == 0 && !S_ISDIR(st.st_mode) == (node->kind == NODE_KIND_FILE);
}

// What is in a folder that stood there already may be missing.
void arrive(const acd_node_t* node, acd_sync_path_t* new_path)
{
    const bool was_there = is_there(new_path->local_node_path);
    op_downsync_settle_node(node, new_path);
    if (was_there && node->kind == NODE_KIND_FOLDER)
        op_downsync_bring_down_folder(new_path);
}

// Whether the local node at the old path is the one that the cloud moved, and nothing of the owner's stands
// at the new path. After a move that began here, and whose reply was lost, the node is at its new path, and
// at the old one there may be a new file.
bool is_to_be_moved(const acd_node_t* node, const char* old_path, const char* new_path)
{
    if (!is_of_kind(node, old_path) || !is_there(new_path))
        return is_of_kind(node, old_path);
    if (node->kind == NODE_KIND_FOLDER || !is_of_kind(node, new_path))
        return false; // /bin/mv would move it into the folder
    const auto is_node = [node](const char* path) {
        return linux_fs_has_content(path, node->size_byte, node->md5) != 0;
    };
    return is_node(new_path) ? is_node(old_path) : !op_downsync_is_newer_locally(node, new_path);
}

// Both paths lie in a pair: the local node follows the cloud's without a download.
void __op_downsync_move_node(const acd_node_t* node, const acd_sync_path_t* old_path,
                             acd_sync_path_t* new_path)
{
    const char* old_local = old_path->local_node_path;
    const char* new_local = new_path->local_node_path;
    LOG_DEBUG("%s: Node %s shall be moved. %s ---> %s\n", __func__, acd_node_to_short_string(node), old_local,
              new_local);
    LOG_DEBUG("%s: Found moved node: %s, cloud (%s ---> %s), local (%s ---> %s)\n", __func__,
              acd_node_to_short_string(node), old_path->cloud_node_path, new_path->cloud_node_path, old_local,
              new_local);
    if (op_downsync_is_of_another(node, old_path->cloud_node_path) ||
        !is_to_be_moved(node, old_local, new_local)) {
        LOG_INFO("Local node %s is left where it is, cloud node is at %s\n", old_local, new_local);
        arrive(node, new_path);
        return;
    }
    mkdir_p(folder_of_path(new_local).c_str(), global.dmode);
    acd_sync_expect_move_echo(old_local);
    safe_mv(old_local, new_local);
    report_sync_move(node->kind == NODE_KIND_FOLDER ? sync_folder_action_to_string(SYNC_FOLDER_ACTION_MOVE)
                                                    : sync_file_action_to_string(SYNC_FILE_ACTION_MOVE),
                     "LOGMSG_AMAZONDRIVE_LOCAL_MOVE", old_local, new_local);
    op_downsync_settle_node(node, new_path);
}

// The node came from outside every pair, so there is nothing local to move.
void add_moved_node(const acd_node_t* node, acd_sync_path_t* new_path)
{
    LOG_DEBUG("%s: Node %s shall be added! %s ===> %s\n", "op_downsync_move_node",
              acd_node_to_short_string(node), new_path->cloud_node_path, new_path->local_node_path);
    if (node->kind == NODE_KIND_FOLDER)
        acd_downsync_cloud_drive_path(new_path->cloud_drive_path, new_path->cloud_node_path,
                                      new_path->local_drive_path, op_downsync_arrived_node);
    else
        op_downsync_add_node(node, new_path);
}

// The node left every pair.
void delete_moved_node(const acd_node_t* node, acd_sync_path_t* old_path)
{
    constexpr const char* name = "op_downsync_move_node";
    const char* local = old_path->local_node_path;
    LOG_DEBUG("%s: Node %s shall be deleted! %s\n", name, acd_node_to_short_string(node), local);
    if (leads_through_link(name, old_path->local_drive_path, local))
        return;
    if (op_downsync_resume_delete(node, old_path))
        return;
    if (op_downsync_is_newer_locally(node, local))
        LOG_ERROR("%s: Cloud node %s was moved out, but it is older than local node %s! It is kept.\n", name,
                  acd_node_to_short_string(node), local);
    else
        op_downsync_delete_node(node, old_path);
}

// new_path is null when the node's new place lies outside every pair.
void op_downsync_move_node(const acd_node_t* node, const char* old_cloud_path, const char* new_cloud_path,
                           acd_sync_path_t* new_path)
{
    LOG_DEBUG("%s: Node %s was moved. %s ---> %s\n", __func__, acd_node_to_short_string(node), old_cloud_path,
              new_cloud_path);
    sync_path_ptr old_path;
    if (*old_cloud_path)
        get_sync_path(old_cloud_path, global.sync_pairs, out(old_path));
    if (old_path)
        acd_sync_find_other_letters(node, old_path.get());
    if (new_path)
        acd_sync_find_other_letters_above(new_path);
    struct stat st;
    if (!new_path && old_path) {
        delete_moved_node(node, old_path.get());
    } else if (new_path && stat_local_drive_path(__func__, new_path->local_drive_path, &st) == 0) {
        if (leads_through_link(__func__, new_path->local_drive_path, new_path->local_node_path))
            return;
        if (old_path && leads_through_link(__func__, old_path->local_drive_path, old_path->local_node_path))
            arrive(node, new_path);
        else if (old_path)
            __op_downsync_move_node(node, old_path.get(), new_path);
        else
            add_moved_node(node, new_path);
    }
}

// It came from a place that the cache has never seen, the trash maybe, to where a folder stands already: what
// is in it may be missing. The note has the next start go on when this is cut short.
void complete_folder(const acd_node_t* node, acd_sync_path_t* sync_path)
{
    op_downsync_node_folder(node, sync_path);
    acd_cache_note_arrival(node);
    acd_cache_delete_removal_note(node);
    op_downsync_bring_down_folder(sync_path);
    if (!acd_io_is_stopped())
        acd_cache_delete_moved_node(node);
}

// A folder that is new here may come from a place that the cache has never seen.
void apply_folder_change(const acd_node_t* node, acd_sync_path_t* sync_path)
{
    timespec begun;
    const bool is_unknown = acd_cache_take_unknown_folder(node);
    const bool may_lack = is_unknown || acd_cache_is_being_removed(node, &begun);
    if (may_lack && node->status == NODE_STATUS_AVAILABLE && is_of_kind(node, sync_path->local_node_path))
        return complete_folder(node, sync_path);
    string_ptr old_name;
    const bool arrives = node->status == NODE_STATUS_AVAILABLE && !is_there(sync_path->local_node_path) &&
                         !acd_cache_is_cloud_node_renamed(node, out(old_name));
    if (arrives && get_downsync_folder_action(node, sync_path) == SYNC_FOLDER_ACTION_ADD)
        op_downsync_add_whole_folder(node, sync_path);
    else if (!arrives)
        op_downsync_node_folder(node, sync_path);
}

// Decides on a node that stands where it stood.
acd_fs_error_t apply_change(const acd_node_t* node, acd_sync_path_t* sync_path)
{
    constexpr const char* name = "op_downsync_changes";
    LOG_DEBUG("%s: %s <===> %s, %s ---> %s\n", name, sync_path->cloud_drive_path, sync_path->local_drive_path,
              sync_path->cloud_node_path, sync_path->local_node_path);
    struct stat st;
    if (stat_local_drive_path(name, sync_path->local_drive_path, &st) != 0)
        return ACD_FS_ERR_LOCAL_IO;
    acd_sync_find_other_letters(node, sync_path);
    if (leads_through_link(name, sync_path->local_drive_path, sync_path->local_node_path))
        return ACD_FS_ERR_SCAN_OP_CONTINUE;
    if (node->kind == NODE_KIND_FOLDER)
        apply_folder_change(node, sync_path);
    else
        op_downsync_node_file(node, sync_path);
    return ACD_FS_ERR_OK;
}

} // namespace

void has_fetched_all_changes()
{
    acd_fs_flush();
}

// The order in which the feed is applied:
//   1. the reader writes each node to the cache before it is handed on, so the notes on older names and
//      places are there when the node is looked at;
//   2. a chunk is applied before its checkpoint is saved: after a crash changes come again, none is lost,
//      and a change that was applied decides as nothing to do;
//   3. trashed nodes leave the cache only at the end of the feed, as their paths are needed until then.
int acd_downsync_changes(acd_sync_pair_list_t* list)
{
    if (!list)
        return -1;
    acd_sync_forget_names();
    auto rc = acd_fs_scan_changes(fetch_all_changes, max_changed_nodes, changes_chunk_size, op_default_filter,
                                  op_downsync_changes, list, has_fetched_all_changes);
    if (rc != ACD_FS_ERR_OK)
        HANDLE_ACD_FS_ERROR(rc);
    return 0;
}

// For one node: a trashed pair folder is restored first, since the local folder stands for a configured pair
// and must keep its twin; then a move is looked for before anything else, since at its new place a moved node
// would look like a new one and be downloaded.
acd_fs_error_t op_downsync_changes(const char* cloud_node_path, const acd_node_t* node, acd_sync_pair_list_t*)
{
    if (node->is_root || node->status == NODE_STATUS_PENDING ||
        (node->kind != NODE_KIND_FILE && node->kind != NODE_KIND_FOLDER)) {
        LOG_DEBUG("%s: Ignore node in changes. node %s\n", __func__, acd_node_to_short_string(node));
        return ACD_FS_ERR_SCAN_OP_CONTINUE;
    }
    if (node->status == NODE_STATUS_TRASH && is_nas_cloud_drive(cloud_node_path, global.sync_pairs)) {
        LOG_INFO("%s: Cloud drive path %s was deleted! Restore it.\n", __func__, cloud_node_path);
        if (auto rc = acd_fs_mkdir(cloud_node_path); rc != ACD_FS_ERR_OK) {
            LOG_ERROR("%s: Failed to mkdir cloud drive path %s! %d\n", __func__, cloud_node_path, rc);
            return rc;
        }
    }

    string_ptr old_cloud_path;
    const int was_moved = acd_cache_is_cloud_node_moved(node, out(old_cloud_path));
    sync_path_ptr sync_path;
    get_sync_path(cloud_node_path, global.sync_pairs, out(sync_path));
    if (was_moved) {
        op_downsync_move_node(node, old_cloud_path.get(), cloud_node_path, sync_path.get());
        if (acd_io_is_stopped()) // the next start finds the note and brings down what is missing
            return ACD_FS_ERR_STOPPED;
        acd_cache_delete_moved_node(node);
        // The move took the new name along. A note that stayed would, at the next change, rename whatever
        // bears the old name in the new folder.
        acd_cache_delete_renamed_node(node);
        return ACD_FS_ERR_OK;
    }
    return sync_path ? apply_change(node, sync_path.get()) : ACD_FS_ERR_SCAN_OP_CONTINUE;
}
