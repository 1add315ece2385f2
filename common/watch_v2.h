// Watches local folder trees with inotify and reports what changes in them.
//
// One inotify instance a root folder. Callbacks run on the calling thread, between events; paths they are
// given are borrowed for the call. A file is reported when it is closed after writing, a folder when it
// appears, with everything in it.
#pragma once

#include <csignal>

#include "common/owners.h"
#include "common/watch_v2_set.h"

// An empty list, to be released with deinit_watches_list, which removes every watch and closes every
// instance.
watches_list_t* init_watches_list();
void deinit_watches_list(watches_list_t* list);
using watches_list_ptr = owner<watches_list_t, deinit_watches_list>;

// Watches a folder and everything below it, silently. 0, or -1 when it is no folder or cannot be watched.
int add_folder_to_watches_list(watches_list_t* list, const char* folder);

// Reports changes until *exit_flag is set (0) or select fails (its result); -1 for bad arguments. After each
// timeout_sec without an event notify is called with no path. notify_move may be null.
int watch_loop(watches_list_t* list, int timeout_sec, watch_notify_t notify, void* ctx,
               watch_notify_move_t notify_move, const volatile sig_atomic_t* exit_flag);
