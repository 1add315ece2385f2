#include "kxamazon/acd_fs_node.h"

#include <cstring>
#include <gmock/gmock.h>

#include "common/utils.h"
#include "support/support.h"

using kxtest::log_of;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

const char dates[] = R"("createdDate":"2015-06-01T12:00:00.123Z","modifiedDate":"1970-01-01T00:00:09.000Z")";

std::string json(const std::string& members)
{
    return "{" + members + "," + dates + "}";
}

// "root kind status size [name|md5|etag] parents", or "none".
std::string shown(const acd_node_t* node)
{
    if (!node)
        return "none";
    std::string text = std::to_string(node->is_root) + " " + acd_enum_kind_to_string(node->kind) + " " +
                       acd_enum_status_to_string(node->status) + " " + std::to_string(node->size_byte) +
                       " [" + node->name + "|" + node->md5 + "|" + node->e_tag_response + "]";
    for (uint64_t i = 0; i < node->parents.count; ++i)
        text += std::string(" ") + (node->parents.id_array[i] ? node->parents.id_array[i] : "null");
    return text;
}

acd_node_t sample()
{
    static char tag[] = "tag", id[] = "id1", name[] = "a.txt", md5[] = "ff", first[] = "p1", second[] = "p2";
    static char* parents[] = {first, second};
    return {tag,       id, name, md5, NODE_KIND_FILE, 0, 1433160000, 9, {2, parents}, NODE_STATUS_TRASH,
            UINT64_MAX};
}

} // namespace

TEST(NodeRecord, Parser)
{
    const struct {
        std::string text;
        std::string node;
        std::string log;
    } rows[] = {
        {json(R"("id":"i","name":"n","kind":"FILE","status":"AVAILABLE","eTagResponse":"e","parents":["p"],)"
              R"("contentProperties":{"md5":"m","size":12})"),
         "0 FILE AVAILABLE 12 [n|m|e] p", ""},
        {json(R"("id":"i","isRoot":true,"kind":"FOLDER","status":"PENDING","parents":[])"),
         "1 FOLDER PENDING 0 [||]", ""},
        {json(R"("id":"i","isRoot":"true","kind":"FOLDER","status":"TRASH")"), "none",
         "error: __parse_node: Failed to get string name!\n"},
        {json(R"("id":7,"name":"n","kind":"FILE","status":"TRASH")"), "none",
         "error: __parse_node: Failed to get string id!\n"},
        {json(R"("id":"i","name":"n","status":"TRASH")"), "none",
         "error: __parse_node: Failed to get string kind!\n"},
        {R"({"id":"i","name":"n","kind":"FILE","status":"TRASH"})", "none",
         "error: __parse_node: Failed to get string createdDate!\n"},
        {R"({"id":"i","name":"n","kind":"FILE","status":"TRASH","createdDate":""})", "none",
         "error: __parse_node: Failed to get string modifiedDate!\n"},
        {json(R"("id":"i","name":"n","kind":"ASSET")"), "none",
         "error: __parse_node: Failed to get string status!\n"},
        {json(R"("id":"i","name":"n","kind":"folder","status":"GONE")"), "0 UNKNOWN UNKNOWN 0 [n||]",
         "error: __parse_node: Unknown kind folder!\nerror: __parse_node: Unknown status GONE\n"},
        {json(R"("id":"i","name":"n","kind":"FILE","status":"PURGED","parents":["a",1])"),
         "0 FILE PURGED 0 [n||] a null", "error: __parse_node: Do not support multiple parents!\n"},
        {"[1]", "none", "error: parse_node: Mulformed response.\nerror: [1]\n"},
        {"<html>", "none", "error: parse_node: Mulformed response.\nerror: <html>\n"},
    };
    for (const auto& row : rows) {
        node_ptr node;
        EXPECT_THAT(log_of([&] { node.reset(parse_node(row.text.c_str())); }), StartsWith(row.log))
            << row.text;
        EXPECT_EQ(row.node, shown(node.get())) << row.text;
        if (node) {
            EXPECT_EQ(1433160000, node->create_date);
            EXPECT_EQ(9, node->modified_date);
            EXPECT_EQ(row.node, shown(node_ptr(acd_node_dup(node.get())).get()));
        }
    }
    EXPECT_EQ(nullptr, parse_node(nullptr));
}

