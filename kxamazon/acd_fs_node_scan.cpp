// Folder listings, tree walks and the change feed.
#include "kxamazon/acd_fs_node.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "kxamazon/acd_fs_node_reply.h"
#include "kxamazon/global.h"

namespace
{

bool keeps(acd_node_filter_t filter, const acd_node_t* node)
{
    return !filter || filter(node) != 0;
}

// Whether no path may hold the node's name. The cache then knows nothing of it, nor is it looked into.
bool is_left_alone(const acd_node_t* node)
{
    if (acd_node_has_local_name(node))
        return false;
    LOG_ERROR("No local file can have the name of node %s! It is left alone.\n",
              acd_node_to_short_string(node));
    return true;
}

// Moves the nodes into an empty list.
void hand_over(std::vector<node_ptr>& nodes, acd_node_list_t& list)
{
    if (nodes.empty())
        return;
    list.nodes = static_cast<acd_node_t**>(calloc(nodes.size(), sizeof *list.nodes));
    for (node_ptr& node : nodes)
        list.nodes[list.count++] = node.release();
}

// ---- Folder listing ----

// A listing under way.
struct listing_t {
    std::vector<node_ptr> nodes;
    size_t filtered = 0;
    std::string next_token; // empty when no page follows
};

void log_totals(const acd_node_t* folder, const listing_t& listing, size_t count)
{
    LOG_DEBUG("%s: Node id %s has %zu children, filtered node count is %zu, count number in json is %zu\n",
              "acd_node_scan_dir", folder->id, listing.nodes.size(), listing.filtered, count);
    if (listing.nodes.size() + listing.filtered != count)
        LOG_DEBUG("Node id %s children list count %zu + filtered node count %zu != total count %zu\n",
                  folder->id, listing.nodes.size(), listing.filtered, count);
}

// Takes in one page. An empty one is the last, whatever else it holds.
acd_fs_error_t read_page(const char* text, const acd_node_t* folder, acd_node_filter_t filter,
                         listing_t& listing)
{
    listing.next_token.clear();
    json_text json(text);
    double count = json_object_get_number(json.object(), "count");
    const JSON_Array* data = json_object_get_array(json.object(), "data");
    if (count < 0 || !data)
        return ACD_FS_ERR_INVALID_RESPONSE;
    if (json_array_get_count(data) == 0)
        return ACD_FS_ERR_OK;

    std::vector<node_ptr> page;
    parse_nodes(data, page);
    for (node_ptr& node : page) {
        if (keeps(filter, node.get()))
            listing.nodes.push_back(std::move(node));
        else
            ++listing.filtered;
    }
    // An empty token names no page: to follow it would read the first one for ever.
    if (const char* token = json_object_get_string(json.object(), "nextToken"); token && *token) {
        listing.next_token = token;
        LOG_DEBUG("%s: next_token = %s\n", "acd_node_scan_dir", token);
    } else {
        constexpr double largest_exact = 1LL << 53;
        log_totals(folder, listing, static_cast<size_t>(std::min(count, largest_exact)));
    }
    return ACD_FS_ERR_OK;
}

// ---- Tree walk ----

// The answer of the walk's callback for one child; a child without a path is passed over.
acd_fs_error_t call_for_child(const acd_node_t* child, acd_node_op_t callback, acd_sync_path_t* sync_path)
{
    if (!callback)
        return ACD_FS_ERR_OK;
    string_ptr path;
    if (acd_node_get_path(child, out(path)) != ACD_FS_ERR_OK) {
        LOG_ERROR("Failed to find path for node %s!\n", acd_node_to_short_string(child));
        return ACD_FS_ERR_OK;
    }
    return callback(path.get(), child, sync_path);
}

// ---- Change feed ----

constexpr const char* scan_changes = "acd_node_scan_changes";

// What a scan does with the changes.
struct change_handler_t {
    acd_node_filter_t filter;
    acd_changes_op_t callback;
    acd_sync_pair_list_t* pairs;
    acd_checkpoint_op_t on_checkpoint;
};

// How far a scan has come.
struct feed_t {
    std::string checkpoint;
    acd_fs_error_t rc = ACD_FS_ERR_OK; // the last callback's answer, or why the scan stopped
};

// What follows a line of the feed.
enum class feed_next_t { line, request, nothing };

feed_next_t stop(feed_t& feed, acd_fs_error_t rc)
{
    feed.rc = rc;
    return feed_next_t::nothing;
}

// Null when the object is no chunk.
changes_ptr __parse_changes(const JSON_Object* object)
{
    const char* checkpoint = json_object_get_string(object, "checkpoint");
    if (!checkpoint)
        return nullptr;
    changes_ptr changes(static_cast<acd_changes_t*>(calloc(1, sizeof(acd_changes_t))));
    changes->checkpoint = safe_strdup(checkpoint);
    changes->reset = json_object_get_boolean(object, "reset") == 1;
    std::vector<node_ptr> nodes;
    parse_nodes(json_object_get_array(object, "nodes"), nodes);
    hand_over(nodes, changes->node_list);
    return changes;
}

// Cached before the callback sees it, so that the cache already holds the notes on its rename or move.
void apply_change(const acd_node_t* node, const change_handler_t& handler, feed_t& feed)
{
    if (!keeps(handler.filter, node))
        return;
    acd_cache_node(node);
    if (is_left_alone(node))
        return;
    string_ptr path;
    if (acd_node_get_path(node, out(path)) != ACD_FS_ERR_OK) {
        LOG_ERROR("Failed to find path for node %s!\n", acd_node_to_short_string(node));
        return;
    }
    feed.rc = handler.callback(path.get(), node, handler.pairs);
}

// False when the program is to end before all of them are applied.
bool apply_changes(const acd_changes_t& changes, const change_handler_t& handler, feed_t& feed)
{
    const acd_node_list_t& list = changes.node_list;
    for (size_t i = 0; handler.callback && i < list.count; ++i) {
        LOG_INFO("%s: change node %zu/%zu: %s\n", scan_changes, i, list.count,
                 acd_node_to_short_string(list.nodes[i]));
        apply_change(list.nodes[i], handler, feed);
        if (acd_io_is_stopped())
            return false;
    }
    if (handler.on_checkpoint)
        handler.on_checkpoint(changes.checkpoint);
    return true;
}

// What a line holds; a chunk comes back in changes. The line's JSON is gone before the chunk is applied.
feed_next_t read_line(const char* line, feed_t& feed, changes_ptr& changes)
{
    json_text json(line);
    if (!json.object())
        return stop(feed, ACD_FS_ERR_INVALID_RESPONSE);
    if (json_object_get_boolean(json.object(), "end") == 1) {
        LOG_DEBUG("%s: Reach to the end.\n", scan_changes);
        return feed_next_t::request;
    }
    changes = __parse_changes(json.object());
    if (!changes) {
        LOG_ERROR("Failed to parse changes!\n");
        return stop(feed, ACD_FS_ERR_INVALID_RESPONSE);
    }
    return feed_next_t::line;
}

feed_next_t apply_line(const char* line, const change_handler_t& handler, feed_t& feed)
{
    changes_ptr changes;
    if (auto next = read_line(line, feed, changes); next != feed_next_t::line)
        return next;
    LOG_DEBUG("%s: [intermediate] checkpoint %s ---> %s\n", scan_changes, feed.checkpoint.c_str(),
              changes->checkpoint);
    const std::string before = std::exchange(feed.checkpoint, changes->checkpoint);
    if (changes->node_list.count == 0) {
        LOG_DEBUG("%s: No more changes!\n", scan_changes);
        return stop(feed, ACD_FS_ERR_OK);
    }
    if (!apply_changes(*changes, handler, feed)) {
        feed.checkpoint = before;
        return stop(feed, ACD_FS_ERR_STOPPED);
    }
    return feed_next_t::line;
}

// Reads a reply line by line, each parsed where it stands.
feed_next_t apply_reply(const char* line, const change_handler_t& handler, feed_t& feed)
{
    for (;;) {
        if (auto next = apply_line(line, handler, feed); next != feed_next_t::line)
            return next;
        line = strchr(line, '\n');
        if (!line) {
            LOG_ERROR("Changes response does not end with {\"end\":\"true\"}\n");
            return stop(feed, ACD_FS_ERR_INVALID_RESPONSE);
        }
        ++line;
    }
}

feed_next_t request_changes(size_t max_nodes, size_t chunk_size, const change_handler_t& handler,
                            feed_t& feed)
{
    reply_t reply;
    auto rc = acd_io_get_changes(feed.checkpoint.c_str(), max_nodes, chunk_size, &reply);
    if (rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to get acd changes! checkpoint = %s\n", scan_changes, feed.checkpoint.c_str());
        return stop(feed, rc);
    }
    return apply_reply(reply.buf ? reply.buf : "", handler, feed);
}

} // namespace

