// A sync engine in this process between a local folder and a cloud of the row's own.
#pragma once

#include <string>

#include "bench.h"
#include "floor.h"
#include "kxamazon/acd_sync_pair.h"
#include "support/cloud.h"

namespace kxbench
{

// A cloud whose root is the pair's cloud folder, and an empty local folder.
struct drive_t {
    explicit drive_t(const std::vector<std::string>& cloud_options = {});
    ~drive_t();

    void order(const std::string& path, const nlohmann::json& body) const; // of the control door
    void seed(size_t folders, size_t files, const std::string& content = "") const;

    // Makes the tree that a seeded drive has, with times that no cloud node is newer than.
    void make_local_tree(size_t folders, size_t files) const;

    kxtest::cloud cloud;
    std::string base;
};

// The engine of a measured process: connected, with an empty cache and an up-to-date checkpoint.
struct engine_t {
    explicit engine_t(const drive_t& drive);

    acd_sync_pair_list_t* pairs;
};

size_t files_below(const std::string& folder);
size_t bytes_below(const std::string& folder);

} // namespace kxbench
