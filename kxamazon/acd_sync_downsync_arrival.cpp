// What downsync does with a node that has come to a new local path, or should have.
#include <cstring>
#include <sys/stat.h>

#include "common/paths.h"
#include "common/utils.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_fs_io.h"
#include "kxamazon/acd_sync_downsync.h"
#include "kxamazon/acd_sync_utils.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/global.h"
#include "kxamazon/linux_fs.h"

namespace
{

bool is_newer(const char* path, time_t cloud_mtime)
{
    struct stat st;
    return lstat(path, &st) == 0 && st.st_mtime > cloud_mtime;
}

struct newer_search_t {
    time_t cloud_mtime;
    bool found;
};

int look_at_entry(const char* full_path, const struct dirent*, void* arg)
{
    auto* search = static_cast<newer_search_t*>(arg);
    search->found = search->found || is_newer(full_path, search->cloud_mtime);
    return search->found; // a newer one ends the walk
}

// The local file is not the cloud's. Where the change left the cloud's content as it was, the difference is
// the owner's work, even if it is older than the change: a second on top of the cloud's time sends it up.
int settle_other_content(const acd_node_t* node, acd_sync_path_t* sync_path)
{
    const char* path = sync_path->local_node_path;
    struct stat st;
    if (lstat(path, &st) != 0)
        return op_downsync_add_node(node, sync_path);
    if (st.st_mtime <= node->modified_date && !acd_cache_has_content_before_change(node))
        return op_downsync_add_node(node, sync_path);
    LOG_INFO("Keep local file %s, which was changed here\n", path);
    if (st.st_mtime <= node->modified_date)
        set_mtime(path, node->modified_date + 1);
    return 0;
}

// The next start has the pair's full pass look for what is missing.
void owe_full_downsync(const acd_sync_path_t* sync_path)
{
    acd_sync_pair_entry_t* pair;
    TAILQ_FOREACH (pair, global.sync_pairs, entries) {
        if (std::strcmp(pair->local_drive_path, sync_path->local_drive_path) != 0 ||
            std::strcmp(pair->cloud_drive_path, sync_path->cloud_drive_path) != 0)
            continue;
        pair->need_full_downsync = 1;
        acd_cache_cache_sync_pair(acd_cache_db(), pair);
    }
}

} // namespace

acd_fs_error_t op_downsync_arrived_node(const char* cloud_node_path, const acd_node_t* node,
                                        acd_sync_path_t* sync_path)
{
    string_ptr old_path;
    if (acd_cache_is_cloud_node_moved(node, out(old_path)))
        return ACD_FS_ERR_SCAN_OP_CONTINUE;
    return op_full_download(cloud_node_path, node, sync_path);
}

// A folder that is there looks like one that has all it should. Cut by a stop or a crash, the change is read
// again and its note still stands; after a listing that failed the feed goes on, so the pair owes a full
// pass.
void op_downsync_bring_down_folder(const acd_sync_path_t* sync_path)
{
    sync_path_ptr drives(acd_create_sync_path(sync_path->cloud_drive_path, sync_path->local_drive_path));
    auto rc = acd_fs_scan_dir_ex(sync_path->cloud_node_path, 1, op_default_filter, op_downsync_arrived_node,
                                 drives.get());
    if (rc == ACD_FS_ERR_OK || rc == ACD_FS_ERR_STOPPED)
        return;
    HANDLE_ACD_FS_ERROR(rc);
    LOG_ERROR("%s: Failed to scan cloud folder path %s. fs_err = %d\n", __func__, sync_path->cloud_node_path,
              rc);
    owe_full_downsync(sync_path);
}

// A full pass would not do after a crash: what was moved into the folder must come by its own change.
void op_downsync_add_whole_folder(const acd_node_t* node, acd_sync_path_t* sync_path)
{
    acd_cache_note_arrival(node);
    op_downsync_add_node(node, sync_path);
    op_downsync_bring_down_folder(sync_path);
    if (!acd_io_is_stopped())
        acd_cache_delete_moved_node(node);
}

int op_downsync_settle_node(const acd_node_t* node, acd_sync_path_t* sync_path)
{
    const char* path = sync_path->local_node_path;
    if (node->kind == NODE_KIND_FILE && !linux_fs_has_content(path, node->size_byte, node->md5))
        return settle_other_content(node, sync_path);
    struct stat st;
    if (lstat(path, &st) == 0)
        return op_downsync_update_mtime_node(node, sync_path);
    op_downsync_add_whole_folder(node, sync_path);
    return 0;
}

int op_downsync_is_of_another(const acd_node_t* node, const char* old_cloud_path)
{
    node_ptr found;
    acd_cache_get_node_at(old_cloud_path, out(found));
    return found && std::strcmp(found->id, node->id) != 0 && name_of_path(old_cloud_path) == found->name;
}

int op_downsync_is_newer_locally(const acd_node_t* node, const char* path)
{
    newer_search_t search{node->modified_date, is_newer(path, node->modified_date)};
    if (!search.found && node->kind == NODE_KIND_FOLDER)
        linux_fs_scan_dir_op_first(path, 1, op_downsync_delete_node_linux_fs_filter, look_at_entry, &search);
    return search.found;
}
