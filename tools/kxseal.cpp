// kxseal: enciphers a value for the appliance's settings file.
//
//     printf 'state=authorized' | kxseal 1
//
// Standard input, untrimmed, is enciphered with the key pair of the module (0 or 1) and printed as hex text.
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>

#include "common/cipher_utils.h"
#include "common/owners.h"

int main(int argc, char** argv)
{
    std::string module = argc == 2 ? argv[1] : "";
    if (module != "0" && module != "1") {
        std::fprintf(stderr,
                     "usage: kxseal MODULE < VALUE\nMODULE is 0 (1024-bit pair) or 1 (cloud drive)\n");
        return 1;
    }
    std::string value{std::istreambuf_iterator<char>(std::cin), {}};
    string_ptr sealed;
    if (value.find('\0') == std::string::npos)
        sealed.reset(encrypt_str2hexstr(value.c_str(), module[0] - '0'));
    if (!sealed) {
        std::fprintf(stderr, "kxseal: the value cannot be enciphered (at most %d bytes, no NUL)\n",
                     module == "0" ? 117 : 245);
        return 1;
    }
    std::printf("%s\n", sealed.get());
    return std::fflush(stdout) == 0 ? 0 : 1;
}
