// The hex cipher: any text, and what was enciphered here comes back.
#include "common/cipher_utils.h"
#include "fuzz.h"

FUZZ_TARGET
{
    if (size == 0)
        return 0;
    const int module = data[0] % 3;
    const std::string text = kxtest::fuzz_text(data + 1, size - 1).c_str();
    const string_ptr plain(decrypt_hexstr2str(text.c_str(), module));
    const size_t longest = module == 0 ? 117 : module == 1 ? 245 : 0;
    if (data[0] < 128 || text.empty() || text.size() > longest)
        return 0;
    const string_ptr sealed(encrypt_str2hexstr(text.c_str(), module));
    const string_ptr back(sealed ? decrypt_hexstr2str(sealed.get(), module) : nullptr);
    kxtest::fuzz_check(back && text == back.get(), "a text comes back");
    return 0;
}
