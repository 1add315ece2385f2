#include "common/json_utils.h"

#include <algorithm>
#include <cstdio>

namespace
{

constexpr int deepest_indent_level = 15;

void print_indent(int level)
{
    printf("%*s", 2 * std::clamp(level, 0, deepest_indent_level), "");
}

void dump_json_array_flex(int level, const JSON_Array* array)
{
    size_t count = json_array_get_count(array);
    for (size_t i = 0; i < count; i++)
        _dump_json_value_flex(level, nullptr, json_array_get_value(array, i));
}

} // namespace

uint64_t to_uint64(double number)
{
    if (!(number > 0))
        return 0;
    return number < 0x1p64 ? static_cast<uint64_t>(number) : UINT64_MAX;
}

void dump_json_object_flex(int level, const JSON_Object* object)
{
    size_t count = json_object_get_count(object);
    for (size_t i = 0; i < count; i++)
        _dump_json_value_flex(level, json_object_get_name(object, i), json_object_get_value_at(object, i));
}

void _dump_json_value_flex(int level, const char* label, const JSON_Value* value)
{
    JSON_Value_Type type = json_value_get_type(value);
    if (type == JSONNull || type == JSONError)
        return;

    label = label ? label : "";
    print_indent(level);
    switch (type) {
    case JSONString:
        printf("String:%s %s\n", label, json_value_get_string(value));
        return;
    case JSONNumber:
        printf("Number:%s %.2f\n", label, json_value_get_number(value));
        return;
    case JSONBoolean:
        printf("Boolean:%s %d\n", label, json_value_get_boolean(value));
        return;
    case JSONObject:
        printf("Object:%s {\n", label);
        dump_json_object_flex(level + 1, json_value_get_object(value));
        print_indent(level);
        puts("}");
        return;
    case JSONArray:
        printf("Array:%s [\n", label);
        dump_json_array_flex(level + 1, json_value_get_array(value));
        print_indent(level);
        puts("]");
        return;
    }
}

void dump_json_value_flex(const char* label, const JSON_Value* value)
{
    puts("=== dump json begin ===");
    _dump_json_value_flex(0, label, value);
    puts("=== dump json end ===");
}

void dump_jsonfile(const char* path)
{
    json_ptr value(json_parse_file(path));
    dump_json_value_flex(path, value.get());
}

void dump_jsonstr_flex(const char* text)
{
    json_ptr value(json_parse_string(text));
    dump_json_value_flex("json", value.get());
}
