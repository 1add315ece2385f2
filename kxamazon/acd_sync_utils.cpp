#include "kxamazon/acd_sync_utils.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <string_view>
#include <unistd.h>

#include "common/utils.h"
#include "kxamazon/acd_fs_error.h"

namespace
{

// The scheme of the folders that are made; a folder of any scheme belongs to an appliance.
constexpr nas_cloud_drive_path_schema_t s_nas_cloud_drive_path_schema = NAS_CLOUD_DRIVE_PATH_SCHEMA_HOSTNAME;

constexpr std::string_view hostname_prefix = "/Korvane_";
constexpr std::string_view default_hostname_form = "/nas-xx-xx-xx"; // x: a hex digit

bool is_root_drive(const char* cloud_drive_path)
{
    return std::strcmp(cloud_drive_path, "/") == 0;
}

bool __is_regular_default_hostname_nas_cloud_drive(std::string_view path)
{
    constexpr size_t form_len = default_hostname_form.size();
    if (path.size() < form_len || (path.size() > form_len && path[form_len] != '/'))
        return false;
    return std::equal(default_hostname_form.begin(), default_hostname_form.end(), path.begin(),
                      [](char form, char c) {
                          return form == 'x' ? std::isxdigit(static_cast<unsigned char>(c)) : form == c;
                      });
}

bool __is_regular_hostname_nas_cloud_drive(std::string_view path)
{
    return path.size() > hostname_prefix.size() && path.starts_with(hostname_prefix);
}

acd_sync_path_t* make_sync_path(const acd_sync_pair_entry_t* pair, const char* cloud_node_path)
{
    acd_sync_path_t* sync_path = acd_create_sync_path(pair->cloud_drive_path, pair->local_drive_path);
    sync_path->cloud_node_path = safe_strdup(cloud_node_path);
    sync_path->local_node_path =
        get_local_node_path(pair->cloud_drive_path, pair->local_drive_path, cloud_node_path);
    return sync_path;
}

} // namespace

acd_sync_pair_entry_t* acd_sync_create_sync_pair_entry()
{
    return new_record<acd_sync_pair_entry_t>();
}

void acd_sync_free_sync_pair_entry(acd_sync_pair_entry_t* entry)
{
    if (!entry)
        return;
    std::free(entry->local_drive_path);
    std::free(entry->cloud_drive_path);
    std::free(entry);
}

acd_sync_pair_list_t* acd_sync_create_sync_pair_list()
{
    auto* list = new_record<acd_sync_pair_list_t>();
    TAILQ_INIT(list);
    return list;
}

void acd_sync_sync_pair_list_insert_tail(acd_sync_pair_list_t* list, acd_sync_pair_entry_t* entry)
{
    if (list && entry)
        TAILQ_INSERT_TAIL(list, entry, entries);
}

void acd_sync_free_sync_pair_list(acd_sync_pair_list_t* list)
{
    if (!list)
        return;
    while (acd_sync_pair_entry_t* entry = TAILQ_FIRST(list)) {
        TAILQ_REMOVE(list, entry, entries);
        acd_sync_free_sync_pair_entry(entry);
    }
}

acd_sync_path_t* acd_create_sync_path(const char* cloud_drive_path, const char* local_drive_path)
{
    auto* sync_path = new_record<acd_sync_path_t>();
    sync_path->cloud_drive_path = safe_strdup(cloud_drive_path);
    sync_path->local_drive_path = safe_strdup(local_drive_path);
    return sync_path;
}

void acd_free_sync_path(acd_sync_path_t* path)
{
    if (!path)
        return;
    std::free(path->cloud_drive_path);
    std::free(path->cloud_node_path);
    std::free(path->local_drive_path);
    std::free(path->local_node_path);
    std::free(path);
}

int is_nas_cloud_drive(const char* path, const acd_sync_pair_list_t* list)
{
    const acd_sync_pair_entry_t* pair;
    TAILQ_FOREACH (pair, list, entries)
        if (std::strcmp(pair->cloud_drive_path, path) == 0)
            return 1;
    return 0;
}

const char* get_nas_drive_root_path()
{
    static_assert(s_nas_cloud_drive_path_schema == NAS_CLOUD_DRIVE_PATH_SCHEMA_HOSTNAME);
    static char* root_path = nullptr;
    if (root_path)
        return root_path;

    char hostname[64];
    if (gethostname(hostname, sizeof hostname) != 0) {
        LOG_ERROR("%s: Failed to get hostname!\n", __func__);
        std::exit(1);
    }
    return root_path = asprintf_str("%s%s", hostname_prefix.data(), hostname);
}

int is_regular_nas_cloud_drive(const char* path)
{
    return path && (__is_regular_default_hostname_nas_cloud_drive(path) ||
                    __is_regular_hostname_nas_cloud_drive(path));
}

