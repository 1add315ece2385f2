#include "kxamazon/acd_utils_direct.h"

#include <algorithm>
#include <cstring>

#include "common/utils.h"
#include "kxamazon/global.h"

namespace
{

constexpr size_t debug_text_size = 512;

using curl_ptr = owner<CURL, curl_easy_cleanup>;
using headers_ptr = owner<curl_slist, curl_slist_free_all>;

void set_options(CURL* curl, const direct_call_t& call, curl_slist* headers, rcvbuf* reply)
{
    curl_easy_setopt(curl, CURLOPT_URL, call.url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, call.accept_encoding);
    if (call.post_body)
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, call.post_body);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, global.debug_curl && g_verbose > call.quiet_verbosity ? 1L : 0L);
    if (call.download_fp) {
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, call.download_fp);
    } else {
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, rcvfunc);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, reply);
    }
}

void log_debug_text(char marker, const char* b, size_t len)
{
    char text[debug_text_size];
    size_t size = std::min(len, sizeof text - 1);
    std::copy_n(b, size, text);
    text[size] = '\0';
    chomp(text);
    LOG_DEBUG("[curl]%c %s\n", marker, text);
}

} // namespace

CURL* my_curl_easy_init()
{
    CURL* curl = curl_easy_init();
    if (curl) {
        curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, dbgfunc);
        curl_easy_setopt(curl, CURLOPT_DEBUGDATA, nullptr);
    }
    return curl;
}

int dbgfunc(CURL*, curl_infotype infotype, char* b, size_t len, void*)
{
    switch (infotype) {
    case CURLINFO_TEXT:
        log_debug_text('*', b, len);
        break;
    case CURLINFO_HEADER_IN:
    case CURLINFO_HEADER_OUT:
        log_debug_text('<', b, len);
        break;
    case CURLINFO_DATA_IN:
    case CURLINFO_SSL_DATA_IN:
        LOG_DEBUG("[curl]%c %zu bytes\n", '-', len);
        break;
    case CURLINFO_DATA_OUT:
    case CURLINFO_SSL_DATA_OUT:
        LOG_DEBUG("[curl]%c %zu bytes\n", '+', len);
        break;
    default:
        break;
    }
    return 0;
}

size_t rcvfunc(void* b, size_t sz, size_t n, void* data)
{
    auto* reply = static_cast<rcvbuf*>(data);
    return append_bytes(reply->buf, reply->sz, b, sz * n);
}

int direct_call(const direct_call_t& call, direct_reply_t& reply)
{
    curl_ptr curl(my_curl_easy_init());
    if (!curl) {
        LOG_ERROR("CURL failed in init.\n");
        return direct_failed;
    }
    headers_ptr headers;
    if (!call.header.empty())
        headers.reset(curl_slist_append(nullptr, call.header.c_str()));
    set_options(curl.get(), call, headers.get(), &reply);
    if (CURLcode rc = curl_easy_perform(curl.get()); rc != CURLE_OK) {
        LOG_DEBUG("CURL failed. %s\n", curl_easy_strerror(rc));
        return direct_failed;
    }
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &reply.status);
    return reply.status == 200 ? 0 : static_cast<int>(reply.status);
}

std::string bearer_header()
{
    return std::string("Authorization: Bearer ") + (global.token ? global.token : "");
}
