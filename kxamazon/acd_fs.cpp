#include "kxamazon/acd_fs.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>

#include "common/constants.h"
#include "common/paths.h"
#include "common/utils.h"
#include "kxamazon/acd_fs_account.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_fs_checkpoint.h"
#include "kxamazon/acd_fs_io.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/download_note.h"
#include "kxamazon/global.h"

namespace
{

bool is_absolute(const char* path)
{
    return path && path[0] == '/';
}

// However many slashes: whoever takes "//" for a node's path trashes or moves the whole drive.
bool is_root_path(const char* path)
{
    return is_absolute(path) && path[strspn(path, "/")] == '\0';
}

// ---- Start ----

acd_fs_error_t reset_cache(const char* caller)
{
    if (auto rc = acd_cache_reset(); rc != ACD_CACHE_ERR_OK) {
        LOG_ERROR("%s: Failed to reset cache! %d\n", caller, rc);
        return ACD_FS_ERR_INTERNAL_ERROR;
    }
    LOG_INFO("Reset cache successfully.\n");
    return ACD_FS_ERR_OK;
}

// A cache without the checkpoint that it matches may hold anything, so it is emptied.
acd_fs_error_t init_checkpoint()
{
    string_ptr checkpoint(acd_cache_get_checkpoint());
    if (checkpoint) {
        acd_fs_set_checkpoint(checkpoint.get());
        return ACD_FS_ERR_OK;
    }
    LOG_INFO("Checkpoint is empty. Start to reset cache.\n");
    if (auto rc = reset_cache("acd_fs_init"); rc != ACD_FS_ERR_OK)
        return rc;
    acd_fs_checkpoint_init();
    return acd_fs_get_checkpoint() ? ACD_FS_ERR_OK : ACD_FS_ERR_STOPPED;
}

// ---- Folders ----

acd_fs_error_t find_child(const acd_node_t* parent, const char* name, node_ptr& child)
{
    auto rc = acd_node_get_child_node(parent, name, out(child));
    if (rc != ACD_FS_ERR_OK)
        LOG_ERROR("%s: Failed to get child node by name! parent_node = %s, node_name = %s\n", "acd_fs_mkdir",
                  acd_node_to_short_string(parent), name);
    return rc;
}

bool is_there(const node_ptr& node)
{
    return node && node->status != NODE_STATUS_TRASH;
}

// Creates a folder and waits until the service shows it.
acd_fs_error_t make_child(const acd_node_t* parent, const char* name, node_ptr& child)
{
    if (auto rc = acd_node_create_folder(parent, name, out(child)); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to create folder node! parent_node = %s, node_name = %s\n", "acd_fs_mkdir",
                  acd_node_to_short_string(parent), name);
        return rc;
    }
    kx_sleep_ms(kx_folder_created_ms);
    node_ptr found;
    if (auto rc = find_child(parent, name, found); rc != ACD_FS_ERR_OK)
        return rc;
    if (is_there(found))
        child = std::move(found);
    return ACD_FS_ERR_OK;
}

// Replaces a folder by its child of that name, which is made when it is missing or in the trash.
acd_fs_error_t enter_folder(const char* name, node_ptr& folder)
{
    node_ptr child;
    if (auto rc = find_child(folder.get(), name, child); rc != ACD_FS_ERR_OK)
        return rc;
    if (!is_there(child))
        if (auto rc = make_child(folder.get(), name, child); rc != ACD_FS_ERR_OK)
            return rc;
    folder = std::move(child);
    return ACD_FS_ERR_OK;
}

// ---- Moves ----

constexpr const char* move_impl = "__acd_fs_move_impl";

// Trashes what stands at new_path. A rename that only changes the case finds the moved node itself there.
acd_fs_error_t clear_new_path(const acd_node_t* node, const char* old_path, const char* new_path)
{
    node_ptr existing;
    auto rc = acd_node_get_node(new_path, out(existing));
    if (rc == ACD_FS_ERR_RESOURCE_NOT_FOUND)
        return ACD_FS_ERR_OK;
    if (rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to get node for old_path %s! %d\n", move_impl, old_path, rc);
        return rc;
    }
    if (strcmp(existing->id, node->id) == 0)
        return ACD_FS_ERR_OK;
    LOG_DEBUG("%s: Found an existing node for new_path %s, node = %s. Let's delete it.\n", move_impl,
              new_path, acd_node_to_short_string(existing.get()));
    rc = acd_node_delete_node(existing.get());
    if (rc != ACD_FS_ERR_OK)
        LOG_ERROR("%s: Failed to delete node %s! %d\n", move_impl, acd_node_to_short_string(existing.get()),
                  rc);
    return rc;
}

