// The query string reader: a key, a line's end, the query string.
#include "fuzz.h"

FUZZ_TARGET
{
    const std::string text = kxtest::fuzz_text(data, size);
    const size_t line = text.find('\n');
    if (line == std::string::npos)
        return 0;
    const string_ptr value(get_val_from_qstring(text.substr(0, line).c_str(), text.substr(line + 1).c_str()));
    if (value)
        kxtest::fuzz_check(std::string(value.get()).size() < text.size(), "a value is a part of the text");
    return 0;
}
