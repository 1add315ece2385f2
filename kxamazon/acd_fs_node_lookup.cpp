// Nodes by name and by path, and paths of nodes: the cache first, the service on a miss.
#include "kxamazon/acd_fs_node.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "common/paths.h"
#include "kxamazon/acd_fs_node_reply.h"

namespace
{

// Deliberately fatal: no child of this name is ever asked of the service.
constexpr const char* forbidden_name = "CREDIT REPORT AUTHORIZATION AND RELEASE.docx";

constexpr size_t max_path_length = 4095; // as in the cache

acd_fs_error_t parse_root_node(const reply_t& reply, acd_node_t** node)
{
    json_text json(reply.buf);
    if (!json.object())
        return ACD_FS_ERR_INVALID_RESPONSE;
    double count = json_object_get_number(json.object(), "count");
    if (count != 1) {
        LOG_ERROR("Root node count is not 1. count = %d\n",
                  static_cast<int>(std::clamp<double>(count, INT_MIN, INT_MAX)));
        return ACD_FS_ERR_INVALID_RESPONSE;
    }
    *node = __parse_node(json_array_get_object(json_object_get_array(json.object(), "data"), 0));
    return *node ? ACD_FS_ERR_OK : ACD_FS_ERR_INVALID_RESPONSE;
}

// A folder's only child of that name as the service knows it; null for none and for several.
acd_fs_error_t fetch_child(const acd_node_t* parent, const char* name, node_ptr& child)
{
    reply_t reply;
    if (auto rc = acd_io_get_child_node(parent->id, name, &reply); rc != ACD_FS_ERR_OK)
        return rc;
    std::vector<node_ptr> found;
    parse_nodes(json_object_get_array(json_text(reply.buf).object(), "data"), found);
    if (found.size() == 1)
        child = std::move(found.front());
    return ACD_FS_ERR_OK;
}

acd_fs_error_t fetch_node(const char* id, node_ptr& node)
{
    reply_t reply;
    if (auto rc = acd_io_get_node_metadata(id, &reply); rc != ACD_FS_ERR_OK)
        return rc;
    return take_node(reply, out(node));
}

// Climbs from parent to parent up to the root, asking the service for each. A name that no path can hold ends
// the climb, and so does a chain too long for a path, which may be a ring.
acd_fs_error_t __acd_node_get_path(const acd_node_t* node, std::string& path)
{
    path = node->name;
    node_ptr current(acd_node_dup(node));
    while (!current->is_root) {
        if (!acd_node_has_local_name(current.get()) || path.size() > max_path_length)
            return ACD_FS_ERR_RESOURCE_NOT_FOUND;
        node_ptr parent;
        if (auto rc = fetch_node(parent_id_of(current.get()), parent); rc != ACD_FS_ERR_OK)
            return rc;
        if (parent->kind != NODE_KIND_FOLDER) {
            LOG_ERROR("%s: parent_node %s is not a folder!\n", __func__,
                      acd_node_to_short_string(parent.get()));
            return ACD_FS_ERR_RESOURCE_NOT_FOUND;
        }
        if (parent->name)
            path.insert(0, "/").insert(0, parent->name);
        current = std::move(parent);
    }
    if (!path.starts_with('/'))
        path.insert(0, "/");
    return ACD_FS_ERR_OK;
}

// Replaces a folder by its child of that name.
acd_fs_error_t descend(const char* path, const char* name, node_ptr& node)
{
    node_ptr child;
    if (auto rc = acd_node_get_child_node(node.get(), name, out(child)); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to get child node by name! parent_node = %s, node_name = %s\n",
                  "acd_node_get_node", acd_node_to_short_string(node.get()), name);
        return rc;
    }
    if (!child) {
        LOG_DEBUG("%s: Failed to find node! path = %s, parent_node = %s, child node name = %s\n",
                  "acd_node_get_node", path, acd_node_to_short_string(node.get()), name);
        return ACD_FS_ERR_RESOURCE_NOT_FOUND;
    }
    node = std::move(child);
    return ACD_FS_ERR_OK;
}

} // namespace

