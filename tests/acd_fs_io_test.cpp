#include "kxamazon/acd_fs_io.h"

#include <gmock/gmock.h>
#include <regex>
#include <set>

#include "common/owners.h"
#include "common/utils.h"
#include "kxamazon/global.h"
#include "support/cloud.h"
#include "support/support.h"

using kxtest::log_of;
using nlohmann::json;
using std::string;
using testing::HasSubstr;

namespace
{

int occurrences(const string& text, const string& part)
{
    int count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != string::npos; at += part.size())
        ++count;
    return count;
}

// Counts in the log, since an attempt that fails early leaves no request.
int attempts(const string& log)
{
    return occurrences(log, "Starting io read write, retry = ");
}

string text(const json& value)
{
    return value.get<string>();
}

// A form's body as sent, with B for the boundary.
string without_boundary(const json& request)
{
    string type = text(request["headers"]["Content-Type"]), prefix = "multipart/form-data; boundary=";
    EXPECT_THAT(type, testing::StartsWith(prefix));
    return std::regex_replace(text(request["body"]), std::regex("--" + type.substr(prefix.size())), "--B");
}

const string content_part = "--B\r\nContent-Disposition: form-data; name=\"content\"; filename=\"a.bin\"\r\n"
                            "Content-Type: application/octet-stream\r\n\r\ncontent\r\n--B--\r\n";

// The service, an engine that gives up after its first repetition, and a folder for local files.
class acd_fs_io : public testing::Test
{
protected:
    acd_fs_io()
    {
        cloud.connect();
        acd_io_init_session()->retry = 1;
    }
    ~acd_fs_io() override { acd_io_init_session()->retry = 0; }

    acd_io_rcvbuf_t* fresh()
    {
        std::free(std::exchange(reply.buf, nullptr));
        return &reply;
    }

    // One request for the node x; the log of it.
    string get_x()
    {
        return log_of([&] { rc = acd_io_get_node_metadata("x", fresh()); });
    }

    // For the drive's next requests; discovery and renewal work on.
    void answer(int status, const string& body, int times = 1)
    {
        cloud.fail({{"path", "^/(metadata|content)/"}, {"times", times}, {"status", status}, {"body", body}});
    }

    json last_request() { return cloud.requests().back(); }
    string id_of(const string& path) { return cloud.stat(path)["id"]; }

    string download(const char* id)
    {
        file_ptr fp(std::fopen(local.c_str(), "w"));
        string log = log_of([&] { rc = acd_io_download_file(id, fp.get()); });
        fp.reset();
        return log;
    }

    kxtest::cloud cloud;
    reply_t reply;
    acd_fs_error_t rc = ACD_FS_ERR_OK;
    string local = kxtest::new_folder() + "/a.bin";
};

} // namespace

TEST_F(acd_fs_io, acts_on_every_status)
{
    struct {
        int status, attempts, result;
        bool known_action, known_result;
    } rows[] = {
        {200, 1, 0, true, true},   {201, 1, 0, true, true},   {400, 1, 1, true, true},
        {401, 2, 5, true, true},   {403, 1, 3, true, true},   {404, 1, 4, true, true},
        {405, 1, 1, true, true},   {409, 1, 6, true, true},   {411, 1, 1, true, true},
        {412, 1, 1, true, false},  {429, 2, 100, true, true}, {500, 2, 100, true, true},
        {503, 2, 100, true, true}, {504, 2, 2, true, true},   {202, 1, 1, false, false},
        {204, 1, 1, false, false}, {302, 1, 1, false, false}, {502, 1, 1, false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.status);
        string status = std::to_string(row.status);
        string name = row.status % 2 ? "message" : "Message";
        answer(row.status, row.status == 204 ? "" : "{\"" + name + "\":\"why\"}", row.attempts);
        cloud.forget_requests();
        string log = get_x();
        EXPECT_EQ(rc, row.result);
        EXPECT_EQ(cloud.count("GET", "/nodes/x"), row.attempts);
        EXPECT_EQ(reply.buf == nullptr, row.result != 0);
        EXPECT_EQ(occurrences(log, "ACD Error " + status + ": [ERROR_MSG]: why\n"),
                  row.result && row.status != 204 ? row.attempts : 0);
        EXPECT_EQ(occurrences(log, "ACD Error: Unknown status_code " + status + "."), !row.known_action);
        EXPECT_EQ(occurrences(log, "Unhandled status code " + status + "."), !row.known_result);
        EXPECT_EQ(occurrences(log, "__acd_io_read_buffer: acd io read buffer error! url = "),
                  row.result != 0);
    }
    EXPECT_EXIT((g_nosystemd = 1, __acd_io_get_http_error_action(200)), testing::ExitedWithCode(1),
                "Should NOT pass in 200");
}

