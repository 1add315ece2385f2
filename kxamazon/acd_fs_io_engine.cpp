// The form list interface of libcurl is deprecated but sound, and still what builds the multipart uploads.
#define CURL_DISABLE_DEPRECATION

#include "kxamazon/acd_fs_io.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <optional>
#include <unistd.h>
#include <utility>

#include "common/constants.h"
#include "common/json_utils.h"
#include "common/owners.h"
#include "common/utils.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/download_note.h"
#include "kxamazon/global.h"

namespace
{

using headers_ptr = owner<curl_slist, curl_slist_free_all>;
using form_ptr = owner<curl_httppost, curl_formfree>;

const long LOW_SPEED_LIMIT = 1;  // bytes per second below which a transfer counts as stalled
const long LOW_SPEED_TIME = 300; // seconds that a transfer may stall

struct http_action_t {
    long status;
    acd_io_err_action action;
};

const http_action_t http_actions[] = {
    {ACD_IO_STATUS_INVALID_INPUT, ACD_IO_ERR_ACTION_GIVEUP},
    {ACD_IO_STATUS_INVALID_TOKEN, ACD_IO_ERR_ACTION_REFRESH_TOKEN},
    {ACD_IO_STATUS_FORBIDDEN, ACD_IO_ERR_ACTION_GIVEUP},
    {ACD_IO_STATUS_RESOURCE_NOT_FOUND, ACD_IO_ERR_ACTION_GIVEUP},
    {ACD_IO_STATUS_METHOD_NOT_FOUND, ACD_IO_ERR_ACTION_GIVEUP},
    {ACD_IO_STATUS_DUPLICATE, ACD_IO_ERR_ACTION_GIVEUP},
    {ACD_IO_STATUS_CONTENT_LENGTH_NOT_SET, ACD_IO_ERR_ACTION_GIVEUP},
    {ACD_IO_STATUS_PRECONDITION_FAILED, ACD_IO_ERR_ACTION_GIVEUP},
    {ACD_IO_STATUS_TOO_MANY_REQUEST, ACD_IO_ERR_ACTION_RETRY},
    {ACD_IO_STATUS_AGAIN, ACD_IO_ERR_ACTION_RETRY},
    {ACD_IO_STATUS_SERVICE_UNAVAILABLE, ACD_IO_ERR_ACTION_RETRY},
    {ACD_IO_STATUS_TIMEOUT, ACD_IO_ERR_ACTION_RETRY},
};

struct http_result_t {
    long status;
    acd_fs_error_t result;
};

// 412 has an action but no result of its own: the callers see it as an internal error like any unknown
// status.
const http_result_t http_results[] = {
    {ACD_IO_STATUS_SUCCESS, ACD_FS_ERR_OK},
    {ACD_IO_STATUS_CREATED, ACD_FS_ERR_OK},
    {ACD_IO_STATUS_INVALID_INPUT, ACD_FS_ERR_INTERNAL_ERROR},
    {ACD_IO_STATUS_INVALID_TOKEN, ACD_FS_ERR_INVALID_TOKEN},
    {ACD_IO_STATUS_FORBIDDEN, ACD_FS_ERR_FORBIDDEN},
    {ACD_IO_STATUS_RESOURCE_NOT_FOUND, ACD_FS_ERR_RESOURCE_NOT_FOUND},
    {ACD_IO_STATUS_METHOD_NOT_FOUND, ACD_FS_ERR_INTERNAL_ERROR},
    {ACD_IO_STATUS_DUPLICATE, ACD_FS_ERR_RESOURCE_DUPLICATE},
    {ACD_IO_STATUS_CONTENT_LENGTH_NOT_SET, ACD_FS_ERR_INTERNAL_ERROR},
    {ACD_IO_STATUS_TOO_MANY_REQUEST, ACD_FS_IO_ERR_READ_WRITE_ERROR},
    {ACD_IO_STATUS_AGAIN, ACD_FS_IO_ERR_READ_WRITE_ERROR},
    {ACD_IO_STATUS_SERVICE_UNAVAILABLE, ACD_FS_IO_ERR_READ_WRITE_ERROR},
    {ACD_IO_STATUS_TIMEOUT, ACD_FS_ERR_SERVER_TIMEOUT},
};

const CURLcode transient_curl_errors[] = {
    CURLE_COULDNT_RESOLVE_PROXY, CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_CONNECT, CURLE_OPERATION_TIMEDOUT,
    CURLE_SSL_CONNECT_ERROR,     CURLE_SEND_ERROR,           CURLE_RECV_ERROR,      CURLE_AGAIN,
};

void drop_headers(acd_io_session_t* session)
{
    headers_ptr old(std::exchange(session->headers, nullptr));
}

void drop_form(acd_io_session_t* session)
{
    form_ptr old(std::exchange(session->http_post_first, nullptr));
    session->http_post_last = nullptr;
}

void drop_reply(acd_io_rcvbuf_t* rcvbuf)
{
    if (!rcvbuf)
        return;
    string_ptr old(std::exchange(rcvbuf->buf, nullptr));
    rcvbuf->sz = 0;
}

void populate_transport(acd_io_session_t* session)
{
    CURL* curl = session->handle;
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "gzip");
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, LOW_SPEED_LIMIT);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, LOW_SPEED_TIME);
    if (global.debug_curl && g_verbose > 2)
        curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(curl, CURLOPT_URL, session->url);
    if (session->custom_request)
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, session->custom_request);
}

