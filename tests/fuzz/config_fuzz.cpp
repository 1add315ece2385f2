// The configuration, account and status files. Their readers are private to the service's source.
#include "fuzz.h"
#include "kxamazon/service.cpp" // NOLINT

FUZZ_TARGET
{
    if (size == 0)
        return 0;
    const std::string text = kxtest::fuzz_text(data + 1, size - 1);
    switch (data[0] % 3) {
    case 0:
        kxtest::fuzz_file(kx_account_conf_path, text);
        read_default_volume();
        std::free(const_cast<char*>(std::exchange(global.default_vol, nullptr)));
        break;
    case 1:
        kxtest::fuzz_file(kx_status_path, text);
        read_last_sync();
        break;
    default:
        kxtest::fuzz_file(kx_config_path, text);
        if (const xml_doc_ptr doc = read_xml_file(kx_config_path); doc && xmlDocGetRootElement(doc.get())) {
            read_configuration();
            std::free(const_cast<char*>(std::exchange(global.serial, nullptr)));
        }
    }
    return 0;
}
