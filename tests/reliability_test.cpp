// The service when its cloud fails, when it is killed, when the local disk refuses and when too much happens
// at once.
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <regex>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/constants.h"
#include "kxamazon/acd_fs_io.h"
#include "kxamazon/acd_sync_downsync.h"
#include "kxamazon/global.h"
#include "support/appliance.h"
#include "support/sync_test.h"

namespace fs = std::filesystem;
using namespace kxtest;
using nlohmann::json;
using testing::HasSubstr;

namespace
{

class Reliability : public testing::Test
{
protected:
    // A change in the cloud by another client, newer than what is there by whole seconds.
    void change(const std::string& path, const std::string& content)
    {
        cloud_.set_clock_offset(clock_offset_ += 10);
        cloud_.put(path, content);
    }
    int uploads() const { return cloud_.count("PUT", "content$") + cloud_.count("POST", "^/nodes$"); }

    cloud cloud_;
    appliance nas_{cloud_};
    int clock_offset_ = 0;
};

const std::string whole(300000, 'w');

json on_content(json fault)
{
    fault.update({{"method", "GET"}, {"path", "/content$"}});
    return fault;
}

} // namespace

// ---- Interrupted downloads ----

struct interruption_t {
    const char* name;
    json fault;   // of the download
    bool is_kill; // else the fault itself ends the process
};

void PrintTo(const interruption_t& row, std::ostream* out)
{
    *out << row.name;
}

class Interrupted : public Reliability, public testing::WithParamInterface<interruption_t>
{
protected:
    // A start that is cut in the download of /f.txt.
    void cut_short()
    {
        const interruption_t& how = GetParam();
        cloud_.fail(on_content(how.fault));
        auto service = nas_.start({"KXTEST_RETRY_SEC=600"});
        if (how.is_kill) {
            ASSERT_TRUE(eventually([&] { return service->err().find("acd io ", 0) != std::string::npos; }));
            service->signal(SIGKILL);
        }
        EXPECT_EQ(service->wait(), how.is_kill ? 128 + SIGKILL : 1) << service->err();
        ASSERT_NE(read_file(file_), whole);
        cloud_.clear_faults();
        cloud_.forget_requests();
    }
    void start_again(const std::string& content)
    {
        auto service = nas_.start();
        ASSERT_TRUE(nas_.is_live(*service)) << service->err();
        EXPECT_EQ(read_file(file_), content);
        EXPECT_EQ(nas_.stop(*service), 0);
        EXPECT_EQ(cloud_.get("/f.txt").body, content);
    }

    std::string file_ = nas_.drive + "/f.txt";
};

TEST_P(Interrupted, IsMadeAnewAndNeverSentUp)
{
    cloud_.put("/f.txt", whole);
    cut_short(); // in the full pass
    start_again(whole);
    EXPECT_EQ(uploads(), 0);

    cloud_.forget_requests();
    change("/f.txt", whole + "2");
    cut_short(); // in the feed
    start_again(whole + "2");
    EXPECT_EQ(uploads(), 0);
}

TEST_P(Interrupted, LeavesWhatTheOwnerWritesThenToTheOwner)
{
    cloud_.put("/f.txt", whole);
    cut_short();
    write_file(file_, "the owner's", time(nullptr) + 5);
    start_again("the owner's");
}

INSTANTIATE_TEST_SUITE_P(
    Downloads, Interrupted,
    testing::Values(interruption_t{"killed_half_way", {{"cut", 100000}, {"reset", true}}, true},
                    interruption_t{"killed_after_an_error", {{"status", 503}, {"body", "error"}}, true},
                    interruption_t{"fatal_half_way", {{"cut", 100000}}, false},
                    interruption_t{"refused", {{"status", 403}, {"body", "error"}}, false}),
    [](const auto& row) { return row.param.name; });

// ---- A cloud that fails ----

struct outage_t {
    const char* name;
    json requests; // that fail until the outage is over
};

void PrintTo(const outage_t& row, std::ostream* out)
{
    *out << row.name;
}

class Outage : public Reliability, public testing::WithParamInterface<outage_t>
{
};

