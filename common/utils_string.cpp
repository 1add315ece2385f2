// A null text given to chomp stops the program in every kind of build.
#undef NDEBUG
#include <cassert>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "common/utils.h"

namespace
{

int format_bounded(char* buf, size_t n, const char* fmt, va_list args)
{
    int length = vsnprintf(buf, n, fmt, args);
    if (n > 0)
        buf[n - 1] = '\0';
    return length;
}

} // namespace

char* safe_strdup(const char* s)
{
    return s ? strdup(s) : nullptr;
}

int safe_asprintf(char** text, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int length = vasprintf(text, fmt, args);
    va_end(args);
    return length;
}

char* asprintf_str(const char* fmt, ...)
{
    char* text = nullptr;
    va_list args;
    va_start(args, fmt);
    int length = vasprintf(&text, fmt, args);
    va_end(args);
    return length < 0 ? nullptr : text;
}

int safe_snprintf(char* buf, size_t n, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int length = format_bounded(buf, n, fmt, args);
    va_end(args);
    return length;
}

char* snprintf_str(char* buf, size_t n, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    format_bounded(buf, n, fmt, args);
    va_end(args);
    return buf;
}

void* safe_realloc(void* p, size_t size)
{
    void* resized = realloc(p, size);
    // A size of 0 has freed the block already.
    if (!resized && size > 0)
        free(p);
    return resized;
}

size_t append_bytes(char*& text, size_t& length, const void* bytes, size_t len)
{
    text = static_cast<char*>(safe_realloc(text, length + len + 1));
    if (!text)
        return length = 0;
    memcpy(text + length, bytes, len);
    length += len;
    text[length] = '\0';
    return len;
}

char* strappend(char* base, ...)
{
    size_t length = base ? strlen(base) : 0;
    va_list args;
    va_start(args, base);
    while (const char* more = va_arg(args, const char*)) {
        size_t more_length = strlen(more);
        base = static_cast<char*>(safe_realloc(base, length + more_length + 1));
        if (base)
            memcpy(base + length, more, more_length + 1);
        length = base ? length + more_length : 0;
    }
    va_end(args);
    return base;
}

void chomp(char* str)
{
    assert(str);
    size_t length = strlen(str);
    while (length > 0 && isspace(static_cast<unsigned char>(str[length - 1])))
        length--;
    str[length] = '\0';
}

char* get_val_from_qstring(const char* key, const char* qs)
{
    if (!key || !qs)
        return nullptr;

    std::string text = qs;
    for (char& c : text) {
        if (c == '+')
            c = ' ';
    }
    for (std::string_view rest = text; !rest.empty();) {
        std::string_view pair = rest.substr(0, rest.find('&'));
        rest.remove_prefix(std::min(pair.size() + 1, rest.size()));
        // An empty pair is only a run of separators, never an empty key.
        if (pair.empty())
            continue;
        size_t equals = pair.find('=');
        if (pair.substr(0, equals) == key)
            return equals == pair.npos ? strdup("") : strndup(&pair[equals] + 1, pair.size() - equals - 1);
    }
    return nullptr;
}