int is_in_cloud_drive(const char* cloud_drive_path, const char* path)
{
    if (!cloud_drive_path || !path || cloud_drive_path[0] != '/' || path[0] != '/')
        return 0;
    if (is_root_drive(cloud_drive_path))
        return 1;
    const size_t drive_len = std::strlen(cloud_drive_path);
    return std::strncmp(cloud_drive_path, path, drive_len) == 0 &&
           (path[drive_len] == '\0' || path[drive_len] == '/');
}

char* get_local_node_path(const char* cloud_drive_path, const char* local_drive_path,
                          const char* cloud_node_path)
{
    const size_t drive_len = is_root_drive(cloud_drive_path) ? 0 : std::strlen(cloud_drive_path);
    return asprintf_str("%s%s", local_drive_path, cloud_node_path + drive_len);
}

int get_sync_path(const char* cloud_node_path, acd_sync_pair_list_t* list, acd_sync_path_t** sync_path)
{
    *sync_path = nullptr;
    const int is_nas_folder = is_regular_nas_cloud_drive(cloud_node_path);
    const acd_sync_pair_entry_t* pair;
    TAILQ_FOREACH (pair, list, entries) {
        if (std::strcmp(cloud_node_path, pair->cloud_drive_path) == 0) {
            LOG_DEBUG("%s: Don't sync cloud drive path %s.\n", __func__, cloud_node_path);
            return 0;
        }
        if (is_nas_folder && is_root_drive(pair->cloud_drive_path)) {
            LOG_DEBUG("%s: Do not search nas cloud drive node path %s in cloud drive path /.\n", __func__,
                      cloud_node_path);
            continue;
        }
        if (is_in_cloud_drive(pair->cloud_drive_path, cloud_node_path)) {
            *sync_path = make_sync_path(pair, cloud_node_path);
            return 0;
        }
    }
    if (is_nas_folder)
        LOG_DEBUG("%s: Ignore node path %s in other nas cloud drive.\n", __func__, cloud_node_path);
    else
        LOG_ERROR("%s: Can't find sync pair for cloud node path,  %s!\n", __func__, cloud_node_path);
    return -1;
}

int stat_local_drive_path(const char* function_name, const char* local_drive_path, struct stat* st)
{
    if (stat(local_drive_path, st) == 0 && S_ISDIR(st->st_mode))
        return 0;
    LOG_ERROR("%s: Local drive path %s does not exist or is not a folder!\n", function_name,
              local_drive_path);
    return -1;
}

int leads_through_link(const char* function_name, const char* local_drive_path, const char* path)
{
    std::string prefix;
    for (size_t end = std::strlen(local_drive_path); path[end] == '/';) {
        end += 1 + std::strcspn(path + end + 1, "/");
        prefix.assign(path, end);
        struct stat st;
        if (lstat(prefix.c_str(), &st) != 0)
            return 0; // nor is there anything below
        if (S_ISLNK(st.st_mode)) {
            LOG_ERROR("%s: Local path %s leads through the symbolic link %s! It is left alone.\n",
                      function_name, path, prefix.c_str());
            return 1;
        }
    }
    return 0;
}

void handle_acd_fs_error(int err, const char* function_name, const char* file_name, int line)
{
    switch (err) {
    case ACD_FS_ERR_RESOURCE_NOT_FOUND:
    case ACD_FS_ERR_RESOURCE_DUPLICATE:
    case ACD_FS_ERR_INVALID_RESPONSE:
    case ACD_FS_ERR_LOCAL_IO:
    case ACD_FS_ERR_STOPPED: // the program ends already, in order
        return;
    case ACD_FS_ERR_INVALID_ARGUMENTS:
    case ACD_FS_ERR_OK: // only failures come here, so a success is a mistake of the caller
    case ACD_FS_ERR_INTERNAL_ERROR:
        LOG_ERROR("%s:%s:%d Internal error %d.\n", function_name, file_name, line, err);
        break;
    case ACD_FS_ERR_SERVER_TIMEOUT:
        LOG_ERROR("%s:%s:%d UNKNOWN server timeout!\n", function_name, file_name, line);
        break;
    case ACD_FS_ERR_FORBIDDEN:
        LOG_ERROR("%s:%s:%d FORBIDDEN!\n", function_name, file_name, line);
        break;
    case ACD_FS_ERR_OUT_OF_SPACE:
        LOG_ERROR("%s:%s:%d ACD out of space!\n", function_name, file_name, line);
        break;
    default:
        LOG_ERROR("%s:%s:%d Unhandled acd fs error %d!\n", function_name, file_name, line, err);
    }
    std::exit(1);
}
