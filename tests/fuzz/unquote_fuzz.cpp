// Shell unquoting in place, and the cutting of trailing white space.
#include <cstring>

#include "fuzz.h"

FUZZ_TARGET
{
    const std::string text = kxtest::fuzz_text(data, size);
    const string_ptr copy(strdup(text.c_str()));
    const size_t length = std::strlen(copy.get());
    if (const char* plain = unescape_for_shell(copy.get()))
        kxtest::fuzz_check(std::strlen(plain) <= length, "unquoting never makes a text longer");
    const string_ptr other(strdup(text.c_str()));
    chomp(other.get());
    return 0;
}
