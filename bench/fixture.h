// A cache of many nodes, made once a run for each size.
//
//   /            the root: node 0
//   /big         a tenth of all nodes: file-N.jpg
//   /folder-N    one for each 40 nodes; the other nodes are spread over these, one in each is "cover.jpg"
//   /d1/.../d7   and deep.jpg in it, at depth 8
#pragma once

#include <string>

#include "common/owners.h"
#include "floor.h"
#include "kxamazon/acd_fs_node.h"

namespace kxbench
{

struct fixture_t {
    size_t nodes;

    std::string id(size_t number) const; // spread like random ones
    size_t big_children() const { return nodes / 10; }
    size_t folders() const { return nodes / 40; }
    size_t cover(size_t folder) const { return 10 * folders() + folder; } // the number of its cover.jpg
    cached_node_t node(size_t number) const;
};

// A record as an operation would hand it to the cache; it points to row's texts, and to parent.
acd_node_t record_of(const cached_node_t& row, char** parent);

// Opens a copy of the cache of that many nodes as this process's.
void open_fixture(const fixture_t& fixture);

// Makes the cache file for the copies; in a process of its own.
void make_fixture(const fixture_t& fixture);

// Puts a copy where a program with that sysroot looks for its cache.
void copy_fixture(const fixture_t& fixture, const std::string& sysroot);

} // namespace kxbench