void populate_headers(acd_io_session_t* session)
{
    drop_headers(session);
    if (!session->token)
        return;
    string_ptr header(asprintf_str("Authorization: Bearer %s", session->token));
    session->headers = curl_slist_append(nullptr, header.get());
    curl_easy_setopt(session->handle, CURLOPT_HTTPHEADER, session->headers);
}

// What an earlier attempt wrote, an error reply or half a body, must not mix with the content.
void empty_file(FILE* fp)
{
    download_write write(fileno(fp));
    std::rewind(fp);
    if (ftruncate(fileno(fp), 0) != 0)
        LOG_ERROR("%s: Failed to truncate the file! errno=%d\n", __func__, errno);
}

size_t write_file(void* b, size_t sz, size_t n, void* fp)
{
    auto* file = static_cast<FILE*>(fp);
    download_write write(fileno(file));
    return std::fwrite(b, sz, n, file);
}

void populate_reply(acd_io_session_t* session)
{
    if (session->rcvbuf) {
        drop_reply(session->rcvbuf);
        curl_easy_setopt(session->handle, CURLOPT_WRITEFUNCTION, acd_io_rcvbuf_func);
        curl_easy_setopt(session->handle, CURLOPT_WRITEDATA, session->rcvbuf);
    }
    if (session->download_fp) {
        empty_file(session->download_fp);
        curl_easy_setopt(session->handle, CURLOPT_WRITEFUNCTION, write_file);
        curl_easy_setopt(session->handle, CURLOPT_WRITEDATA, session->download_fp);
    }
}

// The file is read by libcurl while it is sent, never held in memory.
void populate_form(acd_io_session_t* session)
{
    drop_form(session);
    if (session->upload_meta_data)
        curl_formadd(&session->http_post_first, &session->http_post_last, CURLFORM_COPYNAME, "metadata",
                     CURLFORM_COPYCONTENTS, session->upload_meta_data, CURLFORM_END);
    if (session->upload_file_path)
        curl_formadd(&session->http_post_first, &session->http_post_last, CURLFORM_COPYNAME, "content",
                     CURLFORM_FILE, session->upload_file_path, CURLFORM_END);
    if (session->http_post_first)
        curl_easy_setopt(session->handle, CURLOPT_HTTPPOST, session->http_post_first);
}

void acd_io_populate(acd_io_session_t* session)
{
    populate_transport(session);
    populate_headers(session);
    if (session->post_data)
        curl_easy_setopt(session->handle, CURLOPT_POSTFIELDS, session->post_data);
    populate_reply(session);
    populate_form(session);
}

acd_io_err_action __acd_io_handle_curl_error(CURLcode code, size_t attempt, acd_fs_error_t& rc)
{
    LOG_ERROR("%s: acd io read write error. %d, %s, retry = %zu\n", __func__, code, curl_easy_strerror(code),
              attempt);
    rc = ACD_FS_IO_ERR_READ_WRITE_ERROR;
    return __acd_io_get_curl_error_action(code);
}

void log_service_message(const acd_io_rcvbuf_t* reply, long status_code)
{
    if (!reply || !reply->buf)
        return;
    json_ptr value(json_parse_string(reply->buf));
    const JSON_Object* object = json_value_get_object(value.get());
    const char* message = json_object_get_string(object, "message");
    if (!message)
        message = json_object_get_string(object, "Message");
    if (message)
        LOG_ERROR("ACD Error %d: [ERROR_MSG]: %s\n", static_cast<int>(status_code), message);
}

