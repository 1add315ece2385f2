#include "cloud/rest_door.h"

#include <cstdio>

#include "cloud/text.h"

using nlohmann::json;

namespace kxcloud
{

// "*" in a path stands for one part, which becomes the id.
struct rest_door::route_t {
    const char* method;
    const char* path;
    void (rest_door::*answer)(call_t&, const std::string& id);
    bool open = false; // no bearer token needed
};

const rest_door::route_t rest_door::routes[] = {
    {"GET", "drive/v1/account/endpoint", &rest_door::endpoint},
    {"POST", "auth/o2/token", &rest_door::token, true},
    {"GET", "metadata/account/info", &rest_door::info},
    {"GET", "metadata/account/quota", &rest_door::quota},
    {"GET", "metadata/account/usage", &rest_door::usage},
    {"GET", "metadata/nodes", &rest_door::find},
    {"POST", "metadata/nodes", &rest_door::create_folder},
    {"GET", "metadata/nodes/*", &rest_door::node},
    {"PATCH", "metadata/nodes/*", &rest_door::rename},
    {"GET", "metadata/nodes/*/children", &rest_door::children},
    {"POST", "metadata/nodes/*/children", &rest_door::move},
    {"PUT", "metadata/trash/*", &rest_door::trash},
    {"POST", "metadata/changes", &rest_door::changes},
    {"POST", "content/nodes", &rest_door::upload},
    {"PUT", "content/nodes/*/content", &rest_door::overwrite},
    {"GET", "content/nodes/*/content", &rest_door::download},
};

namespace
{

bool matches(const std::vector<std::string>& pattern, const std::vector<std::string>& path, std::string* id)
{
    if (pattern.size() != path.size())
        return false;
    for (size_t i = 0; i < path.size(); ++i) {
        if (pattern[i] == "*")
            *id = path[i];
        else if (pattern[i] != path[i])
            return false;
    }
    return true;
}

std::string option(const query_t& query, const std::string& name)
{
    auto found = query.find(name);
    return found == query.end() ? "" : found->second;
}

json object_from(const std::string& text)
{
    json object = json::parse(text);
    if (!object.is_object())
        throw refusal_t{400, "The body is not a JSON object"};
    return object;
}

std::string text_of(const json& object, const char* name)
{
    auto found = object.find(name);
    if (found == object.end() || !found->is_string())
        throw refusal_t{400, std::string("The text '") + name + "' is missing"};
    return found->get<std::string>();
}

// The first of "parents".
std::string parent_of(const json& object)
{
    auto found = object.find("parents");
    if (found == object.end() || !found->is_array() || found->size() != 1 || !found->front().is_string())
        throw refusal_t{400, "One parent is needed in 'parents'"};
    return found->front().get<std::string>();
}

void require_kind(const json& object, kind_t kind)
{
    if (text_of(object, "kind") != kind_text(kind))
        throw refusal_t{400, std::string("The kind must be ") + kind_text(kind)};
}

json listing(const page_t& page)
{
    json nodes = json::array();
    for (const node_t& node : page.nodes)
        nodes.push_back(node_json(node));
    json reply = {{"count", page.count}, {"data", std::move(nodes)}};
    if (!page.next_token.empty())
        reply["nextToken"] = page.next_token;
    return reply;
}

template <class T>
T known(const std::optional<T>& value, const std::string& text)
{
    if (!value)
        throw refusal_t{400, "Invalid filter value '" + text + "'"};
    return *value;
}

struct filter_field_t {
    const char* name;
    void (*set)(filter_t& filter, const std::string& value);
};

const filter_field_t filter_fields[] = {
    {"name:", [](filter_t& filter, const std::string& value) { filter.name = value; }},
    {"kind:", [](filter_t& filter, const std::string& value) { filter.kind = known(kind_of(value), value); }},
    {"status:",
     [](filter_t& filter, const std::string& value) { filter.status = known(status_of(value), value); }},
    {"parents:", [](filter_t& filter, const std::string& value) { filter.parent = value; }},
    {"isRoot:", [](filter_t& filter, const std::string& value) { filter.root_only = value == "true"; }},
};

const filter_field_t* field_at(const std::string& text, size_t at)
{
    for (const filter_field_t& field : filter_fields) {
        if (text.compare(at, std::strlen(field.name), field.name) == 0)
            return &field;
    }
    return nullptr;
}

// "field:value AND field:value"; an " AND " that no field follows belongs to the value.
filter_t filter_from(const std::string& text)
{
    static const std::string link = " AND ";
    filter_t filter;
    for (size_t at = 0; at < text.size();) {
        const filter_field_t* field = field_at(text, at);
        if (!field)
            throw refusal_t{400, "Invalid filter '" + text + "'"};
        size_t begin = at + std::strlen(field->name);
        size_t end = text.find(link, begin);
        while (end != std::string::npos && !field_at(text, end + link.size()))
            end = text.find(link, end + 1);
        field->set(filter, text.substr(begin, end - begin));
        at = end == std::string::npos ? text.size() : end + link.size();
    }
    return filter;
}

int64_t number_or(const json& object, const char* name, int64_t otherwise)
{
    auto found = object.find(name);
    if (found == object.end())
        return otherwise;
    if (!found->is_number_integer() || found->get<int64_t>() < 1)
        throw refusal_t{400, std::string("Invalid number '") + name + "'"};
    return found->get<int64_t>();
}

} // namespace

json node_json(const node_t& node)
{
    json text = {{"eTagResponse", node.id.substr(0, 8) + "-" + std::to_string(node.version)},
                 {"id", node.id},
                 {"kind", kind_text(node.kind)},
                 {"version", node.version},
                 {"createdDate", iso_time(node.created)},
                 {"modifiedDate", iso_time(node.modified)},
                 {"parents", json::array()},
                 {"status", status_text(node.status)}};
    if (node.parent.empty()) {
        text["isRoot"] = true;
        return text;
    }
    text["isRoot"] = false;
    text["name"] = node.name;
    text["parents"].push_back(node.parent);
    if (node.kind == KIND_FILE)
        text["contentProperties"] = {{"size", node.body.size}, {"md5", node.body.md5}};
    return text;
}

// ---- Tokens ----

void tokens::expire()
{
    std::lock_guard lock(mutex_);
    any_ = false;
    granted_.clear();
}

bool tokens::good(const std::string& authorization)
{
    static const std::string scheme = "Bearer ";
    if (!authorization.starts_with(scheme) || authorization.size() == scheme.size())
        return false;
    std::lock_guard lock(mutex_);
    return any_ || granted_.contains(authorization.substr(scheme.size()));
}

std::string tokens::grant()
{
    std::string token = "Atza|" + random_name(40);
    std::lock_guard lock(mutex_);
    granted_.insert(token);
    return token;
}

// ---- Routes ----

void rest_door::operator()(call_t& call)
{
    struct target_t {
        std::vector<std::string> parts;
        const route_t* route;
    };
    static const std::vector<target_t> targets = [] {
        std::vector<target_t> list;
        for (const route_t& route : routes)
            list.push_back({split_path(route.path), &route});
        return list;
    }();

    std::vector<std::string> path = split_path(call.path);
    std::string method = call.request.method == "HEAD" ? "GET" : call.request.method;
    std::string id;
    bool known_path = false;
    for (const target_t& target : targets) {
        if (!matches(target.parts, path, &id))
            continue;
        known_path = true;
        if (method != target.route->method)
            continue;
        if (!target.route->open && !tokens_.good(call.request.get_header_value("Authorization")))
            throw refusal_t{401, "Token has expired"};
        return (this->*target.route->answer)(call, id);
    }
    if (known_path)
        throw refusal_t{405, "Method " + method + " is not allowed here"};
    throw refusal_t{404, "No such resource: " + call.path};
}

// The address that the client used is one at which it reaches this server.
void rest_door::endpoint(call_t& call, const std::string&)
{
    std::string base = (secure_ ? "https://" : "http://") + call.request.get_header_value("Host");
    call.answer(
        200,
        {{"customerExists", true}, {"contentUrl", base + "/content/"}, {"metadataUrl", base + "/metadata/"}});
}

void rest_door::token(call_t& call, const std::string&)
{
    query_t form = parse_query(call.read_text());
    if (option(form, "grant_type") != "refresh_token")
        throw refusal_t{400, "The grant_type must be refresh_token"};
    if (option(form, "refresh_token").empty())
        throw refusal_t{400, "The refresh_token is missing"};
    call.answer(200, {{"access_token", tokens_.grant()},
                      {"refresh_token", "Atzr|" + random_name(40)},
                      {"token_type", "bearer"},
                      {"expires_in", 3600}});
}

// ---- Account ----

void rest_door::info(call_t& call, const std::string&)
{
    call.answer(200, {{"termsOfUse", "1.0.0"}, {"status", "ACTIVE"}});
}

void rest_door::quota(call_t& call, const std::string&)
{
    constexpr int64_t quota_bytes = int64_t{1} << 40;
    int64_t used = 0;
    for (int i = 0; i < CLASS_COUNT; ++i)
        used += drive_.usage(static_cast<file_class_t>(i)).bytes;
    call.answer(200, {{"quota", quota_bytes},
                      {"available", std::max<int64_t>(quota_bytes - used, 0)},
                      {"lastCalculated", iso_time(drive_.now())}});
}

void rest_door::usage(call_t& call, const std::string&)
{
    static const char* const names[CLASS_COUNT] = {"other", "doc", "photo", "video"};
    json reply = {{"lastCalculated", iso_time(drive_.now())}};
    for (int i = 0; i < CLASS_COUNT; ++i) {
        usage_t part = drive_.usage(static_cast<file_class_t>(i));
        json numbers = {{"bytes", part.bytes}, {"count", part.count}};
        reply[names[i]] = {{"total", numbers}, {"billable", numbers}};
    }
    call.answer(200, reply);
}

// ---- Nodes ----

void rest_door::find(call_t& call, const std::string&)
{
    filter_t filter = filter_from(option(call.query, "filters"));
    call.answer(200, listing(drive_.list(filter, option(call.query, "startToken"))));
}

void rest_door::children(call_t& call, const std::string& id)
{
    filter_t filter = filter_from(option(call.query, "filters"));
    filter.parent = id;
    call.answer(200, listing(drive_.list(filter, option(call.query, "startToken"))));
}

void rest_door::node(call_t& call, const std::string& id)
{
    call.answer(200, node_json(drive_.get(id)));
}

void rest_door::create_folder(call_t& call, const std::string&)
{
    json body = object_from(call.read_text());
    require_kind(body, KIND_FOLDER);
    call.answer(201, node_json(drive_.create_folder(parent_of(body), text_of(body, "name"))));
}

void rest_door::rename(call_t& call, const std::string& id)
{
    json body = object_from(call.read_text());
    call.answer(200, node_json(drive_.rename(id, text_of(body, "name"))));
}

void rest_door::move(call_t& call, const std::string& id)
{
    json body = object_from(call.read_text());
    call.answer(200, node_json(drive_.move(text_of(body, "childId"), text_of(body, "fromParent"), id)));
}

void rest_door::trash(call_t& call, const std::string& id)
{
    call.answer(200, node_json(drive_.trash(id)));
}

// ---- Contents ----

namespace
{

// A form with the parts "metadata" and "content". What the disk refuses is thrown after the last byte came.
struct upload_t {
    explicit upload_t(const bodies& where) : content(where) {}

