#include "common/constants.h"

const char* const kx_settings_path = KX_SYSROOT "/etc/default/services";
const char* const kx_account_conf_path = KX_SYSROOT "/etc/brisal/account.conf";
const char* const kx_config_path = KX_SYSROOT "/etc/brisal/amazon/config.xml";
const char* const kx_status_path = KX_SYSROOT "/etc/brisal/amazon/status.xml";
const char* const kx_event_log_path = KX_SYSROOT "/var/log/brisal/amazoncd.log";
const char* const kx_cache_path = KX_SYSROOT "/var/cache/kxamazon/acd_fs_cache";
const char* const ACD_FS_CHECKPOINT = KX_SYSROOT "/var/cache/kxamazon/checkpoint";
const char* const kx_download_note_path = KX_SYSROOT "/var/cache/kxamazon/download";
const char* const kx_max_user_watches_path = "/proc/sys/fs/inotify/max_user_watches";

const char* const kx_account_url = KX_ACCOUNT_URL;
const char* const kx_auth_url = KX_AUTH_URL;

const unsigned kx_retry_interval_sec = 3;
const int kx_idle_poll_sec = 15;
const unsigned kx_folder_created_ms = 3000;
const unsigned kx_upsync_entry_ms = 100;
const unsigned kx_upsync_batch_ms = 3000;
const unsigned kx_checkpoint_retry_ms = 5000;
const unsigned kx_sql_busy_ms = 100;
