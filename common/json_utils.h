// The owner of parsed JSON, its numbers as counts, and its printing as an indented tree on standard output,
// for people.
#pragma once

#include <cstdint>

#include <parson.h>

#include "common/owners.h"

using json_ptr = owner<JSON_Value, json_value_free>;

// A JSON number as a count: 0 when missing or negative, the largest count when 64 bits cannot hold it.
uint64_t to_uint64(double number);

// Parses the file and prints its tree between two marker lines; only the markers when it does not parse.
void dump_jsonfile(const char* path);

// The same for a text, labelled "json".
void dump_jsonstr_flex(const char* text);

// Prints a parsed value between the marker lines. The value stays the caller's; a null label prints as
// nothing.
void dump_json_value_flex(const char* label, const JSON_Value* value);

// Prints one value and everything below it, indented by two spaces a level (at most 30).
void _dump_json_value_flex(int level, const char* label, const JSON_Value* value);

// Prints every member of an object in its order at this level.
void dump_json_object_flex(int level, const JSON_Object* object);
