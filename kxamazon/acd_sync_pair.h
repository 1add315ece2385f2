// The records of a sync pair and of one node's paths during a sync operation, and the sync actions.
// acd_sync_utils.h holds the functions that make, free and map them.
#pragma once

#include <sys/queue.h>

// One sync pair; owned by the list it is linked into, with both paths.
struct acd_sync_pair_entry_t {
    char* local_drive_path; // absolute local folder
    char* cloud_drive_path; // absolute cloud folder; "/" is the cloud's root
    int need_full_downsync; // 1: a full cloud-to-local pass is still owed
    int need_full_upsync;   // 1: a full local-to-cloud pass is still owed
    TAILQ_ENTRY(acd_sync_pair_entry_t) entries;
};

// Insertion order matters: the first pair that matches a path takes it.
TAILQ_HEAD(acd_sync_pair_list_t, acd_sync_pair_entry_t);

// The four paths of one node; each is owned and may be null.
struct acd_sync_path_t {
    char* cloud_drive_path; // the pair's cloud folder
    char* cloud_node_path;  // the node's absolute cloud path
    char* local_drive_path; // the pair's local folder
    char* local_node_path;  // the node's absolute local path
};

enum sync_folder_action_t {
    SYNC_FOLDER_ACTION_NO_OP = -1,
    SYNC_FOLDER_ACTION_ADD = 0,
    SYNC_FOLDER_ACTION_DELETE = 1,
    SYNC_FOLDER_ACTION_RENAME = 2,
    SYNC_FOLDER_ACTION_MOVE = 3,
    SYNC_FOLDER_ACTION_UPDATE_MTIME = 4,
};

enum sync_file_action_t {
    SYNC_FILE_ACTION_NO_OP = -1,
    SYNC_FILE_ACTION_ADD = 0,
    SYNC_FILE_ACTION_OVERWRITE = 1,
    SYNC_FILE_ACTION_DELETE = 2,
    SYNC_FILE_ACTION_RENAME = 3,
    SYNC_FILE_ACTION_MOVE = 4,
};
