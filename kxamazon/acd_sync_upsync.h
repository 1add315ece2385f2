// Brings the cloud up to date with local folders. Never deletes, renames or moves in the cloud.
#pragma once

#include <dirent.h>

#include "kxamazon/acd_fs_error.h"

// Uploads what the cloud folder lacks or holds older. 0 or -1.
int acd_upsync_local_path(const char* local_drive_path, const char* cloud_drive_path);

// Walk callback of the full pass; sync_path is an acd_sync_path_t with both drive paths.
int op_upsync(const char* full_path, const struct dirent* entry, void* sync_path);

// One folder or file. 0 when the cloud has it now or nothing was to do, else the code of the failed call; -1
// for null arguments or a local file that cannot be used.
int acd_upsync_folder(const char* local_path, const char* cloud_path);
int acd_upsync_file(const char* local_path, const char* cloud_path);

acd_fs_error_t __acd_upsync_add_file(const char* local_path, const char* cloud_path);
acd_fs_error_t __acd_upsync_overwrite_file(const char* local_path, const char* cloud_path);

// 1 for folders and regular files other than "." and "..".
int op_upsync_filter(const struct dirent* entry);
