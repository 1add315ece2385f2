// The cloud drive by path: absolute cloud paths in, acd_fs_error_t out. acd_fs_init runs before every other
// call, acd_fs_deinit last. Out nodes are new records for the caller, null on failure.
#pragma once

#include <cstddef>

#include "kxamazon/acd_fs_error.h"
#include "kxamazon/acd_fs_node.h"

// Opens the cache, takes up the saved checkpoint (without one the cache is emptied and the newest is fetched)
// and reads the quota. ACD_FS_ERR_STOPPED when a stop was asked for while the cloud did not answer.
acd_fs_error_t acd_fs_init();
acd_fs_error_t acd_fs_deinit();

// Empties the cache.
acd_fs_error_t acd_fs_reset();

// Makes the folder and its missing parents; an existing folder is success.
acd_fs_error_t acd_fs_mkdir(const char* path);

// Moves and renames; a node that is at new_path already goes to the trash first. *node may stay null on
// success when the service answered with nothing.
acd_fs_error_t acd_fs_move_file(const char* old_path, const char* new_path, acd_node_t** node);
acd_fs_error_t acd_fs_move_folder(const char* old_path, const char* new_path, acd_node_t** node);

// Uploads a file as a new node or as a node's new content; the local file's time becomes the cloud's.
acd_fs_error_t acd_fs_upload_file(const char* local_path, const char* cloud_path, acd_node_t** node);
acd_fs_error_t acd_fs_overwrite_file(const char* local_path, const char* cloud_path, acd_node_t** node);

// Moves the node at the path, a file or a folder, to the trash. The root is refused.
acd_fs_error_t acd_fs_delete_file(const char* path);

// Downloads a node's content over local_path, making missing local folders. The file's time is not set, and
// what a failed download wrote stays.
acd_fs_error_t acd_fs_download_file(const char* id, const char* local_path);

acd_fs_error_t acd_fs_get_node(const char* path, acd_node_t** node);

// Walks the cloud folder at a path; see acd_node_scan_dir_ex.
acd_fs_error_t acd_fs_scan_dir_ex(const char* cloud_path, int recursive, acd_node_filter_t filter,
                                  acd_node_op_t callback, acd_sync_path_t* sync_path);

// Applies the change feed from the current checkpoint, saving the checkpoint after each chunk and at the end;
// see acd_node_scan_changes.
acd_fs_error_t acd_fs_scan_changes(int repeat, size_t max_nodes, size_t chunk_size, acd_node_filter_t filter,
                                   acd_changes_op_t callback, acd_sync_pair_list_t* pairs,
                                   acd_final_op_t on_final);

// Drops trashed nodes from the cache.
void acd_fs_flush();

// Writes the current checkpoint to its file.
void acd_fs_flush_checkpoint();
