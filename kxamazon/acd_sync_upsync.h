// Brings the cloud up to date with local folders. Never deletes, renames or moves in the cloud, and compares
// times only, in whole seconds.
//
// A failure at one entry is logged and the pass goes on.
#pragma once

#include <dirent.h>

#include "kxamazon/acd_fs_error.h"
#include "kxamazon/acd_fs_node.h"
#include "kxamazon/acd_sync_pair.h"

// Uploads what the cloud folder lacks or holds older. 0 or -1.
int acd_upsync_local_path(const char* local_drive_path, const char* cloud_drive_path);

// Walk callback of the full pass; sync_path is an acd_sync_path_t with both drive paths.
int op_upsync(const char* full_path, const struct dirent* entry, void* sync_path);

// One folder or file. 0 when the cloud has it now or nothing was to do, else the code of the failed call; -1
// for null arguments or a local file that cannot be used.
int acd_upsync_folder(const char* local_path, const char* cloud_path);
int acd_upsync_file(const char* local_path, const char* cloud_path);

// What to do with the cloud folder, and with the cloud file. The latter answers -1 with NO_OP when the local
// file cannot be used, else 0.
sync_folder_action_t get_upsync_folder_action(const char* local_path, const char* cloud_path);
int get_upsync_file_action(const char* local_path, const char* cloud_path, sync_file_action_t* action);

// The rows of the latter for a node that was found.
sync_file_action_t get_upsync_node_action(const acd_node_t* node, time_t local_mtime, long local_nsec = 0);

// Upload, log and record one file.
acd_fs_error_t __acd_upsync_add_file(const char* local_path, const char* cloud_path);
acd_fs_error_t __acd_upsync_overwrite_file(const char* local_path, const char* cloud_path);

// 1 for folders and regular files other than "." and "..".
int op_upsync_filter(const struct dirent* entry);
