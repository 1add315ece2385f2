#include "kxamazon/acd_fs_node.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "common/json_utils.h"
#include "common/utils.h"
#include "kxamazon/acd_utils.h"

namespace
{

constexpr size_t time_text_size = 64;
constexpr size_t short_text_size = 256;
constexpr size_t long_text_size = 2048;

// A table's rows stand in the order of their values, from UNKNOWN (-1) on.
constexpr const char* kind_texts[] = {"UNKNOWN", "FILE", "FOLDER", "ASSET"};
constexpr const char* status_texts[] = {"UNKNOWN", "AVAILABLE", "PENDING", "TRASH", "PURGED"};

template <size_t N>
const char* text_of(const char* const (&texts)[N], int value)
{
    return value >= -1 && value < static_cast<int>(N) - 1 ? texts[value + 1] : nullptr;
}

// -1 for every text but those of the known values.
template <size_t N>
int value_of(const char* const (&texts)[N], const char* text)
{
    for (size_t i = 1; text && i < N; ++i)
        if (std::strcmp(texts[i], text) == 0)
            return static_cast<int>(i) - 1;
    return -1;
}

// Appends lines to a buffer until it is full.
class text_writer
{
public:
    text_writer(char* buffer, size_t size) : end_(buffer), room_(size) { *end_ = '\0'; }

    void append(const char* fmt, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list args;
        va_start(args, fmt);
        int length = std::vsnprintf(end_, room_, fmt, args);
        va_end(args);
        size_t written = length > 0 ? std::min(static_cast<size_t>(length), room_ - 1) : 0;
        end_ += written;
        room_ -= written;
    }

private:
    char* end_;
    size_t room_; // the closing NUL included
};

// A copy of the text; of the empty one when it is null.
char* copy_or_empty(const char* text)
{
    return safe_strdup(text ? text : "");
}

// A copy of a name of that length. A NUL would cut it to another name, which may be a good one; as "/" it
// stays one that no local file can have.
char* copy_name(const char* name, size_t length)
{
    std::string copy(name ? name : "", name ? length : 0);
    std::replace(copy.begin(), copy.end(), '\0', '/');
    return safe_strdup(copy.c_str());
}

bool make_ids(acd_id_array_t* ids, size_t count)
{
    if (count == 0)
        return true;
    ids->id_array = static_cast<char**>(std::calloc(count, sizeof(char*)));
    ids->count = ids->id_array ? count : 0;
    return ids->id_array != nullptr;
}

constexpr char parser[] = "__parse_node";

bool parse_identity(const JSON_Object* object, acd_node_t* node)
{
    const char* id = json_object_get_string(object, "id");
    if (!id) {
        LOG_ERROR("%s: Failed to get string id!\n", parser);
        return false;
    }
    // The drive's root has no name of its own.
    const char* name = json_object_get_string(object, "name");
    if (!name && !node->is_root) {
        LOG_ERROR("%s: Failed to get string name!\n", parser);
        return false;
    }
    node->id = safe_strdup(id);
    node->name = copy_name(name, json_object_get_string_len(object, "name"));
    return true;
}

// Kind, dates and status, which every node must have.
bool parse_state(const JSON_Object* object, acd_node_t* node)
{
    const char* kind = json_object_get_string(object, "kind");
    if (!kind) {
        LOG_ERROR("%s: Failed to get string kind!\n", parser);
        return false;
    }
    node->kind = acd_string_to_enum_kind(kind, parser);
    const char* created = json_object_get_string(object, "createdDate");
    if (!created) {
        LOG_ERROR("%s: Failed to get string createdDate!\n", parser);
        return false;
    }
    node->create_date = acdtime_to_unix(created);
    const char* modified = json_object_get_string(object, "modifiedDate");
    if (!modified) {
        LOG_ERROR("%s: Failed to get string modifiedDate!\n", parser);
        return false;
    }
    node->modified_date = acdtime_to_unix(modified);
    const char* status = json_object_get_string(object, "status");
    if (!status) {
        LOG_ERROR("%s: Failed to get string status!\n", parser);
        return false;
    }
    node->status = acd_string_to_enum_status(status, parser);
    return true;
}

bool parse_parents(const JSON_Array* array, acd_id_array_t* parents)
{
    if (!make_ids(parents, json_array_get_count(array)))
        return false;
    for (size_t i = 0; i < parents->count; ++i)
        parents->id_array[i] = safe_strdup(json_array_get_string(array, i));
    return true;
}

void free_nodes(acd_node_list_t* list)
{
    for (size_t i = 0; i < list->count; ++i)
        acd_free_node(list->nodes[i]);
    std::free(list->nodes);
}

} // namespace

const char* acd_enum_kind_to_string(acd_node_kind_t kind)
{
    const char* text = text_of(kind_texts, kind);
    if (!text) {
        LOG_ERROR("Invalid kind %d\n", kind);
        std::exit(1);
    }
    return text;
}

const char* acd_enum_status_to_string(acd_node_status_t status)
{
    const char* text = text_of(status_texts, status);
    if (!text) {
        LOG_ERROR("Invalid status %d\n", status);
        std::exit(1);
    }
    return text;
}

acd_node_kind_t acd_string_to_enum_kind(const char* text, const char* caller)
{
    auto kind = static_cast<acd_node_kind_t>(value_of(kind_texts, text));
    if (kind == NODE_KIND_UNKNOWN)
        LOG_ERROR("%s: Unknown kind %s!\n", caller, text);
    return kind;
}

