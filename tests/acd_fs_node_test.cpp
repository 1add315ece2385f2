// Node lookups, listings, walks, the change feed and changes, against a cloud and a cache in memory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_fs_node.h"
#include "support/cloud.h"
#include "support/support.h"

using namespace std::string_literals;
using kxtest::log_of;
using testing::HasSubstr;
using strings = std::vector<std::string>;

namespace
{

constexpr acd_fs_error_t ok = ACD_FS_ERR_OK, go_past = ACD_FS_ERR_SCAN_OP_CONTINUE, io = ACD_FS_ERR_LOCAL_IO,
                         refused = ACD_FS_ERR_FORBIDDEN, invalid = ACD_FS_ERR_INVALID_RESPONSE,
                         missing = ACD_FS_ERR_RESOURCE_NOT_FOUND,
                         bad_arguments = ACD_FS_ERR_INVALID_ARGUMENTS;

// What callbacks met, and what they answer by path.
strings met, checkpoints;
int finals;
std::map<std::string, acd_fs_error_t> answers;

template <class Context>
acd_fs_error_t meet(const char* path, const acd_node_t*, Context*)
{
    met.push_back(path);
    return answers.count(path) ? answers[path] : ok;
}

int drop_out(const acd_node_t* node)
{
    return node->name != "out"s;
}

std::string json_of(const std::string& id, const std::string& name, const std::string& parent)
{
    return R"({"id":")" + id + R"(","name":")" + name + R"(","parents":[")" + parent +
           R"("],"kind":"FILE","status":"AVAILABLE","createdDate":"2015-06-01T12:00:00.000Z",)"
           R"("modifiedDate":"2015-06-01T12:00:00.000Z"})";
}

std::string chunk_of(const std::string& checkpoint, const std::string& nodes = "")
{
    return R"({"checkpoint":")" + checkpoint + R"(","reset":true,"nodes":[)" + nodes + "]}\n";
}

class acd_node : public testing::Test
{
protected:
    acd_node()
    {
        cloud.connect();
        EXPECT_EQ(acd_cache_init(1), ACD_CACHE_ERR_OK);
        answers.clear();
    }
    ~acd_node() override { acd_cache_deinit(); }

    node_ptr at(const char* path)
    {
        node_ptr found;
        EXPECT_EQ(acd_node_get_node(path, out(found)), ok) << path;
        return found;
    }

    // The next matching request is answered with this.
    void answer(const char* method, const std::string& path, const std::string& body, int status = 200)
    {
        cloud.fail({{"method", method}, {"path", path}, {"status", status}, {"body", body}});
    }

    size_t requests() { return cloud.requests().size(); }

    acd_fs_error_t walk(const acd_node_t* folder, int recursive, acd_node_filter_t filter = nullptr)
    {
        met.clear();
        return acd_node_scan_dir_ex(folder, recursive, filter, meet, nullptr);
    }

    acd_fs_error_t scan(const std::string& checkpoint, int repeat)
    {
        met.clear();
        checkpoints.clear();
        finals = 0;
        return acd_node_scan_changes(
            checkpoint.c_str(), out(latest), repeat, 100, 2, drop_out, meet, nullptr,
            [](const char* reached) { checkpoints.push_back(reached); }, [] { ++finals; });
    }

    kxtest::cloud cloud{{"--page-size", "2"}};
    node_ptr node;
    string_ptr latest;
};

} // namespace

