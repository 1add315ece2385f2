// Sync pairs, the mapping between cloud and local paths, and the one policy that decides which cloud errors
// end the process.
#pragma once

#include <cstdlib>

#include "common/owners.h"
#include "kxamazon/acd_sync_pair.h"

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

// Maps a cloud path to its pair and local path. 0 with a new record; 0 with null for a pair's own top folder;
// -1 with null for a path outside every pair.
int get_sync_path(const char* cloud_node_path, acd_sync_pair_list_t* list, acd_sync_path_t** sync_path);

// Returns only for errors (an acd_fs_error_t) that a sync may skip; otherwise logs and ends the process with
// status 1.
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