    std::string metadata;
    body_writer content;
    bool has_content = false;

    void read(call_t& call)
    {
        std::string part;
        std::exception_ptr failure;
        call.read_form([&](const std::string& name) { begin(part = name); },
                       [&](const char* data, size_t size) {
                           try {
                               take(part, data, size);
                           } catch (...) {
                               failure = failure ? failure : std::current_exception();
                           }
                           return true;
                       });
        if (failure)
            std::rethrow_exception(failure);
        if (!has_content)
            throw refusal_t{400, "The part 'content' is missing"};
    }

private:
    void begin(const std::string& part) { has_content |= part == "content"; }

    void take(const std::string& part, const char* data, size_t size)
    {
        if (part == "metadata")
            metadata.append(data, size);
        else if (part == "content")
            content.write(data, size);
    }
};

} // namespace

void rest_door::upload(call_t& call, const std::string&)
{
    upload_t upload(drive_.contents());
    upload.read(call);
    json body = object_from(upload.metadata);
    require_kind(body, KIND_FILE);
    call.answer(201, node_json(drive_.create_file(parent_of(body), text_of(body, "name"), upload.content)));
}

void rest_door::overwrite(call_t& call, const std::string& id)
{
    upload_t upload(drive_.contents());
    upload.read(call);
    call.answer(200, node_json(drive_.overwrite(id, upload.content)));
}

void rest_door::download(call_t& call, const std::string& id)
{
    int fd;
    node_t file = drive_.open_body(id, &fd);
    call.send_file(file.body.size, fd);
}

// ---- Changes ----

namespace
{

struct feed_position_t {
    int64_t after = 0;
    bool reset = false; // the checkpoint is none of this drive's: everything comes anew
};

std::string checkpoint_text(const drive& store, int64_t change)
{
    return store.tag() + "." + std::to_string(change);
}

feed_position_t position_of(const drive& store, const std::string& checkpoint)
{
    if (checkpoint.empty())
        return {};
    std::string prefix = store.tag() + ".";
    char end;
    long long after;
    if (!checkpoint.starts_with(prefix) ||
        std::sscanf(checkpoint.c_str() + prefix.size(), "%lld%c", &after, &end) != 1)
        return {0, true};
    return {after, false};
}

} // namespace

// Chunks of changed nodes, a line each, and the end line. An empty chunk says that there is nothing more.
void rest_door::changes(call_t& call, const std::string&)
{
    json body = object_from(call.read_text());
    json checkpoint = body.value("checkpoint", json(""));
    if (!checkpoint.is_string())
        throw refusal_t{400, "The checkpoint is not a text"};
    int64_t chunk_size = number_or(body, "chunkSize", 1000);
    int64_t left = number_or(body, "maxNodes", 10000);
    json purged = body.value("includePurged", json("false"));
    feed_position_t position = position_of(drive_, checkpoint);
    std::string lines;
    do {
        auto nodes =
            drive_.changes(position.after, std::min(chunk_size, left), purged == true || purged == "true");
        if (nodes.empty() && !lines.empty())
            break;
        json chunk = {{"nodes", json::array()}, {"reset", position.reset}, {"statusCode", 200}};
        for (const node_t& node : nodes)
            chunk["nodes"].push_back(node_json(node));
        position = {nodes.empty() ? position.after : nodes.back().change, false};
        chunk["checkpoint"] = checkpoint_text(drive_, position.after);
        lines += chunk.dump() + "\n";
        left -= static_cast<int64_t>(nodes.size());
        if (nodes.empty())
            break;
    } while (left > 0);
    call.reply.status = 200;
    call.reply.set_content(lines + "{\"end\":true}\n", "application/json");
}

} // namespace kxcloud
