#include "kxamazon/acd_sync_upsync.h"

#include <chrono>
#include <filesystem>

#include "common/utils.h"
#include "kxamazon/acd_sync_utils.h"
#include "support/support.h"
#include "support/sync_test.h"

using kxtest::write_file;

namespace
{

constexpr std::chrono::milliseconds batch_pause(300);

// Before the constants of the tests are read from the environment.
__attribute__((constructor(101))) void set_waits()
{
    setenv("KXTEST_UPSYNC_BATCH_MS", "300", 1);
}

constexpr time_t noon = 1433160000; // 2015-06-01T12:00:00Z
const nlohmann::json refused = {{"method", "POST"}, {"path", "^/nodes$"}, {"status", 403}};
const nlohmann::json duplicate = {{"method", "POST"}, {"path", "^/nodes$"}, {"status", 409}};

// The folder L paired with /Up, in a cloud that also finds trashed nodes by name.
class upsync : public kxtest::sync_test
{
protected:
    upsync() : sync_test({"--list-trashed"}) { std::filesystem::create_directory(local_); }

    int pass(const char* cloud = "/Up") { return acd_upsync_local_path(local_.c_str(), cloud); }

    const std::string local_ = base_ + "/L";
};

} // namespace

TEST(upsync_decision, a_found_node_is_judged_by_status_and_time)
{
    // Overwrite, add or leave: for a local time of 2 and 1 seconds before the cloud's, the same, and 1 after
    // it.
    const std::pair<acd_node_status_t, std::string> rows[] = {{NODE_STATUS_AVAILABLE, "---o"},
                                                              {NODE_STATUS_TRASH, "-aaa"},
                                                              {NODE_STATUS_PURGED, "-aaa"},
                                                              {NODE_STATUS_PENDING, "aaaa"},
                                                              {NODE_STATUS_UNKNOWN, "aaaa"}};
    char name[] = "n";
    for (const auto& [status, actions] : rows) {
        acd_node_t node = {};
        node.id = node.name = name;
        node.status = status;
        node.modified_date = noon;
        std::string decided;
        for (int local : {-2, -1, 0, 1})
            decided += "-ao"[get_upsync_node_action(&node, noon + local) + 1];
        EXPECT_EQ(decided, actions) << status;
    }
}

TEST(upsync_walk, does_not_enter_another_device_and_pauses_at_every_201st_entry)
{
    sync_path_ptr drive(acd_create_sync_path("/Up", kxtest::sysroot().c_str()));
    dirent entry = {};
    entry.d_type = DT_DIR;
    std::vector<int> pauses;
    for (int i = 0; i < 2 * 201; ++i) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(op_upsync("/proc", &entry, drive.get()), ACD_FS_ERR_SCAN_OP_CONTINUE);
        if (std::chrono::steady_clock::now() - start >= batch_pause)
            pauses.push_back(i);
    }
    ASSERT_EQ(pauses.size(), 2u);
    EXPECT_EQ(pauses[1] - pauses[0], 201);
}

TEST_F(upsync, a_pass_brings_the_cloud_up_to_date_and_the_next_has_nothing_to_do)
{
    write_file(local_ + "/a", "first");
    write_file(local_ + "/sub/b", "second");
    std::filesystem::create_symlink("a", local_ + "/link");
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(events(), "UPLOADING L/a\nSERVER_UPLOAD /Up/a\nSERVER_ADD /Up/sub\n"
                        "UPLOADING L/sub/b\nSERVER_UPLOAD /Up/sub/b\n");
    EXPECT_EQ(cloud_.get("/Up/sub/b").body, "second");

    cloud_.forget_requests();
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(cloud_.count("POST", ".") + cloud_.count("PUT", "."), 0);

    write_file(local_ + "/a", "changed", cloud_time("/Up/a") + 1);
    std::filesystem::remove_all(local_ + "/sub");
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(cloud_.get("/Up/a").body, "changed");
    EXPECT_EQ(cloud_.count("POST", ".") + cloud_.count("PUT", "."), 1) << "one overwrite, nothing trashed";
    EXPECT_EQ(events(), "");

    EXPECT_EQ(pass("/"), 0);
    EXPECT_EQ(events(), "UPLOADING L/a\nSERVER_UPLOAD /a\n");
}

TEST_F(upsync, a_trashed_file_comes_back_when_the_local_one_is_as_new_and_a_trashed_folder_does_not)
{
    cloud_.put("/Up/file", "before");
    cloud_.mkdir("/Up/folder");
    for (const char* path : {"/Up/file", "/Up/folder"})
        cloud_.edit({{"path", path}, {"status", "TRASH"}, {"modifiedDate", "2015-06-01T12:00:00.000Z"}});
    write_file(local_ + "/file", "after", noon - 1);
    std::filesystem::create_directory(local_ + "/folder");
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(cloud_.get("/Up/file").body, "after");
    EXPECT_FALSE(cloud_.has("/Up/folder"));
}

TEST_F(upsync, a_failure_at_one_entry_does_not_end_the_pass)
{
    cloud_.mkdir("/Up");
    write_file(local_ + "/a", "a");
    write_file(local_ + "/b", "b");
    cloud_.fail(duplicate);
    EXPECT_EQ(pass(), 0);
    EXPECT_TRUE(!cloud_.has("/Up/a") && cloud_.has("/Up/b"));

    write_file(local_ + "/b", "newer", cloud_time("/Up/b") + 1);
    cloud_.fail({{"method", "PUT"}, {"status", 404}});
    EXPECT_EQ(acd_upsync_file((local_ + "/b").c_str(), "/Up/b"), ACD_FS_ERR_RESOURCE_NOT_FOUND);
    cloud_.fail(refused);
    EXPECT_EQ(acd_upsync_folder("/d", "/Up/d"), ACD_FS_ERR_FORBIDDEN);
    EXPECT_EQ(acd_upsync_file("/missing", "/Up/b"), -1);
    EXPECT_EQ(acd_upsync_file(local_.c_str(), "/Up/b"), -1) << "a folder";
}

TEST_F(upsync, a_pass_that_cannot_be_made_fails_and_a_refusal_ends_the_process)
{
    g_nosystemd = 1;
    cloud_.fail(refused);
    EXPECT_EXIT(pass(), testing::ExitedWithCode(1),
                "acd_upsync_local_path:acd_sync_upsync.cpp:[0-9]+ FORBIDDEN!");
    cloud_.fail(duplicate);
    EXPECT_EQ(pass(), -1);
    std::filesystem::remove(local_);
    EXPECT_EQ(pass(), -1);
}