TEST_P(Outage, AStopEndsItInOrderAndTheNextStartGoesOn)
{
    cloud_.put("/folder/down.txt", "down");
    write_file(nas_.drive + "/up.txt", "up");
    json fault = GetParam().requests;
    fault.update({{"status", 500}, {"times", -1}});
    cloud_.fail(fault);
    auto service = nas_.start({"KXTEST_RETRY_SEC=1"});
    ASSERT_TRUE(eventually(
        [&] { return service->err().find("acd io status = 500, retry = 1\n") != std::string::npos; }));
    service->signal(SIGUSR1);
    EXPECT_EQ(service->wait(2.5), 0) << "within one interval";
    EXPECT_EQ(service->err().find("Unhandled"), std::string::npos) << service->err();
    EXPECT_EQ(nas_.status(), "SYNC_STATE_UP_TO_DATE");
    EXPECT_THAT(nas_.events(), testing::EndsWith("SERVICE_STOP\n"));

    cloud_.clear_faults();
    service = nas_.start();
    ASSERT_TRUE(nas_.is_live(*service)) << service->err();
    EXPECT_EQ(nas_.stop(*service), 0);
    EXPECT_EQ(read_file(nas_.drive + "/folder/down.txt"), "down");
    EXPECT_EQ(cloud_.get("/up.txt").body, "up");
}

INSTANTIATE_TEST_SUITE_P(Cloud, Outage,
                         testing::Values(outage_t{"of_the_quota", {{"path", "quota$"}}},
                                         outage_t{"of_the_checkpoint", {{"path", "changes$"}}},
                                         outage_t{"of_listings", {{"path", "children$"}}},
                                         outage_t{"of_downloads", {{"method", "GET"}, {"path", "content$"}}},
                                         outage_t{"of_the_feed", {{"path", "changes$"}, {"skip", 2}}},
                                         outage_t{"of_uploads", {{"method", "POST"}, {"path", "^/nodes$"}}}),
                         [](const auto& row) { return row.param.name; });

// A folder that comes from outside every pair is brought down whole, once, whether the feed ever told of what
// is in it or not. A stop or a crash half way must not count as that once.
TEST_F(Reliability, AFolderThatCameDownHalfIsGoneOnWithByTheNextStart)
{
    auto run = [this](std::vector<std::string> env, int signal, const char* line) {
        auto service = nas_.start(std::move(env));
        ASSERT_TRUE(eventually([&] { return service->err().find(line) != std::string::npos; }))
            << service->err();
        service->signal(signal);
        EXPECT_EQ(service->wait(), signal == SIGKILL ? 128 + SIGKILL : 0);
    };
    const std::string is_live = "DidAdd: add_watch(" + nas_.drive + ") ";
    auto fill = [this](const std::string& folder) {
        for (const char* file : {"/a.txt", "/b.txt", "/sub/c.txt"})
            cloud_.put("/Korvane_other/" + folder + file, file);
    };
    fill("unknown");
    fill("unknown, killed");
    run({}, SIGUSR1, is_live.c_str());
    fill("known");
    run({}, SIGUSR1, is_live.c_str());
    for (const auto& [name, signal] :
         {std::pair{"known", SIGUSR1}, {"unknown", SIGUSR1}, {"unknown, killed", SIGKILL}}) {
        SCOPED_TRACE(name);
        cloud_.move(std::string("/Korvane_other/") + name, "/");
        cloud_.fail(on_content({{"status", 500}, {"times", -1}, {"skip", 1}}));
        run({"KXTEST_RETRY_SEC=1"}, signal, "acd io status = 500");
        EXPECT_EQ(read_file(nas_.drive + "/" + name + "/sub/c.txt"), "");
        cloud_.clear_faults();
        run({}, SIGUSR1, is_live.c_str());
        for (const char* file : {"/a.txt", "/b.txt", "/sub/c.txt"})
            EXPECT_EQ(read_file(nas_.drive + "/" + name + file), file);
    }
}

