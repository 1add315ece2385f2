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

std::string tree_of_text(const char* text)
{
    return output_of(1, [&] { dump_jsonstr_flex(text); });
}

} // namespace

TEST(json_utils, prints_every_kind_of_value)
{
    EXPECT_EQ(tree_of_text(
                  R"({"s":"t","n":-2.345,"o":{"z":1,"a":2},"l":["x",[],null],"t":true,"f":false,"0":null})"),
              begin +
                  "Object:json {\n"
                  "  String:s t\n"
                  "  Number:n -2.35\n"
                  "  Object:o {\n"
                  "    Number:z 1.00\n"
                  "    Number:a 2.00\n"
                  "  }\n"
                  "  Array:l [\n"
                  "    String: x\n"
                  "    Array: [\n"
                  "    ]\n"
                  "  ]\n"
                  "  Boolean:t 1\n"
                  "  Boolean:f 0\n"
                  "}\n" +
                  end);
}

TEST(json_utils, prints_files_under_their_path)
{
    std::string path = new_folder() + "/x.json";
    write_file(path, R"({"a":[1,true]})");
    EXPECT_EQ(output_of(1, [&] { dump_jsonfile(path.c_str()); }),
              begin + "Object:" + path + " {\n  Array:a [\n    Number: 1.00\n    Boolean: 1\n  ]\n}\n" + end);
    write_file(path, "{");
    EXPECT_EQ(output_of(1, [&] { dump_jsonfile(path.c_str()); }), begin + end);
    EXPECT_EQ(output_of(1, [&] { dump_jsonfile("/nowhere"); }), begin + end);
}

TEST(json_utils, indents_by_at_most_thirty_spaces)
{
    std::string text = tree_of_text((std::string(20, '[') + "1" + std::string(20, ']')).c_str());
    EXPECT_NE(text.find("\n" + std::string(30, ' ') + "Number: 1.00\n"), std::string::npos);
    json_ptr value(json_parse_string("7"));
    for (auto [level, spaces] : {std::pair{-3, 0}, {0, 0}, {14, 28}, {15, 30}, {1 << 30, 30}})
        EXPECT_EQ(output_of(1, [&] { _dump_json_value_flex(level, nullptr, value.get()); }),
                  std::string(spaces, ' ') + "Number: 7.00\n");
}

TEST(parson, parses_the_first_complete_value)
{
    struct {
        const char* text;
        JSON_Value_Type type;
    } cases[] = {
        {"{} trailing", JSONObject},
        {" [1] ]", JSONArray},
        {"\"a\"", JSONString},
        {"7 8", JSONNumber},
        {"true", JSONBoolean},
        {"null,", JSONNull},
        {"\xEF\xBB\xBF{}", JSONObject},
        {"", JSONError},
        {nullptr, JSONError},
        {"{\"a\":1", JSONError},
        {"{\"a\":1,\"a\":2}", JSONError},
        {"{\"b\":{\"a\":1,\"\\u0061\":2}}", JSONError},
        {"\"\x01\"", JSONError},
        {"nothing", JSONError},
    };
    for (const auto& c : cases) {
        json_ptr value(json_parse_string(c.text));
        EXPECT_EQ(json_value_get_type(value.get()), c.type) << (c.text ? c.text : "null");
    }
    std::string deep(1000000, '[');
    EXPECT_EQ(json_ptr(json_parse_string(deep.c_str())), nullptr);
}

TEST(parson, reads_members_by_name_path_and_index)
{
    json_ptr value(json_parse_string(
        R"({"big":123456789012345678901234567890,"s":"\u00e4\n","nul":"a\u0000b","o":{"p":{"q":[1,"x",{"y":2}]}},"b":false})"));
    JSON_Object* object = json_value_get_object(value.get());
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(json_object_get_number(object, "big"), 123456789012345678901234567890.0);
    EXPECT_STREQ(json_object_get_string(object, "s"), "\xC3\xA4\n");
    EXPECT_STREQ(json_object_get_string(object, "nul"), "a");
    EXPECT_EQ(json_object_get_boolean(object, "b"), 0);

    JSON_Array* array = json_object_dotget_array(object, "o.p.q");
    ASSERT_EQ(json_array_get_count(array), 3u);
    EXPECT_EQ(json_array_get_number(array, 0), 1);
    EXPECT_STREQ(json_array_get_string(array, 1), "x");
    EXPECT_EQ(json_object_get_number(json_array_get_object(array, 2), "y"), 2);

    std::vector<std::string> names;
    for (size_t i = 0; i < json_object_get_count(object); i++) {
        names.push_back(json_object_get_name(object, i));
        EXPECT_EQ(json_object_get_value_at(object, i), json_object_get_value(object, names.back().c_str()));
    }
    EXPECT_THAT(names, testing::ElementsAre("big", "s", "nul", "o", "b"));
}

TEST(parson, missing_and_mistyped_members_read_as_nothing)
{
    json_ptr value(json_parse_string(R"({"s":"1","n":1,"o":{},"l":[]})"));
    JSON_Object* object = json_value_get_object(value.get());
    JSON_Array* array = json_object_get_array(object, "l");
    for (const char* name : {"none", "o", "o.x", "none.x", "s.x", ""}) {
        EXPECT_EQ(json_object_dotget_string(object, name), nullptr) << name;
        EXPECT_EQ(json_object_dotget_number(object, name), 0) << name;
        EXPECT_EQ(json_object_dotget_boolean(object, name), -1) << name;
        EXPECT_EQ(json_object_dotget_array(object, name), nullptr) << name;
    }
    EXPECT_EQ(json_object_get_number(object, "s"), 0);
    EXPECT_EQ(json_object_get_string(object, "n"), nullptr);
    EXPECT_EQ(json_object_get_object(object, "l"), nullptr);
    EXPECT_EQ(json_value_get_array(value.get()), nullptr);
    EXPECT_EQ(json_array_get_value(array, 0), nullptr);
    EXPECT_EQ(json_object_get_value_at(object, 4), nullptr);
    EXPECT_EQ(json_object_get_name(object, 4), nullptr);
    EXPECT_EQ(json_object_get_value(object, nullptr), nullptr);

    EXPECT_EQ(json_object_get_count(nullptr), 0u);
    EXPECT_EQ(json_array_get_count(nullptr), 0u);
    EXPECT_EQ(json_object_dotget_value(nullptr, "a.b"), nullptr);
    EXPECT_EQ(json_array_get_boolean(nullptr, 0), -1);
    json_value_free(nullptr);
}
