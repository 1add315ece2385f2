// Account link and tokens, direct account calls, the event log of the appliance, and the cloud's time format.
//
// The calls that reach the cloud directly return 0, -1 for bad arguments or an unusable reply, the HTTP
// status of an error reply, or 500 for any local or transport failure. None repeats a request. All run on the
// one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include <curl/curl.h>

// ---- Time ----

// The UTC instant that an ISO 8601 text such as 2015-06-01T12:34:56.789Z names; fractions of a second are
// dropped. A text that is not of this form gives a meaningless instant; s must not be null.
time_t acdtime_to_unix(const char* s);

// Sets a local entry's modification time (seconds since the epoch) and its access time to now; logs a
// failure.
void set_mtime(const char* path, time_t mtime);

// ---- Credentials and tokens ----

// Loads the account link and both tokens into global and looks the two base URLs up.
// 0: loaded (the URLs may still be absent when the look-up failed); 1: not linked; 2: settings file gone;
// 3: no access token; 4: no refresh token.
int acd_init();

// Fetches global's content_url and metadata_url.
int acd_account_get_endpoint();

// Renews both tokens in global, and the base URLs with them. Nothing is written to disk; on failure the old
// tokens stay.
int acd_refresh_token();

// Frees and clears global's token, refresh, metadata_url and content_url.
void _free_global();

// Logs an error status with the message of the reply body (a null body logs nothing); 401 renews the token,
// unless a renewal made the request. Returns http_code.
int _http_response_handler(int http_code, const char* msg);

// A reply in memory: sz bytes and a NUL after them; buf is malloc'd, null while empty. Starts as {0, null}.
struct rcvbuf {
    size_t sz;
    char* buf;
};

// libcurl write callback that appends to the rcvbuf that data points to; 0 when memory runs out.
size_t rcvfunc(void* b, size_t sz, size_t n, void* data);

// libcurl debug callback that logs headers, texts and sizes at debug level.
int dbgfunc(CURL* curl, curl_infotype infotype, char* b, size_t len, void* data);

// A new libcurl handle with the debug callback set (the caller cleans it up); null on failure.
CURL* my_curl_easy_init();

// ---- Account calls ----

struct acd_quota_t {
    uint64_t quota;           // bytes
    uint64_t available;       // bytes
    char last_calculated[64]; // the service's own time text
};

struct acd_usage_stats_t {
    uint64_t bytes;
    uint64_t count;
};

struct acd_file_type_usage_t {
    acd_usage_stats_t total;
    acd_usage_stats_t billable; // never filled
};

struct acd_usage_t {
    acd_file_type_usage_t other;
    acd_file_type_usage_t doc;
    acd_file_type_usage_t photo;
    acd_file_type_usage_t video;
    char last_calculated[64];
};

// Asks for the account information; the reply is only shown, and only above verbosity 2.
int acd_account_get_info();

// Fills quota; -1 for null or when the reply is no JSON object (quota is then zeroed). Untouched after any
// other failure.
int acd_account_get_quota(acd_quota_t* quota);

// Fills usage, in the same way.
int acd_account_get_usage(acd_usage_t* usage);

// On 0 *jsonstr is the reply text, which the caller frees; null otherwise. -1 for null arguments.
int acd_get_nodes_with_filter(const char* filter, char** jsonstr);

// The change feed from a checkpoint (null: from the start) as one text; results as above.
int acd_get_sync_changes(const char* checkpoint, char** jsonstr);

// Downloads a node's content over local_path. After an error status the file holds the error reply.
int acd_download_file(const char* id, const char* local_path);

// Copies at most len - 1 characters and ends them with a NUL; does nothing for null or zero arguments.
void acd_copy_checkpoint(char* dst, const char* src, size_t len);

// ---- Event log ----

// Appends one record to the event log: the event's tag, then string arguments up to a null.
// 0 when written; -1 when the log is not open.
int add_log(const char* fmt, ...) __attribute__((sentinel));

// Sends a record with this tag and ready-made attribute text (or null) to the management daemon. log_level is
// a kx_error_t; debug is not sent.
void shout(unsigned log_level, const char* key, const char* args);
