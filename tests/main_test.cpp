// The program as it is started: options, tool commands, exit statuses and what it prints.
#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>

#include "support/process.h"
#include "support/support.h"

using namespace kxtest;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

// An appliance without settings: nothing that needs an account gets further than that.
class program_entry : public testing::Test
{
protected:
    program_entry() { write_file(root + "/var/log/brisal/amazoncd.log", ""); }

    std::vector<std::string> command_line(const std::string& words) const
    {
        std::vector<std::string> line = {program("kxamazon")};
        std::istringstream rest(words);
        for (std::string word; rest >> word;)
            line.push_back(word);
        return line;
    }
    run_result_t run_with(const std::string& words) const { return run(command_line(words), environment); }

    const std::string root = new_folder("appliance");
    const std::vector<std::string> environment = {"KXTEST_SYSROOT=" + root};
};

} // namespace

TEST_F(program_entry, wrong_words_get_the_help_text)
{
    std::string prog = "  # " + program("kxamazon");
    std::string usage_lines = "\n\nUsage:\n" + prog + " -h                           ... show this help\n" +
                              prog + " [-v 0..3]                    ... start service\n";
    for (const char* words : {"-h", "foo", "-d foo", "-v", "-v -d", "-verbose 2 -h", "-x -V - -h", "--",
                              "-- nosuch", "-- LS /x", "-- put a"}) {
        auto [status, out, err] = run_with(words);
        EXPECT_EQ(status, 1) << words;
        EXPECT_THAT(out, StartsWith("AmazonCloudDrive utitlity and sync server\n")) << words;
        EXPECT_THAT(out, testing::EndsWith(usage_lines)) << words;
        EXPECT_EQ(err, "") << words;
    }
}

TEST_F(program_entry, the_service_wants_systemd_or_d)
{
    for (const char* words : {"", "-v 3", "-x"}) {
        auto [status, out, err] = run_with(words);
        EXPECT_EQ(status, 1);
        EXPECT_THAT(out, StartsWith("This program should be started by systemd.\nAmazonCloudDrive utitlity"));
    }
    for (const char* words : {"-d", "-x -d", "-v 3x -debug"}) {
        auto [status, out, err] = run_with(words);
        EXPECT_EQ(status, 255) << words;
        EXPECT_EQ(out, "");
        EXPECT_THAT(err, HasSubstr("(error) Not provisioned\n"));
        EXPECT_EQ(err.find("(info) kxamazon service started.\n") != err.npos, words[1] == 'v');
    }
}

TEST_F(program_entry, commands_get_their_words_and_give_the_status)
{
    write_file(root + "/a.json", R"({"a":true})");
    // 1: enough words for the table, not for the command. 2 and 254: not provisioned.
    const std::pair<std::string, int> cases[] = {
        {"-- info", 1},
        {"-- ls /x", 254},
        {"-- put a /r", 2},
        {"-v 0 -V -- get /r " + root, 0},
        {"--x get /r /nowhere", 255},
        {"-- dump-json -d", 255},
    };
    for (const auto& [words, expected] : cases) {
        auto [status, out, err] = run_with(words);
        EXPECT_EQ(status, expected) << words;
        EXPECT_EQ(err.find("(error) Not provisioned\n") != err.npos, status == 2 || status == 254) << words;
        EXPECT_EQ(out, "") << words;
    }
    EXPECT_THAT(run_with("-- dump-json " + root + "/a.json").out, HasSubstr("Boolean:a 1\n"));
}

TEST_F(program_entry, without_its_event_log_it_ends_at_once_and_quietly)
{
    std::filesystem::remove_all(root + "/var");
    for (const char* words : {"-d", "-h"}) {
        auto [status, out, err] = run_with(words);
        EXPECT_EQ(status, 0) << words;
        EXPECT_EQ(out + err, "") << words;
    }
}

TEST_F(program_entry, the_service_takes_the_stop_signal_and_may_dump_core)
{
    // Reading the settings waits until somebody writes them.
    std::string settings = root + "/etc/default/services";
    std::filesystem::create_directories(root + "/etc/default");
    ASSERT_EQ(mkfifo(settings.c_str(), 0600), 0);
    rlimit before;
    getrlimit(RLIMIT_CORE, &before);
    rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_CORE, &none);
    process service(command_line("-d -v 2"), environment);
    setrlimit(RLIMIT_CORE, &before);

    ASSERT_TRUE(eventually([&] { return service.err().find("service started") != std::string::npos; }));
    EXPECT_THAT(read_file("/proc/" + std::to_string(service.pid()) + "/limits"),
                testing::ContainsRegex("Max core file size +unlimited +unlimited"));
    service.signal(SIGUSR1);
    service.signal(SIGUSR1);
    EXPECT_EQ(service.wait(0.1), -1);
    write_file(settings, "");
    EXPECT_EQ(service.wait(), 255);
}
