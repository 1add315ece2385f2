// Requests to the cloud drive: one retrying engine with one session, and the drive's REST operations on top
// of it.
//
// Every call blocks until the service answered with success or with a permanent failure: transient failures
// are repeated every few seconds without limit, 401 renews the token. Operations take null arguments as
// ACD_FS_ERR_INVALID_ARGUMENTS and make no request then (upload and overwrite only look at the ids and the
// name, and end with the engine's code for a request without an address). On failure a reply buffer is left
// {0, null}. Ids and filters go into URLs, and all values into JSON bodies, as they are.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include <curl/curl.h>

#include "kxamazon/acd_fs_error.h"

// A reply in memory: sz bytes and a NUL after them. The caller owns the record and, after success, buf
// (malloc'd).
struct acd_io_rcvbuf_t {
    size_t sz;
    char* buf;
};

// A reply buffer that frees its text: acd_io_get_node_metadata(id, &reply).
struct reply_t : acd_io_rcvbuf_t {
    reply_t() : acd_io_rcvbuf_t{0, nullptr} {}
    reply_t(const reply_t&) = delete;
    reply_t& operator=(const reply_t&) = delete;
    ~reply_t() { std::free(buf); }
};

// ---- Engine ----

struct acd_io_session_t {
    CURL* handle;              // created once and reused, so that connections stay alive
    size_t retry;              // attempts after the first; 0 means no limit
    size_t retry_interval_sec; // pause between two attempts
    acd_io_rcvbuf_t* rcvbuf;   // where the reply goes, or null; not owned
    char* url;
    char* custom_request;   // method override, or null
    char* post_data;        // request body, or null
    char* token;            // copy of the access token
    FILE* download_fp;      // open file that takes the reply instead; not owned
    char* upload_meta_data; // JSON text of the "metadata" part, or null
    char* upload_file_path; // local file of the "content" part, or null
    curl_slist* headers;    // rebuilt for every attempt
    curl_httppost* http_post_first;
    curl_httppost* http_post_last;
};

enum acd_io_status_code {
    ACD_IO_STATUS_SUCCESS = 200,
    ACD_IO_STATUS_CREATED = 201,
    ACD_IO_STATUS_INVALID_INPUT = 400,
    ACD_IO_STATUS_INVALID_TOKEN = 401,
    ACD_IO_STATUS_FORBIDDEN = 403,
    ACD_IO_STATUS_RESOURCE_NOT_FOUND = 404,
    ACD_IO_STATUS_METHOD_NOT_FOUND = 405,
    ACD_IO_STATUS_DUPLICATE = 409,
    ACD_IO_STATUS_CONTENT_LENGTH_NOT_SET = 411,
    ACD_IO_STATUS_PRECONDITION_FAILED = 412,
    ACD_IO_STATUS_TOO_MANY_REQUEST = 429,
    ACD_IO_STATUS_AGAIN = 500,
    ACD_IO_STATUS_SERVICE_UNAVAILABLE = 503,
    ACD_IO_STATUS_TIMEOUT = 504,
};

enum acd_io_err_action {
    ACD_IO_ERR_ACTION_GIVEUP = 0,
    ACD_IO_ERR_ACTION_RETRY = 1,
    ACD_IO_ERR_ACTION_REFRESH_TOKEN = 2,
};

// The process's session, cleared for a new request: only the handle and the retry settings survive.
acd_io_session_t* acd_io_init_session();

// Each replaces a field with a copy.
void acd_io_set_token(acd_io_session_t* session, const char* token);
void acd_io_set_url(acd_io_session_t* session, const char* url);
void acd_io_set_custom_request(acd_io_session_t* session, const char* custom_request);
void acd_io_set_post_data(acd_io_session_t* session, const char* data);
void acd_io_set_post_meta_content(acd_io_session_t* session, const char* meta_data, const char* file_path);
void acd_io_set_post_content(acd_io_session_t* session, const char* file_path);

// Attaches a reply buffer, which becomes {0, null} without anything being freed.
void acd_io_set_rcvbuf(acd_io_session_t* session, acd_io_rcvbuf_t* rcvbuf);

// Attaches an open file for the reply.
void acd_io_set_download_fp(acd_io_session_t* session, FILE* fp);

