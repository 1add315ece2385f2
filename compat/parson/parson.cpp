#include "parson.h"

#include <cstdio>
#include <cstring>
#include <jansson.h>
#include <memory>
#include <string>

// Values, objects and arrays are jansson's json_t under other names.

namespace
{

const json_t* json(const void* thing)
{
    return static_cast<const json_t*>(thing);
}

JSON_Value* value_of(const json_t* thing)
{
    return reinterpret_cast<JSON_Value*>(const_cast<json_t*>(thing));
}

} // namespace

JSON_Value* json_parse_string(const char* text)
{
    // Integers as reals: those beyond 64 bits would else be errors. A NUL in a text cuts it for the readers.
    constexpr size_t flags = JSON_REJECT_DUPLICATES | JSON_DISABLE_EOF_CHECK | JSON_DECODE_ANY |
                             JSON_DECODE_INT_AS_REAL | JSON_ALLOW_NUL;
    constexpr const char* byte_order_mark = "\xEF\xBB\xBF";
    if (!text)
        return nullptr;
    if (strncmp(text, byte_order_mark, 3) == 0)
        text += 3;
    return value_of(json_loads(text, flags, nullptr));
}

JSON_Value* json_parse_file(const char* path)
{
    std::unique_ptr<FILE, decltype(&fclose)> file(path ? fopen(path, "r") : nullptr, fclose);
    if (!file)
        return nullptr;
    std::string text;
    char block[65536];
    while (size_t got = fread(block, 1, sizeof block, file.get()))
        text.append(block, got);
    return ferror(file.get()) ? nullptr : json_parse_string(text.c_str());
}

void json_value_free(JSON_Value* value)
{
    json_decref(reinterpret_cast<json_t*>(value));
}

JSON_Value_Type json_value_get_type(const JSON_Value* value)
{
    if (!value)
        return JSONError;
    switch (json_typeof(json(value))) {
    case JSON_OBJECT:
        return JSONObject;
    case JSON_ARRAY:
        return JSONArray;
    case JSON_STRING:
        return JSONString;
    case JSON_INTEGER:
    case JSON_REAL:
        return JSONNumber;
    case JSON_TRUE:
    case JSON_FALSE:
        return JSONBoolean;
    case JSON_NULL:
        return JSONNull;
    }
    return JSONError;
}

JSON_Object* json_value_get_object(const JSON_Value* value)
{
    return json_is_object(json(value)) ? reinterpret_cast<JSON_Object*>(value_of(json(value))) : nullptr;
}

JSON_Array* json_value_get_array(const JSON_Value* value)
{
    return json_is_array(json(value)) ? reinterpret_cast<JSON_Array*>(value_of(json(value))) : nullptr;
}

const char* json_value_get_string(const JSON_Value* value)
{
    return json_string_value(json(value));
}

double json_value_get_number(const JSON_Value* value)
{
    return json_number_value(json(value));
}

int json_value_get_boolean(const JSON_Value* value)
{
    return json_is_boolean(json(value)) ? json_is_true(json(value)) : -1;
}

JSON_Value* json_object_get_value(const JSON_Object* object, const char* name)
{
    return value_of(json_object_get(json(object), name));
}

JSON_Value* json_object_dotget_value(const JSON_Object* object, const char* name)
{
    if (!name)
        return nullptr;
    while (const char* dot = strchr(name, '.')) {
        object = json_object_get_object(object, std::string(name, dot).c_str());
        name = dot + 1;
    }
    return json_object_get_value(object, name);
}

JSON_Value* json_array_get_value(const JSON_Array* array, size_t index)
{
    return value_of(json_array_get(json(array), index));
}

#define TYPED_READER(result, kind)                                                                           \
    result json_object_get_##kind(const JSON_Object* object, const char* name)                               \
    {                                                                                                        \
        return json_value_get_##kind(json_object_get_value(object, name));                                   \
    }                                                                                                        \
    result json_object_dotget_##kind(const JSON_Object* object, const char* name)                            \
    {                                                                                                        \
        return json_value_get_##kind(json_object_dotget_value(object, name));                                \
    }                                                                                                        \
    result json_array_get_##kind(const JSON_Array* array, size_t index)                                      \
    {                                                                                                        \
        return json_value_get_##kind(json_array_get_value(array, index));                                    \
    }

size_t json_object_get_string_len(const JSON_Object* object, const char* name)
{
    return json_string_length(json(json_object_get_value(object, name)));
}

TYPED_READER(const char*, string)
TYPED_READER(JSON_Object*, object)
TYPED_READER(JSON_Array*, array)
TYPED_READER(double, number)
TYPED_READER(int, boolean)

namespace
{

// The iterator at a member's place in the text's order; null behind the last.
void* member_at(const JSON_Object* object, size_t index)
{
    json_t* members = const_cast<json_t*>(json(object));
    void* iter = json_object_iter(members);
    while (iter && index-- > 0)
        iter = json_object_iter_next(members, iter);
    return iter;
}

} // namespace

size_t json_object_get_count(const JSON_Object* object)
{
    return json_object_size(json(object));
}

const char* json_object_get_name(const JSON_Object* object, size_t index)
{
    return json_object_iter_key(member_at(object, index));
}

JSON_Value* json_object_get_value_at(const JSON_Object* object, size_t index)
{
    return value_of(json_object_iter_value(member_at(object, index)));
}

size_t json_array_get_count(const JSON_Array* array)
{
    return json_array_size(json(array));
}