TEST_F(Reliability, HoursOfFailuresCostOneLineAnAttemptAndNothingElse)
{
    cloud_.connect();
    auto open_files = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
    auto ask = [&](json fault, int times) {
        fault["times"] = times;
        cloud_.fail(fault);
        reply_t reply;
        return log_of([&] { EXPECT_EQ(acd_io_get_account_quota(&reply), ACD_FS_ERR_OK); }, 2);
    };
    const std::pair<json, int> faults[] = {
        {{{"status", 500}, {"body", {{"message", "m"}}}}, 2 * 2000}, // the status and its message
        {{{"drop", true}, {"reset", true}}, 2000 - 1},               // libcurl repeats the first by itself
    };
    for (const auto& [fault, lines] : faults) {
        ask(fault, 20);
        const size_t memory = mallinfo2().uordblks;
        const auto files = open_files();
        EXPECT_EQ(std::ranges::count(ask(fault, 2000), '\n'), lines);
        EXPECT_LE(mallinfo2().uordblks, memory + 4096);
        EXPECT_EQ(open_files(), files);
    }
}

// ---- A local disk that refuses ----

// A file system in memory, seen by this program and those that it starts alone.
class small_disk
{
public:
    small_disk(const std::string& path, const char* options, unsigned long flags = 0) : path_(path)
    {
        is_there_ = unshare(CLONE_NEWNS) == 0 &&
                    mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0 &&
                    mount("none", path_.c_str(), "tmpfs", flags, options) == 0;
    }
    ~small_disk()
    {
        if (is_there_)
            umount2(path_.c_str(), MNT_DETACH);
    }
    small_disk(const small_disk&) = delete;
    small_disk& operator=(const small_disk&) = delete;

    bool is_there() const { return is_there_; }
    bool grow(const char* options) const
    {
        return mount("none", path_.c_str(), "tmpfs", MS_REMOUNT, options) == 0;
    }

private:
    std::string path_;
    bool is_there_;
};

TEST_F(Reliability, ADownloadThatDoesNotFitEndsTheProcessAndArrivesOnceThereIsRoom)
{
    const small_disk disk(nas_.drive, "size=256k");
    if (!disk.is_there())
        GTEST_SKIP() << "no mount is allowed";
    const std::string content(600000, 'f');
    const auto ends = [&] {
        auto service = nas_.start();
        EXPECT_EQ(service->wait(), 1) << service->err();
        EXPECT_EQ(cloud_.get("/f.txt").body, content);
    };
    const auto arrives = [&] {
        auto service = nas_.start();
        ASSERT_TRUE(nas_.is_live(*service)) << service->err();
        EXPECT_EQ(nas_.stop(*service), 0);
        EXPECT_EQ(read_file(nas_.drive + "/f.txt"), cloud_.get("/f.txt").body);
    };
    cloud_.put("/f.txt", "fits");
    arrives();
    cloud_.forget_requests();
    change("/f.txt", content);
    ends();
    ends();
    ASSERT_TRUE(disk.grow("size=2m"));
    arrives();
    EXPECT_EQ(cloud_.get("/f.txt").body, content);
    EXPECT_EQ(uploads(), 0);
}

class refusing_disk : public sync_test
{
};

TEST_F(refusing_disk, that_takes_no_folder_costs_a_line_and_the_pass_goes_on)
{
    const std::string drive = base_ + "/D";
    fs::create_directories(drive + "/locked");
    const small_disk disk(drive + "/locked", "size=256k", MS_RDONLY);
    if (!disk.is_there())
        GTEST_SKIP() << "no mount is allowed";
    cloud_.mkdir("/locked/new");
    cloud_.put("/locked/f", "f");
    cloud_.put("/z/f", "content");
    const std::string text =
        log([&] { EXPECT_EQ(acd_downsync_cloud_drive_path("/", "/", drive.c_str()), 0); }, 0);
    for (const char* line : {"op_downsync_add_node: Failed to create dir /locked/new ---> D/locked/new\n",
                             "Cannot open D/locked/f.\n"})
        EXPECT_THAT(text, HasSubstr(std::string("error: ") + line));
    EXPECT_EQ(read_file(drive + "/z/f"), "content");
}