acd_fs_error_t acd_node_scan_dir(const acd_node_t* folder, acd_node_list_t** list, acd_node_filter_t filter)
{
    if (list)
        *list = nullptr;
    if (!folder || !list)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    listing_t listing;
    do {
        reply_t reply;
        const std::string before = listing.next_token;
        const char* token = before.empty() ? nullptr : before.c_str();
        if (auto rc = acd_io_get_children_nodes(folder->id, token, nullptr, &reply); rc != ACD_FS_ERR_OK)
            return rc;
        if (auto rc = read_page(reply.buf, folder, filter, listing); rc != ACD_FS_ERR_OK)
            return rc;
        if (global.exit_flag && token && listing.next_token == before) // pages that go in a ring
            return ACD_FS_ERR_STOPPED;
    } while (!listing.next_token.empty());
    *list = create_acd_node_list();
    hand_over(listing.nodes, **list);
    return ACD_FS_ERR_OK;
}

// In this order: the child is cached, so that its path can be found in the cache; the callback decides on it;
// then comes what is below it. Only a failed descent becomes the result: a callback merely stops its folder.
acd_fs_error_t acd_node_scan_dir_ex(const acd_node_t* folder, int recursive, acd_node_filter_t filter,
                                    acd_node_op_t callback, acd_sync_path_t* sync_path)
{
    if (!folder)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    if (folder->kind != NODE_KIND_FOLDER) {
        LOG_ERROR("%s: node id %s is not a folder, kind = %d!\n", __func__, folder->id, folder->kind);
        return ACD_FS_ERR_OK;
    }
    node_list_ptr children;
    if (auto rc = acd_node_scan_dir(folder, out(children), filter); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("Failed to scan node dir. rc = %d, node id = %s\n", rc, folder->id);
        return rc;
    }
    acd_fs_error_t result = ACD_FS_ERR_OK;
    for (size_t i = 0; i < children->count; ++i) {
        if (acd_io_is_stopped())
            return ACD_FS_ERR_STOPPED;
        const acd_node_t* child = children->nodes[i];
        acd_cache_node(child);
        if (is_left_alone(child))
            continue;
        auto answer = call_for_child(child, callback, sync_path);
        if (answer != ACD_FS_ERR_OK && answer != ACD_FS_ERR_SCAN_OP_CONTINUE)
            break;
        if (answer != ACD_FS_ERR_OK || !recursive || child->kind != NODE_KIND_FOLDER)
            continue;
        if (auto rc = acd_node_scan_dir_ex(child, recursive, filter, callback, sync_path);
            rc != ACD_FS_ERR_OK) {
            LOG_ERROR("%s: Failed scan cloud drive, node %s!\n", __func__, acd_node_to_short_string(child));
            result = rc;
        }
    }
    // The last callback may not have done what it was to do.
    return acd_io_is_stopped() ? ACD_FS_ERR_STOPPED : result;
}

