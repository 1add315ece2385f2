#include "kxamazon/acd_utils.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <korvane.h>
#include <regex>
#include <sys/stat.h>
#include <thread>

#include "common/cipher_utils.h"
#include "common/constants.h"
#include "common/owners.h"
#include "common/secrets.h"
#include "common/utils.h"
#include "kxamazon/global.h"
#include "support/cloud.h"
#include "support/support.h"

using namespace kxtest;
using nlohmann::json;
using std::string;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace
{

string or_null(const char* text)
{
    return text ? text : "(null)";
}

struct settings : testing::Test {
    ~settings() override { _free_global(); }
};

struct direct_calls : settings {
    direct_calls() { cloud.connect(); }

    void answer(const string& path, int status, const string& body, int times = 1)
    {
        cloud.fail({{"path", path}, {"times", times}, {"status", status}, {"body", body}});
    }
    // Method and path of every request since the last call.
    std::vector<string> road()
    {
        std::vector<string> lines;
        for (const json& request : cloud.requests())
            lines.push_back(request["method"].get<string>() + " " + request["path"].get<string>());
        cloud.forget_requests();
        return lines;
    }

    kxtest::cloud cloud;
    const string endpoint_get = "GET /drive/v1/account/endpoint", token_post = "POST /auth/o2/token";
    const string urls = R"({"contentUrl":"http://c/","metadataUrl":"http://m/"})";
    const string new_tokens = R"({"access_token":"A2","refresh_token":"R2"})";
};

} // namespace

// ---- Time ----

TEST(Time, IsReadAsUtcInEveryZone)
{
    const std::pair<const char*, time_t> table[] = {
        {"1970-01-01T00:00:00Z", 0},
        {"2015-06-01T12:34:56.789Z", 1433162096},
        {"2024-02-29T00:00:00.000Z", 1709164800},
        {"2015-03-08T02:30:00Z", 1425781800}, // the hour that New York skips
        {"2015-11-01T01:30:00Z", 1446341400}, // and the one that it has twice
    };
    for (const char* zone : {"UTC0", "EST5EDT,M3.2.0,M11.1.0", "IST-5:30", "CET-1CEST,M3.5.0,M10.5.0/3"}) {
        setenv("TZ", zone, 1);
        tzset();
        for (const auto& [text, seconds] : table)
            EXPECT_EQ(acdtime_to_unix(text), seconds) << text << " " << zone;
    }
    unsetenv("TZ");
}

TEST(Time, SetsTheModificationTimeAndLeavesTheAccessTimeAtNow)
{
    string path = new_folder() + "/file";
    write_file(path, "x");
    EXPECT_EQ(log_of([&] { set_mtime(path.c_str(), 1433162096); }), "");
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 1433162096);
    EXPECT_NEAR(st.st_atime, time(nullptr), 2);
    EXPECT_EQ(log_of([] { set_mtime("/nowhere/file", 1); }), "error: Cannto utime(/nowhere/file). errno=2\n");
}

// ---- Account link ----

TEST_F(settings, DecideTheResultOfInit)
{
    const string linked = "state=authorized",
                 A = "AMAZONDRIVE_ACCESS_TOKEN=", R = "AMAZONDRIVE_REFRESH_TOKEN=", r = R + "r\n",
                 none = "(null)";
    struct {
        string provision, lines;
        int rc;
        string token, refresh;
    } table[] = {
        {linked, A + "a\n" + r, 0, "a", "r"},
        {"x=1&state=authorized&y=2", A + "'a b'\n" + R + "\"r\\$\"\n", 0, "a b", "r$"},
        {linked, "\n  \n" + A + "a1\n" + R + "r \t\n" + A + "a=2\n", 0, "a=2", "r"},
        {linked, A + "\n" + R + "no line end", 0, "", "no line end"},
        {"state=authorizedX", A + "a\n" + r, 1, none, none},
        {"state=Authorized", A + "a\n" + r, 1, none, none},
        {"status=authorized", A + "a\n" + r, 1, none, none},
        {linked, r, 3, none, none},
        {linked, " " + A + "a\nAMAZONDRIVE_ACCESS_TOKENS=a\n" + r, 3, none, none},
        {linked, A + "a\n" + A + "\"broken\n" + r, 3, none, none},
        {linked, A + "a\n", 4, none, none},
        {linked, A + "a\n" + R + "'broken\n", 4, none, none},
    };
    for (const auto& row : table) {
        _free_global();
        write_settings(row.lines, row.provision);
        EXPECT_EQ(acd_init(), row.rc) << row.provision << "\n" << row.lines; // no cloud answers it
        EXPECT_EQ(or_null(global.token), row.token) << row.lines;
        EXPECT_EQ(or_null(global.refresh), row.refresh) << row.lines;
    }
}