acd_io_err_action __acd_io_handle_http_error(const acd_io_session_t* session, long status_code,
                                             size_t attempt, acd_fs_error_t& rc)
{
    LOG_ERROR("%s: acd io status = %ld, retry = %zu\n", __func__, status_code, attempt);
    acd_io_err_action action = __acd_io_get_http_error_action(status_code);
    log_service_message(session->rcvbuf, status_code);
    rc = __acd_io_get_result(status_code);
    return action;
}

// One attempt: what to do after it, none after a success. rc stays as it was when the status cannot be read.
std::optional<acd_io_err_action> perform(acd_io_session_t* session, size_t attempt, acd_fs_error_t& rc)
{
    acd_io_populate(session);
    if (CURLcode code = curl_easy_perform(session->handle); code != CURLE_OK)
        return __acd_io_handle_curl_error(code, attempt, rc);
    long status_code = 0;
    if (curl_easy_getinfo(session->handle, CURLINFO_RESPONSE_CODE, &status_code) != CURLE_OK) {
        LOG_ERROR("%s: Failed to get CURLINFO_RESPONSE_CODE!\n", "__acd_io_generic_readwrite");
        return ACD_IO_ERR_ACTION_RETRY;
    }
    if (status_code == ACD_IO_STATUS_SUCCESS || status_code == ACD_IO_STATUS_CREATED)
        return std::nullopt;
    return __acd_io_handle_http_error(session, status_code, attempt, rc);
}

bool s_stopped = false;

// False when the program is to end instead of trying again.
bool pause_between_attempts(const acd_io_session_t* session)
{
    if (!global.exit_flag)
        kx_sleep_ms(static_cast<unsigned>(session->retry_interval_sec * 1000));
    s_stopped = global.exit_flag != 0;
    return !s_stopped;
}

acd_io_session_t* new_session()
{
    auto* session = new acd_io_session_t();
    session->retry_interval_sec = kx_retry_interval_sec;
    session->handle = curl_easy_init();
    return session;
}

acd_io_session_t* session_for(const char* url, const char* custom_request, acd_io_rcvbuf_t* rcvbuf)
{
    acd_io_session_t* session = acd_io_init_session();
    acd_io_set_url(session, url);
    acd_io_set_custom_request(session, custom_request);
    acd_io_set_rcvbuf(session, rcvbuf);
    return session;
}

} // namespace

acd_io_session_t* acd_io_init_session()
{
    static acd_io_session_t* io_session = new_session();
    for (char** text : {&io_session->url, &io_session->custom_request, &io_session->post_data,
                        &io_session->upload_meta_data, &io_session->upload_file_path})
        replace_text(*text, nullptr);
    acd_io_set_token(io_session, global.token);
    io_session->download_fp = nullptr;
    io_session->rcvbuf = nullptr;
    drop_headers(io_session);
    drop_form(io_session);
    return io_session;
}

void acd_io_set_token(acd_io_session_t* session, const char* token)
{
    replace_text(session->token, token);
}

void acd_io_set_url(acd_io_session_t* session, const char* url)
{
    replace_text(session->url, url);
}

void acd_io_set_custom_request(acd_io_session_t* session, const char* custom_request)
{
    replace_text(session->custom_request, custom_request);
}

void acd_io_set_post_data(acd_io_session_t* session, const char* data)
{
    replace_text(session->post_data, data);
}

void acd_io_set_post_meta_content(acd_io_session_t* session, const char* meta_data, const char* file_path)
{
    replace_text(session->upload_meta_data, meta_data);
    replace_text(session->upload_file_path, file_path);
}

void acd_io_set_post_content(acd_io_session_t* session, const char* file_path)
{
    replace_text(session->upload_file_path, file_path);
}

void acd_io_set_rcvbuf(acd_io_session_t* session, acd_io_rcvbuf_t* rcvbuf)
{
    session->rcvbuf = rcvbuf;
    if (rcvbuf)
        *rcvbuf = {0, nullptr};
}

void acd_io_set_download_fp(acd_io_session_t* session, FILE* fp)
{
    session->download_fp = fp;
}

size_t acd_io_rcvbuf_func(void* b, size_t sz, size_t n, void* data)
{
    auto* rcvbuf = static_cast<acd_io_rcvbuf_t*>(data);
    return append_bytes(rcvbuf->buf, rcvbuf->sz, b, sz * n);
}

acd_io_err_action __acd_io_get_curl_error_action(CURLcode code)
{
    bool transient = std::ranges::find(transient_curl_errors, code) != std::end(transient_curl_errors);
    return transient ? ACD_IO_ERR_ACTION_RETRY : ACD_IO_ERR_ACTION_GIVEUP;
}

