// The settings file with the tokens: bare, or behind a good link to an account.
#include "common/cipher_utils.h"
#include "common/constants.h"
#include "fuzz.h"
#include "kxamazon/acd_utils.h"

FUZZ_TARGET
{
    static const string_ptr sealed(encrypt_str2hexstr("user=x&state=authorized", 1));
    if (size == 0)
        return 0;
    const std::string linked = std::string("AMAZONDRIVE_PROVISION=") + sealed.get() + "\n";
    kxtest::fuzz_file(kx_settings_path, (data[0] % 4 ? linked : "") + kxtest::fuzz_text(data + 1, size - 1));
    const int result = acd_init();
    kxtest::fuzz_check(result >= 0 && result <= 4 && result != 2, "acd_init's results");
    _free_global();
    return 0;
}
