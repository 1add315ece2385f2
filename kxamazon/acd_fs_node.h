// A cloud file or folder as the service describes it, and the operations that look nodes up, list them, read
// the change feed and change them.
//
// A record owns its strings. Every out node is a new record that the caller frees with acd_free_node; it is
// null on failure. Each node that an operation receives is written to the node cache before it is handed on
// (a folder listing excepted). The text functions return static buffers: one thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include <parson.h>

#include "common/owners.h"
#include "kxamazon/acd_fs_error.h"

struct acd_sync_path_t;
struct acd_sync_pair_list_t;

// ---- Record ----

enum acd_node_kind_t {
    NODE_KIND_UNKNOWN = -1,
    NODE_KIND_FILE = 0,
    NODE_KIND_FOLDER = 1,
    NODE_KIND_ASSET = 2,
};

enum acd_node_status_t {
    NODE_STATUS_UNKNOWN = -1,
    NODE_STATUS_AVAILABLE = 0,
    NODE_STATUS_PENDING = 1,
    NODE_STATUS_TRASH = 2,
    NODE_STATUS_PURGED = 3,
};

struct acd_id_array_t {
    uint64_t count;
    char** id_array; // null when count is 0
};

struct acd_node_t {
    char* e_tag_response; // empty when the reply had none; null when the node comes from the cache
    char* id;
    char* name; // one path component; empty for the root when the reply gives none; a NUL stands as "/"
    char* md5;  // empty when absent
    acd_node_kind_t kind;
    int is_root;
    time_t create_date;     // seconds since the epoch, UTC
    time_t modified_date;   // seconds since the epoch, UTC
    acd_id_array_t parents; // the first one is the parent
    acd_node_status_t status;
    uint64_t size_byte;
};

struct acd_node_list_t {
    size_t count;
    acd_node_t** nodes;
};

// One chunk of the change feed.
struct acd_changes_t {
    char* checkpoint; // the position after this chunk
    int reset;        // 1: the service tells the client to drop what it knows
    acd_node_list_t node_list;
};

// The text of a kind or status as the service writes it. A value outside the enumeration ends the process.
const char* acd_enum_kind_to_string(acd_node_kind_t kind);
const char* acd_enum_status_to_string(acd_node_status_t status);

// The value of a service text; an unknown text is logged under the caller's name and gives UNKNOWN.
acd_node_kind_t acd_string_to_enum_kind(const char* text, const char* caller = __builtin_FUNCTION());
acd_node_status_t acd_string_to_enum_status(const char* text, const char* caller = __builtin_FUNCTION());

// The time in UTC as 2015-06-01T12:00:00Z, in one of two static buffers used in turn: two results may stand
// in one log call, a third overwrites the first.
const char* acd_time_to_string(time_t t);

// A node on one line or on several, cut at the end of a static buffer; a null node gives the empty short
// string.
const char* acd_node_to_short_string(const acd_node_t* node);
const char* acd_node_to_string(const acd_node_t* node);

// 1 when a local file can bear the node's name. Anyone who shares a folder chooses the names in it: ".", ".."
// and what holds a "/" or a NUL must never become part of a path.
int acd_node_has_local_name(const acd_node_t* node);

// Logs the long form at debug level.
void acd_dump_node(const acd_node_t* node);

acd_node_list_t* create_acd_node_list();

// A deep copy; null for null.
acd_node_t* acd_node_dup(const acd_node_t* node);

// Each frees the record with all that it holds; null is ignored.
void acd_free_node(acd_node_t* node);
void acd_free_node_list(acd_node_list_t* list);
void acd_free_changes(acd_changes_t* changes);

// A record from a parsed JSON object, or from a reply that is one JSON object; null when a required field is
// missing.
acd_node_t* __parse_node(const JSON_Object* object);
acd_node_t* parse_node(const char* text);

using node_ptr = owner<acd_node_t, acd_free_node>;
using node_list_ptr = owner<acd_node_list_t, acd_free_node_list>;
using changes_ptr = owner<acd_changes_t, acd_free_changes>;

// ---- Operations ----

// Answers 0 to drop a node; null keeps all.
typedef int (*acd_node_filter_t)(const acd_node_t* node);

// Per node of a walk: 0 to go on, ACD_FS_ERR_SCAN_OP_CONTINUE not to descend, anything else to stop this
// folder.
typedef acd_fs_error_t (*acd_node_op_t)(const char* path, const acd_node_t* node, acd_sync_path_t* sync_path);

// Per changed node of the feed; the answers do not stop the feed, the last one is its result.
typedef acd_fs_error_t (*acd_changes_op_t)(const char* path, const acd_node_t* node,
                                           acd_sync_pair_list_t* pairs);

typedef void (*acd_checkpoint_op_t)(const char* checkpoint);
typedef void (*acd_final_op_t)();

acd_fs_error_t acd_node_get_root_node(acd_node_t** node);

// All children of a folder, page by page, without those that filter drops. *list is null on failure.
acd_fs_error_t acd_node_scan_dir(const acd_node_t* folder, acd_node_list_t** list, acd_node_filter_t filter);

// The child of that name, from the cache or else from the service. A missing child is success with a null
// node.
acd_fs_error_t acd_node_get_child_node(const acd_node_t* parent, const char* name, acd_node_t** node);

acd_fs_error_t acd_node_create_folder(const acd_node_t* parent, const char* name, acd_node_t** node);

// The node's absolute path, which the caller frees; null on failure.
acd_fs_error_t acd_node_get_path(const acd_node_t* node, char** path);

// Walks a folder, each child before what is below it. The result is 0 or that of the last descent that
// failed.
acd_fs_error_t acd_node_scan_dir_ex(const acd_node_t* folder, int recursive, acd_node_filter_t filter,
                                    acd_node_op_t callback, acd_sync_path_t* sync_path);

// Applies the change feed from a checkpoint; repeat goes on until the feed has nothing more. on_checkpoint is
// called after each chunk, on_final always at the end. *latest_checkpoint is the last one reached, also on
// failure; the caller frees it.
acd_fs_error_t acd_node_scan_changes(const char* checkpoint, char** latest_checkpoint, int repeat,
                                     size_t max_nodes, size_t chunk_size, acd_node_filter_t filter,
                                     acd_changes_op_t callback, acd_sync_pair_list_t* pairs,
                                     acd_checkpoint_op_t on_checkpoint, acd_final_op_t on_final);

// The node at an absolute path; ACD_FS_ERR_RESOURCE_NOT_FOUND when a component is missing.
acd_fs_error_t acd_node_get_node(const char* path, acd_node_t** node);

acd_fs_error_t acd_node_create_file(const acd_node_t* parent, const char* name, const char* local_path,
                                    acd_node_t** node);
acd_fs_error_t acd_node_overwrite_file(const acd_node_t* file, const char* local_path, acd_node_t** node);

// Moves the node to the trash.
acd_fs_error_t acd_node_delete_node(const acd_node_t* node);

// Renames, or moves to another folder. Success with an empty reply gives no node.
acd_fs_error_t acd_node_patch_node(const acd_node_t* node, const char* new_name, acd_node_t** patched);
acd_fs_error_t acd_node_move_node(const acd_node_t* node, const acd_node_t* new_parent, acd_node_t** moved);
