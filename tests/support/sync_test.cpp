#include "support/sync_test.h"

#include <filesystem>
#include <regex>

#include "common/constants.h"
#include "common/utils.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_sync_downsync.h"
#include "kxamazon/acd_sync_utils.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/global.h"
#include "support/support.h"

namespace fs = std::filesystem;

namespace kxtest
{

void add_pair(acd_sync_pair_list_t* list, const std::string& local, const std::string& cloud)
{
    acd_sync_pair_entry_t* pair = acd_sync_create_sync_pair_entry();
    *pair = {safe_strdup(local.c_str()), safe_strdup(cloud.c_str()), 1, 1, {}};
    acd_sync_sync_pair_list_insert_tail(list, pair);
}

sync_test::sync_test(const std::vector<std::string>& cloud_options)
    : cloud_(cloud_options), base_(new_folder("base"))
{
    cloud_.connect();
    fs::remove_all(fs::path(ACD_FS_CHECKPOINT).parent_path());
    fs::create_directories(fs::path(kx_event_log_path).parent_path());
    event_log_.reset(std::fopen(kx_event_log_path, "w"));
    std::setvbuf(event_log_.get(), nullptr, _IOLBF, 0);
    global.log_fp = event_log_.get();
    global.dmode = 0777;
    EXPECT_EQ(acd_fs_init(), ACD_FS_ERR_OK);
}

sync_test::~sync_test()
{
    acd_fs_deinit();
    _free_global();
    global.log_fp = nullptr;
}

std::string sync_test::relative(const std::string& text) const
{
    return std::regex_replace(text, std::regex(base_ + "/"), "");
}

std::string sync_test::events()
{
    const std::string text = relative(events_in(kx_event_log_path));
    std::rewind(event_log_.get());
    fs::resize_file(kx_event_log_path, 0);
    return text;
}

std::string sync_test::log(const std::function<void()>& run, int verbosity) const
{
    return relative(log_of(run, verbosity));
}

pairs_test::pairs_test() : pairs_(acd_sync_create_sync_pair_list())
{
    for (auto [local, cloud] : {std::pair("/P", "/Korvane_nas1/Photos"), {"/D", "/"}}) {
        fs::create_directory(base_ + local);
        add_pair(pairs_.get(), base_ + local, cloud);
    }
    global.sync_pairs = pairs_.get();
    cloud_.set_clock_offset(-3600);
}

pairs_test::~pairs_test()
{
    global.sync_pairs = nullptr;
}

int pairs_test::pass(const std::string& local, const std::string& cloud)
{
    return acd_downsync_cloud_drive_path(cloud.c_str(), cloud.c_str(), (base_ + local).c_str());
}

int pairs_test::full_passes()
{
    return pass("/P", "/Korvane_nas1/Photos") + pass("/D", "/");
}

time_t sync_test::cloud_time(const std::string& path) const
{
    const nlohmann::json node = cloud_.stat(path);
    return node.is_null() ? 0 : acdtime_to_unix(node["modifiedDate"].get<std::string>().c_str());
}

} // namespace kxtest