// libcurl write callback that appends to the acd_io_rcvbuf_t that data points to; 0 when memory runs out.
size_t acd_io_rcvbuf_func(void* b, size_t sz, size_t n, void* data);

// What to do after a libcurl code or an HTTP status, and what an HTTP status means to the callers.
acd_io_err_action __acd_io_get_curl_error_action(CURLcode code);
acd_io_err_action __acd_io_get_http_error_action(long status_code);
acd_fs_error_t __acd_io_get_result(long status_code);

// True once a stop was asked for and a request had failed that would have been tried again. From then on
// every request is answered with ACD_FS_ERR_STOPPED without being made, so that all loops come to their end
// at once: what they were at counts as not done, and the next start does it. While the cloud answers, a stop
// interrupts nothing.
bool acd_io_is_stopped();

// Performs what the session holds, with retries and token renewal.
acd_fs_error_t __acd_io_generic_readwrite(acd_io_session_t* session);

// GET, or custom_request, without a body.
acd_fs_error_t __acd_io_read_buffer(const char* url, const char* custom_request, acd_io_rcvbuf_t* rcvbuf);

// POST of data, or custom_request with data as its body.
acd_fs_error_t __acd_io_write_buffer(const char* url, const char* custom_request, const char* data,
                                     acd_io_rcvbuf_t* rcvbuf);

// Multipart POST, or custom_request, of an optional "metadata" part and the file as "content".
acd_fs_error_t __acd_io_write_form_data(const char* url, const char* custom_request, const char* meta_data,
                                        const char* local_node_path, acd_io_rcvbuf_t* rcvbuf);

// GET with the reply body written to fp, which every attempt first empties.
acd_fs_error_t __acd_io_download_file(const char* url, FILE* fp);

// ---- Operations ----

// One page of a folder's children. start_token continues an earlier page, filters is inserted as it is; both
// may be null.
acd_fs_error_t acd_io_get_children_nodes(const char* id, const char* start_token, const char* filters,
                                         acd_io_rcvbuf_t* rcvbuf);

// The children of that exact name.
acd_fs_error_t acd_io_get_child_node(const char* id, const char* name, acd_io_rcvbuf_t* rcvbuf);

acd_fs_error_t acd_io_get_node_with_filter(const char* filter, acd_io_rcvbuf_t* rcvbuf);
acd_fs_error_t acd_io_get_node_metadata(const char* id, acd_io_rcvbuf_t* rcvbuf);

// Creates a folder of that name in the folder id.
acd_fs_error_t acd_io_create_folder(const char* id, const char* name, acd_io_rcvbuf_t* rcvbuf);

// Uploads a local file as a new node, or as an existing node's new content. The file is read while it is
// sent.
acd_fs_error_t acd_io_upload_file(const char* parent_id, const char* node_name, const char* local_node_path,
                                  acd_io_rcvbuf_t* rcvbuf);
acd_fs_error_t acd_io_overwrite_file(const char* id, const char* local_node_path, acd_io_rcvbuf_t* rcvbuf);

acd_fs_error_t acd_io_download_file(const char* id, FILE* fp);

// Renames a node.
acd_fs_error_t acd_io_patch_node(const char* id, const char* node_name, acd_io_rcvbuf_t* rcvbuf);

acd_fs_error_t acd_io_move_node(const char* id, const char* new_parent_id, const char* old_parent_id,
                                acd_io_rcvbuf_t* rcvbuf);
acd_fs_error_t acd_io_trash_node(const char* id, acd_io_rcvbuf_t* rcvbuf);

// The change feed from a checkpoint: one JSON object a line, chunks and then {"end":true}. max_nodes must not
// be below chunk_size.
acd_fs_error_t acd_io_get_changes(const char* checkpoint, size_t max_nodes, size_t chunk_size,
                                  acd_io_rcvbuf_t* rcvbuf);

// Follows the feed from last_checkpoint to its end. *latest_checkpoint is the newest checkpoint reached, also
// after a failure; the caller frees it.
acd_fs_error_t acd_io_get_latest_checkpoint(const char* last_checkpoint, char** latest_checkpoint);

acd_fs_error_t acd_io_get_account_quota(acd_io_rcvbuf_t* rcvbuf);