// The replies to a local change left notes as if the cloud had made it. The next poll would repeat it on the
// local side and could overwrite what is new at the old path.
void drop_notes(const acd_node_t* node)
{
    acd_cache_delete_moved_node(node);
    acd_cache_delete_renamed_node(node);
}

// node is as the change left it. A reply without a node leaves it to us to tell the cache: with the old place
// there, the feed would note the change as the cloud's.
void keep_change(const acd_node_t* node, const node_ptr& reply)
{
    if (!reply)
        acd_cache_node(node);
    drop_notes(node);
}

acd_fs_error_t move_to_folder(acd_node_t* node, const char* new_folder, node_ptr& moved)
{
    node_ptr parent;
    if (auto rc = acd_node_get_node(new_folder, out(parent)); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to get node for new_path_parent_folder %s! %d\n", move_impl, new_folder, rc);
        return rc;
    }
    if (auto rc = acd_node_move_node(node, parent.get(), out(moved)); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to move node %s to %s!\n %d\n", move_impl, acd_node_to_short_string(node),
                  new_folder, rc);
        return rc;
    }
    if (node->parents.count > 0)
        replace_text(node->parents.id_array[0], parent->id);
    keep_change(node, moved);
    return ACD_FS_ERR_OK;
}

acd_fs_error_t rename_to(acd_node_t* node, const char* new_name, node_ptr& renamed)
{
    if (auto rc = acd_node_patch_node(node, new_name, out(renamed)); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to rename node %s with new name %s! %d\n", move_impl,
                  acd_node_to_short_string(node), new_name, rc);
        return rc;
    }
    replace_text(node->name, new_name);
    keep_change(node, renamed);
    return ACD_FS_ERR_OK;
}

// Nothing is done when the folder stays the same.
acd_fs_error_t move_to_folder_of(acd_node_t* node, const char* old_path, const char* new_path,
                                 node_ptr& changed)
{
    const std::string folder = folder_of_path(new_path);
    if (folder == folder_of_path(old_path))
        return ACD_FS_ERR_OK;
    LOG_DEBUG("%s: Move %s ---> %s\n", move_impl, old_path, new_path);
    return move_to_folder(node, folder.c_str(), changed);
}

// Nothing is done when the name stays the same.
acd_fs_error_t rename_as(acd_node_t* node, const char* old_path, const char* new_path, node_ptr& changed)
{
    const std::string name = name_of_path(new_path);
    if (name == name_of_path(old_path))
        return ACD_FS_ERR_OK;
    LOG_DEBUG("%s: Rename %s ---> %s\n", move_impl, old_path, new_path);
    return rename_to(node, name.c_str(), changed);
}

// The move goes first: the service knows moves and renames only as two requests.
acd_fs_error_t __acd_fs_move_impl(const char* old_path, const char* new_path, acd_node_t** result)
{
    LOG_DEBUG("%s: Move folder %s ---> %s!\n", __func__, old_path, new_path);
    node_ptr node;
    auto found = acd_node_get_node(old_path, out(node));
    // Some services find what lies in the trash by its old path: it must not take the place of what lives.
    if (found == ACD_FS_ERR_OK && (node->status == NODE_STATUS_TRASH || node->status == NODE_STATUS_PURGED))
        found = ACD_FS_ERR_RESOURCE_NOT_FOUND;
    if (found != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to get node for old_path %s! %d\n", __func__, old_path, found);
        return found;
    }
    if (auto rc = clear_new_path(node.get(), old_path, new_path); rc != ACD_FS_ERR_OK)
        return rc;

    node_ptr changed;
    auto rc = move_to_folder_of(node.get(), old_path, new_path, changed);
    if (rc == ACD_FS_ERR_RESOURCE_DUPLICATE && name_of_path(new_path) != name_of_path(old_path)) {
        // The new folder holds the old name, which the node is about to lose anyway.
        if (auto renamed = rename_as(node.get(), old_path, new_path, changed); renamed != ACD_FS_ERR_OK)
            return renamed;
        rc = move_to_folder_of(node.get(), old_path, new_path, changed);
    } else if (rc == ACD_FS_ERR_OK) {
        rc = rename_as(node.get(), old_path, new_path, changed);
    }
    if (rc != ACD_FS_ERR_OK)
        return rc;
    *result = changed.release();
    return ACD_FS_ERR_OK;
}

