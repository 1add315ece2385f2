// The node cache: a SQLite database of cloud nodes and their parents, of notes on nodes that the cloud
// renamed or moved, and of the sync pairs' state; and the file that holds the change-feed checkpoint.
//
// One handle for the process. A node is written in one transaction, so a crash never leaves half of one.
// Names compare without regard to case. Returned nodes and strings belong to the caller and are null on
// failure.
#pragma once

#include <sqlite3.h>

#include "kxamazon/acd_fs_node.h"
#include "kxamazon/acd_sync_pair.h"

enum acd_cache_error_t : int {
    ACD_CACHE_ERR_INVALID_ARGUMENTS = -1, // a null argument, or the cache is not open
    ACD_CACHE_ERR_OK = 0,
    ACD_CACHE_ERR_INTERNAL_ERROR = 1,
    ACD_CACHE_ERR_RESOURCE_NOT_FOUND = 2, // no row, or not exactly one
    ACD_CACHE_ERR_DB_ERROR = 3,           // a statement or the open failed
};

// Opens the database, in memory or at its fixed place. A damaged one or one of another schema version is
// deleted and made anew.
acd_cache_error_t acd_cache_init(int in_memory);
acd_cache_error_t acd_cache_deinit();

// Empties every table but the schema version.
acd_cache_error_t acd_cache_reset();

// The open handle; null when the cache is not open.
sqlite3* acd_cache_db();

// Lets look-ups read the database again, which they do by themselves after each write through the handle.
void acd_cache_forget_found();

// Writes a node. A changed name leaves a rename note, a changed parent a move note with the path before the
// change. Assets are refused with -1, and so is a node whose name no local file can have: what was known of
// it is dropped, so that no path leads through it.
acd_cache_error_t acd_cache_node(const acd_node_t* node);

acd_cache_error_t acd_cache_get_root_node(acd_node_t** node);

// The available child of that name.
acd_cache_error_t acd_cache_get_child_node(const acd_node_t* parent, const char* name, acd_node_t** node);

// The absolute path, when the chain of cached parents reaches the root.
acd_cache_error_t acd_cache_get_node_path(const acd_node_t* node, char** path);

// 1 with the previous name or path when a note exists, else 0.
int acd_cache_is_cloud_node_renamed(const acd_node_t* node, char** old_name);
int acd_cache_is_cloud_node_moved(const acd_node_t* node, char** old_path);

// 1 when the change that left the node's note is known to have left its content as it was.
int acd_cache_has_content_before_change(const acd_node_t* node);

// The available node at a path, as far as the cache knows.
acd_cache_error_t acd_cache_get_node_at(const char* path, acd_node_t** node);

// 1, once, when the folder was not in the cache before it was written a moment ago.
int acd_cache_take_unknown_folder(const acd_node_t* node);

// What stands locally for the node is not known to have its content, so that a change of the node alone does
// not make the difference the owner's.
void acd_cache_forget_content(const acd_node_t* node);

// Notes that a node comes from no known path, so that after a crash its folder is still known to be new.
// Dropped like any move note.
void acd_cache_note_arrival(const acd_node_t* node);

// A local folder is about to be emptied and removed for the node. The note of the hour stands until it is
// dropped, also when the process ends before.
void acd_cache_note_removal(const acd_node_t* node);
int acd_cache_is_being_removed(const acd_node_t* node, struct timespec* begun); // 1 or 0
void acd_cache_delete_removal_note(const acd_node_t* node);

// Drop a note: 0, or -1 on failure.
int acd_cache_delete_renamed_node(const acd_node_t* node, sqlite3* db = acd_cache_db());
int acd_cache_delete_moved_node(const acd_node_t* node);

// Drops every trashed and purged node. Always 0.
int acd_cache_delete_trash_nodes();

// Stores a pair with its flags.
acd_cache_error_t acd_cache_cache_sync_pair(sqlite3* db, const acd_sync_pair_entry_t* entry);

// Gives each configured pair the flags it had, then stores exactly the configured pairs.
acd_cache_error_t acd_cache_load_sync_pair_config(acd_sync_pair_list_t* list);

// The checkpoint in its file, owned by the caller; null when there is none.
char* acd_cache_get_checkpoint();

// Writes the checkpoint file; a null text writes nothing.
void acd_cache_cache_checkpoint(const char* checkpoint);
