#include "cloud/text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <stdexcept>

#include <nlohmann/json.hpp>
#include <openssl/rand.h>

namespace kxcloud
{

namespace
{

int hex_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c = static_cast<char>(c | 0x20);
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Calls take(part) for each part between the separators.
template <class F>
void for_parts(std::string_view text, char separator, F take)
{
    while (!text.empty()) {
        size_t end = std::min(text.find(separator), text.size());
        take(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

} // namespace

std::string percent_decode(std::string_view text)
{
    std::string plain;
    plain.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        int high = text[i] == '%' && i + 2 < text.size() ? hex_value(text[i + 1]) : -1;
        int low = high >= 0 ? hex_value(text[i + 2]) : -1;
        plain.push_back(low < 0 ? text[i] : static_cast<char>(high * 16 + low));
        i += low < 0 ? 0 : 2;
    }
    return plain;
}

query_t parse_query(std::string_view text)
{
    query_t query;
    for_parts(text, '&', [&](std::string_view part) {
        size_t equals = std::min(part.find('='), part.size());
        std::string_view value = part.substr(std::min(equals + 1, part.size()));
        query[percent_decode(part.substr(0, equals))] = percent_decode(value);
    });
    return query;
}

std::vector<std::string> split_path(std::string_view path, bool decode)
{
    std::vector<std::string> parts;
    for_parts(path, '/', [&](std::string_view part) {
        if (!part.empty())
            parts.push_back(decode ? percent_decode(part) : std::string(part));
    });
    return parts;
}

std::string iso_time(int64_t ms)
{
    int64_t fraction = ((ms % 1000) + 1000) % 1000;
    time_t seconds = (ms - fraction) / 1000;
    struct tm utc;
    gmtime_r(&seconds, &utc);
    char text[64];
    size_t length = std::strftime(text, sizeof text, "%FT%T", &utc);
    std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(fraction));
    return text;
}

bool parse_iso_time(const std::string& text, int64_t* ms)
{
    struct tm utc = {};
    const char* rest = strptime(text.c_str(), "%FT%T", &utc);
    if (!rest)
        return false;
    int64_t fraction = 0;
    if (*rest == '.') {
        char* end;
        fraction = static_cast<int64_t>(std::strtod(rest, &end) * 1000 + 0.5);
        rest = end;
    }
    if (std::string_view(rest) != "Z")
        return false;
    *ms = int64_t{timegm(&utc)} * 1000 + fraction;
    return true;
}

bool is_utf8(const std::string& text)
{
    try {
        nlohmann::json(text).dump(); // refuses anything else
        return true;
    } catch (const nlohmann::json::type_error&) {
        return false;
    }
}

std::string random_name(size_t length)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::array<unsigned char, 64> bytes;
    if (length > bytes.size() || RAND_bytes(bytes.data(), static_cast<int>(length)) != 1)
        throw std::runtime_error("no random bytes");
    std::string name;
    for (size_t i = 0; i < length; ++i)
        name.push_back(alphabet[bytes[i] % 64]);
    return name;
}

} // namespace kxcloud
