#include "kxamazon/acd_sync_upsync.h"

#include <chrono>
#include <filesystem>
#include <gmock/gmock.h>

#include "common/utils.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_sync_utils.h"
#include "support/support.h"
#include "support/sync_test.h"

using kxtest::write_file;
using testing::HasSubstr;

namespace
{

constexpr int batch_pause_ms = 500;

// Before the constants of the tests are read from the environment.
__attribute__((constructor(101))) void set_waits()
{
    setenv("KXTEST_UPSYNC_BATCH_MS", std::to_string(batch_pause_ms).c_str(), 1);
}

constexpr time_t noon = 1433160000; // 2015-06-01T12:00:00Z
const char* const noon_text = "2015-06-01T12:00:00.000Z";
const nlohmann::json refused = {{"method", "POST"}, {"path", "^/nodes$"}, {"status", 403}};
const nlohmann::json duplicate = {{"method", "POST"}, {"path", "^/nodes$"}, {"status", 409}};

// The folder L paired with /Up, in a cloud that also finds trashed nodes by name.
class upsync : public kxtest::sync_test
{
protected:
    upsync() : sync_test({"--list-trashed"}), local_(base_ + "/L")
    {
        std::filesystem::create_directory(local_);
    }

    int pass() { return acd_upsync_local_path(local_.c_str(), "/Up"); }
    int file(const std::string& name)
    {
        return acd_upsync_file((local_ + name).c_str(), ("/Up" + name).c_str());
    }

    std::string local_;
};

// What the walk is told for a path that it found below a drive.
int visit(const std::string& path)
{
    sync_path_ptr drive(acd_create_sync_path("/Up", kxtest::sysroot().c_str()));
    dirent entry = {};
    entry.d_type = DT_DIR;
    return op_upsync(path.c_str(), &entry, drive.get());
}

} // namespace

TEST(upsync_decision, a_found_node_is_judged_by_status_and_time)
{
    const struct {
        const char* status;
        int local; // seconds after the cloud's time
        sync_file_action_t action;
    } rows[] = {
        {"AVAILABLE", 0, SYNC_FILE_ACTION_NO_OP}, {"AVAILABLE", 1, SYNC_FILE_ACTION_OVERWRITE},
        {"TRASH", -2, SYNC_FILE_ACTION_NO_OP},    {"TRASH", -1, SYNC_FILE_ACTION_ADD},
        {"PURGED", -2, SYNC_FILE_ACTION_NO_OP},   {"PURGED", -1, SYNC_FILE_ACTION_ADD},
        {"PENDING", -9, SYNC_FILE_ACTION_ADD},    {"STRANGE", -9, SYNC_FILE_ACTION_ADD},
    };
    for (const auto& row : rows) {
        const nlohmann::json text = {{"id", "n"},
                                     {"name", "x"},
                                     {"kind", "FILE"},
                                     {"status", row.status},
                                     {"createdDate", noon_text},
                                     {"modifiedDate", noon_text}};
        node_ptr node(parse_node(text.dump().c_str()));
        EXPECT_EQ(get_upsync_node_action(node.get(), noon + row.local), row.action)
            << row.status << row.local;
    }
}

TEST(upsync_walk, does_not_enter_another_device)
{
    EXPECT_THAT(kxtest::log_of([] { EXPECT_EQ(visit("/proc"), ACD_FS_ERR_SCAN_OP_CONTINUE); }, 2),
                testing::MatchesRegex("info: DO NOT upsync accross devices! local drive " +
                                      kxtest::sysroot() +
                                      " device: [0-9]+/[0-9]+, local path /proc device: [0-9]+/[0-9]+\\.\n"));
}

TEST(upsync_walk, pauses_at_every_201st_entry_whatever_became_of_the_others)
{
    auto pauses = [](int entries) {
        const auto start = std::chrono::steady_clock::now();
        while (entries-- > 0)
            EXPECT_EQ(visit("/proc"), ACD_FS_ERR_SCAN_OP_CONTINUE);
        return (std::chrono::steady_clock::now() - start) / std::chrono::milliseconds(batch_pause_ms);
    };
    while (pauses(1) == 0) // entries of other tests count as well
        continue;
    EXPECT_EQ(pauses(200), 0);
    EXPECT_EQ(pauses(1), 1);
}

