#include "kxamazon/acd_sync_utils.h"

#include <gtest/gtest.h>
#include <tuple>

#include "common/utils.h"
#include "support/support.h"
#include "support/sync_test.h"

using kxtest::log_of;
using testing::ExitedWithCode;

namespace
{

using pairs_t = std::vector<std::pair<const char*, const char*>>; // local and cloud folders

// "RESULT LOCAL-PATH", "-" for no path, and " error" when a line of that level was logged.
std::string mapped(const char* path, const pairs_t& pairs)
{
    sync_pair_list_ptr list(acd_sync_create_sync_pair_list());
    for (auto [local, cloud] : pairs)
        kxtest::add_pair(list.get(), local, cloud);
    sync_path_ptr sync_path;
    int rc = 0;
    const std::string log = log_of([&] { rc = get_sync_path(path, list.get(), out(sync_path)); });
    return std::to_string(rc) + " " + (sync_path ? sync_path->local_node_path : "-") +
           (log.find("error:") == std::string::npos ? "" : " error");
}

} // namespace

TEST(acd_sync_utils, only_whole_appliance_folders_are_recognised)
{
    for (const char* path : {"/nas-0a-1B-ff", "/nas-0a-1B-ff/x", "/Korvane_h", "/Korvane_h/x"})
        EXPECT_EQ(is_regular_nas_cloud_drive(path), 1) << path;
    for (const char* path : {"/nas-0a-1B-ffx", "/nas-0g-1B-ff", "/nas-0a-1B-f", "/Korvane_", "/x/Korvane_h"})
        EXPECT_EQ(is_regular_nas_cloud_drive(path), 0) << path;
    EXPECT_EQ(is_regular_nas_cloud_drive(nullptr), 0);
}

TEST(acd_sync_utils, cloud_paths_map_to_the_first_pair_that_may_claim_them)
{
    const pairs_t root_last = {{"/v/Photos", "/Korvane_n/Photos"}, {"/v/D", "/"}};
    const pairs_t root_first = {{"/v/D", "/"}, {"/v/Photos", "/Korvane_n/Photos"}, {"/v/Docs", "/Docs"}};
    const std::tuple<const char*, pairs_t, const char*> rows[] = {
        {"/Korvane_n/Photos/2015/a", root_last, "0 /v/Photos/2015/a"},
        {"/Korvane_n/Photos", root_last, "0 -"},
        {"/", root_last, "0 -"},
        {"/Korvane_n/Photos2", root_last, "-1 -"},
        {"/Docs/b", root_first, "0 /v/D/Docs/b"},
        {"/Korvane_n/Photos/a", root_first, "0 /v/Photos/a"},
        {"/nas-aa-bb-cc", {}, "-1 -"},
        {"/O/x", {}, "-1 - error"},
    };
    for (const auto& [path, pairs, result] : rows)
        EXPECT_EQ(mapped(path, pairs), result) << path;
}

TEST(acd_sync_utils, the_policy_ends_the_process_for_every_error_that_is_not_to_be_skipped)
{
    g_nosystemd = 1;
    for (int err : {-1, 0, 1, 2, 3, 5, 8, 100, 200})
        EXPECT_EXIT(handle_acd_fs_error(err, "f", "x.cpp", 7), ExitedWithCode(1), "f:x.cpp:7 [A-Z]") << err;
    for (int err : {4, 6, 7, 9})
        EXPECT_EQ(log_of([&] { handle_acd_fs_error(err, "f", "x.cpp", 7); }), "") << err;
}
