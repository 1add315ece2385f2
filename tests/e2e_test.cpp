// The service as a process of its own, against a cloud that is another.
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <regex>

#include "support/appliance.h"
#include "support/cloud.h"
#include "support/process.h"
#include "support/support.h"

namespace fs = std::filesystem;
using namespace kxtest;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

class EndToEnd : public testing::Test
{
protected:
    // Whether the service watches a folder by now; what changes before that finds nobody looking.
    bool watches(const process& service, const std::string& folder)
    {
        std::string line = "DidAdd: add_watch(" + folder + ") ";
        return eventually([&] { return service.err().find(line) != std::string::npos; }, 30);
    }
    bool live(const process& service) { return watches(service, nas_.drive); }
    int stop(process& service)
    {
        service.signal(SIGUSR1);
        return service.wait(30);
    }
    // Moves the cloud's clock on, so that what it changes now is newer than what is there by whole seconds.
    void later() { cloud_.set_clock_offset(clock_offset_ += 10); }

    cloud cloud_;
    appliance nas_{cloud_};
    int clock_offset_ = 0;
};

} // namespace

TEST_F(EndToEnd, FirstStartBringsBothSidesTogetherAndARestartTransfersNothing)
{
    cloud_.put("/Docs/plan.txt", "from the cloud");
    cloud_.put("/empty", "");
    cloud_.put(nas_.cloud_photos + "/2015/a b.jpg", "a photo");
    cloud_.put("/Korvane_other/Photos/theirs.jpg", "another appliance's");
    write_file(nas_.photos + "/new/c'd.jpg", "c");
    write_file(nas_.drive + "/Docs/local.txt", "l");

    time_t began = time(nullptr);
    auto service = nas_.start();
    ASSERT_TRUE(live(*service)) << service->err();
    EXPECT_TRUE(nas_.becomes("SYNC_STATE_UP_TO_DATE"));
    EXPECT_EQ(stop(*service), 0);
    EXPECT_GE(std::stol(nas_.status("LastSync")), began);

    EXPECT_EQ(tree_of(nas_.photos),
              (std::vector<std::string>{"2015/", "2015/a b.jpg", "new/", "new/c'd.jpg"}));
    EXPECT_EQ(tree_of(nas_.drive),
              (std::vector<std::string>{"Docs/", "Docs/local.txt", "Docs/plan.txt", "empty"}));
    EXPECT_EQ(read_file(nas_.photos + "/2015/a b.jpg"), "a photo");
    EXPECT_EQ(cloud_.get(nas_.cloud_photos + "/new/c'd.jpg").body, "c");
    EXPECT_EQ(cloud_.get("/Docs/local.txt").body, "l");
    EXPECT_EQ(nas_.events(), R"(SERVICE_START
LOCAL_ADD PHOTOS/2015
DOWNLOADING PHOTOS/2015/a b.jpg
LOCAL_DOWNLOAD PHOTOS/2015/a b.jpg
DOWNLOADING DRIVE/Docs/plan.txt
LOCAL_DOWNLOAD DRIVE/Docs/plan.txt
DOWNLOADING DRIVE/empty
LOCAL_DOWNLOAD DRIVE/empty
SERVER_ADD CLOUD/new
UPLOADING PHOTOS/new/c'd.jpg
SERVER_UPLOAD CLOUD/new/c'd.jpg
UPLOADING DRIVE/Docs/local.txt
SERVER_UPLOAD /Docs/local.txt
SERVICE_STOP
)");

    cloud_.forget_requests();
    service = nas_.start();
    ASSERT_TRUE(live(*service)) << service->err();
    EXPECT_EQ(stop(*service), 0);
    EXPECT_EQ(cloud_.count("PUT|PATCH", "."), 0);
    EXPECT_EQ(cloud_.count("POST", "nodes"), 0);
    EXPECT_EQ(cloud_.count("GET", "content"), 0);
    EXPECT_EQ(cloud_.count("GET", "children"), 0) << "every look-up is the cache's";
}

