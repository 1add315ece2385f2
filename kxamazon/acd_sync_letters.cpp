#include "kxamazon/acd_sync_letters.h"

#include <cstring>
#include <strings.h>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "common/dir_list.h"
#include "common/owners.h"
#include "common/paths.h"
#include "common/utils.h"
#include "kxamazon/acd_fs_cache.h"

namespace
{

constexpr size_t most_folders = 64;

using names_t = std::unordered_set<size_t>; // hashes of the names in small letters

int is_name(const struct dirent* entry)
{
    return std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0;
}

// As the cache compares: only ASCII letters have two cases.
size_t hash_of(std::string name)
{
    for (char& c : name)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return std::hash<std::string>()(name);
}

std::unordered_map<std::string, names_t>& listings()
{
    static std::unordered_map<std::string, names_t> folders;
    return folders;
}

// Read once in a pass: what downsync itself adds since bears exact names.
const names_t& names_in(const std::string& folder)
{
    if (auto found = listings().find(folder); found != listings().end())
        return found->second;
    if (listings().size() >= most_folders)
        listings().clear();
    names_t& names = listings()[folder];
    for (const dirent* entry : dir_list(folder.c_str(), is_name))
        names.insert(hash_of(entry->d_name));
    return names;
}

// The name in the folder that differs from this one in letters alone; empty for none and for several.
std::string other_letters(const std::string& folder, const std::string& name)
{
    if (!names_in(folder).contains(hash_of(name)))
        return "";
    std::string other;
    for (const dirent* entry : dir_list(folder.c_str(), is_name)) {
        if (strcasecmp(entry->d_name, name.c_str()) != 0)
            continue;
        if (!other.empty())
            return "";
        other = entry->d_name;
    }
    return other;
}

// The path as it stands locally, as far as it does.
std::string standing_path(const std::string& path, size_t drive_len)
{
    if (path.size() <= drive_len || is_there(path))
        return path;
    const std::string name = name_of_path(path.c_str());
    const std::string folder = standing_path(folder_of_path(path.c_str()), drive_len);
    if (const std::string exact = folder + "/" + name; is_there(exact))
        return exact;
    const std::string other = other_letters(folder, name);
    return folder + "/" + (other.empty() ? name : other);
}

// Whether what bears the node's name in other letters may stand for it: no other node has that name now, and
// it is not what the node was called before.
bool may_stand_for(const acd_node_t* node, const std::string& name)
{
    string_ptr old_name;
    if (node->parents.count == 0 || acd_cache_is_cloud_node_renamed(node, out(old_name)))
        return false;
    acd_node_t parent = {};
    parent.id = node->parents.id_array[0];
    parent.name = node->name; // for the log
    node_ptr found;
    acd_cache_get_child_node(&parent, name.c_str(), out(found));
    return found ? std::strcmp(found->id, node->id) == 0 : node->status != NODE_STATUS_AVAILABLE;
}

void replace_local_path(acd_sync_path_t* sync_path, const std::string& path)
{
    string_ptr old(std::exchange(sync_path->local_node_path, safe_strdup(path.c_str())));
}

std::vector<acd_sync_letters_t>& noted()
{
    static std::vector<acd_sync_letters_t> letters;
    return letters;
}

// local_path with the letters of node_path; empty when the two do not end alike.
std::string with_letters(const std::string& local_path, const std::string& cloud_path,
                         const std::string& node_path)
{
    if (node_path.size() != cloud_path.size() || strcasecmp(node_path.c_str(), cloud_path.c_str()) != 0)
        return "";
    size_t at = 0;
    while (at < node_path.size() && node_path[at] == cloud_path[at])
        ++at;
    const size_t rest = node_path.size() - at;
    return rest == 0 || rest >= local_path.size()
               ? ""
               : local_path.substr(0, local_path.size() - rest) + node_path.substr(at);
}

} // namespace

void acd_sync_find_other_letters(const acd_node_t* node, acd_sync_path_t* sync_path)
{
    const std::string path = sync_path->local_node_path;
    if (is_there(path))
        return;
    const std::string standing = standing_path(path, std::strlen(sync_path->local_drive_path));
    const std::string other = name_of_path(standing.c_str());
    if (other != name_of_path(path.c_str()) && !may_stand_for(node, other))
        acd_sync_find_other_letters_above(sync_path);
    else if (standing != path)
        replace_local_path(sync_path, standing);
}

void acd_sync_find_other_letters_above(acd_sync_path_t* sync_path)
{
    const std::string path = sync_path->local_node_path;
    const std::string folder = folder_of_path(path.c_str());
    const std::string standing = standing_path(folder, std::strlen(sync_path->local_drive_path));
    if (standing != folder)
        replace_local_path(sync_path, standing + "/" + name_of_path(path.c_str()));
}

std::string acd_sync_standing_path(const char* local_drive_path, const char* path)
{
    return standing_path(path, std::strlen(local_drive_path));
}

void acd_sync_forget_names()
{
    listings().clear();
}

int acd_sync_is_twin_of_another(const char* function_name, const acd_node_t* node, const char* local_path,
                                const char* cloud_path)
{
    string_ptr node_path;
    acd_cache_get_node_path(node, out(node_path));
    if (!node_path)
        return 0;
    const std::string twin = with_letters(local_path, cloud_path, node_path.get());
    if (twin.empty() || !is_there(twin))
        return 0;
    LOG_ERROR("%s: The cloud takes the name of %s for that of %s, whose node it is! It is left alone.\n",
              function_name, local_path, twin.c_str());
    return 1;
}

void acd_sync_note_letters(const acd_node_t* node, const char* local_path)
{
    const char* name = std::strrchr(local_path, '/') + 1;
    if (std::strcmp(node->name, name) == 0 || strcasecmp(node->name, name) != 0)
        return;
    const std::string old_path = std::string(local_path, name) + node->name;
    if (!is_there(old_path))
        noted().push_back({old_path, local_path, node->kind == NODE_KIND_FOLDER});
}

std::vector<acd_sync_letters_t> acd_sync_take_letters()
{
    return std::exchange(noted(), {});
}