TEST(NodeRecord, SizesUpToTheTopBit)
{
    const std::pair<const char*, uint64_t> rows[] = {{"-1", 0},
                                                     {"4294967297", 4294967297},
                                                     {"9223372036854775808", 1ULL << 63},
                                                     {"18446744073709549568", 18446744073709549568ULL},
                                                     {"1e30", UINT64_MAX}};
    for (const auto& [text, size] : rows) {
        node_ptr node(parse_node(json(std::string(R"("id":"i","name":"n","kind":"FILE","status":"TRASH",)"
                                                  R"("contentProperties":{"size":)") +
                                      text + "}")
                                     .c_str()));
        ASSERT_TRUE(node);
        EXPECT_EQ(size, node->size_byte) << text;
    }
}

TEST(NodeRecord, TextForms)
{
    acd_node_t node = sample();
    EXPECT_STREQ("{ id: id1, name: a.txt, kind: FILE, status: TRASH, ctime: 1433160000, mtime: 9 }",
                 acd_node_to_short_string(&node));
    EXPECT_STREQ("", acd_node_to_short_string(nullptr));
    EXPECT_STREQ("eTagResponse: tag\nid: id1\nname: a.txt\nmd5: ff\nsize: 18446744073709551615\nkind: FILE\n"
                 "createdDate: 2015-06-01T12:00:00Z\nmodifiedDate: 1970-01-01T00:00:09Z\nstatus: TRASH\n"
                 "parents: p1, p2\n",
                 acd_node_to_string(&node));

    std::string longest(3000, 'x');
    node.name = longest.data();
    EXPECT_EQ(255u, std::strlen(acd_node_to_short_string(&node)));
    EXPECT_EQ(("eTagResponse: tag\nid: id1\nname: " + longest).substr(0, 2047), acd_node_to_string(&node));

    const char* first = acd_time_to_string(0);
    EXPECT_STREQ("1970-01-01T00:00:01Z", acd_time_to_string(1));
    EXPECT_STREQ("1970-01-01T00:00:00Z", first);
    acd_time_to_string(2);
    EXPECT_STREQ("1970-01-01T00:00:02Z", first);
}

TEST(NodeRecord, ValueOutsideAnEnumerationEndsTheProcess)
{
    EXPECT_EXIT(acd_enum_kind_to_string(static_cast<acd_node_kind_t>(3)), ExitedWithCode(1), "");
    EXPECT_EXIT(acd_enum_status_to_string(static_cast<acd_node_status_t>(-2)), ExitedWithCode(1), "");
}

TEST(NodeRecord, CopyIsDeepAndOwnersReleaseEverything)
{
    acd_node_t node = sample();
    node.e_tag_response = nullptr; // as the cache gives it
    node_ptr copy(acd_node_dup(&node));
    EXPECT_EQ(nullptr, copy->e_tag_response);
    EXPECT_NE(node.parents.id_array[1], copy->parents.id_array[1]);
    EXPECT_STREQ("p2", copy->parents.id_array[1]);
    node.parents.count = 0;
    EXPECT_EQ(nullptr, node_ptr(acd_node_dup(&node))->parents.id_array);
    EXPECT_EQ(nullptr, acd_node_dup(nullptr));

    // Leaks and double frees show under the sanitizers.
    changes_ptr changes(static_cast<acd_changes_t*>(std::calloc(1, sizeof(acd_changes_t))));
    changes->checkpoint = safe_strdup("c");
    changes->node_list = {1, static_cast<acd_node_t**>(std::calloc(1, sizeof(acd_node_t*)))};
    changes->node_list.nodes[0] = copy.release();
    EXPECT_EQ(0u, node_list_ptr(create_acd_node_list())->count);
    acd_free_node(nullptr);
    acd_free_node_list(nullptr);
    acd_free_changes(nullptr);
}