TEST_F(EndToEnd, LocalChangesGoUpAtOnce)
{
    auto service = nas_.start();
    ASSERT_TRUE(live(*service)) << service->err();
    time_t soon = time(nullptr) + 5;

    write_file(nas_.photos + "/one.txt", "1");
    EXPECT_TRUE(eventually([&] { return cloud_.get(nas_.cloud_photos + "/one.txt").body == "1"; }));
    EXPECT_TRUE(nas_.becomes("SYNC_STATE_UP_TO_DATE")); // the file's time is set after its upload
    write_file(nas_.photos + "/one.txt", "2", soon);
    EXPECT_TRUE(eventually([&] { return cloud_.get(nas_.cloud_photos + "/one.txt").body == "2"; }));
    fs::rename(nas_.photos + "/one.txt", nas_.photos + "/two.txt");
    EXPECT_TRUE(eventually([&] { return cloud_.get(nas_.cloud_photos + "/two.txt").body == "2"; }));
    fs::rename(nas_.photos + "/two.txt", nas_.drive + "/three.txt");
    EXPECT_TRUE(eventually([&] { return cloud_.get("/three.txt").body == "2"; }));

    fs::create_directories(nas_.volume + "/outside/in/deep");
    write_file(nas_.volume + "/outside/in/deep/f", "f");
    fs::rename(nas_.volume + "/outside", nas_.drive + "/tree");
    EXPECT_TRUE(eventually([&] { return cloud_.get("/tree/in/deep/f").body == "f"; }));
    fs::rename(nas_.drive + "/tree", nas_.photos + "/tree");
    EXPECT_TRUE(eventually([&] { return cloud_.has(nas_.cloud_photos + "/tree/in/deep/f"); }));
    ASSERT_TRUE(watches(*service, nas_.photos + "/tree/in/deep"));
    write_file(nas_.photos + "/tree/in/later", "under its new name");
    EXPECT_TRUE(eventually([&] { return cloud_.has(nas_.cloud_photos + "/tree/in/later"); }));

    fs::remove_all(nas_.photos + "/tree");
    fs::remove(nas_.drive + "/three.txt");
    EXPECT_TRUE(
        eventually([&] { return !cloud_.has(nas_.cloud_photos + "/tree") && !cloud_.has("/three.txt"); }));
    EXPECT_EQ(cloud_.count("POST", "nodes$"), 2 + 3 + 3) << "two root folders, tree, three files, each once";

    EXPECT_TRUE(nas_.becomes("SYNC_STATE_UP_TO_DATE"));
    EXPECT_EQ(stop(*service), 0);
    EXPECT_THAT(nas_.events(), StartsWith(R"(SERVICE_START
UPLOADING PHOTOS/one.txt
SERVER_UPLOAD CLOUD/one.txt
SERVER_MOVE CLOUD/one.txt CLOUD/two.txt
SERVER_MOVE CLOUD/two.txt /three.txt
SERVER_ADD /tree
SERVER_ADD /tree/in
SERVER_ADD /tree/in/deep
UPLOADING DRIVE/tree/in/deep/f
SERVER_UPLOAD /tree/in/deep/f
SERVER_MOVE /tree CLOUD/tree
UPLOADING PHOTOS/tree/in/later
SERVER_UPLOAD CLOUD/tree/in/later
SERVER_DELETE CLOUD/tree/in/)"));
    EXPECT_THAT(nas_.events(),
                EndsWith("SERVER_DELETE CLOUD/tree\nSERVER_DELETE /three.txt\nSERVICE_STOP\n"));
}

TEST_F(EndToEnd, CloudChangesComeDown)
{
    cloud_.put("/a.txt", "a");
    cloud_.put("/folder/b.txt", "b");
    auto service = nas_.start();
    ASSERT_TRUE(live(*service)) << service->err();

    later();
    cloud_.put("/new/c.txt", "c");
    EXPECT_TRUE(eventually([&] { return read_file(nas_.drive + "/new/c.txt") == "c"; }));
    later();
    cloud_.put("/a.txt", "a changed");
    EXPECT_TRUE(eventually([&] { return read_file(nas_.drive + "/a.txt") == "a changed"; }));
    cloud_.forget_requests();
    later();
    cloud_.rename("/a.txt", "A2.txt");
    cloud_.rename("/folder", "folder2");
    EXPECT_TRUE(
        eventually([&] { return exists(nas_.drive + "/A2.txt") && exists(nas_.drive + "/folder2/b.txt"); }));
    later();
    cloud_.move("/A2.txt", nas_.cloud_photos);
    cloud_.move("/folder2", "/new");
    EXPECT_TRUE(eventually(
        [&] { return exists(nas_.photos + "/A2.txt") && exists(nas_.drive + "/new/folder2/b.txt"); }));
    EXPECT_EQ(cloud_.count("GET", "content"), 0) << "renames and moves download nothing";
    later();
    cloud_.trash(nas_.cloud_photos + "/A2.txt");
    cloud_.trash("/new");
    EXPECT_TRUE(eventually([&] { return !exists(nas_.photos + "/A2.txt") && !exists(nas_.drive + "/new"); }));

    EXPECT_EQ(tree_of(nas_.volume), (std::vector<std::string>{"AmazonCloudDrive/", "Photos/"}));
    EXPECT_EQ(cloud_.count("PUT|PATCH", "trash|nodes"), 0) << "what came from the cloud is not sent back";
    EXPECT_EQ(stop(*service), 0);
    // The watcher reports the moves too: for files that leaves a record, though nothing bears the old path.
    EXPECT_EQ(std::regex_replace(nas_.events(), std::regex("SERVER_MOVE .*\n"), ""), R"(SERVICE_START
DOWNLOADING DRIVE/a.txt
LOCAL_DOWNLOAD DRIVE/a.txt
LOCAL_ADD DRIVE/folder
DOWNLOADING DRIVE/folder/b.txt
LOCAL_DOWNLOAD DRIVE/folder/b.txt
LOCAL_ADD DRIVE/new
DOWNLOADING DRIVE/new/c.txt
LOCAL_DOWNLOAD DRIVE/new/c.txt
DOWNLOADING DRIVE/a.txt
LOCAL_DOWNLOAD DRIVE/a.txt
LOCAL_RENAME DRIVE/a.txt DRIVE/A2.txt
LOCAL_RENAME DRIVE/folder DRIVE/folder2
LOCAL_MOVE DRIVE/A2.txt PHOTOS/A2.txt
LOCAL_MOVE DRIVE/folder2 DRIVE/new/folder2
LOCAL_DELETE PHOTOS/A2.txt
LOCAL_DELETE DRIVE/new/c.txt
LOCAL_DELETE DRIVE/new/folder2/b.txt
LOCAL_DELETE DRIVE/new/folder2
LOCAL_DELETE DRIVE/new
SERVICE_STOP
)");
}

TEST_F(EndToEnd, AStopDuringTheDownloadLeavesTheUploadOut)
{
    cloud_.put("/big.txt", "slow to come");
    write_file(nas_.drive + "/local.txt", "l");
    cloud_.fail({{"method", "GET"}, {"path", "content"}, {"delay_ms", 1000}});
    auto service = nas_.start();
    ASSERT_TRUE(eventually([&] { return nas_.events().find("DOWNLOADING") != std::string::npos; }));
    EXPECT_EQ(nas_.status(), "SYNC_STATE_SYNCING");
    EXPECT_EQ(stop(*service), 0);
    EXPECT_EQ(read_file(nas_.drive + "/big.txt"), "slow to come") << "nothing in progress is interrupted";
    EXPECT_FALSE(cloud_.has("/local.txt"));
    EXPECT_EQ(nas_.status(), "SYNC_STATE_UP_TO_DATE");
    EXPECT_NE(nas_.events().find("SERVICE_STOP"), std::string::npos);
}

TEST_F(EndToEnd, AStopDuringTheUploadFinishesIt)
{
    write_file(nas_.drive + "/1.txt", "1");
    write_file(nas_.drive + "/2.txt", "2");
    auto service = nas_.start({"KXTEST_UPSYNC_ENTRY_MS=300"});
    ASSERT_TRUE(eventually([&] { return cloud_.has("/1.txt"); }));
    EXPECT_EQ(stop(*service), 0);
    EXPECT_TRUE(cloud_.has("/2.txt"));
    EXPECT_EQ(service->err().find("watch_folder("), std::string::npos) << "live syncing was not begun";
}

TEST_F(EndToEnd, AStopWhileLiveFinishesTheUploadAndEndsWithALastPassThatOwesNothing)
{
    auto service = nas_.start();
    ASSERT_TRUE(live(*service)) << service->err();
    cloud_.fail({{"method", "POST"}, {"path", "changes"}, {"delay_ms", 500}});
    EXPECT_TRUE(nas_.becomes("SYNC_STATE_SYNCING")) << "while the feed is asked";
    EXPECT_TRUE(nas_.becomes("SYNC_STATE_UP_TO_DATE"));

    cloud_.fail({{"method", "POST"}, {"path", "^/nodes$"}, {"delay_ms", 1000}});
    std::string before = service->err();
    write_file(nas_.drive + "/late.txt", "l");
    ASSERT_TRUE(eventually([&] { return nas_.events().find("UPLOADING") != std::string::npos; }));
    EXPECT_EQ(nas_.status(), "SYNC_STATE_SYNCING");
    EXPECT_EQ(stop(*service), 0);
    EXPECT_EQ(cloud_.count("POST", "^/nodes$"), 2 + 1) << "root folders, and the file at the first attempt";
    EXPECT_TRUE(cloud_.has("/late.txt"));
    EXPECT_EQ(nas_.status(), "SYNC_STATE_UP_TO_DATE");
    std::string after = service->err().substr(before.size());
    EXPECT_THAT(after, HasSubstr("Skip full upsync because it was done already! / ===> " + nas_.drive));
    EXPECT_THAT(after, HasSubstr("Exit from service()"));
}

TEST_F(EndToEnd, StartUpFailuresHaveTheirStatus)
{
    std::string config = nas_.root + "/etc/brisal/amazon/config.xml";
    write_file(config, "<config><ShareId>");
    for (int i = 0; i < 2; i++, fs::remove(config)) { // malformed, then missing
        auto service = nas_.start();
        EXPECT_EQ(service->wait(), 1);
        EXPECT_THAT(service->err(), HasSubstr("service: Failed to read configuration!\n"));
    }
    nas_.settings("AMAZONDRIVE_PROVISION=00\n");
    auto service = nas_.start();
    EXPECT_EQ(service->wait(), 255);
    EXPECT_THAT(service->err(), HasSubstr("Not provisioned\n"));
    EXPECT_EQ(nas_.events(), "SERVICE_START\nSERVICE_START\nSERVICE_START\n");
}

TEST_F(EndToEnd, WithoutADefaultVolumeTheSharesAreStillInStep)
{
    fs::remove(nas_.root + "/etc/brisal/account.conf");
    cloud_.put("/not for here.txt", "x");
    cloud_.put(nas_.cloud_photos + "/for here.txt", "x");
    auto service = nas_.start();
    ASSERT_TRUE(watches(*service, nas_.photos)) << service->err();
    EXPECT_EQ(stop(*service), 0);
    EXPECT_NE(service->err().find("Failed to get default volume from account.conf\n"), std::string::npos);
    EXPECT_EQ(tree_of(nas_.volume),
              (std::vector<std::string>{"AmazonCloudDrive/", "Photos/", "Photos/for here.txt"}));
}

TEST_F(EndToEnd, AMissingDefaultFolderIsMadeWithTheShareTool)
{
    fs::remove(nas_.drive);
    std::string tool = nas_.root + "/bin/vz_nml";
    write_file(tool, "#!/bin/sh\necho \"$@\" >" + nas_.root + "/asked\nmkdir -p '" + nas_.drive + "'\n");
    fs::permissions(tool, fs::perms::owner_all);
    write_file(nas_.root + "/etc/brisal/amazon/status.xml",
               "<ACDStatus><LastSync>5</LastSync><LastSync>1433160000</LastSync></ACDStatus>");
    cloud_.fail({{"method", "GET"}, {"path", "quota"}, {"status", 403}});
    auto service = nas_.start({"PATH=" + nas_.root + "/bin:/usr/bin:/bin"});
    EXPECT_EQ(service->wait(), 1) << "no quota, no start";
    EXPECT_NE(service->err().find("Failed to initialize ACD filesystem!\n"), std::string::npos);
    EXPECT_EQ(read_file(nas_.root + "/asked"), "-a share:/" + nas_.name() + "/AmazonCloudDrive\n");
    EXPECT_TRUE(exists(nas_.drive));
    EXPECT_EQ(nas_.status(), "SYNC_STATE_UP_TO_DATE");
    EXPECT_EQ(nas_.status("LastSync"), "1433160000");
}

TEST_F(EndToEnd, TokensAreRenewedWhenTheCloudAsks)
{
    auto service = nas_.start();
    ASSERT_TRUE(live(*service)) << service->err();
    cloud_.expire_token();
    write_file(nas_.drive + "/after.txt", "a");
    EXPECT_TRUE(eventually([&] { return cloud_.has("/after.txt"); }));
    EXPECT_EQ(cloud_.count("POST", "o2/token"), 1);
    EXPECT_EQ(stop(*service), 0);
}
