#include "kxamazon/service.h"

#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include "common/constants.h"
#include "common/owners.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_sync_utils.h"
#include "kxamazon/global.h"
#include "kxamazon/sync.h"
#include "support/cloud.h"
#include "support/support.h"

using namespace kxtest;

namespace
{

sync_pair_list_ptr pairs_of(const std::string& children)
{
    std::string xml = "<config>" + children + "</config>";
    owner<xmlDoc, xmlFreeDoc> doc(xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "", "utf-8", 0));
    return sync_pair_list_ptr(read_sync_pair_config(xmlDocGetRootElement(doc.get())->children));
}

std::string describe(const acd_sync_pair_list_t* list)
{
    std::string text;
    const acd_sync_pair_entry_t* pair;
    TAILQ_FOREACH (pair, list, entries) {
        text += std::string(pair->local_drive_path) + "|" + pair->cloud_drive_path + "|" +
                std::to_string(pair->need_full_downsync) + std::to_string(pair->need_full_upsync) + " ";
    }
    return text;
}

sync_pair_entry_ptr new_pair(const std::string& local, const std::string& cloud)
{
    sync_pair_entry_ptr pair(acd_sync_create_sync_pair_entry());
    pair->local_drive_path = strdup(local.c_str());
    pair->cloud_drive_path = strdup(cloud.c_str());
    return pair;
}

} // namespace

TEST(ServiceConfig, SharesBecomePairsInOrderAndBadOnesAreSkipped)
{
    std::string root = get_nas_drive_root_path();
    sync_pair_list_ptr list;
    std::string log = log_of([&] {
        list =
            pairs_of("<Other>data/No</Other><ShareId>data/Photos</ShareId><ShareId>Photos</ShareId><ShareId/>"
                     "<ShareId><b/>data/X</ShareId><ShareId>data/sub/R&amp;B</ShareId>");
    });
    EXPECT_EQ(describe(list.get()), "/data/Photos|" + root + "/Photos|11 /data/sub/R&B|" + root + "/R&B|11 ");
    EXPECT_EQ(log, "error: Bad local_root_folder=/Photos\n"
                   "error: Bad Configuration for <LocalFolder>\n"
                   "error: Bad Configuration for <LocalFolder>\n"
                   "debug: read_sync_pair_config: /data/Photos <===> " +
                       root +
                       "/Photos 1 1\n"
                       "debug: read_sync_pair_config: /data/sub/R&B <===> " +
                       root + "/R&B 1 1\n");
    EXPECT_EQ(describe(pairs_of("").get()), "");
}

TEST(Status, IsWrittenWholeAndShowsProgress)
{
    write_status(SYNC_STATE_SYNCING); // no folder yet: skipped, the state is not even recorded
    EXPECT_EQ(global.sync_state, SYNC_STATE_UP_TO_DATE);

    write_file(kx_status_path, std::string(4096, 'x'));
    global.last_sync = 1433160000;
    write_status(SYNC_STATE_SYNCING);
    EXPECT_EQ(read_file(kx_status_path), "<ACDStatus>\n"
                                         "  <SyncState>SYNC_STATE_SYNCING</SyncState>\n"
                                         "  <Current>0</Current>\n"
                                         "  <Total>0</Total>\n"
                                         "  <Percentage>0</Percentage>\n"
                                         "  <ProgressMsg>(null)</ProgressMsg>\n"
                                         "  <LastSync>1433160000</LastSync>\n"
                                         "</ACDStatus>\n");
    EXPECT_EQ(global.sync_state, SYNC_STATE_SYNCING);

    struct {
        int current, total, percentage;
    } const rows[] = {{0, 0, 0}, {3, 0, 0}, {9, 10, 0}, {10, 10, 100}, {20, 10, 200}};
    for (const auto& row : rows) {
        update_acd_progress(row.current, row.total);
        EXPECT_EQ(global.percentage, row.percentage) << row.current << "/" << row.total;
    }
    update_progress_msg("%s", "first");
    update_progress_msg("%d of %d", 20, 10);
    write_status(SYNC_STATE_UP_TO_DATE);
    EXPECT_NE(read_file(kx_status_path)
                  .find("<Current>20</Current>\n  <Total>10</Total>\n"
                        "  <Percentage>200</Percentage>\n  <ProgressMsg>20 of 10<"),
              std::string::npos);
}

