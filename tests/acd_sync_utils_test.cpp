#include "kxamazon/acd_sync_utils.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <unistd.h>

#include "common/utils.h"
#include "support/support.h"

using kxtest::log_of;
using testing::ExitedWithCode;

namespace
{

bool hostname_fails;

using pairs_t = std::vector<std::pair<const char*, const char*>>; // local and cloud folders

// "RESULT LOCAL-PATH", "-" for no path, and the last line that was logged.
std::string mapped(const std::string& path, const pairs_t& pairs)
{
    sync_pair_list_ptr list(acd_sync_create_sync_pair_list());
    for (auto [local, cloud] : pairs) {
        acd_sync_pair_entry_t* entry = acd_sync_create_sync_pair_entry();
        entry->local_drive_path = safe_strdup(local);
        entry->cloud_drive_path = safe_strdup(cloud);
        acd_sync_sync_pair_list_insert_tail(list.get(), entry);
    }
    sync_path_ptr sync_path;
    int rc = 0;
    std::string log = log_of([&] { rc = get_sync_path(path.c_str(), list.get(), out(sync_path)); });
    log = log.substr(log.rfind('\n', log.size() - 2) + 1);
    return std::to_string(rc) + " " + (sync_path ? sync_path->local_node_path : "-") +
           (log.empty() ? "" : " ") + log;
}

} // namespace

// In place of the C library's: a host without a name cannot be had otherwise.
extern "C" int gethostname(char* name, size_t len) noexcept
{
    if (hostname_fails) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return std::snprintf(name, len, "nas1") < 0;
}

TEST(acd_sync_utils, only_whole_appliance_folders_are_recognised)
{
    for (const char* path : {"/nas-0a-1B-ff", "/nas-0a-1B-ff/x", "/Korvane_h", "/Korvane_h/x"})
        EXPECT_EQ(is_regular_nas_cloud_drive(path), 1) << path;
    for (const char* path :
         {"/nas-0a-1B-ffx", "/nas-0g-1B-ff", "/nas-0a-1B-f", "/nas-0a_1B-ff", "/Korvane_", "/korvane_h",
          "/x/Korvane_h", "Korvane_h", "", static_cast<const char*>(nullptr)})
        EXPECT_EQ(is_regular_nas_cloud_drive(path), 0) << (path ? path : "null");
}

TEST(acd_sync_utils, a_drive_contains_itself_and_what_lies_below)
{
    using row_t = std::pair<const char*, const char*>; // drive and path
    for (auto [drive, path] : {row_t("/", "/"), {"/", "/a"}, {"/A/P", "/A/P"}, {"/A/P", "/A/P/x"}})
        EXPECT_EQ(is_in_cloud_drive(drive, path), 1) << drive << " " << path;
    for (auto [drive, path] :
         {row_t("/A/P", "/A/P2"), {"/A/P", "/A"}, {"/A", "/a/x"}, {"A", "A/x"}, {"/", "a"}})
        EXPECT_EQ(is_in_cloud_drive(drive, path), 0) << drive << " " << path;
    EXPECT_EQ(is_in_cloud_drive(nullptr, "/a") + is_in_cloud_drive("/", nullptr), 0);
}

TEST(acd_sync_utils, cloud_paths_map_to_the_first_pair_that_may_claim_them)
{
    const pairs_t specific_first = {{"/v/Photos", "/Korvane_n/Photos"}, {"/v/D", "/"}};
    const pairs_t root_first = {{"/v/D", "/"}, {"/v/Photos", "/Korvane_n/Photos"}, {"/v/Docs", "/Docs"}};
    const std::string deep(9000, 'd');
    const std::string debug = "debug: get_sync_path: ";
    const struct {
        std::string path;
        pairs_t pairs;
        std::string result;
    } rows[] = {
        {"/Korvane_n/Photos/2015/a", specific_first, "0 /v/Photos/2015/a"},
        {"/Docs/b", specific_first, "0 /v/D/Docs/b"},
        {"/" + deep, specific_first, "0 /v/D/" + deep},
        {"/Korvane_n/Photos", specific_first,
         "0 - " + debug + "Don't sync cloud drive path /Korvane_n/Photos.\n"},
        {"/", specific_first, "0 - " + debug + "Don't sync cloud drive path /.\n"},
        {"/Korvane_n/Photos2", specific_first,
         "-1 - " + debug + "Ignore node path /Korvane_n/Photos2 in other nas cloud drive.\n"},
        {"/nas-aa-bb-cc", {}, "-1 - " + debug + "Ignore node path /nas-aa-bb-cc in other nas cloud drive.\n"},
        {"/O/x", {}, "-1 - error: get_sync_path: Can't find sync pair for cloud node path,  /O/x!\n"},
        {"/Docs/b", root_first, "0 /v/D/Docs/b"},
        {"/Korvane_n/Photos/a", root_first,
         "0 /v/Photos/a " + debug +
             "Do not search nas cloud drive node path /Korvane_n/Photos/a in cloud drive path /.\n"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(mapped(row.path, row.pairs), row.result);
}

TEST(acd_sync_utils_death, the_policy_ends_the_process_for_every_error_that_is_not_to_be_skipped)
{
    g_nosystemd = 1;
    const std::pair<int, const char*> fatal[] = {
        {-1, "f:x.cpp:7 Internal error -1.\n"},
        {0, "f:x.cpp:7 Internal error 0.\n"},
        {1, "f:x.cpp:7 Internal error 1.\n"},
        {2, "f:x.cpp:7 UNKNOWN server timeout!\n"},
        {3, "f:x.cpp:7 FORBIDDEN!\n"},
        {5, "f:x.cpp:7 Unhandled acd fs error 5!\n"},
        {8, "f:x.cpp:7 ACD out of space!\n"},
        {100, "f:x.cpp:7 Unhandled acd fs error 100!\n"},
        {200, "f:x.cpp:7 Unhandled acd fs error 200!\n"},
    };
    for (auto [err, message] : fatal)
        EXPECT_EXIT(handle_acd_fs_error(err, "f", "x.cpp", 7), ExitedWithCode(1), message);
    for (int err : {4, 6, 7, 9})
        EXPECT_EQ(log_of([&] { handle_acd_fs_error(err, "f", "x.cpp", 7); }), "") << err;
}

TEST(acd_sync_utils_death, a_host_without_a_name_is_fatal_and_a_name_is_asked_for_once)
{
    g_nosystemd = 1;
    hostname_fails = true;
    EXPECT_EXIT(get_nas_drive_root_path(), ExitedWithCode(1),
                "get_nas_drive_root_path: Failed to get hostname!");
    hostname_fails = false;
    EXPECT_STREQ(get_nas_drive_root_path(), "/Korvane_nas1");
    hostname_fails = true;
    EXPECT_STREQ(get_nas_drive_root_path(), "/Korvane_nas1");
}