TEST_F(acd_node, LookupsAskTheCloudOnceAndSurviveOddReplies)
{
    for (const char* reply : {R"({"count":2,"data":[{},{}]})", R"({"count":1,"data":[{}]})", "[]"}) {
        answer("GET", "/nodes$", reply);
        EXPECT_EQ(acd_node_get_node("/", out(node)), invalid) << "no root in " << reply;
    }
    cloud.put("/a/b/c", "x");
    cloud.forget_requests();
    EXPECT_STREQ(at("/a/b/C")->name, "c");
    node_ptr b = at("//a//b/");
    EXPECT_EQ(requests(), 4u);
    EXPECT_EQ(acd_node_get_node("/a/none/c", out(node)), missing);
    EXPECT_EQ(acd_node_get_node("a/b", out(node)), bad_arguments);
    const std::string two = json_of("1", "q", b->id) + "," + json_of("2", "q", b->id);
    for (const auto& reply : {R"({"data":[]})"s, R"({"data":[{}]})"s, "[]"s, R"({"data":[)" + two + "]}"}) {
        answer("GET", "/children$", reply);
        EXPECT_EQ(acd_node_get_child_node(b.get(), "q", out(node)), ok);
        EXPECT_FALSE(node) << reply;
    }
    string_ptr path;
    acd_cache_reset();
    cloud.forget_requests();
    EXPECT_EQ(acd_node_get_path(b.get(), out(path)), ok);
    EXPECT_STREQ(path.get(), "/a/b");
    EXPECT_EQ(requests(), 2u) << "climbed, as the cache is empty";
    answer("GET", "/nodes/", json_of("p", "p", "q"));
    acd_cache_reset();
    EXPECT_EQ(acd_node_get_path(b.get(), out(path)), missing);
}

TEST_F(acd_node, OneNameEndsTheProcessBeforeItIsAskedFor)
{
    const char* name = "CREDIT REPORT AUTHORIZATION AND RELEASE.docx";
    node_ptr root = at("/");
    cloud.forget_requests();
    EXPECT_EXIT(acd_node_get_child_node(root.get(), name, out(node)), testing::ExitedWithCode(255), "");
    EXPECT_EQ(requests(), 0u);
    cloud.put("/"s + name, "x");
    EXPECT_EQ(walk(root.get(), 0), ok);
    EXPECT_TRUE(at(("/"s + name).c_str())) << "cached";
}

TEST_F(acd_node, ListingsFollowThePages)
{
    for (const char* name : {"a", "out", "p", "q", "r"})
        cloud.put("/t/"s + name, "x");
    node_ptr folder = at("/t");
    node_list_ptr list;
    auto scan_dir = [&](acd_node_filter_t filter = nullptr) {
        return acd_node_scan_dir(folder.get(), out(list), filter);
    };
    cloud.forget_requests();
    EXPECT_THAT(log_of([&] { EXPECT_EQ(scan_dir(drop_out), ok); }),
                HasSubstr("has 4 children, filtered node count is 1, count number in json is 5\n"));
    EXPECT_EQ(list->count, 4u);
    EXPECT_EQ(requests(), 3u);
    cloud.fail({{"path", "/children$"}, {"skip", 2}, {"status", 403}});
    EXPECT_EQ(scan_dir(), refused);
    EXPECT_FALSE(list);

    const std::tuple<std::string, acd_fs_error_t, size_t> rows[] = {
        {"[]", invalid, 0},
        {R"({"count":-1,"data":[]})", invalid, 0},
        {R"({"count":1,"data":{}})", invalid, 0},
        {R"({"count":9,"data":[],"nextToken":"t"})", ok, 0},
        {R"({"count":9,"data":[{},)" + json_of("x", "x", folder->id) + R"(],"nextToken":""})", ok, 1},
    };
    for (const auto& [reply, rc, count] : rows) {
        answer("GET", "/children$", reply);
        EXPECT_EQ(scan_dir(), rc) << reply;
        EXPECT_EQ(list ? list->count : 0, count) << reply;
    }
}

