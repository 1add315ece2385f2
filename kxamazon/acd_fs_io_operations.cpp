#include <cstring>
#include <initializer_list>
#include <string>

#include "common/json_utils.h"
#include "common/owners.h"
#include "common/utils.h"
#include "kxamazon/acd_fs_io.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/global.h"

namespace
{

using escaped_ptr = owner<char, curl_free>;

const size_t children_url_max_len = 1022; // characters; longer URLs are cut
const size_t content_url_max_len = 1023;

const size_t fast_forward_max_nodes = 10000; // per request
const size_t fast_forward_chunk_size = 2000; // nodes per line of the reply

// The address of a resource below one of global's two base URLs. An absent base URL is looked up once more;
// the URL is empty when it stays absent, which the engine answers at once.
std::string drive_url(const char* global_t::*base, std::initializer_list<const char*> parts)
{
    if (!(global.*base) && !acd_io_is_stopped())
        acd_account_get_endpoint();
    if (!(global.*base))
        return {};
    std::string url = global.*base;
    for (const char* part : parts)
        url += part;
    return url;
}

std::string metadata_url(std::initializer_list<const char*> parts)
{
    return drive_url(&global_t::metadata_url, parts);
}

std::string content_url(std::initializer_list<const char*> parts)
{
    return drive_url(&global_t::content_url, parts);
}

void cut(std::string& url, size_t max_len)
{
    if (url.size() > max_len)
        url.resize(max_len);
}

enum class feed_step_t { next_line, next_round, finished };

// Takes one line of the feed; current becomes the line's checkpoint when the line has nodes. rc is set when
// finished.
feed_step_t follow_line(const char* line, string_ptr& current, acd_fs_error_t& rc)
{
    static const char func[] = "acd_io_get_latest_checkpoint";
    json_ptr value(json_parse_string(line));
    rc = ACD_FS_ERR_INVALID_RESPONSE;
    if (json_value_get_type(value.get()) != JSONObject) {
        LOG_ERROR("Mulformed response.\n");
        return feed_step_t::finished;
    }
    const JSON_Object* object = json_value_get_object(value.get());
    if (json_object_get_boolean(object, "end") == 1) {
        LOG_DEBUG("%s: Reach to the end.\n", func);
        return feed_step_t::next_round;
    }
    const JSON_Array* nodes = json_object_get_array(object, "nodes");
    const char* checkpoint = json_object_get_string(object, "checkpoint");
    if (!nodes || !checkpoint) {
        LOG_ERROR("%s: Invalid json data!\n", func);
        return feed_step_t::finished;
    }
    rc = ACD_FS_ERR_OK;
    if (json_array_get_count(nodes) == 0) {
        LOG_DEBUG("%s: No more changes. Skip checking the end flag.\n", func);
        return feed_step_t::finished;
    }
    LOG_DEBUG("%s: checkpoint %s ---> %s\n", func, current.get(), checkpoint);
    current.reset(safe_strdup(checkpoint));
    return feed_step_t::next_line;
}

// Takes a reply of the feed line by line: its end asks for the next round.
feed_step_t follow_reply(const char* line, string_ptr& current, acd_fs_error_t& rc)
{
    for (;;) {
        feed_step_t step = follow_line(line, current, rc);
        if (step != feed_step_t::next_line)
            return step;
        const char* newline = std::strchr(line, '\n');
        if (!newline) {
            LOG_ERROR("Changes response does not end with {\"end\":\"true\"}\n");
            return feed_step_t::finished;
        }
        line = newline + 1;
    }
}

acd_fs_error_t follow_feed(string_ptr& current)
{
    for (;;) {
        reply_t reply;
        const std::string before = current.get();
        acd_fs_error_t rc =
            acd_io_get_changes(current.get(), fast_forward_max_nodes, fast_forward_chunk_size, &reply);
        if (rc != ACD_FS_ERR_OK) {
            LOG_ERROR("%s: Failed to get acd changes! checkpoint = %s, rc = %d\n",
                      "acd_io_get_latest_checkpoint", current.get(), rc);
            return rc;
        }
        if (follow_reply(reply.buf, current, rc) == feed_step_t::finished)
            return rc;
        if (global.exit_flag && before == current.get()) // a feed that repeats itself must not outlast a stop
            return ACD_FS_ERR_STOPPED;
    }
}

} // namespace

acd_fs_error_t acd_io_get_children_nodes(const char* id, const char* start_token, const char* filters,
                                         acd_io_rcvbuf_t* rcvbuf)
{
    if (!id || !rcvbuf)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    LOG_DEBUG("%s: id = %s, start_token = %s, filters = %s\n", __func__, id, shown(start_token),
              shown(filters));
    std::string query;
    if (start_token)
        query.append("?startToken=").append(start_token);
    if (filters)
        query.append(start_token ? "&" : "?").append("filters=").append(filters);
    std::string url = metadata_url({"nodes/", id, "/children", query.c_str()});
    cut(url, children_url_max_len);
    return __acd_io_read_buffer(url.c_str(), nullptr, rcvbuf);
}

acd_fs_error_t acd_io_get_child_node(const char* id, const char* name, acd_io_rcvbuf_t* rcvbuf)
{
    if (!id || !name || !rcvbuf)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    escaped_ptr escaped(curl_easy_escape(nullptr, name, 0));
    string_ptr filter(asprintf_str("name:%s", escaped.get()));
    return acd_io_get_children_nodes(id, nullptr, filter.get(), rcvbuf);
}

