#include "kxamazon/acd_sync_utils.h"

#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <unistd.h>

#include "common/utils.h"
#include "kxamazon/acd_fs_error.h"
#include "support/support.h"

using kxtest::log_of;
using testing::ExitedWithCode;

namespace
{

bool hostname_fails;

struct pair_t {
    const char* local;
    const char* cloud;
};

sync_pair_list_ptr list_of(const std::vector<pair_t>& pairs)
{
    sync_pair_list_ptr list(acd_sync_create_sync_pair_list());
    for (const pair_t& pair : pairs) {
        acd_sync_pair_entry_t* entry = acd_sync_create_sync_pair_entry();
        entry->local_drive_path = safe_strdup(pair.local);
        entry->cloud_drive_path = safe_strdup(pair.cloud);
        acd_sync_sync_pair_list_insert_tail(list.get(), entry);
    }
    return list;
}

// "RESULT LOCAL-PATH", the path "-" when there is none, and what was logged.
std::pair<std::string, std::string> mapped(const char* path, const std::vector<pair_t>& pairs)
{
    sync_pair_list_ptr list = list_of(pairs);
    std::string result;
    std::string log = log_of([&] {
        sync_path_ptr sync_path;
        result = std::to_string(get_sync_path(path, list.get(), out(sync_path)));
        result += std::string(" ") + (sync_path ? sync_path->local_node_path : "-");
    });
    return {result, log};
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
    for (const char* path : {"/nas-0a-1B-ff", "/nas-0a-1B-ff/x", "/Korvane_h", "/Korvane_h/x", "/Korvane_/"})
        EXPECT_EQ(is_regular_nas_cloud_drive(path), 1) << path;
    for (const char* path :
         {"/nas-0a-1B-ffx", "/nas-0g-1B-ff", "/nas-0a-1B-f", "/nas-0a_1B-ff", "nas-0a-1B-ff/", "/Korvane_",
          "/korvane_h", "Korvane_h", "/x/Korvane_h", "/", ""})
        EXPECT_EQ(is_regular_nas_cloud_drive(path), 0) << path;
    EXPECT_EQ(is_regular_nas_cloud_drive(nullptr), 0);
}

TEST(acd_sync_utils, a_drive_contains_itself_and_what_lies_below)
{
    const struct {
        const char* drive;
        const char* path;
        int inside;
    } rows[] = {
        {"/", "/", 1},        {"/", "/a", 1},         {"/A", "/A", 1},   {"/A", "/A/x", 1},
        {"/A/P", "/A/P2", 0}, {"/A/P", "/A/P2/x", 0}, {"/A/P", "/A", 0}, {"/A", "/", 0},
        {"/A", "/a/x", 0},    {"A", "A/x", 0},        {"/", "a", 0},     {nullptr, "/a", 0},
        {"/", nullptr, 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(is_in_cloud_drive(row.drive, row.path), row.inside) << row.drive << " " << row.path;
}

TEST(acd_sync_utils, cloud_paths_map_to_the_first_pair_that_may_claim_them)
{
    const std::vector<pair_t> specific_first = {{"/data/Photos", "/Korvane_nas1/Photos"},
                                                {"/data/Drive", "/"}};
    const std::vector<pair_t> root_first = {
        {"/data/Drive", "/"}, {"/data/Photos", "/Korvane_nas1/Photos"}, {"/data/Docs", "/Docs"}};
    const std::string quiet = "debug: get_sync_path: ";
    const struct {
        const char* path;
        const std::vector<pair_t>& pairs;
        const char* result;
        std::string last_line;
    } rows[] = {
        {"/Korvane_nas1/Photos/2015/a.jpg", specific_first, "0 /data/Photos/2015/a.jpg", ""},
        {"/Docs/b.txt", specific_first, "0 /data/Drive/Docs/b.txt", ""},
        {"/Korvane_nas1/Photos", specific_first, "0 -",
         quiet + "Don't sync cloud drive path /Korvane_nas1/Photos.\n"},
        {"/", specific_first, "0 -", quiet + "Don't sync cloud drive path /.\n"},
        {"/Korvane_other/x", specific_first, "-1 -",
         quiet + "Ignore node path /Korvane_other/x in other nas cloud drive.\n"},
        {"/Korvane_nas1/Photos2/y", specific_first, "-1 -",
         quiet + "Ignore node path /Korvane_nas1/Photos2/y in other nas cloud drive.\n"},
        {"/nas-aa-bb-cc", {}, "-1 -", quiet + "Ignore node path /nas-aa-bb-cc in other nas cloud drive.\n"},
        {"/Other/x",
         {},
         "-1 -",
         "error: get_sync_path: Can't find sync pair for cloud node path,  /Other/x!\n"},
        {"/Docs/b.txt", root_first, "0 /data/Drive/Docs/b.txt", ""},
        {"/Docs", root_first, "0 /data/Drive/Docs", ""},
        {"/Korvane_nas1/Photos/a", root_first, "0 /data/Photos/a",
         quiet + "Do not search nas cloud drive node path /Korvane_nas1/Photos/a in cloud drive path /.\n"},
    };
    for (const auto& row : rows) {
        auto [result, log] = mapped(row.path, row.pairs);
        EXPECT_EQ(result, row.result) << row.path;
        EXPECT_THAT(log, testing::EndsWith(row.last_line)) << row.path;
        EXPECT_EQ(log.empty(), row.last_line.empty()) << row.path;
    }
}

TEST(acd_sync_utils, a_pair_folder_is_recognised_by_its_exact_path)
{
    sync_pair_list_ptr list = list_of({{"/data/a", "/A"}, {"/data/b", "/B"}});
    EXPECT_EQ(is_nas_cloud_drive("/B", list.get()), 1);
    EXPECT_EQ(is_nas_cloud_drive("/b", list.get()), 0);
    EXPECT_EQ(is_nas_cloud_drive("/B/x", list.get()), 0);
}

TEST(acd_sync_utils, paths_of_any_length_are_mapped_whole)
{
    const std::string deep(9000, 'd');
    auto [result, log] = mapped(("/" + deep).c_str(), {{"/data/Drive", "/"}});
    EXPECT_EQ(result, "0 /data/Drive/" + deep);
}

TEST(acd_sync_utils, node_paths_are_gone_after_their_node)
{
    sync_path_ptr sync_path(acd_create_sync_path("/A", "/data/a"));
    {
        sync_node_scope node(sync_path.get(), string_ptr(safe_strdup("/A/x")),
                             string_ptr(safe_strdup("/data/a/x")));
        EXPECT_STREQ(sync_path->cloud_node_path, "/A/x");
        EXPECT_STREQ(sync_path->local_node_path, "/data/a/x");
    }
    EXPECT_EQ(sync_path->cloud_node_path, nullptr);
    EXPECT_EQ(sync_path->local_node_path, nullptr);
}

TEST(acd_sync_utils, a_local_drive_must_be_a_folder)
{
    const std::string folder = kxtest::new_folder();
    kxtest::write_file(folder + "/file", "");
    struct stat st;
    EXPECT_EQ(log_of([&] { EXPECT_EQ(stat_local_drive_path("f", folder.c_str(), &st), 0); }), "");
    for (const std::string& path : {folder + "/file", folder + "/missing"})
        EXPECT_EQ(log_of([&] { EXPECT_EQ(stat_local_drive_path("f", path.c_str(), &st), -1); }),
                  "error: f: Local drive path " + path + " does not exist or is not a folder!\n");
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