TEST_F(settings, WithoutAReadableProvisionAreNotLinked)
{
    write_settings();
    const string all = read_file(kx_settings_path), value = all.substr(all.find('='));
    unlink(kx_settings_path);
    EXPECT_EQ(acd_init(), 1);
    for (const string& text :
         {string(), "AMAZONDRIVE_PROVISION " + value, "XAMAZONDRIVE_PROVISION" + value,
          "AMAZONDRIVE_PROVISION=0" + value.substr(1), "AMAZONDRIVE_PROVISION=\n" + all}) {
        write_file(kx_settings_path, text);
        EXPECT_EQ(acd_init(), 1) << text.substr(0, 40);
    }
}

TEST_F(settings, ThatVanishAfterTheFirstReadGive2)
{
    write_settings();
    string text = read_file(kx_settings_path);
    unlink(kx_settings_path);
    ASSERT_EQ(mkfifo(kx_settings_path, 0600), 0);
    std::thread writer([&] {
        fd_owner pipe(open(kx_settings_path, O_WRONLY));
        unlink(kx_settings_path); // before the first line can be read
        EXPECT_GT(write(pipe.get(), text.data(), text.size()), 0);
    });
    EXPECT_EQ(acd_init(), 2);
    writer.join();
}

// ---- Discovery and renewal ----

TEST_F(direct_calls, InitDiscoversBothUrls)
{
    write_settings();
    answer("endpoint", 200, urls);
    cloud.forget_requests();
    EXPECT_EQ(acd_init(), 0);
    EXPECT_STREQ(global.content_url, "http://c/");
    EXPECT_STREQ(global.metadata_url, "http://m/");
    EXPECT_EQ(cloud.requests().back()["headers"]["Authorization"], "Bearer access");
    EXPECT_THAT(road(), ElementsAre(endpoint_get));
}

TEST_F(direct_calls, RenewalSendsTheRefreshTokenAndTakesBothNewOnes)
{
    string credential = string_ptr(decrypt_hexstr2str(kx_client_credential, 1)).get();
    string body = "grant_type=refresh_token&refresh_token=" + string(global.refresh) +
                  "&client_id=" + credential.replace(credential.find(':'), 1, "&client_secret=");
    answer("token", 200, new_tokens);
    answer("endpoint", 200, urls);
    cloud.forget_requests();
    EXPECT_EQ(log_of([] { EXPECT_EQ(acd_refresh_token(), 0); }), "debug: POST=" + body + "\n");
    EXPECT_STREQ(global.token, "A2");
    EXPECT_STREQ(global.refresh, "R2");
    EXPECT_STREQ(global.content_url, "http://c/");
    json requests = cloud.requests();
    ASSERT_THAT(road(), ElementsAre(token_post, endpoint_get));
    EXPECT_EQ(requests[0]["body"], body);
    EXPECT_EQ(requests[0]["headers"]["Content-Type"], "application/x-www-form-urlencoded");
    EXPECT_FALSE(requests[0]["headers"].contains("Authorization"));
    EXPECT_EQ(requests[1]["headers"]["Authorization"], "Bearer A2");
}

TEST_F(direct_calls, FailedRenewalIsQuietAndKeepsTheTokens)
{
    string token = global.token;
    for (auto [status, result] : {std::pair{400, 400}, {401, 401}, {200, 500}}) {
        answer("token", status, R"({"message":"no"})");
        EXPECT_THAT(log_of([r = result] { EXPECT_EQ(acd_refresh_token(), r); }), Not(HasSubstr("ACD Error")));
        EXPECT_EQ(global.token, token);
    }
}

