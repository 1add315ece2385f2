#include "drive.h"

#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>

#include "common/constants.h"
#include "common/utils.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_sync_utils.h"
#include "kxamazon/global.h"
#include "support/support.h"

namespace fs = std::filesystem;

namespace kxbench
{

drive_t::drive_t(const std::vector<std::string>& cloud_options)
    : cloud(cloud_options), base(kxtest::new_folder("drive"))
{
}

drive_t::~drive_t()
{
    fs::remove_all(base);
}

void drive_t::order(const std::string& path, const nlohmann::json& body) const
{
    http_floor().send("POST", cloud.url() + "/control/" + path, body.dump());
}

void drive_t::seed(size_t folders, size_t files, const std::string& content) const
{
    order("seed", {{"path", "/"}, {"folders", folders}, {"files", files}, {"content", content}});
}

void drive_t::make_local_tree(size_t folders, size_t files) const
{
    for (size_t i = 0; i < folders; ++i) {
        std::string folder = base + "/folder-" + std::to_string(i);
        fs::create_directory(folder);
        for (size_t j = 0; j < files; ++j)
            fd_owner(
                open((folder + "/file-" + std::to_string(j) + ".txt").c_str(), O_WRONLY | O_CREAT, 0666));
    }
}

engine_t::engine_t(const drive_t& drive) : pairs(acd_sync_create_sync_pair_list())
{
    drive.cloud.connect();
    global.dmode = 0777;
    fs::remove_all(fs::path(kx_cache_path).parent_path());
    acd_sync_pair_entry_t* pair = acd_sync_create_sync_pair_entry();
    pair->local_drive_path = strdup(drive.base.c_str());
    pair->cloud_drive_path = strdup("/");
    acd_sync_sync_pair_list_insert_tail(pairs, pair);
    global.sync_pairs = pairs;
    expect(acd_fs_init() == ACD_FS_ERR_OK, "the engine does not start");
}

size_t files_below(const std::string& folder)
{
    size_t files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        files += entry.is_regular_file();
    return files;
}

size_t bytes_below(const std::string& folder)
{
    size_t bytes = 0;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        bytes += entry.is_regular_file() ? entry.file_size() : 0;
    return bytes;
}

} // namespace kxbench