TEST_F(upsync, a_pass_brings_the_cloud_up_to_date_and_the_next_has_nothing_to_do)
{
    write_file(local_ + "/a.txt", "first");
    write_file(local_ + "/sub/b.txt", "second");
    std::filesystem::create_symlink("a.txt", local_ + "/link");
    EXPECT_EQ(log([&] { EXPECT_EQ(pass(), 0); }, 2),
              "info: Start full upsync cloud drive path. L ===> /Up\ninfo: Cloud:Add:FILE /Up/a.txt\n"
              "info: Cloud:Add:FOLDER /Up/sub\ninfo: Cloud:Add:FILE /Up/sub/b.txt\n"
              "info: Full upsync cloud drive path successfully. L ===> /Up\n");
    EXPECT_EQ(events(), "UPLOADING L/a.txt\nSERVER_UPLOAD /Up/a.txt\nSERVER_ADD /Up/sub\n"
                        "UPLOADING L/sub/b.txt\nSERVER_UPLOAD /Up/sub/b.txt\n");
    EXPECT_EQ(cloud_.get("/Up/sub/b.txt").body, "second");

    cloud_.forget_requests();
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(cloud_.count("POST", ".") + cloud_.count("PUT", "."), 0);

    write_file(local_ + "/a.txt", "changed", cloud_time("/Up/a.txt") + 1);
    std::filesystem::remove_all(local_ + "/sub");
    EXPECT_THAT(log([&] { EXPECT_EQ(pass(), 0); }, 2), HasSubstr("info: Cloud:Overwrite:FILE /Up/a.txt\n"));
    EXPECT_EQ(cloud_.get("/Up/a.txt").body, "changed");
    EXPECT_EQ(cloud_.count("POST", ".") + cloud_.count("PUT", "."), 1) << "one overwrite, nothing trashed";
    EXPECT_EQ(events(), "");

    EXPECT_EQ(acd_upsync_local_path(local_.c_str(), "/"), 0);
    EXPECT_TRUE(cloud_.has("/a.txt"));
}

TEST_F(upsync, what_was_trashed_comes_back_only_when_the_local_side_is_as_new)
{
    for (const char* path : {"/Up/new", "/Up/old", "/Up/folder/x"})
        cloud_.put(path, "before");
    for (const char* path : {"/Up/new", "/Up/old", "/Up/folder"})
        cloud_.edit({{"path", path}, {"status", "TRASH"}, {"modifiedDate", noon_text}});
    write_file(local_ + "/new", "after", noon - 1);
    write_file(local_ + "/old", "after", noon - 2);
    std::filesystem::create_directory(local_ + "/folder");
    EXPECT_THAT(log([&] { EXPECT_EQ(pass(), 0); }),
                HasSubstr(" st.st_mtime = 1433159998, cloud_node->modified_date = 1433160000!\n"));
    EXPECT_EQ(cloud_.get("/Up/new").body, "after");
    EXPECT_FALSE(cloud_.has("/Up/old"));
    EXPECT_FALSE(cloud_.has("/Up/folder"));
}

TEST_F(upsync, a_failure_at_one_entry_is_logged_and_the_pass_goes_on)
{
    cloud_.mkdir("/Up");
    write_file(local_ + "/a", "a");
    write_file(local_ + "/b", "b");
    cloud_.fail(duplicate);
    EXPECT_THAT(log([&] { EXPECT_EQ(pass(), 0); }),
                HasSubstr("error: __acd_upsync_add_file: Failed to upload! 6 L/a ---> /Up/a!\n"));
    EXPECT_TRUE(cloud_.has("/Up/b"));

    write_file(local_ + "/b", "newer", cloud_time("/Up/b") + 1);
    cloud_.fail({{"method", "PUT"}, {"status", 404}});
    EXPECT_THAT(log([&] { EXPECT_EQ(file("/b"), ACD_FS_ERR_RESOURCE_NOT_FOUND); }),
                HasSubstr("error: __acd_upsync_overwrite_file: Failed to overwrite! 4 L/b ---> /Up/b!\n"));
    cloud_.fail(refused);
    EXPECT_THAT(log([&] { EXPECT_EQ(acd_upsync_folder("/d", "/Up/d"), ACD_FS_ERR_FORBIDDEN); }),
                HasSubstr("error: acd_upsync_folder: Failed to create directory cloud_node_path = /Up/d!\n"));
    EXPECT_THAT(log([&] { EXPECT_EQ(file("/missing"), -1); }),
                HasSubstr("error: get_upsync_file_action: Cannot stat local node path L/missing\n"));
    EXPECT_EQ(file(""), -1) << "a folder";
}

TEST_F(upsync, a_pass_that_cannot_be_made_fails_and_a_refusal_ends_the_process)
{
    g_nosystemd = 1;
    cloud_.fail(refused);
    EXPECT_EXIT(pass(), testing::ExitedWithCode(1),
                "acd_upsync_local_path:acd_sync_upsync.cpp:[0-9]+ FORBIDDEN!");
    cloud_.fail(duplicate);
    EXPECT_THAT(
        log([&] { EXPECT_EQ(pass(), -1); }),
        HasSubstr("error: acd_upsync_local_path: Failed to create cloud drive path /Up. fs_err = 6\n"));
    std::filesystem::remove(local_);
    EXPECT_THAT(log([&] { EXPECT_EQ(pass(), -1); }),
                HasSubstr("error: acd_upsync_local_path: Failed to scan local drive path L. fs_err = 9\n"
                          "info: acd_upsync_local_path: Failed to upsync cloud drive path! L ===> /Up\n"));
}