// The callbacks against a real cloud: one share below the appliance's folder, and the rest of the drive.
class Dispatch : public testing::Test
{
protected:
    void SetUp() override
    {
        cloud_.connect();
        for (const char* place : {kx_status_path, kx_event_log_path, kx_cache_path})
            write_file(place, "");
        std::remove(kx_cache_path);
        global.log_fp = fopen(kx_event_log_path, "w");
        setvbuf(global.log_fp, nullptr, _IOLBF, 0);
        ASSERT_EQ(acd_fs_init(), ACD_FS_ERR_OK);
        pairs_.reset(acd_sync_create_sync_pair_list());
        acd_sync_sync_pair_list_insert_tail(pairs_.get(), new_pair(share_, "/Nas/Photos").release());
        acd_sync_sync_pair_list_insert_tail(pairs_.get(), new_pair(drive_, "/").release());
        global.sync_pairs = pairs_.get();
        cloud_.mkdir("/Nas/Photos");
    }
    void TearDown() override
    {
        acd_fs_deinit();
        fclose(global.log_fp);
        global.log_fp = nullptr;
        global.sync_pairs = nullptr;
    }
    void change(const std::string& local, watch_type_v2_t type)
    {
        EXPECT_EQ(watch_notify(local.c_str(), type, nullptr), 0);
    }

    cloud cloud_;
    std::string share_ = new_folder("share");
    std::string drive_ = new_folder("drive");
    sync_pair_list_ptr pairs_;
};

TEST_F(Dispatch, MapsOnlyPathsBelowAPairsFolder)
{
    struct {
        std::string local;
        const char* cloud;
    } const rows[] = {
        {share_ + "/a/b", "/Nas/Photos/a/b"},
        {drive_ + "/a/b", "/a/b"},
        {share_, nullptr},
        {share_ + "2/a", nullptr},
        {"/elsewhere", nullptr},
    };
    for (const auto& row : rows) {
        string_ptr mapped(get_cloud_node_path(row.local.c_str()));
        EXPECT_STREQ(mapped.get(), row.cloud) << row.local;
    }
}

TEST_F(Dispatch, AddsChangesAndDeletesInTheCloud)
{
    write_file(share_ + "/album/one.txt", "1");
    change(share_ + "/album", WATCH_TYPE_V2_ADD_DIR);
    change(share_ + "/album/one.txt", WATCH_TYPE_V2_ADD_FILE);
    EXPECT_EQ(cloud_.get("/Nas/Photos/album/one.txt").body, "1");
    change(share_ + "/album/one.txt", WATCH_TYPE_V2_DEL_FILE);
    EXPECT_FALSE(cloud_.has("/Nas/Photos/album/one.txt"));
    change(share_ + "/album", WATCH_TYPE_V2_DEL_DIR);
    EXPECT_FALSE(cloud_.has("/Nas/Photos/album"));
    EXPECT_EQ(events_in(kx_event_log_path), "SERVER_ADD /Nas/Photos/album\n"
                                            "UPLOADING " +
                                                share_ +
                                                "/album/one.txt\n"
                                                "SERVER_UPLOAD /Nas/Photos/album/one.txt\n"
                                                "SERVER_DELETE /Nas/Photos/album/one.txt\n"
                                                "SERVER_DELETE /Nas/Photos/album\n");
}