TEST_F(direct_calls, RefusedTokenIsRenewedAndTheCallStillFails)
{
    cloud.expire_token();
    cloud.forget_requests();
    acd_quota_t quota = {1, 2, "x"};
    EXPECT_THAT(log_of([&] { EXPECT_EQ(acd_account_get_quota(&quota), 401); }),
                MatchesRegex("error: ACD Error: Client has passed in an invalid Auth token. .ERROR_MSG.: "
                             "[^\n]+\ndebug: Retrieving new token...\ndebug: POST=[^\n]+\n"));
    EXPECT_EQ(quota.quota, 1);
    EXPECT_THAT(road(), ElementsAre("GET /account/quota", token_post, endpoint_get));
    EXPECT_EQ(acd_account_get_quota(&quota), 0);
}

TEST_F(direct_calls, RefusedDiscoveryOfARenewalStartsNoOther)
{
    answer("token", 200, new_tokens, -1);
    answer("endpoint", 401, "{}", -1);
    cloud.forget_requests();
    EXPECT_EQ(acd_account_get_endpoint(), 401);
    EXPECT_THAT(road(), ElementsAre(endpoint_get, token_post, endpoint_get));
    EXPECT_STREQ(global.token, "A2");
    EXPECT_EQ(global.metadata_url, nullptr);
    EXPECT_EQ(acd_refresh_token(), 0); // a renewal of its own again
    EXPECT_THAT(road(), ElementsAre(token_post, endpoint_get));
}

TEST(HttpResponseHandler, ShowsTheStatusAndTheMessageOfTheBody)
{
    const std::tuple<int, const char*, string> table[] = {
        {409, R"({"message":"m","Message":"M"})", "error: ACD Error: Conflict. [ERROR_MSG]: m\n"},
        {403, R"({"Message":"M"})", "error: ACD Error: Forbidden. [ERROR_MSG]: M\n"},
        {504, R"({"message":1})", "error: ACD Error: Unknown http_code 504. [ERROR_MSG]: (null)\n"},
        {504, "<p>", "error: ACD Error: Unknown http_code 504. [ERROR_MSG]: (null)\n"},
        {401, nullptr, ""},
    };
    for (const auto& [status, body, log] : table)
        EXPECT_EQ(log_of([s = status, b = body] { EXPECT_EQ(_http_response_handler(s, b), s); }), log);
}

// ---- Direct calls ----

TEST_F(direct_calls, QuotaIsFilledFromTheReply)
{
    std::tuple<string, int, uint64_t, string> table[] = {
        {R"({"quota":5368709120,"lastCalculated":"2015"})", 0, 5368709120, "2015"},
        {R"({"quota":-1,"lastCalculated":")" + string(100, 'x') + "\"}", 0, 0, string(63, 'x')},
        {R"({"quota":1e30})", 0, UINT64_MAX, ""},
        {"[]", -1, 0, ""},
        {"", -1, 0, ""},
    };
    for (const auto& [body, rc, bytes, last] : table) {
        answer("account/quota", 200, body);
        acd_quota_t quota = {7, 7, "old"};
        EXPECT_EQ(acd_account_get_quota(&quota), rc) << body;
        EXPECT_EQ(quota.quota, bytes) << body;
        EXPECT_EQ(quota.last_calculated, last) << body;
        EXPECT_EQ(quota.available, 0);
    }
    EXPECT_EQ(acd_account_get_usage(nullptr), -1);
}

TEST_F(direct_calls, RepliesAndTracesAreShownAtHighVerbosity)
{
    global.debug_curl = 1;
    answer("account/info", 200, R"({"a":"b"})", -1);
    for (auto [verbosity, info_shown, download_traced] :
         {std::tuple{2, false, false}, {3, true, false}, {4, true, true}}) {
        string log, traced = "[curl]";
        string shown = output_of(1, [&, v = verbosity] { log = log_of([] { acd_account_get_info(); }, v); });
        EXPECT_EQ(shown.find("Object:account_info {\n  String:a b\n}") != string::npos, info_shown);
        EXPECT_EQ(log.find(traced) != string::npos, info_shown);
        log = log_of([] { acd_download_file("x", "/dev/null"); }, verbosity);
        EXPECT_EQ(log.find(traced) != string::npos, download_traced);
    }
    global.debug_curl = 0;
}

