// The inotify watches of each root folder: what they report, their records, and adding and removing them.
//
// A watches record owns its inotify instance and its watches, one for each folder of the tree; a list owns
// its roots. A folder that cannot be watched is logged and left out, the rest of the tree is watched all the
// same. Symbolic links and other file systems are never entered.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <unordered_map>

#include "common/owners.h"

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

// One watched folder.
struct watch {
    int wd = -1;
    std::string path; // absolute
    watch* prev = nullptr;
    watch* next = nullptr;
};

// One root folder with the watches of its tree, listed in the order in which they were added.
struct watches {
    fd_owner inotify;
    std::string root_path;
    dev_t dev = 0;          // device of the root folder
    uint64_t num_watch = 0; // watches in the list
    watch* head = nullptr;
    watch* tail = nullptr;
    watches* next = nullptr;
    std::unordered_map<int, watch> by_wd;            // owns the watches
    std::unordered_map<int, std::string> redirected; // paths by descriptors that events in flight still bear
};

struct watches_list_t {
    watches* head = nullptr;
    watches* tail = nullptr;
};

// The watch of that descriptor; null when the root has none.
watch* find_watch(watches* set, int wd);

// Watches one folder. The descriptor, or -1 when it cannot be watched. When the system's limit is met it is
// raised on the way.
int add_watch(watches* set, const char* folder);

// Ends one watch; an unknown descriptor is only logged.
void del_watch(watches* set, int wd);

// The path of the folder that events of that descriptor speak of; null when the root has none.
const std::string* find_watched_path(watches* set, int wd);

// Watches a folder and everything below it. With notify it reports the folder, and then each subfolder and
// regular file in alphabetical order.
void watch_folder(watches* set, const char* folder, watch_notify_t notify, void* ctx);

// The first root whose path is a plain prefix of path; null when there is none.
watches* find_root(watches_list_t* list, const char* path);

// Ends the root's watches whose path begins with path. The prefix is plain on purpose: /a/b takes /a/bc
// along.
void del_watch_folders(watches* set, const char* path);