TEST_F(acd_fs_io, repeats_transient_transfer_errors_only)
{
    const std::set<int> transient = {5, 6, 7, 28, 35, 55, 56, 81};
    for (int code = 1; code < CURL_LAST; ++code)
        EXPECT_EQ(__acd_io_get_curl_error_action(static_cast<CURLcode>(code)), transient.count(code)) << code;

    struct {
        const char* url; // null: the service with the fault
        json fault;
        int code, attempts;
    } rows[] = {
        {"http://127.0.0.1:1/", {}, 7, 2},
        {"http://no-such-host.invalid/", {}, 6, 2},
        {"nosuch://host/", {}, 1, 1},
        {"", {}, 3, 1},
        {nullptr, {{"reset", true}, {"drop", true}, {"times", 2}}, 56, 2},
        {nullptr, {{"drop", true}}, 52, 1},
        {nullptr, {{"status", 200}, {"body", "0123456789"}, {"cut", 4}}, 18, 1},
        {nullptr, {{"raw", "no HTTP\r\n\r\n"}}, 1, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.url ? row.url : row.fault.dump());
        if (!row.url)
            cloud.fail(row.fault);
        string url = row.url ? row.url : string(global.metadata_url) + "nodes/x";
        string log = log_of([&] { rc = __acd_io_read_buffer(url.c_str(), nullptr, &reply); });
        EXPECT_EQ(rc, ACD_FS_IO_ERR_READ_WRITE_ERROR);
        EXPECT_EQ(attempts(log), row.attempts);
        EXPECT_THAT(log, HasSubstr("acd io read write error. " + std::to_string(row.code) + ", "));
        EXPECT_EQ(reply.buf, nullptr);
    }
}

TEST_F(acd_fs_io, sends_each_operation_as_the_service_reads_it)
{
    string token(2000, 't'), cut = "/metadata/nodes/P/children?startToken=";
    cut += token.substr(0, 1022 - cloud.url().size() - cut.size());
    answer(200, "{}", -1);
    acd_io_get_children_nodes("P", nullptr, nullptr, fresh());
    acd_io_get_children_nodes("P", "T", nullptr, fresh());
    acd_io_get_children_nodes("P", nullptr, "F", fresh());
    acd_io_get_children_nodes("P", "T", "F", fresh());
    acd_io_get_children_nodes("P", token.c_str(), "F", fresh());
    acd_io_get_child_node("P", "a b&\xC3\xA4-._~%", fresh());
    acd_io_get_node_with_filter("isRoot:true", fresh());
    acd_io_create_folder("P", "a \"b\"", fresh());
    acd_io_get_node_metadata("N", fresh());
    acd_io_patch_node("N", "new", fresh());
    acd_io_move_node("N", "NEW", "OLD", fresh());
    acd_io_trash_node("N", fresh());
    acd_io_get_changes("C", 200, 200, fresh());
    acd_io_get_account_quota(fresh());
    EXPECT_EQ(acd_io_get_changes("C", 100, 200, &reply), ACD_FS_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(acd_io_get_child_node("P", nullptr, &reply), ACD_FS_ERR_INVALID_ARGUMENTS);
    EXPECT_EQ(acd_io_trash_node("N", nullptr), ACD_FS_ERR_INVALID_ARGUMENTS);

    std::vector<string> sent;
    for (json& request : cloud.requests()) {
        json headers = request["headers"];
        EXPECT_EQ(headers["Accept-Encoding"], "gzip");
        EXPECT_EQ(headers.size(), text(request["body"]).empty() ? 4 : 6) << headers;
        sent.push_back(text(request["method"]) + " " + text(request["target"]) + text(request["body"]));
    }
    const string changes = R"({"checkpoint": "C","includePurged": "false","chunkSize": 200,"maxNodes": 200})";
    EXPECT_THAT(sent, testing::ElementsAre(
                          "GET /metadata/nodes/P/children", "GET /metadata/nodes/P/children?startToken=T",
                          "GET /metadata/nodes/P/children?filters=F",
                          "GET /metadata/nodes/P/children?startToken=T&filters=F", "GET " + cut,
                          "GET /metadata/nodes/P/children?filters=name:a%20b%26%C3%A4-._~%25",
                          "GET /metadata/nodes?filters=isRoot:true",
                          R"(POST /metadata/nodes{"name": "a "b"","kind": "FOLDER","parents": ["P"]})",
                          "GET /metadata/nodes/N", R"(PATCH /metadata/nodes/N{"name": "new"})",
                          R"(POST /metadata/nodes/NEW/children{"fromParent": "OLD","childId": "N"})",
                          "PUT /metadata/trash/N", "POST /metadata/changes" + changes,
                          "GET /metadata/account/quota"));
}

TEST_F(acd_fs_io, uploads_as_a_form_and_again_from_the_start_after_an_error)
{
    kxtest::write_file(local, "content");
    string root = id_of("/");
    answer(503, "");
    ASSERT_EQ(acd_io_upload_file(root.c_str(), "b.bin", local.c_str(), fresh()), ACD_FS_ERR_OK);
    string id = id_of("/b.bin");
    ASSERT_EQ(acd_io_overwrite_file(id.c_str(), local.c_str(), fresh()), ACD_FS_ERR_OK);
    EXPECT_EQ(cloud.get("/b.bin").body, "content");

    json requests = cloud.requests();
    EXPECT_EQ(requests[1]["method"], "POST");
    EXPECT_EQ(requests[1]["target"], "/content/nodes?suppress=deduplication");
    EXPECT_EQ(without_boundary(requests[1]),
              "--B\r\nContent-Disposition: form-data; name=\"metadata\"\r\n\r\n"
              R"({"name": "b.bin", "kind": "FILE", "parents": [")" +
                  root + "\"]}\r\n" + content_part);
    EXPECT_EQ(requests[2]["method"], "PUT");
    EXPECT_EQ(requests[2]["target"], "/content/nodes/" + id + "/content");
    EXPECT_EQ(without_boundary(requests[2]), content_part);

    string big;
    for (unsigned i = 0; big.size() < 3 << 20; ++i) // libcurl first asks whether the service wants it
        big += std::to_string(i * 2654435761u);
    kxtest::write_file(local, big);
    ASSERT_EQ(acd_io_upload_file(root.c_str(), "big", local.c_str(), fresh()), ACD_FS_ERR_OK);
    EXPECT_TRUE(cloud.get("/big").body == big);

    string log = log_of([&] { rc = acd_io_upload_file("P", "c", "/no/such/file", fresh()); });
    EXPECT_EQ(rc, ACD_FS_IO_ERR_READ_WRITE_ERROR);
    EXPECT_EQ(attempts(log), 1);
    EXPECT_EQ(acd_io_upload_file(nullptr, "c", local.c_str(), fresh()), ACD_FS_IO_ERR_READ_WRITE_ERROR);
}