TEST_F(direct_calls, RawCallsSendTheirTextAndHandTheReplyOver)
{
    struct {
        std::function<int(char**)> call;
        string line, query, body;
    } table[] = {
        {[](char** text) { return acd_get_nodes_with_filter("isRoot:true", text); }, "GET /nodes",
         "filters=isRoot:true", ""},
        {[](char** text) { return acd_get_sync_changes("abc", text); }, "POST /changes", "",
         R"({"checkpoint":"abc"})"},
    };
    for (const auto& row : table) {
        answer("/(nodes|changes)$", 200, "{\n \"as\": 1}");
        cloud.forget_requests();
        string_ptr text;
        EXPECT_EQ(row.call(out(text)), 0);
        EXPECT_EQ(or_null(text.get()), "{\n \"as\": 1}");
        json request = cloud.requests().back();
        EXPECT_THAT(road(), ElementsAre(row.line));
        EXPECT_EQ(request["query"], row.query);
        EXPECT_EQ(request["body"], row.body);
        EXPECT_EQ(request["headers"]["Authorization"], string("Bearer ") + global.token);
        EXPECT_EQ(request["headers"].value("Accept-Encoding", ""), row.body.empty() ? "" : "gzip");
    }
}

TEST_F(direct_calls, FailedRawCallGivesNoText)
{
    answer("nodes", 404, R"({"message":"gone"})");
    string_ptr text;
    EXPECT_EQ(
        log_of([&] { EXPECT_EQ(acd_get_nodes_with_filter("x", out(text)), 404); }),
        "debug: acd_get_nodes_with_filter: x\nerror: ACD Error: Resource not found. [ERROR_MSG]: gone\n");
    EXPECT_EQ(text, nullptr);
    cloud.fail({{"path", "nodes"}, {"status", 200}, {"body", string(90000, 'x')}, {"cut", 50000}});
    EXPECT_EQ(acd_get_nodes_with_filter("x", out(text)), 500);
    EXPECT_EQ(text, nullptr);
}

TEST_F(direct_calls, DownloadWritesTheBodyOfWhateverAnswer)
{
    string path = new_folder() + "/file";
    write_file(path, "a longer old content");
    answer("nodes/id1/content", 200, "body", 2);
    EXPECT_EQ(acd_download_file("id1", path.c_str()), 0);
    EXPECT_EQ(read_file(path), "body");
    EXPECT_EQ(acd_download_file("id1", "/dev/full"), 500);
    answer("nodes/id1/content", 404, R"({"message":"gone"})");
    EXPECT_EQ(log_of([&] { EXPECT_EQ(acd_download_file("id1", path.c_str()), 404); }),
              "debug: acd_download_file: {node:id1 to local_path: " + path +
                  "}\nerror: acd_download_file: http_status = 404\n");
    EXPECT_EQ(read_file(path), R"({"message":"gone"})");
    EXPECT_THAT(log_of([] { EXPECT_EQ(acd_download_file("id1", "/nowhere/f"), 500); }),
                HasSubstr("error: Cannot open /nowhere/f.\n"));
}

TEST_F(direct_calls, UnknownBaseUrlIsAskedForOnceMore)
{
    _free_global();
    cloud.forget_requests();
    answer("endpoint", 503, "{}");
    EXPECT_THAT(
        log_of([] { EXPECT_EQ(acd_account_get_info(), 500); }),
        HasSubstr("error: ACD Error: Service Unavailable. [ERROR_MSG]: (null)\ndebug: CURL failed. "));
    EXPECT_THAT(road(), ElementsAre(endpoint_get));
    answer("endpoint", 200, R"({"metadataUrl":")" + cloud.url() + "/metadata/\"}");
    answer("account/info", 200, "{}");
    EXPECT_EQ(acd_account_get_info(), 0);
}

TEST(CopyCheckpoint, CutsAndTerminates)
{
    char text[8] = "#######";
    acd_copy_checkpoint(text, "abcdef", 4);
    EXPECT_EQ(string(text, 6), string("abc\0##", 6));
    acd_copy_checkpoint(text, nullptr, 4);
    acd_copy_checkpoint(text, "x", 0);
    EXPECT_STREQ(text, "abc");
}

