// Sync pairs, the mapping of cloud paths to local ones, and the one policy that decides which cloud errors
// end the process.
//
// A list owns its entries, an entry and a sync path own their strings. A sync path lives for one pass; its
// two node paths live for one node of it (sync_node_scope).
#pragma once

#include <cstdlib>
#include <sys/stat.h>
#include <utility>

#include "common/owners.h"
#include "kxamazon/acd_sync_pair.h"

// How the cloud folder that holds an appliance's pairs is named.
enum nas_cloud_drive_path_schema_t {
    // "/nas-XX-XX-XX" with six hex digits: recognised, never made
    NAS_CLOUD_DRIVE_PATH_SCHEMA_DEFAULT_HOSTNAME = 0,
    // "/Korvane_" and the host name
    NAS_CLOUD_DRIVE_PATH_SCHEMA_HOSTNAME = 1,
};

// A zero-filled entry.
acd_sync_pair_entry_t* acd_sync_create_sync_pair_entry();

// Frees the entry and both paths; null is ignored.
void acd_sync_free_sync_pair_entry(acd_sync_pair_entry_t* entry);

// An empty list.
acd_sync_pair_list_t* acd_sync_create_sync_pair_list();

// Appends; the list owns the entry then. Null arguments do nothing.
void acd_sync_sync_pair_list_insert_tail(acd_sync_pair_list_t* list, acd_sync_pair_entry_t* entry);

// Removes and frees every entry. The list head itself stays the caller's.
void acd_sync_free_sync_pair_list(acd_sync_pair_list_t* list);

// A record with copies of both drive paths and no node paths.
acd_sync_path_t* acd_create_sync_path(const char* cloud_drive_path, const char* local_drive_path);

// Frees the four paths and the record; null is ignored.
void acd_free_sync_path(acd_sync_path_t* path);

// 1 when path is exactly the cloud folder of a pair.
int is_nas_cloud_drive(const char* path, const acd_sync_pair_list_t* list);

// The cloud folder that holds this appliance's pairs; static. Ends the process when the host has no name.
const char* get_nas_drive_root_path();

// 1 when path is, or lies below, the cloud folder of any appliance, this one or another.
int is_regular_nas_cloud_drive(const char* path);

// 1 when path is cloud_drive_path or lies below it.
int is_in_cloud_drive(const char* cloud_drive_path, const char* path);

// The local path, which the caller frees, of a cloud path in cloud_drive_path.
char* get_local_node_path(const char* cloud_drive_path, const char* local_drive_path,
                          const char* cloud_node_path);

// Maps a cloud path to its pair and local path. 0 with a new record; 0 with null for a pair's own top folder;
// -1 with null for a path outside every pair.
int get_sync_path(const char* cloud_node_path, acd_sync_pair_list_t* list, acd_sync_path_t** sync_path);

// Stats a pair's local folder. 0, or -1 after logging under function_name when it is missing or no folder.
int stat_local_drive_path(const char* function_name, const char* local_drive_path, struct stat* st);

// 1, after logging under function_name, when path (which lies below local_drive_path) or a folder on the way
// to it is a symbolic link. What is done to such a path may be done outside the drive.
int leads_through_link(const char* function_name, const char* local_drive_path, const char* path);

// Returns only for errors (an acd_fs_error_t) that a sync may skip; for others logs and ends the process
// with status 1.
void handle_acd_fs_error(int err, const char* function_name, const char* file_name, int line);

// The policy with the caller's own place.
#define HANDLE_ACD_FS_ERROR(err) handle_acd_fs_error(err, __func__, __FILE_NAME__, __LINE__)

using sync_pair_entry_ptr = owner<acd_sync_pair_entry_t, acd_sync_free_sync_pair_entry>;
using sync_path_ptr = owner<acd_sync_path_t, acd_free_sync_path>;

// Owns a whole list, head included.
inline void acd_sync_release_sync_pair_list(acd_sync_pair_list_t* list)
{
    acd_sync_free_sync_pair_list(list);
    std::free(list);
}
using sync_pair_list_ptr = owner<acd_sync_pair_list_t, acd_sync_release_sync_pair_list>;

// Gives a sync path the paths of one node; frees what is there then and leaves nulls when it goes out of
// scope.
class sync_node_scope
{
public:
    sync_node_scope(acd_sync_path_t* sync_path, string_ptr cloud_node_path, string_ptr local_node_path)
        : sync_path_(sync_path)
    {
        sync_path_->cloud_node_path = cloud_node_path.release();
        sync_path_->local_node_path = local_node_path.release();
    }
    sync_node_scope(const sync_node_scope&) = delete;
    sync_node_scope& operator=(const sync_node_scope&) = delete;
    ~sync_node_scope()
    {
        for (char** path : {&sync_path_->cloud_node_path, &sync_path_->local_node_path})
            std::free(std::exchange(*path, nullptr));
    }

private:
    acd_sync_path_t* sync_path_;
};
