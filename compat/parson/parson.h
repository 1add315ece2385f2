// The part of the parson JSON interface that kxamazon uses, over jansson, for machines that lack parson.
//
// A parsed value is freed with json_value_free; objects, arrays and strings taken out of it are borrowed and
// live as long as it does. Text after the first complete value is ignored, any value may stand at the top, a
// repeated member name is an error, members keep their order, every number is a double. A missing or
// wrong-typed member reads as null, 0, or -1 for booleans; every function takes null.
#pragma once

#include <cstddef>

struct json_value_t;
struct json_object_t;
struct json_array_t;
typedef json_value_t JSON_Value;
typedef json_object_t JSON_Object;
typedef json_array_t JSON_Array;

enum json_value_type {
    JSONError = -1,
    JSONNull = 1,
    JSONString = 2,
    JSONNumber = 3,
    JSONObject = 4,
    JSONArray = 5,
    JSONBoolean = 6,
};
typedef int JSON_Value_Type;

// A new value; null when the text or file does not parse.
JSON_Value* json_parse_string(const char* text);
JSON_Value* json_parse_file(const char* path);
void json_value_free(JSON_Value* value);

JSON_Value_Type json_value_get_type(const JSON_Value* value);
JSON_Object* json_value_get_object(const JSON_Value* value);
JSON_Array* json_value_get_array(const JSON_Value* value);
const char* json_value_get_string(const JSON_Value* value);
double json_value_get_number(const JSON_Value* value);
int json_value_get_boolean(const JSON_Value* value);

JSON_Value* json_object_get_value(const JSON_Object* object, const char* name);
const char* json_object_get_string(const JSON_Object* object, const char* name);
size_t json_object_get_string_len(const JSON_Object* object, const char* name); // NULs in the text included
JSON_Object* json_object_get_object(const JSON_Object* object, const char* name);
JSON_Array* json_object_get_array(const JSON_Object* object, const char* name);
double json_object_get_number(const JSON_Object* object, const char* name);
int json_object_get_boolean(const JSON_Object* object, const char* name);

// The same by a path of member names joined by dots.
JSON_Value* json_object_dotget_value(const JSON_Object* object, const char* name);
const char* json_object_dotget_string(const JSON_Object* object, const char* name);
JSON_Object* json_object_dotget_object(const JSON_Object* object, const char* name);
JSON_Array* json_object_dotget_array(const JSON_Object* object, const char* name);
double json_object_dotget_number(const JSON_Object* object, const char* name);
int json_object_dotget_boolean(const JSON_Object* object, const char* name);

// Members by index, in the order of the text.
size_t json_object_get_count(const JSON_Object* object);
const char* json_object_get_name(const JSON_Object* object, size_t index);
JSON_Value* json_object_get_value_at(const JSON_Object* object, size_t index);

JSON_Value* json_array_get_value(const JSON_Array* array, size_t index);
const char* json_array_get_string(const JSON_Array* array, size_t index);
JSON_Object* json_array_get_object(const JSON_Array* array, size_t index);
JSON_Array* json_array_get_array(const JSON_Array* array, size_t index);
double json_array_get_number(const JSON_Array* array, size_t index);
int json_array_get_boolean(const JSON_Array* array, size_t index);
size_t json_array_get_count(const JSON_Array* array);
