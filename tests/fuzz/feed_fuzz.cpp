// The change feed's reply, from its text to the cache and to the callback with each node's path. The
// request engine is this program's own: the feed is the input, the cloud holds nothing else.
#include <cstring>

#include "fuzz.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_fs_io.h"
#include "kxamazon/acd_fs_node.h"
#include "kxamazon/acd_sync_downsync.h"
#include "kxamazon/global.h"

namespace
{

std::string reply;

acd_fs_error_t not_found(acd_io_rcvbuf_t* rcvbuf)
{
    *rcvbuf = {};
    return ACD_FS_ERR_RESOURCE_NOT_FOUND;
}

acd_fs_error_t look_at(const char* path, const acd_node_t* node, acd_sync_pair_list_t*)
{
    kxtest::fuzz_check(path && path[0] == '/' && node, "a changed node has a path");
    string_ptr old;
    acd_cache_is_cloud_node_moved(node, out(old));
    acd_cache_is_cloud_node_renamed(node, out(old));
    return ACD_FS_ERR_OK;
}

} // namespace

bool acd_io_is_stopped()
{
    return false;
}

acd_fs_error_t __acd_io_read_buffer(const char*, const char*, acd_io_rcvbuf_t* rcvbuf)
{
    return not_found(rcvbuf);
}

acd_fs_error_t __acd_io_write_buffer(const char* url, const char*, const char*, acd_io_rcvbuf_t* rcvbuf)
{
    if (!std::string(url).ends_with("changes"))
        return not_found(rcvbuf);
    *rcvbuf = {reply.size(), strdup(reply.c_str())};
    return ACD_FS_ERR_OK;
}

acd_fs_error_t __acd_io_write_form_data(const char*, const char*, const char*, const char*,
                                        acd_io_rcvbuf_t* rcvbuf)
{
    return not_found(rcvbuf);
}

acd_fs_error_t __acd_io_download_file(const char*, FILE*)
{
    return ACD_FS_ERR_RESOURCE_NOT_FOUND;
}

FUZZ_TARGET
{
    static char url[] = "http://127.0.0.1:1/";
    global.metadata_url = global.content_url = url;
    reply = kxtest::fuzz_text(data, size);
    static long runs = 0;
    if (runs++ % 500 == 0) { // what the cache holds leads to other paths, but must not slow it down for ever
        acd_cache_deinit();
        acd_cache_init(0);
        acd_cache_reset();
    }
    string_ptr latest;
    acd_node_scan_changes("start", out(latest), 0, 10000, 200, op_default_filter, look_at, nullptr, nullptr,
                          nullptr);
    return 0;
}