// In this order: a chunk's checkpoint becomes the current one, its nodes are cached and applied, and only
// then is the checkpoint reported, so that a process that ends in a callback meets the chunk again.
acd_fs_error_t acd_node_scan_changes(const char* checkpoint, char** latest_checkpoint, int repeat,
                                     size_t max_nodes, size_t chunk_size, acd_node_filter_t filter,
                                     acd_changes_op_t callback, acd_sync_pair_list_t* pairs,
                                     acd_checkpoint_op_t on_checkpoint, acd_final_op_t on_final)
{
    if (latest_checkpoint)
        *latest_checkpoint = nullptr;
    if (!checkpoint || !latest_checkpoint)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    const std::string initial(checkpoint); // on_checkpoint may free the caller's
    LOG_DEBUG("%s: [initial] checkpoint %s\n", __func__, initial.c_str());
    const change_handler_t handler{filter, callback, pairs, on_checkpoint};
    feed_t feed{initial};
    feed_next_t next;
    std::string before;
    do {
        before = feed.checkpoint;
        next = request_changes(max_nodes, chunk_size, handler, feed);
        // A feed that repeats itself must not outlast a stop.
    } while (next == feed_next_t::request && repeat && !(global.exit_flag && feed.checkpoint == before));
    if (on_final && feed.rc != ACD_FS_ERR_STOPPED)
        on_final();
    *latest_checkpoint = safe_strdup(feed.checkpoint.c_str());
    LOG_DEBUG("%s: [final] checkpoint %s --> %s, rc = %d\n", __func__, initial.c_str(),
              feed.checkpoint.c_str(), feed.rc);
    return feed.rc;
}