TEST_F(refusing_disk, costs_one_node_and_the_pass_goes_on)
{
    for (const char* path : {"/a is a folder/f", "/b", "/c/f", "/d", "/e"})
        cloud_.put(path, "content");
    cloud_.mkdir("/b2");
    const std::string drive = base_ + "/D";
    write_file(drive + "/a is a folder", "a file", 1000);
    fs::create_directories(drive + "/b/inside");
    fs::last_write_time(drive + "/b", fs::file_time_type::min() + std::chrono::hours(24 * 365 * 250));
    write_file(drive + "/b2", "a file", 1000);
    fs::create_directory(drive + "/c");
    ASSERT_EQ(mkfifo((drive + "/d").c_str(), 0600), 0);
    const timespec old[] = {{1000, 0}, {1000, 0}};
    for (const char* path : {"/b", "/d"})
        ASSERT_EQ(utimensat(AT_FDCWD, (drive + path).c_str(), old, 0), 0);
    const std::string text =
        log([&] { EXPECT_EQ(acd_downsync_cloud_drive_path("/", "/", drive.c_str()), 0); }, 0);
    for (const char* path : {"D/a is a folder/f", "D/b", "D/d"})
        EXPECT_THAT(text, HasSubstr("error: Cannot open " + std::string(path) + ".\n"));
    EXPECT_EQ(read_file(drive + "/a is a folder"), "a file");
    EXPECT_EQ(read_file(drive + "/c/f"), "content");
    EXPECT_EQ(read_file(drive + "/e"), "content");
}

// ---- More events than the queue holds ----

TEST_F(Reliability, WhatAnOverflowLosesGoesUpAtTheNextStart)
{
    auto service = nas_.start();
    ASSERT_TRUE(nas_.is_live(*service)) << service->err();
    int limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    if (limit > 100000)
        GTEST_SKIP() << "the queue takes too long to fill";
    service->signal(SIGSTOP);
    for (int i = 0; i <= limit; i++)
        fs::create_symlink("nowhere", nas_.drive + "/" + std::to_string(i));
    write_file(nas_.drive + "/lost/f.txt", "lost");
    service->signal(SIGCONT);
    ASSERT_TRUE(eventually(
        [&] { return service->err().find("inotify event Q overflow.\n") != std::string::npos; }, 60));
    EXPECT_EQ(nas_.stop(*service), 0);
    EXPECT_FALSE(cloud_.has("/lost"));

    service = nas_.start();
    ASSERT_TRUE(nas_.is_live(*service)) << service->err();
    EXPECT_EQ(nas_.stop(*service), 0);
    EXPECT_EQ(cloud_.get("/lost/f.txt").body, "lost");
}

// ---- Secrets ----

TEST_F(Reliability, NoTokenOrSecretIsInTheLogOrTheEventLog)
{
    std::string settings = read_file(nas_.root + "/etc/default/services");
    nas_.settings(
        settings.substr(0, settings.find('\n')) +
        "\nAMAZONDRIVE_ACCESS_TOKEN=first-access-token\nAMAZONDRIVE_REFRESH_TOKEN=first-refresh-token\n");
    cloud_.put("/down.txt", "down");
    write_file(nas_.drive + "/up.txt", "up");
    for (const char* path :
         {"account/endpoint$", "o2/token$", "quota$", "changes$", "children$", "content$", "nodes$"})
        cloud_.fail({{"path", path}, {"status", 401}, {"body", {{"message", "no"}}}});
    cloud_.fail({{"method", "POST"}, {"path", "^/nodes$"}, {"status", 409}, {"skip", 1}});
    auto running = nas_.start({}, "2");
    process& service = *running;
    EXPECT_TRUE(eventually([&] { return service.err().find("Start live syncing.") != std::string::npos; }))
        << service.err();
    EXPECT_EQ(nas_.stop(service), 0);

    const std::string written =
        service.err() + service.out() + read_file(nas_.root + "/var/log/brisal/amazoncd.log");
    std::set<std::string> secrets = {"first-access-token", "first-refresh-token", "client_secret"};
    const std::regex field("(Bearer |token=|client_id=|client_secret=)([^&]{4,})");
    for (const json& request : cloud_.requests()) {
        const std::string text = request["headers"].value("Authorization", "") + "&" +
                                 (request["path"] == "/auth/o2/token" ? request.value("body", "") : "");
        for (std::sregex_iterator found(text.begin(), text.end(), field), end; found != end; ++found)
            secrets.insert(found->str(2));
    }
    EXPECT_GT(secrets.size(), 5u) << "the renewed ones too";
    for (const std::string& secret : secrets)
        EXPECT_EQ(written.find(secret), std::string::npos) << secret;
}