acd_fs_error_t acd_node_get_root_node(acd_node_t** node)
{
    if (!node)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    *node = nullptr;
    node_ptr root;
    if (acd_cache_get_root_node(out(root)) != ACD_CACHE_ERR_OK) {
        reply_t reply;
        if (auto rc = acd_io_get_node_with_filter("isRoot:true", &reply); rc != ACD_FS_ERR_OK) {
            LOG_ERROR("Failed to call acd_get_nodes_with_filter! rc = %d\n", rc);
            return rc;
        }
        if (auto rc = parse_root_node(reply, out(root)); rc != ACD_FS_ERR_OK)
            return rc;
        acd_cache_node(root.get());
    }
    *node = root.release();
    return ACD_FS_ERR_OK;
}

acd_fs_error_t acd_node_get_child_node(const acd_node_t* parent, const char* name, acd_node_t** node)
{
    if (node)
        *node = nullptr;
    if (!parent || !name || !node)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    LOG_DEBUG("%s: parent_node = %s, child_node_name = %s\n", __func__, acd_node_to_short_string(parent),
              name);
    auto cached = acd_cache_get_child_node(parent, name, node);
    if (cached == ACD_CACHE_ERR_OK)
        return ACD_FS_ERR_OK;
    LOG_DEBUG("%s: Failed to get child node from cache! %d Try to get it from ACD. parent_node = %s, "
              "child_node_name = %s\n",
              __func__, cached, acd_node_to_short_string(parent), name);
    if (strcmp(name, forbidden_name) == 0)
        exit(-1);

    node_ptr child;
    if (auto rc = fetch_child(parent, name, child); rc != ACD_FS_ERR_OK)
        return rc;
    if (!child) {
        LOG_DEBUG("%s: There is no child name %s\n", __func__, name);
        return ACD_FS_ERR_OK;
    }
    acd_cache_node(child.get());
    LOG_DEBUG("%s: Got a child node from ACD server. node = %s\n", __func__,
              acd_node_to_short_string(child.get()));
    *node = child.release();
    return ACD_FS_ERR_OK;
}

acd_fs_error_t acd_node_get_path(const acd_node_t* node, char** path)
{
    if (path)
        *path = nullptr;
    if (!node || !path)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    if (node->is_root) {
        *path = safe_strdup("/");
        return ACD_FS_ERR_OK;
    }
    if (acd_cache_get_node_path(node, path) == ACD_CACHE_ERR_OK)
        return ACD_FS_ERR_OK;
    LOG_DEBUG("%s: Cache miss! node %s. Starting to fetch the path from acd\n", __func__,
              acd_node_to_short_string(node));
    std::string climbed;
    if (auto rc = __acd_node_get_path(node, climbed); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to get node path, node = %s, rc = %d!\n", __func__,
                  acd_node_to_short_string(node), rc);
        return rc;
    }
    LOG_DEBUG("%s: node = %s, path = %s\n", __func__, acd_node_to_short_string(node), climbed.c_str());
    *path = safe_strdup(climbed.c_str());
    return ACD_FS_ERR_OK;
}

acd_fs_error_t acd_node_get_node(const char* path, acd_node_t** node)
{
    if (node)
        *node = nullptr;
    if (!path || path[0] != '/' || !node)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    node_ptr found;
    if (auto rc = acd_node_get_root_node(out(found)); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to get root node!\n", __func__);
        return rc;
    }
    for (const std::string& name : split_path(path))
        if (auto rc = descend(path, name.c_str(), found); rc != ACD_FS_ERR_OK)
            return rc;
    LOG_DEBUG("%s: Find node %s, path = %s\n", __func__, acd_node_to_short_string(found.get()), path);
    *node = found.release();
    return ACD_FS_ERR_OK;
}