acd_node_status_t acd_string_to_enum_status(const char* text, const char* caller)
{
    auto status = static_cast<acd_node_status_t>(value_of(status_texts, text));
    if (status == NODE_STATUS_UNKNOWN)
        LOG_ERROR("%s: Unknown status %s\n", caller, text);
    return status;
}

const char* acd_time_to_string(time_t t)
{
    static char buffers[2][time_text_size];
    static unsigned calls = 0;
    char* text = buffers[calls++ % std::size(buffers)];
    struct tm utc;
    if (!gmtime_r(&t, &utc) || std::strftime(text, time_text_size, "%FT%TZ", &utc) == 0)
        text[0] = '\0';
    return text;
}

const char* acd_node_to_short_string(const acd_node_t* node)
{
    static char text[short_text_size];
    if (!node)
        return "";
    return snprintf_str(
        text, sizeof text, "{ id: %s, name: %s, kind: %s, status: %s, ctime: %lld, mtime: %lld }", node->id,
        node->name, acd_enum_kind_to_string(node->kind), acd_enum_status_to_string(node->status),
        static_cast<long long>(node->create_date), static_cast<long long>(node->modified_date));
}

const char* acd_node_to_string(const acd_node_t* node)
{
    static char text[long_text_size];
    text_writer writer(text, sizeof text);
    if (!node)
        return text;
    writer.append("eTagResponse: %s\n", node->e_tag_response);
    writer.append("id: %s\n", node->id);
    writer.append("name: %s\n", node->name);
    writer.append("md5: %s\n", node->md5);
    writer.append("size: %lu\n", node->size_byte);
    writer.append("kind: %s\n", acd_enum_kind_to_string(node->kind));
    writer.append("createdDate: %s\n", acd_time_to_string(node->create_date));
    writer.append("modifiedDate: %s\n", acd_time_to_string(node->modified_date));
    writer.append("status: %s\n", acd_enum_status_to_string(node->status));
    writer.append("%s", "parents: ");
    for (uint64_t i = 0; i < node->parents.count; ++i)
        writer.append("%s%s", i ? ", " : "", node->parents.id_array[i]);
    writer.append("%s", "\n");
    return text;
}

int acd_node_has_local_name(const acd_node_t* node)
{
    const std::string_view name = node->name;
    return name != "." && name != ".." && name.find('/') == name.npos;
}

void acd_dump_node(const acd_node_t* node)
{
    LOG_DEBUG("\n%s\n", acd_node_to_string(node));
}

acd_node_list_t* create_acd_node_list()
{
    return new_record<acd_node_list_t>();
}

acd_node_t* acd_node_dup(const acd_node_t* node)
{
    node_ptr copy(node ? new_record<acd_node_t>() : nullptr);
    if (!copy)
        return nullptr;
    *copy = *node;
    copy->parents = {};
    copy->e_tag_response = safe_strdup(node->e_tag_response);
    copy->id = safe_strdup(node->id);
    copy->name = safe_strdup(node->name);
    copy->md5 = safe_strdup(node->md5);
    if (!make_ids(&copy->parents, node->parents.count))
        return nullptr;
    for (uint64_t i = 0; i < copy->parents.count; ++i)
        copy->parents.id_array[i] = safe_strdup(node->parents.id_array[i]);
    return copy.release();
}

void acd_free_node(acd_node_t* node)
{
    if (!node)
        return;
    std::free(node->e_tag_response);
    std::free(node->id);
    std::free(node->name);
    std::free(node->md5);
    for (uint64_t i = 0; i < node->parents.count; ++i)
        std::free(node->parents.id_array[i]);
    std::free(node->parents.id_array);
    std::free(node);
}

void acd_free_node_list(acd_node_list_t* list)
{
    if (!list)
        return;
    free_nodes(list);
    std::free(list);
}

void acd_free_changes(acd_changes_t* changes)
{
    if (!changes)
        return;
    free_nodes(&changes->node_list);
    std::free(changes->checkpoint);
    std::free(changes);
}

acd_node_t* __parse_node(const JSON_Object* object)
{
    node_ptr node(new_record<acd_node_t>());
    if (!node)
        return nullptr;
    node->is_root = json_object_get_boolean(object, "isRoot") == 1;
    node->e_tag_response = copy_or_empty(json_object_get_string(object, "eTagResponse"));
    if (!parse_identity(object, node.get()))
        return nullptr;
    node->md5 = copy_or_empty(json_object_dotget_string(object, "contentProperties.md5"));
    node->size_byte = to_uint64(json_object_dotget_number(object, "contentProperties.size"));
    if (!parse_state(object, node.get()) ||
        !parse_parents(json_object_get_array(object, "parents"), &node->parents))
        return nullptr;
    if (node->parents.count > 1)
        LOG_ERROR("%s: Do not support multiple parents!\n%s\n", __func__, acd_node_to_string(node.get()));
    return node.release();
}

acd_node_t* parse_node(const char* text)
{
    if (!text)
        return nullptr;
    json_ptr json(json_parse_string(text));
    if (!json || json_value_get_type(json.get()) != JSONObject) {
        LOG_ERROR("%s: Mulformed response.\n", __func__);
        LOG_ERROR("%s\n", text);
        return nullptr;
    }
    const JSON_Object* object = json_value_get_object(json.get());
    if (!object) {
        LOG_ERROR("%s: json_value_get_object return NULL\n", __func__);
        LOG_ERROR("%s\n", text);
        return nullptr;
    }
    return __parse_node(object);
}
