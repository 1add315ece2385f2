// The service as a process of its own, against a cloud that is another.
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>

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
    std::unique_ptr<process> live_service() const
    {
        auto service = nas_.start();
        EXPECT_TRUE(nas_.is_live(*service)) << service->err();
        return service;
    }
    cloud cloud_;
    appliance nas_{cloud_};
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
    auto service = live_service();
    EXPECT_TRUE(nas_.becomes("SYNC_STATE_UP_TO_DATE"));
    EXPECT_EQ(nas_.stop(*service), 0);
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
    service = live_service();
    EXPECT_EQ(nas_.stop(*service), 0);
    EXPECT_EQ(cloud_.count("PUT|PATCH", "."), 0);
    EXPECT_EQ(cloud_.count("POST", "nodes"), 0);
    EXPECT_EQ(cloud_.count("GET", "content"), 0);
    EXPECT_EQ(cloud_.count("GET", "children"), 0) << "every look-up is the cache's";
}

TEST_F(EndToEnd, LocalChangesGoUpAtOnce)
{
    const auto goes_up = [&](const std::string& path, const std::string& content) {
        EXPECT_TRUE(eventually([&] { return cloud_.get(path).body == content; })) << path;
    };
    auto service = live_service();
    time_t soon = time(nullptr) + 5;
    write_file(nas_.photos + "/one.txt", "1");
    goes_up(nas_.cloud_photos + "/one.txt", "1");
    EXPECT_TRUE(nas_.becomes("SYNC_STATE_UP_TO_DATE")); // the file's time is set after its upload
    write_file(nas_.photos + "/one.txt", "2", soon);
    goes_up(nas_.cloud_photos + "/one.txt", "2");
    fs::rename(nas_.photos + "/one.txt", nas_.drive + "/two.txt");
    goes_up("/two.txt", "2");

    write_file(nas_.volume + "/outside/in/f", "f");
    fs::rename(nas_.volume + "/outside", nas_.drive + "/tree");
    goes_up("/tree/in/f", "f");
    fs::rename(nas_.drive + "/tree", nas_.photos + "/tree");
    goes_up(nas_.cloud_photos + "/tree/in/f", "f");
    ASSERT_TRUE(nas_.watches(*service, nas_.photos + "/tree/in"));
    write_file(nas_.photos + "/tree/in/later", "under its new name");
    goes_up(nas_.cloud_photos + "/tree/in/later", "under its new name");

    fs::remove_all(nas_.photos + "/tree");
    fs::remove(nas_.drive + "/two.txt");
    EXPECT_TRUE(
        eventually([&] { return !cloud_.has(nas_.cloud_photos + "/tree") && !cloud_.has("/two.txt"); }));
    EXPECT_EQ(cloud_.count("POST", "nodes$"), 2 + 2 + 3) << "two root folders, tree, three files, each once";
    EXPECT_TRUE(nas_.becomes("SYNC_STATE_UP_TO_DATE"));
    EXPECT_EQ(nas_.stop(*service), 0);
    EXPECT_THAT(nas_.events(), StartsWith(R"(SERVICE_START
UPLOADING PHOTOS/one.txt
SERVER_UPLOAD CLOUD/one.txt
SERVER_MOVE CLOUD/one.txt /two.txt
SERVER_ADD /tree
SERVER_ADD /tree/in
UPLOADING DRIVE/tree/in/f
SERVER_UPLOAD /tree/in/f
SERVER_MOVE /tree CLOUD/tree
UPLOADING PHOTOS/tree/in/later
SERVER_UPLOAD CLOUD/tree/in/later
SERVER_DELETE CLOUD/tree/in/)"));
    EXPECT_THAT(nas_.events(), EndsWith("SERVER_DELETE CLOUD/tree\nSERVER_DELETE /two.txt\nSERVICE_STOP\n"));
}

TEST_F(EndToEnd, AStopFinishesThePassThatIsUnderWayAndNoOther)
{
    cloud_.put("/big.txt", "slow to come");
    for (const char* name : {"/1.txt", "/2.txt"})
        write_file(nas_.drive + name, name);
    cloud_.fail({{"method", "GET"}, {"path", "content"}, {"delay_ms", 1000}});
    auto service = nas_.start();
    ASSERT_TRUE(eventually([&] { return nas_.events().find("DOWNLOADING") != std::string::npos; }));
    EXPECT_EQ(nas_.status(), "SYNC_STATE_SYNCING");
    EXPECT_EQ(nas_.stop(*service), 0);
    EXPECT_EQ(read_file(nas_.drive + "/big.txt"), "slow to come") << "nothing in progress is interrupted";
    EXPECT_FALSE(cloud_.has("/1.txt"));
    EXPECT_EQ(nas_.status(), "SYNC_STATE_UP_TO_DATE");

    service = nas_.start({"KXTEST_UPSYNC_ENTRY_MS=300"});
    ASSERT_TRUE(eventually([&] { return cloud_.has("/1.txt"); }));
    EXPECT_EQ(nas_.stop(*service), 0);
    EXPECT_TRUE(cloud_.has("/2.txt"));
    EXPECT_EQ(service->err().find("watch_folder("), std::string::npos) << "live syncing was not begun";
    EXPECT_THAT(nas_.events(), EndsWith("SERVICE_STOP\n"));
}

TEST_F(EndToEnd, AStopWhileLiveFinishesTheUploadAndEndsWithALastPassThatOwesNothing)
{
    auto service = live_service();
    cloud_.fail({{"method", "POST"}, {"path", "changes"}, {"delay_ms", 500}});
    EXPECT_TRUE(nas_.becomes("SYNC_STATE_SYNCING")) << "while the feed is asked";
    EXPECT_TRUE(nas_.becomes("SYNC_STATE_UP_TO_DATE"));

    cloud_.fail({{"method", "POST"}, {"path", "^/nodes$"}, {"delay_ms", 1000}});
    std::string before = service->err();
    write_file(nas_.drive + "/late.txt", "l");
    ASSERT_TRUE(eventually([&] { return nas_.events().find("UPLOADING") != std::string::npos; }));
    EXPECT_EQ(nas_.status(), "SYNC_STATE_SYNCING");
    EXPECT_EQ(nas_.stop(*service), 0);
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
    ASSERT_TRUE(nas_.watches(*service, nas_.photos)) << service->err();
    EXPECT_EQ(nas_.stop(*service), 0);
    EXPECT_THAT(service->err(), HasSubstr("Failed to get default volume from account.conf\n"));
    EXPECT_EQ(tree_of(nas_.volume).back(), "Photos/for here.txt");
    EXPECT_EQ(tree_of(nas_.volume).size(), 3u);
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
