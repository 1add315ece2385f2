#include "kxamazon/acd_fs_node.h"

#include <cstring>
#include <gmock/gmock.h>

#include "support/support.h"

using kxtest::log_of;
using testing::ExitedWithCode;
using testing::StartsWith;

namespace
{

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

} // namespace

TEST(NodeRecord, Parser)
{
    const std::string dates =
        R"(,"createdDate":"2015-06-01T12:00:00.123Z","modifiedDate":"1970-01-01T00:00:09.000Z"})";
    const struct {
        std::string text;
        const char* node;
        const char* log;
    } rows[] = {
        {R"({"id":"i","name":"n","kind":"FILE","status":"AVAILABLE","eTagResponse":"e","parents":["p"],)"
         R"("contentProperties":{"md5":"m","size":9223372036854775808})" +
             dates,
         "0 FILE AVAILABLE 9223372036854775808 [n|m|e] p", ""},
        {R"({"id":"i","name":"n","kind":"FILE","status":"PURGED","contentProperties":{"size":-1})" + dates,
         "0 FILE PURGED 0 [n||]", ""},
        {R"({"id":"i","isRoot":true,"kind":"FOLDER","status":"PENDING","parents":[])" + dates,
         "1 FOLDER PENDING 0 [||]", ""},
        {R"({"id":"i","isRoot":"true","kind":"FOLDER","status":"TRASH")" + dates, "none",
         "error: __parse_node: Failed to get string name!\n"},
        {R"({"id":"i","name":"n","kind":"folder","status":"GONE")" + dates, "0 UNKNOWN UNKNOWN 0 [n||]",
         "error: __parse_node: Unknown kind folder!\nerror: __parse_node: Unknown status GONE\n"},
        {R"({"id":"i","name":"n","kind":"ASSET","status":"TRASH","parents":["a",1])" + dates,
         "0 ASSET TRASH 0 [n||] a null", "error: __parse_node: Do not support multiple parents!\neTag"},
        {"[1]", "none", "error: parse_node: Mulformed response.\nerror: [1]\n"},
        {"<html>", "none", "error: parse_node: Mulformed response.\nerror: <html>\n"},
    };
    for (const auto& row : rows) {
        node_ptr node;
        std::string log = log_of([&] { node.reset(parse_node(row.text.c_str())); });
        EXPECT_THAT(log, *row.log ? StartsWith(row.log) : testing::Matcher<std::string>("")) << row.text;
        node.reset(acd_node_dup(node.get()));
        EXPECT_EQ(row.node, shown(node.get())) << row.text;
        if (node) {
            EXPECT_EQ(1433160000, node->create_date);
            EXPECT_EQ(9, node->modified_date);
        }
    }
}

TEST(NodeRecord, TextForms)
{
    char tag[] = "tag", id[] = "id1", name[] = "a.txt", md5[] = "ff", first_parent[] = "p1", second[] = "p2";
    char* parents[] = {first_parent, second};
    acd_node_t node = {tag, id, name, md5, NODE_KIND_FILE, 0, 1433160000, 9, {2, parents}, NODE_STATUS_TRASH,
                       7};
    EXPECT_STREQ("{ id: id1, name: a.txt, kind: FILE, status: TRASH, ctime: 1433160000, mtime: 9 }",
                 acd_node_to_short_string(&node));
    EXPECT_STREQ("", acd_node_to_short_string(nullptr));
    EXPECT_STREQ("eTagResponse: tag\nid: id1\nname: a.txt\nmd5: ff\nsize: 7\nkind: FILE\n"
                 "createdDate: 2015-06-01T12:00:00Z\nmodifiedDate: 1970-01-01T00:00:09Z\nstatus: TRASH\n"
                 "parents: p1, p2\n",
                 acd_node_to_string(&node));

    std::string longest(3000, 'x');
    node.name = longest.data();
    EXPECT_EQ(255u, std::strlen(acd_node_to_short_string(&node)));
    EXPECT_EQ(("eTagResponse: tag\nid: id1\nname: " + longest).substr(0, 2047), acd_node_to_string(&node));

    const char* first = acd_time_to_string(0);
    EXPECT_STREQ("1970-01-01T00:00:01Z", acd_time_to_string(1));
    EXPECT_STREQ("1970-01-01T00:00:00Z", first) << "two may stand in one message";
    EXPECT_EXIT(acd_enum_kind_to_string(static_cast<acd_node_kind_t>(3)), ExitedWithCode(1), "");
    EXPECT_EXIT(acd_enum_status_to_string(static_cast<acd_node_status_t>(-2)), ExitedWithCode(1), "");
}