TEST_F(acd_node, WalksObeyTheCallback)
{
    for (const char* path : {"/t/a/x", "/t/a/y", "/t/out", "/t/z/z"})
        cloud.put(path, "x");
    const std::tuple<int, acd_node_filter_t, std::map<std::string, acd_fs_error_t>, strings> rows[] = {
        {1, nullptr, {}, {"/t/a", "/t/a/x", "/t/a/y", "/t/out", "/t/z", "/t/z/z"}},
        {1, drop_out, {}, {"/t/a", "/t/a/x", "/t/a/y", "/t/z", "/t/z/z"}},
        {0, nullptr, {}, {"/t/a", "/t/out", "/t/z"}},
        {1, nullptr, {{"/t/a", go_past}}, {"/t/a", "/t/out", "/t/z", "/t/z/z"}},
        {1, nullptr, {{"/t/a/x", io}}, {"/t/a", "/t/a/x", "/t/out", "/t/z", "/t/z/z"}},
        {1, nullptr, {{"/t/a", io}}, {"/t/a"}},
    };
    node_ptr folder = at("/t");
    cloud.forget_requests();
    for (const auto& [recursive, filter, given, expected] : rows) {
        answers = given;
        EXPECT_EQ(walk(folder.get(), recursive, filter), ok);
        EXPECT_EQ(met, expected);
    }
    EXPECT_EQ(cloud.count("GET", "/children$"), static_cast<int>(requests())) << "paths are cached";

    answers.clear();
    answer("GET", at("/t/a")->id + "/children$"s, "", 403);
    EXPECT_EQ(walk(folder.get(), 1), refused);
    EXPECT_EQ(met, (strings{"/t/a", "/t/out", "/t/z", "/t/z/z"}));
    EXPECT_EQ(walk(at("/t/out").get(), 1), ok) << "a file";
}

TEST_F(acd_node, ChangesAreReadChunkByChunk)
{
    const std::string root = at("/")->id, end = "{\"end\":true}\n", end_text = "{\"end\":\"true\"}\n",
                      b = json_of("1", "b", root), c = json_of("2", "c", root),
                      lost = json_of("3", "lost", "nowhere"), dropped = json_of("4", "out", root),
                      c_unended = "{\"checkpoint\":\"1\",\"nodes\":[" + c + "]}";
    const std::tuple<std::string, acd_fs_error_t, strings, strings, const char*> rows[] = {
        {chunk_of("1", c) + chunk_of("2", b) + end, io, {"/c", "/b"}, {"1", "2"}, "2"},
        {chunk_of("1", b) + chunk_of("2") + end, ok, {"/b"}, {"1"}, "2"},
        {chunk_of("1", dropped + ",{}," + lost + "," + c) + end, ok, {"/c"}, {"1"}, "1"},
        {c_unended, invalid, {"/c"}, {"1"}, "1"},
        {chunk_of("1", c) + end_text, invalid, {"/c"}, {"1"}, "1"},
        {"", invalid, {}, {}, "0"},
    };
    answers["/b"] = io;
    for (const auto& [reply, rc, paths, reached, last] : rows) {
        SCOPED_TRACE(reply);
        answer("POST", "/changes$", reply);
        EXPECT_EQ(scan("0", 0), rc);
        EXPECT_EQ(met, paths);
        EXPECT_EQ(checkpoints, reached);
        EXPECT_STREQ(latest.get(), last);
        EXPECT_EQ(finals, 1);
    }
    answer("POST", "/changes$", chunk_of("1", c) + end);
    answer("POST", "/changes$", "", 403);
    EXPECT_EQ(scan("0", 1), refused) << "in the second round";
    EXPECT_STREQ(latest.get(), "1");
}

TEST_F(acd_node, RepliesToWritesAreChecked)
{
    cloud.put("/a/f", "x");
    node_ptr root = at("/"), f = at("/a/f");
    for (const auto& [reply, rc] : {std::pair("", ok), {"{}", invalid}}) {
        answer("PATCH", "/nodes/", reply);
        EXPECT_EQ(acd_node_patch_node(f.get(), "g", out(node)), rc);
        answer("POST", "/children$", reply);
        EXPECT_EQ(acd_node_move_node(f.get(), root.get(), out(node)), rc);
        EXPECT_FALSE(node);
    }
    for (const auto& reply : {""s, "{}"s, json_of("other", "f", f->parents.id_array[0])}) {
        answer("PUT", "/trash/", reply);
        EXPECT_EQ(acd_node_delete_node(f.get()), invalid);
    }
    EXPECT_STREQ(at("/a/f")->id, f->id);
}
