// Every fixed place, address and wait of the program, in one translation unit.
//
// constants.cpp holds the values that ship. A test program defines all of these names itself, so that its own
// values are linked instead; nothing here is read from the environment by the shipped programs.
// All strings are static, never freed, never null.
#pragma once

// Places. Each begins with the build's KXAMAZON_SYSROOT, but for the kernel's own.
extern const char* const kx_settings_path;         // account link and tokens, shell style, read only
extern const char* const kx_account_conf_path;     // first line names the default volume, read only
extern const char* const kx_config_path;           // sync pairs, XML, read only
extern const char* const kx_status_path;           // state for the management interface, XML, written
extern const char* const kx_event_log_path;        // user-visible events, one XML record a line, appended
extern const char* const kx_cache_path;            // SQLite node cache
extern const char* const ACD_FS_CHECKPOINT;        // position in the cloud's change feed
extern const char* const kx_download_note_path;    // the download under way
extern const char* const kx_max_user_watches_path; // the kernel's limit of inotify watches

// Addresses: scheme and host[:port], without a path and without a closing slash.
extern const char* const kx_account_url;
extern const char* const kx_auth_url;

// Waits.
extern const unsigned kx_retry_interval_sec;  // between two attempts of one cloud request
extern const int kx_idle_poll_sec;            // local quiet time after which the change feed is polled
extern const unsigned kx_folder_created_ms;   // after a cloud folder was created, before it is looked up
extern const unsigned kx_upsync_entry_ms;     // after every entry of a full upload
extern const unsigned kx_upsync_batch_ms;     // more after every 201st entry
extern const unsigned kx_checkpoint_retry_ms; // between two attempts to fetch the newest checkpoint
extern const unsigned kx_sql_busy_ms;         // between two attempts on a busy database
