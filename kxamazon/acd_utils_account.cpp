#include "kxamazon/acd_utils.h"

#include <cstdio>
#include <string>
#include <utility>

#include "common/json_utils.h"
#include "common/owners.h"
#include "common/utils.h"
#include "kxamazon/acd_utils_direct.h"
#include "kxamazon/global.h"

namespace
{

constexpr size_t max_url = 1023;
constexpr size_t max_header = 2047;

// Makes a call below one of global's base URLs and reports an error reply. An unknown base is asked for once
// more; while it stays unknown the URL is empty, which fails at once.
int account_call(const char* const& base, const std::string& path, direct_call_t call, direct_reply_t& reply)
{
    if (!base)
        acd_account_get_endpoint();
    if (base)
        call.url = (base + path).substr(0, max_url);
    call.header = bearer_header().substr(0, max_header);
    int rc = direct_call(call, reply);
    if (rc != 0 && reply.status != 0)
        _http_response_handler(rc, reply.buf);
    return rc;
}

// Fetches and shows one report on the account; json stays empty when the reply does not parse.
int get_report(const char* path, json_ptr& json)
{
    direct_reply_t reply;
    if (int rc = account_call(global.metadata_url, path, {}, reply))
        return rc;
    json.reset(json_parse_string(reply.buf));
    if (g_verbose > 2)
        dump_json_value_flex("account_info", json.get());
    return 0;
}

// Hands the text of a reply to the caller; an empty reply is an empty text.
int get_text(const std::string& path, const direct_call_t& call, char** jsonstr)
{
    *jsonstr = nullptr;
    direct_reply_t reply;
    if (int rc = account_call(global.metadata_url, path, call, reply))
        return rc;
    *jsonstr = reply.buf ? std::exchange(reply.buf, nullptr) : safe_strdup("");
    return 0;
}

void copy_last_calculated(const JSON_Object* report, char (&text)[64])
{
    const char* time_text = json_object_get_string(report, "lastCalculated");
    safe_snprintf(text, sizeof text, "%s", time_text ? time_text : "");
}

acd_usage_stats_t total_of(const JSON_Object* report, const std::string& type)
{
    return {to_uint64(json_object_dotget_number(report, (type + ".total.bytes").c_str())),
            to_uint64(json_object_dotget_number(report, (type + ".total.count").c_str()))};
}

} // namespace

int acd_account_get_info()
{
    json_ptr json;
    return get_report("account/info", json);
}

int acd_account_get_quota(acd_quota_t* quota)
{
    if (!quota)
        return -1;
    json_ptr json;
    if (int rc = get_report("account/quota", json))
        return rc;
    *quota = {};
    const JSON_Object* report = json_value_get_object(json.get());
    if (!report)
        return -1;
    quota->quota = to_uint64(json_object_get_number(report, "quota"));
    quota->available = to_uint64(json_object_get_number(report, "available"));
    copy_last_calculated(report, quota->last_calculated);
    return 0;
}

int acd_account_get_usage(acd_usage_t* usage)
{
    if (!usage)
        return -1;
    json_ptr json;
    if (int rc = get_report("account/usage", json))
        return rc;
    *usage = {};
    const JSON_Object* report = json_value_get_object(json.get());
    if (!report)
        return -1;
    usage->other.total = total_of(report, "other");
    usage->doc.total = total_of(report, "doc");
    usage->photo.total = total_of(report, "photo");
    usage->video.total = total_of(report, "video");
    copy_last_calculated(report, usage->last_calculated);
    return 0;
}

int acd_get_nodes_with_filter(const char* filter, char** jsonstr)
{
    if (!filter || !jsonstr)
        return -1;
    LOG_DEBUG("acd_get_nodes_with_filter: %s\n", filter);
    return get_text(std::string("nodes?filters=") + filter, {}, jsonstr);
}

int acd_get_sync_changes(const char* checkpoint, char** jsonstr)
{
    if (!jsonstr)
        return -1;
    std::string from = checkpoint ? checkpoint : "";
    LOG_DEBUG("acd_get_sync_changes checkpoint: %s\n", from.c_str());
    std::string body = "{\"checkpoint\":\"" + from + "\"}";
    return get_text("changes", {.post_body = body.c_str(), .accept_encoding = "gzip"}, jsonstr);
}

int acd_download_file(const char* id, const char* local_path)
{
    if (!id || !local_path)
        return -1;
    LOG_DEBUG("acd_download_file: {node:%s to local_path: %s}\n", id, local_path);
    file_ptr file(std::fopen(local_path, "wb"));
    if (!file) {
        LOG_ERROR("Cannot open %s.\n", local_path);
        return direct_failed;
    }
    direct_reply_t reply;
    int rc = account_call(global.content_url, std::string("nodes/") + id + "/content",
                          {.download_fp = file.get(), .quiet_verbosity = 3}, reply);
    if (rc != 0 && reply.status != 0)
        LOG_ERROR("%s: http_status = %ld\n", __func__, reply.status);
    // A full disk may show only now, with the last buffered bytes.
    bool written = std::fflush(file.get()) == 0;
    return rc == 0 && !written ? direct_failed : rc;
}

void acd_copy_checkpoint(char* dst, const char* src, size_t len)
{
    if (dst && src && len != 0)
        safe_snprintf(dst, len, "%s", src);
}
