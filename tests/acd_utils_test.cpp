#include "kxamazon/acd_utils.h"

#include <gmock/gmock.h>
#include <korvane.h>
#include <regex>

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

// ---- Discovery and renewal ----

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

TEST_F(direct_calls, DownloadWritesTheBodyOfWhateverAnswer)
{
    string path = new_folder() + "/file";
    for (auto [status, rc] : {std::pair{200, 0}, {404, 404}}) {
        write_file(path, "a longer old content");
        answer("nodes/id1/content", status, "body");
        EXPECT_EQ(acd_download_file("id1", path.c_str()), rc);
        EXPECT_EQ(read_file(path), "body");
    }
    answer("nodes/id1/content", 200, "body");
    EXPECT_EQ(acd_download_file("id1", "/dev/full"), 500);
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
    for (unsigned level : {E_WARN, E_DEBUG})
        shout(level, "TAG", "x=\"1\"");
    EXPECT_STREQ(event_push_last.message,
                 "<xs:add-s resource-type=\"Log\" resource-id=\"Log\"><Log severity=\"warning\" "
                 "message-tag=\"TAG\" category=\"system\"><args x=\"1\"/></Log></xs:add-s>");
    EXPECT_EQ(string(event_push_last.source) + "|" + event_push_last.target, "kxamazon|korvaned");
    EXPECT_EQ(event_push_last.calls, 1);
}
