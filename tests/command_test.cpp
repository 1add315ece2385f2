#include "kxamazon/command.h"

#include <gmock/gmock.h>
#include <map>
#include <sstream>

#include "common/constants.h"
#include "kxamazon/acd_utils.h"
#include "support/cloud.h"
#include "support/support.h"

using namespace kxtest;
using nlohmann::json;
using std::string;

namespace
{

const std::map<string, int (*)(int, char**)> commands = {
    {"info", command_info},
    {"ls", command_ls},
    {"put", command_put},
    {"get", command_get},
    {"mkdir", command_mkdir},
    {"rm", command_rm},
    {"delta", command_delta},
    {"sync", command_sync},
    {"stat", command_stat},
    {"upload", command_upload},
    {"dump-json", command_dump_json},
};

struct answer_t {
    int rc;
    string log, shown;
};

// Calls the handler of a command line's first word, or another one with it.
answer_t call(const string& line, const string& handler = "")
{
    std::istringstream stream(line);
    std::vector<string> words{std::istream_iterator<string>(stream), {}};
    std::vector<char*> argv;
    for (string& word : words)
        argv.push_back(word.data());
    answer_t answer;
    auto run = [&] {
        answer.rc =
            commands.at(handler.empty() ? words[0] : handler)(static_cast<int>(argv.size()), argv.data());
    };
    answer.shown = output_of(1, [&] { answer.log = log_of(run, 1); });
    return answer;
}

} // namespace

struct command : testing::Test {
    command() { write_settings(); }
    ~command() override { _free_global(); }
};

TEST_F(command, ChecksItsWords)
{
    string folder = new_folder(), json_path = folder + "/j", small = folder + "/small", big = folder + "/big",
           none = folder + "/none";
    write_file(json_path, "[true]");
    write_file(small, string(150000, 'x'));
    write_file(big, string(150001, 'x'));
    const string two = "error: Cannot specify two remote_path\n", option = "error: Unknown option -",
                 uploaded = "error: Upload completed.\n";
    const std::tuple<string, int, string> table[] = {
        {"info", 1, ""},
        {"info x -z q", 0, ""},
        {"ls", -1, ""},
        {"ls /x", 500, ""},
        {"ls /x /y", -1, two},
        {"ls /x -long", -1, option + "long\n"},
        {"put " + small, 1, ""},
        {"put " + big + " -f /r -fast", 0, "error: File too big.\n" + uploaded},
        {"put " + small + " /r", 0, uploaded},
        {"put " + none + " /r", 3, "error: Cannot stat local_path=" + none + "\n"},
        {"put - " + small + " /r", -1, option + "\n"},
        {"put " + small + " /r f", -1, "error: Bad operand f\n"},
        {"put -f " + small, -1, "error: Need to specify local_path and remote_path\n"},
        {"get /r", 1, ""},
        {"get /r " + small, 0, "error: Download completed.\n"},
        {"get -r " + none, -1, "error: Stat failed local path: " + none + "\n"},
        {"mkdir /x", 0, ""},
        {"rm -r /x", -1, option + "r\n"},
        {"delta a b", -1, "error: Cannot specify two checkpoints\n"},
        {"sync a b", 0, "error: Unknown option 3\n"},
        {"stat", -1, ""},
        {"upload x", 0, ""},
        {"dump-json", -1, "error: Need to specify jsonfile_path\n"},
        {"dump-json a -x", -1, option + "x\n"},
        {"dump-json a b", -1, "error: Bad operand b\n"},
    };
    for (const auto& [line, rc, log] : table) {
        answer_t answer = call(line);
        EXPECT_EQ(answer.rc, rc) << line;
        EXPECT_EQ(answer.log, log) << line;
        EXPECT_EQ(answer.shown, "") << line;
    }
    EXPECT_EQ(call("dump-json " + json_path).shown,
              "=== dump json begin ===\nArray:" + json_path + " [\n  Boolean: 1\n]\n=== dump json end ===\n");
}

TEST_F(command, RefusesAWrongCallAndAMissingAccount)
{
    const std::tuple<string, int, int> rows[] = {
        {"info", 1, 2},   {"ls", -1, -2},    {"put", 1, 2},        {"mkdir", -1, -2},
        {"rm", -1, -2},   {"delta", -1, -2}, {"sync", -1, -2},     {"stat", -1, -2},
        {"upload", 1, 2}, {"get", 1, -1},    {"dump-json", 1, -1},
    };
    unlink(kx_settings_path);
    for (const auto& [name, wrong_call, not_provisioned] : rows) {
        EXPECT_EQ(call("other a b", name).rc, wrong_call) << name;
        answer_t answer = call(name + " a b");
        EXPECT_EQ(answer.rc, not_provisioned) << name;
        EXPECT_EQ(answer.log.find("error: Not provisioned\n") == string::npos, not_provisioned == -1);
    }
}

TEST_F(command, ShowsTheAccount)
{
    cloud cloud;
    set_cloud_url(cloud.url());
    auto answer = [&](const string& path, int status, const json& body) {
        cloud.fail({{"path", path}, {"status", status}, {"body", body.dump()}});
    };
    json total = {{"total", {{"bytes", 10}, {"count", 2}}}};
    answer("quota", 200, {{"quota", 5368709120}, {"available", 7}, {"lastCalculated", "now"}});
    answer("usage", 200, {{"other", total}, {"photo", total}, {"lastCalculated", "then"}});
    answer_t shown = call("info x -quota -u");
    EXPECT_EQ(shown.rc, 0);
    EXPECT_EQ(shown.shown, "quota: 5368709120 available: 7\nlast updated: now\n"
                           "other -- bytes: 10 count: 2\ndocs -- bytes: 0 count: 0\n"
                           "photo -- bytes: 10 count: 2\nvideo -- bytes: 0 count: 0\nlast updated: then\n");
    answer("quota", 404, {{"message", "gone"}});
    EXPECT_EQ(call("info -q").shown, "quota: 0 available: 0\nlast updated: \n");
    answer("info", 403, {{"message", "no"}});
    EXPECT_EQ(call("info -i").rc, 403);
    answer("info", 403, {{"message", "no"}});
    EXPECT_EQ(call("info -i -e").rc, 0); // the last one counts
}

TEST_F(command, DeltaPrintsTheFeedAsItCame)
{
    cloud cloud;
    set_cloud_url(cloud.url());
    const string feed = "{\"checkpoint\":\"c\",\"nodes\":[]}\n{\"end\":true}\n";
    for (auto [line, body] :
         {std::pair{"delta", R"({"checkpoint":""})"}, {"delta abc", R"({"checkpoint":"abc"})"}}) {
        cloud.fail({{"path", "/changes"}, {"status", 200}, {"body", feed}});
        answer_t answer = call(line);
        EXPECT_EQ(answer.rc, 0);
        EXPECT_EQ(answer.shown, feed);
        EXPECT_EQ(cloud.requests().back()["body"], body);
    }
    cloud.fail({{"path", "/changes"}, {"status", 400}, {"body", "{}"}});
    answer_t answer = call("delta");
    EXPECT_EQ(answer.rc, 400);
    EXPECT_EQ(answer.shown, "");
}
