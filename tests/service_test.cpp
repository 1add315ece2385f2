#include "kxamazon/service.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <regex>

#include "common/constants.h"
#include "common/owners.h"
#include "kxamazon/acd_sync_utils.h"
#include "kxamazon/global.h"
#include "kxamazon/sync.h"
#include "support/support.h"
#include "support/sync_test.h"

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

    for (auto [current, total, percentage] :
         {std::tuple{3, 0, 0}, {9, 10, 0}, {10, 10, 100}, {20, 10, 200}}) {
        update_acd_progress(current, total);
        EXPECT_EQ(global.percentage, percentage) << current << "/" << total;
    }
    update_progress_msg("%s", "first");
    update_progress_msg("%d of %d", 20, 10);
    write_status(SYNC_STATE_UP_TO_DATE);
    EXPECT_NE(read_file(kx_status_path)
                  .find("<Current>20</Current>\n  <Total>10</Total>\n"
                        "  <Percentage>200</Percentage>\n  <ProgressMsg>20 of 10<"),
              std::string::npos);
}

// The callbacks against a real cloud.
class Dispatch : public pairs_test
{
protected:
    const std::string share_ = base_ + "/P", drive_ = base_ + "/D";
};

TEST_F(Dispatch, MapsOnlyPathsBelowAPairsFolder)
{
    const std::pair<std::string, const char*> rows[] = {
        {share_ + "/a/b", "/Korvane_nas1/Photos/a/b"},
        {drive_ + "/a/b", "/a/b"},
        {share_, nullptr},
        {share_ + "2/a", nullptr},
        {"/elsewhere", nullptr},
    };
    for (const auto& [local, cloud] : rows)
        EXPECT_STREQ(string_ptr(get_cloud_node_path(local.c_str())).get(), cloud) << local;
}

TEST_F(Dispatch, SaysWhatFailedAndNeverStopsTheWatcher)
{
    const auto tell = [](const std::string& local, watch_type_v2_t type) {
        EXPECT_EQ(watch_notify(local.c_str(), type, nullptr), 0);
    };
    cloud_.mkdir("/Korvane_nas1/Photos");
    cloud_.forget_requests();
    std::string text = log(
        [&] {
            tell(share_ + "/none", WATCH_TYPE_V2_DEL_FILE);
            tell(share_ + "/none", WATCH_TYPE_V2_ADD_FILE);
            tell(share_, WATCH_TYPE_V2_ADD_DIR);
            tell("/elsewhere/x", WATCH_TYPE_V2_ADD_FILE);
            tell(drive_ + "/" + std::string(4200, 'x'), WATCH_TYPE_V2_DEL_FILE);
        },
        0);
    EXPECT_NE(text.find("error: Failed to delete FILE /Korvane_nas1/Photos/none! 4\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("error: watch_notify: acd_upsync_file failed! -1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("is too long!\n"), std::string::npos) << text;
    EXPECT_EQ(cloud_.count("(POST|PUT|PATCH)", "."), 0);
    EXPECT_EQ(global.sync_state, SYNC_STATE_UP_TO_DATE);
}

TEST_F(Dispatch, MoveEventsAreRecordedForFilesEvenWhenTheMoveFailed)
{
    const struct {
        std::string from, to;
        watch_type_v2_t type;
        int result;
        std::string log;
    } rows[] = {
        {share_ + "/x", share_ + "/y", WATCH_TYPE_V2_MOVE_FILE, 0, "Failed to move file @/x ---> @/y \n! 4"},
        {share_ + "/d", share_ + "/e", WATCH_TYPE_V2_MOVE_DIR, 0, "Failed to move folder @/d ---> @/e \n! 4"},
        {"/elsewhere", share_ + "/x", WATCH_TYPE_V2_MOVE_DIR, -1,
         "Failed to get cloud node path for old local path (null)!\n"},
        {share_ + "/x", "/elsewhere", WATCH_TYPE_V2_MOVE_DIR, -1,
         "Failed to get cloud node path for new local path (null)!\n"},
    };
    for (const auto& row : rows) {
        std::string text = log(
            [&] { EXPECT_EQ(watch_notify_move(row.from.c_str(), row.to.c_str(), row.type), row.result); });
        text = std::regex_replace(text, std::regex("/Korvane_nas1/Photos"), "@");
        EXPECT_NE(text.find("error: watch_notify_move: " + row.log), std::string::npos) << text;
    }
    EXPECT_EQ(events(), "SERVER_MOVE /Korvane_nas1/Photos/x /Korvane_nas1/Photos/y\n");
}