TEST_F(acd_fs_io, a_download_holds_the_content_and_nothing_of_earlier_attempts)
{
    string content = string(100000, 'a') + "end";
    cloud.put("/a.txt", content);
    string id = id_of("/a.txt");
    answer(503, content + content);
    download(id.c_str());
    EXPECT_EQ(rc, ACD_FS_ERR_OK);
    EXPECT_EQ(last_request()["target"], "/content/nodes/" + id + "/content");
    EXPECT_TRUE(kxtest::read_file(local) == content);

    answer(404, R"({"message":"gone"})");
    EXPECT_EQ(occurrences(download(id.c_str()), "ACD Error 404"), 0);
    EXPECT_EQ(rc, ACD_FS_ERR_RESOURCE_NOT_FOUND);
    EXPECT_EQ(kxtest::read_file(local), R"({"message":"gone"})");

    cloud.fail({{"cut", 1000}});
    download(id.c_str());
    EXPECT_EQ(rc, ACD_FS_IO_ERR_READ_WRITE_ERROR);
}

TEST_F(acd_fs_io, follows_the_change_feed_to_its_end)
{
    const string c1 = R"({"checkpoint":"c1","nodes":[{}]})", c2 = R"({"checkpoint":"c2","nodes":[{}]})";
    const string empty = R"({"checkpoint":"c9","nodes":[]})", end = "{\"end\":true}\n";
    struct {
        std::vector<string> rounds;
        int status, result;
        const char *checkpoint, *log;
    } rows[] = {
        {{c1 + "\n" + c2 + "\n" + end, empty + "\n" + end}, 200, 0, "c2", "No more changes."},
        {{empty + "\n" + end}, 200, 0, "c0", "No more changes."},
        {{c1 + "\n{\"end\":\"true\"}\n"}, 200, 7, "c1", "Invalid json data!"},
        {{"{\"nodes\":[]}\n"}, 200, 7, "c0", "Invalid json data!"},
        {{c1}, 200, 0, "c1", "error: Changes response does not end with {\"end\":\"true\"}\n"},
        {{c1 + "\n"}, 200, 7, "c1", "error: Mulformed response.\n"},
        {{""}, 200, 7, "c0", "error: Mulformed response.\n"},
        {{"[]\n"}, 200, 7, "c0", "error: Mulformed response.\n"},
        {{""}, 403, 3, "c0", "Failed to get acd changes! checkpoint = c0, rc = 3\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rounds.front());
        for (const string& round : row.rounds)
            answer(row.status, round);
        string_ptr latest;
        string log = log_of([&] { rc = acd_io_get_latest_checkpoint("c0", out(latest)); });
        EXPECT_EQ(rc, row.result);
        EXPECT_STREQ(latest.get(), row.checkpoint);
        EXPECT_THAT(log, HasSubstr(row.log));
        string from = row.rounds.size() > 1 ? "c2" : "c0";
        EXPECT_EQ(last_request()["body"],
                  "{\"checkpoint\": \"" + from +
                      R"(","includePurged": "false","chunkSize": 2000,"maxNodes": 10000})");
    }
}