acd_fs_error_t acd_io_get_node_with_filter(const char* filter, acd_io_rcvbuf_t* rcvbuf)
{
    if (!filter || !rcvbuf)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    std::string url = metadata_url({"nodes?filters=", filter});
    return __acd_io_read_buffer(url.c_str(), nullptr, rcvbuf);
}

acd_fs_error_t acd_io_get_node_metadata(const char* id, acd_io_rcvbuf_t* rcvbuf)
{
    if (!id || !rcvbuf)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    LOG_DEBUG("%s: id = %s\n", __func__, id);
    std::string url = metadata_url({"nodes/", id});
    return __acd_io_read_buffer(url.c_str(), nullptr, rcvbuf);
}

acd_fs_error_t acd_io_create_folder(const char* id, const char* name, acd_io_rcvbuf_t* rcvbuf)
{
    if (!id || !name || !rcvbuf)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    std::string url = metadata_url({"nodes"});
    string_ptr body(asprintf_str("{\"name\": \"%s\",\"kind\": \"FOLDER\",\"parents\": [\"%s\"]}", name, id));
    return __acd_io_write_buffer(url.c_str(), nullptr, body.get(), rcvbuf);
}

acd_fs_error_t acd_io_upload_file(const char* parent_id, const char* node_name, const char* local_node_path,
                                  acd_io_rcvbuf_t* rcvbuf)
{
    // A null is not refused here: the engine answers the empty address.
    std::string url = node_name && parent_id ? content_url({"nodes?suppress=deduplication"}) : "";
    string_ptr metadata(asprintf_str("{\"name\": \"%s\", \"kind\": \"FILE\", \"parents\": [\"%s\"]}",
                                     shown(node_name), shown(parent_id)));
    return __acd_io_write_form_data(url.c_str(), nullptr, metadata.get(), local_node_path, rcvbuf);
}

acd_fs_error_t acd_io_overwrite_file(const char* id, const char* local_node_path, acd_io_rcvbuf_t* rcvbuf)
{
    std::string url = id ? content_url({"nodes/", id, "/content"}) : "";
    return __acd_io_write_form_data(url.c_str(), "PUT", nullptr, local_node_path, rcvbuf);
}

acd_fs_error_t acd_io_download_file(const char* id, FILE* fp)
{
    if (!id || !fp)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    std::string url = content_url({"nodes/", id, "/content"});
    cut(url, content_url_max_len);
    return __acd_io_download_file(url.c_str(), fp);
}

acd_fs_error_t acd_io_patch_node(const char* id, const char* node_name, acd_io_rcvbuf_t* rcvbuf)
{
    if (!id || !node_name || !rcvbuf)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    std::string url = metadata_url({"nodes/", id});
    string_ptr body(asprintf_str("{\"name\": \"%s\"}", node_name));
    return __acd_io_write_buffer(url.c_str(), "PATCH", body.get(), rcvbuf);
}

acd_fs_error_t acd_io_move_node(const char* id, const char* new_parent_id, const char* old_parent_id,
                                acd_io_rcvbuf_t* rcvbuf)
{
    if (!id || !new_parent_id || !old_parent_id || !rcvbuf)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    std::string url = metadata_url({"nodes/", new_parent_id, "/children"});
    string_ptr body(asprintf_str("{\"fromParent\": \"%s\",\"childId\": \"%s\"}", old_parent_id, id));
    return __acd_io_write_buffer(url.c_str(), nullptr, body.get(), rcvbuf);
}

acd_fs_error_t acd_io_trash_node(const char* id, acd_io_rcvbuf_t* rcvbuf)
{
    if (!id || !rcvbuf)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    std::string url = metadata_url({"trash/", id});
    return __acd_io_read_buffer(url.c_str(), "PUT", rcvbuf);
}

acd_fs_error_t acd_io_get_changes(const char* checkpoint, size_t max_nodes, size_t chunk_size,
                                  acd_io_rcvbuf_t* rcvbuf)
{
    if (!checkpoint || !rcvbuf || max_nodes < chunk_size)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    std::string url = metadata_url({"changes"});
    string_ptr body(asprintf_str("{\"checkpoint\": \"%s\",\"includePurged\": \"false\","
                                 "\"chunkSize\": %zu,\"maxNodes\": %zu}",
                                 checkpoint, chunk_size, max_nodes));
    acd_fs_error_t rc = __acd_io_write_buffer(url.c_str(), nullptr, body.get(), rcvbuf);
    if (rc != ACD_FS_ERR_OK)
        LOG_ERROR("%s: Failed to get changes, checkpoint = %s!\n", __func__, checkpoint);
    return rc;
}

acd_fs_error_t acd_io_get_latest_checkpoint(const char* last_checkpoint, char** latest_checkpoint)
{
    if (!latest_checkpoint)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    *latest_checkpoint = nullptr;
    if (!last_checkpoint)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    LOG_DEBUG("%s: last_checkpoint = %s\n", __func__, last_checkpoint);
    string_ptr current(safe_strdup(last_checkpoint));
    acd_fs_error_t rc = follow_feed(current);
    LOG_DEBUG("%s: checkpoint=%s --> %s, rc = %d\n", __func__, last_checkpoint, current.get(), rc);
    *latest_checkpoint = current.release();
    return rc;
}

acd_fs_error_t acd_io_get_account_quota(acd_io_rcvbuf_t* rcvbuf)
{
    if (!rcvbuf)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    std::string url = metadata_url({"account/quota"});
    return __acd_io_read_buffer(url.c_str(), nullptr, rcvbuf);
}