acd_fs_error_t move_path(const char* old_path, const char* new_path, acd_node_t** node)
{
    if (node)
        *node = nullptr;
    if (!old_path || !new_path || !node || is_root_path(old_path) || is_root_path(new_path))
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    return __acd_fs_move_impl(old_path, new_path, node);
}

// ---- Contents ----

// A local file as it was when it began to be sent.
struct file_stamp {
    explicit file_stamp(const char* path) : known(stat(path, &st) == 0) {}
    bool is_same_as(const file_stamp& other) const
    {
        return known && other.known && st.st_ino == other.st.st_ino && st.st_size == other.st.st_size &&
               st.st_mtim.tv_sec == other.st.st_mtim.tv_sec && st.st_mtim.tv_nsec == other.st.st_mtim.tv_nsec;
    }
    struct stat st = {};
    bool known;
};

// Local and cloud time agree after an upload, so that neither side looks newer to the next sync. A file that
// was saved while it was being sent stays newer instead: the save's own event, or the next full pass, sends
// it again.
void take_cloud_time(const char* caller, const char* local_path, const acd_node_t* node,
                     const file_stamp& sent)
{
    time_t time = node->modified_date;
    const file_stamp now(local_path);
    if (now.known && !now.is_same_as(sent)) {
        if (now.st.st_mtime > time)
            return;
        time += 1;
    }
    set_mtime(local_path, time);
    LOG_DEBUG("%s: Set local node %s modified time to %s\n", caller, local_path, acd_time_to_string(time));
}

// Empties the file like any opening for writing, but takes nothing but a file: a pipe that stands in its
// place would hold up everything. Unbuffered, so that closing it writes nothing.
file_ptr open_for_download(const char* path)
{
    fd_owner fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, 0666));
    struct stat st;
    if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return nullptr;
    download_write opened(fd.get());
    file_ptr file(fdopen(fd.get(), "wb"));
    if (!file)
        return nullptr;
    fd.release();
    setvbuf(file.get(), nullptr, _IONBF, 0);
    return file;
}

// ---- Changes ----

void has_fetched_chunk_size_nodes(const char* checkpoint)
{
    acd_fs_set_save_checkpoint(checkpoint);
}

} // namespace

acd_fs_error_t acd_fs_init()
{
    if (auto rc = acd_cache_init(0); rc != ACD_CACHE_ERR_OK) {
        LOG_ERROR("%s: Failed to init cache! %d\n", __func__, rc);
        return ACD_FS_ERR_INTERNAL_ERROR;
    }
    LOG_INFO("Initialize cache successfully.\n");
    if (auto rc = init_checkpoint(); rc != ACD_FS_ERR_OK)
        return rc;
    account_quota_ptr quota;
    if (auto rc = acd_fs_account_get_quota(out(quota)); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to get account quota! %d\n", __func__, rc);
        return rc;
    }
    LOG_INFO("Account quota: %s.\n", acd_fs_account_quota_to_string(quota.get()));
    return ACD_FS_ERR_OK;
}

acd_fs_error_t acd_fs_deinit()
{
    auto rc = acd_cache_deinit();
    if (rc != ACD_CACHE_ERR_OK)
        LOG_ERROR("%s: Failed to deinit cache! %d\n", __func__, rc);
    acd_fs_checkpoint_deinit();
    return rc == ACD_CACHE_ERR_OK ? ACD_FS_ERR_OK : ACD_FS_ERR_INTERNAL_ERROR;
}

acd_fs_error_t acd_fs_reset()
{
    return reset_cache(__func__);
}

acd_fs_error_t acd_fs_mkdir(const char* path)
{
    if (!is_absolute(path))
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    node_ptr folder;
    if (auto rc = acd_node_get_root_node(out(folder)); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to get root node!\n", __func__);
        return rc;
    }
    for (const std::string& name : split_path(path))
        if (auto rc = enter_folder(name.c_str(), folder); rc != ACD_FS_ERR_OK)
            return rc;
    return ACD_FS_ERR_OK;
}

acd_fs_error_t acd_fs_move_file(const char* old_path, const char* new_path, acd_node_t** node)
{
    return move_path(old_path, new_path, node);
}

acd_fs_error_t acd_fs_move_folder(const char* old_path, const char* new_path, acd_node_t** node)
{
    return move_path(old_path, new_path, node);
}

