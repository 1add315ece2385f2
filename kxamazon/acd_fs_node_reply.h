// What the node operations share: the JSON of a reply, and the way of a node from there through the cache to
// the caller. Private to the node operations.
#pragma once

#include <string>
#include <vector>

#include "common/json_utils.h"
#include "common/utils.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_fs_io.h"
#include "kxamazon/acd_fs_node.h"

// The JSON object at the start of a text, which lives as long as this does.
class json_text
{
public:
    // Logs a text that is no object.
    explicit json_text(const char* text) : value_(json_parse_string(text))
    {
        if (!object())
            LOG_ERROR("Mulformed response.\n");
    }
    const JSON_Object* object() const { return json_value_get_object(value_.get()); }

private:
    json_ptr value_;
};

// Appends the nodes of an array; elements that are no node are left out. A null array holds none.
inline void parse_nodes(const JSON_Array* array, std::vector<node_ptr>& nodes)
{
    for (size_t i = 0, count = json_array_get_count(array); i < count; ++i)
        if (node_ptr node{__parse_node(json_array_get_object(array, i))})
            nodes.push_back(std::move(node));
}

// The node that a whole reply describes, cached; ACD_FS_ERR_INVALID_RESPONSE and null when it describes none.
inline acd_fs_error_t take_node(const reply_t& reply, acd_node_t** node)
{
    *node = parse_node(reply.buf);
    if (!*node)
        return ACD_FS_ERR_INVALID_RESPONSE;
    acd_cache_node(*node);
    return ACD_FS_ERR_OK;
}

// The first parent's id, borrowed; null when the node has none.
inline const char* parent_id_of(const acd_node_t* node)
{
    return node->parents.count > 0 ? node->parents.id_array[0] : nullptr;
}

// A node's short form as its own string, so that one message can show two nodes.
inline std::string text_of(const acd_node_t* node)
{
    return acd_node_to_short_string(node);
}