#ifndef __SANITIZE_ADDRESS__ // which ends the program at such a size
TEST(ReceiveBuffer, IsEmptyAfterMemoryRanOut)
{
    rcvbuf reply = {0, nullptr};
    char piece[] = "abc";
    EXPECT_EQ(rcvfunc(piece, 1, 3, &reply), 3);
    EXPECT_EQ(rcvfunc(piece, 1, SIZE_MAX / 4, &reply), 0);
    EXPECT_EQ(reply.sz, 0);
    EXPECT_EQ(reply.buf, nullptr);
}
#endif

TEST(CurlTrace, CutsLongTextsAndTrailingSpace)
{
    string line = "HTTP/1.1 200\r\n", text(600, 'h');
    EXPECT_EQ(log_of([&] { dbgfunc(nullptr, CURLINFO_HEADER_OUT, line.data(), line.size(), nullptr); }),
              "debug: [curl]< HTTP/1.1 200\n");
    EXPECT_EQ(log_of([&] { dbgfunc(nullptr, CURLINFO_TEXT, text.data(), text.size(), nullptr); }),
              "debug: [curl]* " + string(511, 'h') + "\n");
}

// ---- Event log ----

TEST(EventLog, WritesOneRecordALine)
{
    EXPECT_EQ(add_log("DROPPED", nullptr), -1);
    string path = new_folder() + "/events", long_path(3000, 'p');
    file_ptr file(fopen(path.c_str(), "a"));
    global.log_fp = file.get();
    string before = std::to_string(time(nullptr));
    EXPECT_EQ(add_log("LOGMSG_AMAZONDRIVE_SERVICE_START", nullptr), 0);
    EXPECT_EQ(add_log("LOGMSG_AMAZONDRIVE_LOCAL_MOVE", "/a & <b>", "/\"c\"", "/d", nullptr, "/e", nullptr),
              0);
    EXPECT_EQ(add_log("T", long_path.c_str(), nullptr), 0);
    string after = std::to_string(time(nullptr));
    global.log_fp = nullptr;
    file.reset();

    string head =
        "<Log id=\"\" timestamp=\"([0-9]+)\" localized_ts=\"\" severity=\"\" category=\"\" message-tag=";
    std::smatch match;
    string text = read_file(path);
    ASSERT_TRUE(
        std::regex_match(text, match,
                         std::regex(head + "\"LOGMSG_AMAZONDRIVE_SERVICE_START\"><args/></Log>\n" + head +
                                    "\"LOGMSG_AMAZONDRIVE_LOCAL_MOVE\"><args item_1=\"/a & <b>\" "
                                    "item_2=\"/\"c\"\" item_3=\"/d\"/></Log>\n(" +
                                    head + "\"T\"><args item_1=\"p+)\n")))
        << text;
    EXPECT_EQ(match[3].length(), 2047);
    EXPECT_LE(before, match[1].str());
    EXPECT_GE(after, match[1].str());
}

TEST(EventLog, ShoutPushesWhatIsNoDebugMessage)
{
    std::tuple<unsigned, const char*, string> table[] = {
        {E_ERROR, nullptr, "error\" message-tag=\"TAG\" category=\"system\">"},
        {E_WARN, "x=\"1\"", "warning\" message-tag=\"TAG\" category=\"system\"><args x=\"1\"/>"},
        {E_INFO, "", "info\" message-tag=\"TAG\" category=\"system\"><args />"},
    };
    for (const auto& [level, args, text] : table) {
        event_push_last = {};
        shout(level, "TAG", args);
        EXPECT_EQ(event_push_last.message,
                  "<xs:add-s resource-type=\"Log\" resource-id=\"Log\"><Log severity=\"" + text +
                      "</Log></xs:add-s>");
        EXPECT_STREQ(event_push_last.source, "kxamazon");
        EXPECT_STREQ(event_push_last.target, "korvaned");
        shout(E_DEBUG, "TAG", args);
        EXPECT_EQ(event_push_last.calls, 1);
    }
}
