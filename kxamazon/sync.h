// The initial sync and the live loop, the dispatch of local changes, and the status file.
//
// Everything works on global's sync pairs, which the service sets before and keeps until after, and looks at
// global's exit_flag between two units of work; nothing in progress is interrupted. The status file says
// SYNCING while a unit of work runs, UP_TO_DATE between them.
#pragma once

#include "common/watch_v2.h"
#include "kxamazon/acd_fs_node.h"
#include "kxamazon/sync_state.h"

// Brings every pair of global up to date, then keeps it so until a stop is asked for (0) or the watcher fails
// (its result). Both arguments are ignored: every pair is always synced in both directions.
int sync_folder(int syncmode, int flag);

// The cloud path of a local path below a pair's folder, which the caller frees; null when no pair matches.
char* get_cloud_node_path(const char* local_path);

// Watcher callbacks: one local change, or an idle period (null path); and one move. watch_notify_move answers
// -1 when a path belongs to no pair.
int watch_notify(const char* local_path, watch_type_v2_t type, void* data);
int watch_notify_move(const char* old_local_path, const char* new_local_path, watch_type_v2_t type);

// Tells watch_notify_move of the names that an upload found under other letters in the cloud.
void notify_of_letters();

// Gives a local entry the node's time; a null node leaves it alone.
int upsync_update_mtime_node(const acd_node_t* node, const char* local_path);

// Rewrites the status file with this state and global's progress. A file that cannot be opened is skipped.
void write_status(sync_state_t state);

// Hooks for progress reporting.
void update_progress_msg(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void update_acd_progress(int current, int total);
