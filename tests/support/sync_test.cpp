#include "support/sync_test.h"

#include <filesystem>
#include <regex>

#include "common/constants.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/global.h"
#include "support/support.h"

namespace fs = std::filesystem;

namespace kxtest
{

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

std::string sync_test::relative(std::string text) const
{
    for (size_t at; (at = text.find(base_ + "/")) != std::string::npos;)
        text.erase(at, base_.size() + 1);
    return text;
}

std::string sync_test::events()
{
    std::string text = read_file(kx_event_log_path);
    text = std::regex_replace(
        text, std::regex("<Log [^\n]*message-tag=\"LOGMSG_AMAZONDRIVE_([A-Z_]*)\"><args"), "$1");
    text = std::regex_replace(text, std::regex(" item_[0-9]+=\"([^\"]*)\""), " $1");
    text = std::regex_replace(text, std::regex("/></Log>"), "");
    std::rewind(event_log_.get());
    fs::resize_file(kx_event_log_path, 0);
    return relative(text);
}

std::string sync_test::log(const std::function<void()>& run, int verbosity) const
{
    return relative(log_of(run, verbosity));
}

time_t sync_test::cloud_time(const std::string& path) const
{
    const nlohmann::json node = cloud_.stat(path);
    return node.is_null() ? 0 : acdtime_to_unix(node["modifiedDate"].get<std::string>().c_str());
}

} // namespace kxtest
