// Names that differ only in the case of letters. The cloud and the cache take them for the same name; the
// local side does not, and nobody tells of a local name that changed its letters while the service was down.
//
// The local node of a cloud node is the entry that bears its exact name or, where there is none, the one
// whose name differs in letters alone.
#pragma once

#include <string>
#include <vector>

#include "kxamazon/acd_fs_node.h"
#include "kxamazon/acd_sync_pair.h"

// A local name, or a folder's, that has other letters than its node's.
struct acd_sync_letters_t {
    std::string old_path; // with the node's letters; nothing stands there
    std::string new_path;
    bool is_folder;
};

// Points sync_path's local node at the entry that stands for the node, which is left where it is when there
// is none, at any level below the drive. A node that was renamed keeps its new name.
void acd_sync_find_other_letters(const acd_node_t* node, acd_sync_path_t* sync_path);

// The same for a path whose last name is not looked for.
void acd_sync_find_other_letters_above(acd_sync_path_t* sync_path);

// path as it stands locally: names that do not, at any level below the drive, are replaced by those that
// differ in letters alone.
std::string acd_sync_standing_path(const char* local_drive_path, const char* path);

// Forgets which names stand in which folder.
void acd_sync_forget_names();

// 1, after an error line under function_name, when the node that was found for cloud_path is the twin of
// another local entry, which bears the node's own letters.
int acd_sync_is_twin_of_another(const char* function_name, const acd_node_t* node, const char* local_path,
                                const char* cloud_path);

// Keeps in mind that the node found for a local path bears other letters than it, if it does.
void acd_sync_note_letters(const acd_node_t* node, const char* local_path);

// What was kept in mind since the last call.
std::vector<acd_sync_letters_t> acd_sync_take_letters();
