// Watches local folder trees with inotify and reports what changes in them.
//
// One inotify instance a root folder. Callbacks run on the calling thread, between events; paths they are
// given are borrowed for the call.
#pragma once

#include <csignal>
#include <cstdint>

enum watch_type_v2_t {
    WATCH_TYPE_V2_NONE = 0,
    WATCH_TYPE_V2_ADD_FILE = 1,
    WATCH_TYPE_V2_ADD_DIR = 2,
    WATCH_TYPE_V2_DEL_FILE = 3,
    WATCH_TYPE_V2_DEL_DIR = 4,
    WATCH_TYPE_V2_MOVE_DIR = 5,
    WATCH_TYPE_V2_MOVE_FILE = 6,
};

// The kind's label; static. Any other value ends the process.
const char* watch_type_v2_to_string(watch_type_v2_t type);

// One change at path; a null path with WATCH_TYPE_V2_NONE says that an idle period passed.
typedef int (*watch_notify_t)(const char* path, watch_type_v2_t type, void* ctx);

// One move inside the watched trees.
typedef int (*watch_notify_move_t)(const char* old_path, const char* new_path, watch_type_v2_t type);

struct watches;
struct watches_list_t;

// An empty list, to be released with deinit_watches_list, which removes every watch and closes every
// instance.
watches_list_t* init_watches_list();
void deinit_watches_list(watches_list_t* list);

// Watches a folder and everything below it, silently. 0, or -1 when it is no folder or cannot be watched.
int add_folder_to_watches_list(watches_list_t* list, const char* folder);

// Reports changes until *exit_flag is set (0) or select fails (its result); -1 for bad arguments. After each
// timeout_sec without an event notify is called with no path. notify_move may be null.
int watch_loop(watches_list_t* list, int timeout_sec, watch_notify_t notify, void* ctx,
               watch_notify_move_t notify_move, const volatile sig_atomic_t* exit_flag);
