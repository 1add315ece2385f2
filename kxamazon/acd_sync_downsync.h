// Brings local folders up to date with the cloud: a full pass over a cloud folder, and the change feed. Here
// the cloud is authoritative; times are compared in whole seconds, neither sizes nor checksums are.
//
// Everything that a callback or an action receives is borrowed. A failure at one node is logged and the pass
// goes on; only handle_acd_fs_error and states that must not be end the process.
#pragma once

#include <dirent.h>

#include "kxamazon/acd_fs_error.h"
#include "kxamazon/acd_fs_node.h"
#include "kxamazon/acd_sync_pair.h"

// Walk callback of the full pass.
acd_fs_error_t op_full_download(const char* cloud_node_path, const acd_node_t* node,
                                acd_sync_path_t* sync_path);

// Brings one cloud folder of a pair down whole, making it in the cloud when it is missing. 0 or -1.
int acd_downsync_cloud_drive_path(const char* cloud_drive_path, const char* cloud_folder_path,
                                  const char* local_drive_path, acd_node_op_t op = op_full_download);

// Applies the cloud's changes since the saved checkpoint. 0, or -1 for a null list.
int acd_downsync_changes(acd_sync_pair_list_t* list);

// Feed callback of the changes.
acd_fs_error_t op_downsync_changes(const char* cloud_node_path, const acd_node_t* node,
                                   acd_sync_pair_list_t* list);

// What to do with the local node of an available, trashed or purged cloud node. A node that the cache has
// noted as moved must not get here: it ends the process.
sync_folder_action_t get_downsync_folder_action(const acd_node_t* node, const acd_sync_path_t* sync_path);
sync_file_action_t get_downsync_file_action(const acd_node_t* node, const acd_sync_path_t* sync_path);

// The labels of the actions on the local side; static.
const char* sync_folder_action_to_string(sync_folder_action_t action);
const char* sync_file_action_to_string(sync_file_action_t action);

// Decide for one node and act. The result is the action's, 0 when there was nothing to do.
int op_downsync_node_folder(const acd_node_t* node, acd_sync_path_t* sync_path);
int op_downsync_node_file(const acd_node_t* node, acd_sync_path_t* sync_path);

// Makes the local folder of a cloud folder, with missing parents; a failure is logged under function_name.
void add_local_folder(const char* function_name, const char* cloud_path, const char* local_path);

// The actions, on sync_path's local node. op_downsync_delete_node answers -1 when there is nothing to delete,
// op_downsync_rename_node the result of rename(2).
int op_downsync_add_node(const acd_node_t* node, acd_sync_path_t* sync_path);
int op_downsync_delete_node(const acd_node_t* node, acd_sync_path_t* sync_path);
int op_downsync_rename_node(const acd_node_t* node, acd_sync_path_t* sync_path);

// Goes on with the removal of a folder that the end of the process cut: its time is fresh by that, as if the
// owner had been there. What the owner wrote since stays. 0 when there is none to go on with.
int op_downsync_resume_delete(const acd_node_t* node, acd_sync_path_t* sync_path);

int op_downsync_update_mtime_node(const acd_node_t* node, acd_sync_path_t* sync_path);

// Walk callback for what is in a folder that arrived by the feed. What was moved into it is left to its own
// change, which moves the local node instead of loading it again.
acd_fs_error_t op_downsync_arrived_node(const char* cloud_node_path, const acd_node_t* node,
                                        acd_sync_path_t* sync_path);

// Brings down what is in a folder that came from a place unknown to the cache: the feed names only the
// folder.
void op_downsync_bring_down_folder(const acd_sync_path_t* sync_path);

// Makes the local folder and brings it down. Cut in between, it is taken up when the change is read again.
void op_downsync_add_whole_folder(const acd_node_t* node, acd_sync_path_t* sync_path);

// After a rename or move: gives the local node the cloud's time if it is there and, for a file, has the
// cloud's content. Else it is downloaded, unless the owner changed it here.
int op_downsync_settle_node(const acd_node_t* node, acd_sync_path_t* sync_path);

// 1 when another node has come to the cloud path that the node had before. The feed may tell of that first,
// and what stands there locally is the other one's then.
int op_downsync_is_of_another(const acd_node_t* node, const char* old_cloud_path);

// 1 when the local node, or for a folder anything in it, was changed after the cloud's change.
int op_downsync_is_newer_locally(const acd_node_t* node, const char* path);

// 1 for the nodes that downsync handles: named files and folders that are available, trashed or purged.
int op_default_filter(const acd_node_t* node);

// 1 for the local entries that a delete takes: folders and regular files.
int op_downsync_delete_node_linux_fs_filter(const struct dirent* entry);

// Walk callback that deletes one local entry; always 0.
int op_downsync_delete_node_linux_fs(const char* full_path, const struct dirent* entry, void* arg);

// Called when the feed was read to its end: drops trashed nodes from the cache.
void has_fetched_all_changes();
