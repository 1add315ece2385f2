// Brings local folders up to date with the cloud: a full pass over a cloud folder, and the change feed. Here
// the cloud is authoritative.
#pragma once

#include <dirent.h>

#include "kxamazon/acd_fs_error.h"
#include "kxamazon/acd_fs_node.h"
#include "kxamazon/acd_sync_pair.h"

// Brings one cloud folder of a pair down whole, making it in the cloud when it is missing. 0 or -1.
int acd_downsync_cloud_drive_path(const char* cloud_drive_path, const char* cloud_folder_path,
                                  const char* local_drive_path);

// Applies the cloud's changes since the saved checkpoint. 0, or -1 for a null list.
int acd_downsync_changes(acd_sync_pair_list_t* list);

// Walk callback of the full pass, and feed callback of the changes.
acd_fs_error_t op_full_download(const char* cloud_node_path, const acd_node_t* node,
                                acd_sync_path_t* sync_path);
acd_fs_error_t op_downsync_changes(const char* cloud_node_path, const acd_node_t* node,
                                   acd_sync_pair_list_t* list);

// Decide for one node and act.
int op_downsync_node_folder(const acd_node_t* node, acd_sync_path_t* sync_path);
int op_downsync_node_file(const acd_node_t* node, acd_sync_path_t* sync_path);

// The actions, on sync_path's local node. op_downsync_delete_node answers -1 when there is nothing to delete,
// op_downsync_rename_node the result of rename(2).
int op_downsync_add_node(const acd_node_t* node, acd_sync_path_t* sync_path);
int op_downsync_delete_node(const acd_node_t* node, acd_sync_path_t* sync_path);
int op_downsync_rename_node(const acd_node_t* node, acd_sync_path_t* sync_path);
int op_downsync_update_mtime_node(const acd_node_t* node, acd_sync_path_t* sync_path);

// 1 for the nodes that downsync handles: named files and folders that are available, trashed or purged.
int op_default_filter(const acd_node_t* node);

// 1 for the local entries that a delete takes: folders and regular files.
int op_downsync_delete_node_linux_fs_filter(const struct dirent* entry);

// Called when the feed was read to its end: drops trashed nodes from the cache.
void has_fetched_all_changes();
