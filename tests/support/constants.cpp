// The tests' own constants, linked in place of the shipped ones: places below a folder of the test's,
// addresses that a running test may set, and waits that are short or none.
#include "common/constants.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/constants.h"

namespace
{

std::string make_sysroot()
{
    if (const char* given = std::getenv("KXTEST_SYSROOT"))
        return given;
    char name[] = "/tmp/kxtest-XXXXXX";
    return mkdtemp(name);
}

// Never freed: the constants below point to these.
const char* keep(const std::string& text)
{
    return strdup(text.c_str());
}

const char* place(const char* path)
{
    return keep(kxtest::sysroot() + path);
}

char account_url[256];
char auth_url[256];

const char* address(char* buffer, size_t size, const char* name)
{
    const char* given = std::getenv(name);
    std::snprintf(buffer, size, "%s", given ? given : "http://127.0.0.1:1");
    return buffer;
}

} // namespace

namespace kxtest
{

const std::string& sysroot()
{
    static const std::string* root = new std::string(make_sysroot());
    return *root;
}

unsigned setting(const char* name, unsigned otherwise)
{
    const char* text = std::getenv(name);
    return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

void set_cloud_url(const std::string& url)
{
    std::snprintf(account_url, sizeof account_url, "%s", url.c_str());
    std::snprintf(auth_url, sizeof auth_url, "%s", url.c_str());
}

} // namespace kxtest

using kxtest::setting;

const char* const kx_settings_path = place("/etc/default/services");
const char* const kx_account_conf_path = place("/etc/brisal/account.conf");
const char* const kx_config_path = place("/etc/brisal/amazon/config.xml");
const char* const kx_status_path = place("/etc/brisal/amazon/status.xml");
const char* const kx_event_log_path = place("/var/log/brisal/amazoncd.log");
const char* const kx_cache_path = place("/var/cache/kxamazon/acd_fs_cache");
const char* const ACD_FS_CHECKPOINT = place("/var/cache/kxamazon/checkpoint");
const char* const kx_download_note_path = place("/var/cache/kxamazon/download");
const char* const kx_max_user_watches_path = place("/proc/max_user_watches");

const char* const kx_account_url = address(account_url, sizeof account_url, "KXTEST_CLOUD_URL");
const char* const kx_auth_url = address(auth_url, sizeof auth_url, "KXTEST_CLOUD_URL");

const unsigned kx_retry_interval_sec = setting("KXTEST_RETRY_SEC", 0);
const int kx_idle_poll_sec = static_cast<int>(setting("KXTEST_IDLE_SEC", 1));
const unsigned kx_folder_created_ms = 0;
const unsigned kx_upsync_entry_ms = setting("KXTEST_UPSYNC_ENTRY_MS", 0);
const unsigned kx_upsync_batch_ms = setting("KXTEST_UPSYNC_BATCH_MS", 0);
const unsigned kx_checkpoint_retry_ms = 10;
const unsigned kx_sql_busy_ms = 1;