acd_fs_error_t acd_fs_upload_file(const char* local_path, const char* cloud_path, acd_node_t** node)
{
    if (node)
        *node = nullptr;
    if (!is_absolute(local_path) || !is_absolute(cloud_path) || !node)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    LOG_DEBUG("%s: upload file %s ---> %s\n", __func__, local_path, cloud_path);
    const std::string folder = folder_of_path(cloud_path);
    node_ptr parent;
    if (auto rc = acd_node_get_node(folder.c_str(), out(parent)); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to get parenet node, parent path = %s!\n", __func__, folder.c_str());
        return rc;
    }
    const file_stamp sent(local_path);
    auto rc = acd_node_create_file(parent.get(), name_of_path(cloud_path).c_str(), local_path, node);
    if (rc == ACD_FS_ERR_OK)
        take_cloud_time(__func__, local_path, *node, sent);
    return rc;
}

acd_fs_error_t acd_fs_overwrite_file(const char* local_path, const char* cloud_path, acd_node_t** node)
{
    if (node)
        *node = nullptr;
    if (!is_absolute(local_path) || !is_absolute(cloud_path) || !node)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    LOG_DEBUG("%s: overwrite file %s ---> %s\n", __func__, local_path, cloud_path);
    node_ptr file;
    if (auto rc = acd_node_get_node(cloud_path, out(file)); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to get node, path = %s!\n", __func__, cloud_path);
        return rc;
    }
    const file_stamp sent(local_path);
    auto rc = acd_node_overwrite_file(file.get(), local_path, node);
    if (rc == ACD_FS_ERR_OK)
        take_cloud_time(__func__, local_path, *node, sent);
    return rc;
}

acd_fs_error_t acd_fs_delete_file(const char* path)
{
    if (!is_absolute(path) || is_root_path(path))
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    node_ptr node;
    if (auto rc = acd_node_get_node(path, out(node)); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to get node %d, path = %s!\n", __func__, rc, path);
        return rc;
    }
    auto rc = acd_node_delete_node(node.get());
    if (rc != ACD_FS_ERR_OK)
        LOG_ERROR("%s: Failed to delete node %d, node = %s!\n", __func__, rc,
                  acd_node_to_short_string(node.get()));
    return rc;
}

acd_fs_error_t acd_fs_download_file(const char* id, const char* local_path)
{
    if (!id || !local_path)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    if (acd_io_is_stopped()) // or the file would be emptied for nothing
        return ACD_FS_ERR_STOPPED;
    mkdir_p(folder_of_path(local_path).c_str(), global.dmode);
    file_ptr file = open_for_download(local_path);
    if (!file) {
        LOG_ERROR("Cannot open %s.\n", local_path);
        return ACD_FS_ERR_LOCAL_IO;
    }
    auto rc = acd_io_download_file(id, file.get());
    // Some file systems report only now that a write failed.
    bool closed = fclose(file.release()) == 0;
    return rc == ACD_FS_ERR_OK && !closed ? ACD_FS_IO_ERR_READ_WRITE_ERROR : rc;
}

acd_fs_error_t acd_fs_get_node(const char* path, acd_node_t** node)
{
    return acd_node_get_node(path, node);
}

acd_fs_error_t acd_fs_scan_dir_ex(const char* cloud_path, int recursive, acd_node_filter_t filter,
                                  acd_node_op_t callback, acd_sync_path_t* sync_path)
{
    node_ptr folder;
    if (auto rc = acd_node_get_node(cloud_path, out(folder)); rc != ACD_FS_ERR_OK)
        return rc;
    if (folder->kind != NODE_KIND_FOLDER) {
        LOG_ERROR("%s: Remote path is not a folder! remote_path = %s, node = %s\n", __func__, cloud_path,
                  acd_node_to_short_string(folder.get()));
        return ACD_FS_ERR_RESOURCE_NOT_FOUND;
    }
    return acd_node_scan_dir_ex(folder.get(), recursive, filter, callback, sync_path);
}

acd_fs_error_t acd_fs_scan_changes(int repeat, size_t max_nodes, size_t chunk_size, acd_node_filter_t filter,
                                   acd_changes_op_t callback, acd_sync_pair_list_t* pairs,
                                   acd_final_op_t on_final)
{
    string_ptr latest;
    auto rc = acd_node_scan_changes(acd_fs_get_checkpoint(), out(latest), repeat, max_nodes, chunk_size,
                                    filter, callback, pairs, has_fetched_chunk_size_nodes, on_final);
    acd_fs_set_save_checkpoint(latest.get());
    return rc;
}

void acd_fs_flush()
{
    if (int rc = acd_cache_delete_trash_nodes(); rc != 0)
        LOG_ERROR("Failed to delete cache trash nodes! %d\n", rc);
}

void acd_fs_flush_checkpoint()
{
    acd_fs_save_checkpoint();
}
