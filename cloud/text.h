// Texts of the wire: percent-encoding, queries, ISO 8601 times, random names.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kxcloud
{

// Turns every %XX into its byte; a "%" without two digits, and a "+", stand for themselves.
std::string percent_decode(std::string_view text);

// Names and values of a query or form, decoded; the last of a repeated name counts.
using query_t = std::map<std::string, std::string>;
query_t parse_query(std::string_view text);

// The parts between the slashes; empty parts are left out. Those of a path as sent still need decoding.
std::vector<std::string> split_path(std::string_view path, bool decode = true);

// 2015-06-01T12:34:56.789Z, from and to milliseconds since the epoch. Parsing takes any number of fraction
// digits, also none; false when the text is no such time.
std::string iso_time(int64_t ms);
bool parse_iso_time(const std::string& text, int64_t* ms);

bool is_utf8(const std::string& text);

// Random letters, digits, "-" and "_"; 22 of them make a node id.
std::string random_name(size_t length = 22);

} // namespace kxcloud