acd_io_err_action __acd_io_get_http_error_action(long status_code)
{
    if (status_code == ACD_IO_STATUS_SUCCESS || status_code == ACD_IO_STATUS_CREATED) {
        LOG_ERROR("%s: Should NOT pass in %d\n", __func__, static_cast<int>(status_code));
        std::exit(1);
    }
    auto row = std::ranges::find(http_actions, status_code, &http_action_t::status);
    if (row != std::end(http_actions))
        return row->action;
    LOG_ERROR("%s: ACD Error: Unknown status_code %d.", __func__, static_cast<int>(status_code));
    return ACD_IO_ERR_ACTION_GIVEUP;
}

acd_fs_error_t __acd_io_get_result(long status_code)
{
    auto row = std::ranges::find(http_results, status_code, &http_result_t::status);
    if (row != std::end(http_results))
        return row->result;
    LOG_ERROR("%s: Unhandled status code %d.", __func__, static_cast<int>(status_code));
    return ACD_FS_ERR_INTERNAL_ERROR;
}

bool acd_io_is_stopped()
{
    return s_stopped && global.exit_flag != 0;
}

acd_fs_error_t __acd_io_generic_readwrite(acd_io_session_t* session)
{
    if (acd_io_is_stopped())
        return ACD_FS_ERR_STOPPED;
    acd_fs_error_t rc = ACD_FS_ERR_OK;
    size_t attempt = 0;
    do {
        LOG_DEBUG("%s: Starting io read write, retry = %zu\n", __func__, attempt);
        auto action = perform(session, attempt, rc);
        if (!action)
            return ACD_FS_ERR_OK;
        if (action == ACD_IO_ERR_ACTION_GIVEUP)
            break;
        if (action == ACD_IO_ERR_ACTION_REFRESH_TOKEN && !global.exit_flag) {
            acd_refresh_token();
            acd_io_set_token(session, global.token);
        }
        ++attempt;
        if (!pause_between_attempts(session)) {
            LOG_INFO("%s: Stopped after attempt %zu.\n", __func__, attempt);
            return ACD_FS_ERR_STOPPED;
        }
    } while (session->retry == 0 || attempt <= session->retry);
    if (rc != ACD_FS_ERR_OK)
        LOG_ERROR("%s: acd io read write error (%d) after retrying %zu times!\n", __func__, rc,
                  session->retry);
    return rc;
}

acd_fs_error_t __acd_io_read_buffer(const char* url, const char* custom_request, acd_io_rcvbuf_t* rcvbuf)
{
    acd_io_session_t* session = session_for(url, custom_request, rcvbuf);
    acd_fs_error_t rc = __acd_io_generic_readwrite(session);
    if (rc != ACD_FS_ERR_OK) {
        drop_reply(rcvbuf);
        LOG_ERROR("%s: acd io read buffer error! url = %s\n", __func__, url);
    }
    return rc;
}

acd_fs_error_t __acd_io_write_buffer(const char* url, const char* custom_request, const char* data,
                                     acd_io_rcvbuf_t* rcvbuf)
{
    acd_io_session_t* session = session_for(url, custom_request, rcvbuf);
    acd_io_set_post_data(session, data);
    acd_fs_error_t rc = __acd_io_generic_readwrite(session);
    if (rc != ACD_FS_ERR_OK) {
        drop_reply(rcvbuf);
        LOG_ERROR("%s: acd io write buffer error! url = %s, data = %s\n", __func__, url, data);
    }
    return rc;
}

acd_fs_error_t __acd_io_write_form_data(const char* url, const char* custom_request, const char* meta_data,
                                        const char* local_node_path, acd_io_rcvbuf_t* rcvbuf)
{
    acd_io_session_t* session = session_for(url, custom_request, rcvbuf);
    if (meta_data)
        acd_io_set_post_meta_content(session, meta_data, local_node_path);
    else
        acd_io_set_post_content(session, local_node_path);
    acd_fs_error_t rc = __acd_io_generic_readwrite(session);
    if (rc != ACD_FS_ERR_OK) {
        drop_reply(rcvbuf);
        LOG_ERROR("%s: acd io write form data error! url = %s, meta_data = %s, local_node_path = %s\n",
                  __func__, url, shown(meta_data), shown(local_node_path));
    }
    return rc;
}

acd_fs_error_t __acd_io_download_file(const char* url, FILE* fp)
{
    acd_io_session_t* session = acd_io_init_session();
    acd_io_set_url(session, url);
    acd_io_set_download_fp(session, fp);
    return __acd_io_generic_readwrite(session);
}
