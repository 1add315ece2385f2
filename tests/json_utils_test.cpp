#include <gmock/gmock.h>

#include <parson.h>

#include "common/json_utils.h"
#include "common/owners.h"
#include "support/support.h"

using namespace kxtest;

namespace
{

using json_ptr = owner<JSON_Value, json_value_free>;

const std::string begin = "=== dump json begin ===\n";
const std::string end = "=== dump json end ===\n";

} // namespace

TEST(json_utils, prints_every_kind_of_value)
{
    const char* text =
        R"({"s":"t","n":-2.345,"o":{"z":1,"a":2},"l":["x",[],null],"t":true,"f":false,"0":null})";
    const char* tree = R"(Object:json {
  String:s t
  Number:n -2.35
  Object:o {
    Number:z 1.00
    Number:a 2.00
  }
  Array:l [
    String: x
    Array: [
    ]
  ]
  Boolean:t 1
  Boolean:f 0
}
)";
    EXPECT_EQ(output_of(1, [&] { dump_jsonstr_flex(text); }), begin + tree + end);
}

TEST(parson, parses_the_first_complete_value)
{
    const std::string too_deep(1000000, '[');
    const std::pair<const char*, JSON_Value_Type> cases[] = {
        {"{} trailing", JSONObject},
        {" [1] ]", JSONArray},
        {"7 8", JSONNumber},
        {"\xEF\xBB\xBF{}", JSONObject},
        {"", JSONError},
        {nullptr, JSONError},
        {"{\"a\":1", JSONError},
        {"\"\x01\"", JSONError},
        {"{\"a\":1,\"a\":2}", JSONError},
        {"[{\"a\":1,\"\\u0061\":2}]", JSONError},
        {too_deep.c_str(), JSONError},
    };
    for (auto [text, type] : cases)
        EXPECT_EQ(json_value_get_type(json_ptr(json_parse_string(text)).get()), type)
            << (text ? text : "null");
}

TEST(parson, reads_members_and_nothing_where_they_are_missing_or_mistyped)
{
    json_ptr value(json_parse_string(
        R"({"big":123456789012345678901234567890,"s":"\u00e4\u0000b","o":{"p":{"q":[1,"x",{"y":2}]}},"b":false})"));
    JSON_Object* object = json_value_get_object(value.get());
    EXPECT_EQ(json_object_get_number(object, "big"), 123456789012345678901234567890.0);
    EXPECT_STREQ(json_object_get_string(object, "s"), "\xC3\xA4");
    EXPECT_EQ(json_object_get_boolean(object, "b"), 0);
    JSON_Array* array = json_object_dotget_array(object, "o.p.q");
    ASSERT_EQ(json_array_get_count(array), 3u);
    EXPECT_STREQ(json_array_get_string(array, 1), "x");
    EXPECT_EQ(json_object_get_number(json_array_get_object(array, 2), "y"), 2);
    EXPECT_STREQ(json_object_get_name(object, 3), "b");
    for (const char* name : {"none", "o", "o.x", "none.x", "s.x", ""}) {
        EXPECT_EQ(json_object_dotget_string(object, name), nullptr) << name;
        EXPECT_EQ(json_object_dotget_number(object, name), 0) << name;
        EXPECT_EQ(json_object_dotget_boolean(object, name), -1) << name;
        EXPECT_EQ(json_object_dotget_array(object, name), nullptr) << name;
    }
    EXPECT_EQ(json_object_get_number(object, "s"), 0);
    EXPECT_EQ(json_object_get_value_at(object, 4), nullptr);
    EXPECT_EQ(json_object_get_name(nullptr, 0), nullptr);
    EXPECT_EQ(json_array_get_count(nullptr), 0u);
}
