// The operations that change the drive. Each writes the node of the reply to the cache.
#include "kxamazon/acd_fs_node.h"

#include <cstring>

#include "kxamazon/acd_fs_node_reply.h"

namespace
{

// A rename or a move may be answered with nothing; then there is no node.
acd_fs_error_t take_optional_node(const reply_t& reply, acd_node_t** node)
{
    return reply.sz == 0 ? ACD_FS_ERR_OK : take_node(reply, node);
}

} // namespace

acd_fs_error_t acd_node_create_folder(const acd_node_t* parent, const char* name, acd_node_t** node)
{
    if (node)
        *node = nullptr;
    if (!parent || !name || !node)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    reply_t reply;
    auto rc = acd_io_create_folder(parent->id, name, &reply);
    if (rc == ACD_FS_ERR_OK)
        rc = take_node(reply, node);
    if (rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to create folder! parent_node = %s, node_name = %s\n", __func__,
                  acd_node_to_short_string(parent), name);
        return rc;
    }
    LOG_DEBUG("%s: Folder was created. parent_node = %s, node_name = %s, node = %s\n", __func__,
              text_of(parent).c_str(), name, text_of(*node).c_str());
    return ACD_FS_ERR_OK;
}

acd_fs_error_t acd_node_create_file(const acd_node_t* parent, const char* name, const char* local_path,
                                    acd_node_t** node)
{
    if (node)
        *node = nullptr;
    if (!parent || !name || !local_path || !node)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    reply_t reply;
    if (auto rc = acd_io_upload_file(parent->id, name, local_path, &reply); rc != ACD_FS_ERR_OK)
        return rc;
    return take_node(reply, node);
}

acd_fs_error_t acd_node_overwrite_file(const acd_node_t* file, const char* local_path, acd_node_t** node)
{
    if (node)
        *node = nullptr;
    if (!file || !local_path || !node)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    reply_t reply;
    if (auto rc = acd_io_overwrite_file(file->id, local_path, &reply); rc != ACD_FS_ERR_OK)
        return rc;
    return take_node(reply, node);
}

acd_fs_error_t acd_node_delete_node(const acd_node_t* node)
{
    if (!node)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    reply_t reply;
    if (auto rc = acd_io_trash_node(node->id, &reply); rc != ACD_FS_ERR_OK)
        return rc;
    // Cached only after the check: the reply might describe any other node.
    node_ptr trashed(parse_node(reply.buf));
    if (!trashed || strcmp(trashed->id, node->id) != 0) {
        LOG_ERROR("%s: delete node %s, server respond %s!\n", __func__, acd_node_to_short_string(node),
                  reply.buf ? reply.buf : "");
        return ACD_FS_ERR_INVALID_RESPONSE;
    }
    acd_cache_node(trashed.get());
    return ACD_FS_ERR_OK;
}

acd_fs_error_t acd_node_patch_node(const acd_node_t* node, const char* new_name, acd_node_t** patched)
{
    if (patched)
        *patched = nullptr;
    if (!node || !new_name || !patched)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    reply_t reply;
    if (auto rc = acd_io_patch_node(node->id, new_name, &reply); rc != ACD_FS_ERR_OK)
        return rc;
    return take_optional_node(reply, patched);
}

acd_fs_error_t acd_node_move_node(const acd_node_t* node, const acd_node_t* new_parent, acd_node_t** moved)
{
    if (moved)
        *moved = nullptr;
    if (!node || !new_parent || !moved)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    reply_t reply;
    if (auto rc = acd_io_move_node(node->id, new_parent->id, parent_id_of(node), &reply); rc != ACD_FS_ERR_OK)
        return rc;
    return take_optional_node(reply, moved);
}