TEST_F(Dispatch, SaysWhatFailedAndNeverStopsTheWatcher)
{
    cloud_.forget_requests();
    std::string log = log_of(
        [&] {
            change(share_ + "/none", WATCH_TYPE_V2_DEL_FILE);
            change(share_ + "/none", WATCH_TYPE_V2_ADD_FILE);
            change(share_, WATCH_TYPE_V2_ADD_DIR);
            change("/elsewhere/x", WATCH_TYPE_V2_ADD_FILE);
            change(drive_ + "/" + std::string(4200, 'x'), WATCH_TYPE_V2_DEL_FILE);
        },
        0);
    EXPECT_NE(log.find("error: Failed to delete FILE /Nas/Photos/none! 4\n"), std::string::npos) << log;
    EXPECT_NE(log.find("error: watch_notify: acd_upsync_file failed! -1\n"), std::string::npos) << log;
    EXPECT_NE(log.find("is too long!\n"), std::string::npos) << log;
    EXPECT_EQ(cloud_.count("(POST|PUT|PATCH)", "."), 0);
    EXPECT_EQ(global.sync_state, SYNC_STATE_UP_TO_DATE);
}

TEST_F(Dispatch, MovesAndRenamesInTheCloudAndKeepsTheTimesEqual)
{
    write_file(share_ + "/a.txt", "a");
    change(share_ + "/a.txt", WATCH_TYPE_V2_ADD_FILE);
    std::filesystem::rename(share_ + "/a.txt", drive_ + "/b.txt");
    EXPECT_EQ(
        watch_notify_move((share_ + "/a.txt").c_str(), (drive_ + "/b.txt").c_str(), WATCH_TYPE_V2_MOVE_FILE),
        0);
    EXPECT_EQ(cloud_.get("/b.txt").body, "a");
    EXPECT_FALSE(cloud_.has("/Nas/Photos/a.txt"));

    // In step now: neither a repeated event nor the cloud's own feed moves anything.
    cloud_.forget_requests();
    change(drive_ + "/b.txt", WATCH_TYPE_V2_ADD_FILE);
    EXPECT_EQ(watch_notify(nullptr, WATCH_TYPE_V2_NONE, nullptr), 0);
    EXPECT_EQ(cloud_.count("PUT|PATCH", "."), 0);
    EXPECT_EQ(cloud_.count("GET", "content"), 0);
    EXPECT_EQ(read_file(drive_ + "/b.txt"), "a");
    EXPECT_FALSE(exists(share_ + "/a.txt"));
}

TEST_F(Dispatch, MoveEventsAreRecordedForFilesEvenWhenTheMoveFailed)
{
    std::string log = log_of([&] {
        EXPECT_EQ(
            watch_notify_move((share_ + "/x").c_str(), (share_ + "/y").c_str(), WATCH_TYPE_V2_MOVE_FILE), 0);
        EXPECT_EQ(watch_notify_move((share_ + "/d").c_str(), (share_ + "/e").c_str(), WATCH_TYPE_V2_MOVE_DIR),
                  0);
        EXPECT_EQ(watch_notify_move("/elsewhere", share_.c_str(), WATCH_TYPE_V2_MOVE_DIR), -1);
        EXPECT_EQ(watch_notify_move((share_ + "/x").c_str(), "/elsewhere", WATCH_TYPE_V2_MOVE_DIR), -1);
    });
    EXPECT_EQ(events_in(kx_event_log_path), "SERVER_MOVE /Nas/Photos/x /Nas/Photos/y\n");
    for (const char* line : {
             "error: watch_notify_move: Failed to move file /Nas/Photos/x ---> /Nas/Photos/y \n! 4",
             "error: watch_notify_move: Failed to move folder /Nas/Photos/d ---> /Nas/Photos/e \n! 4",
             "error: watch_notify_move: Failed to get cloud node path for old local path (null)!\n",
             "error: watch_notify_move: Failed to get cloud node path for new local path (null)!\n",
         })
        EXPECT_NE(log.find(line), std::string::npos) << line << log;
}
