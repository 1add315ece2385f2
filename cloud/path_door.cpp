#include "cloud/path_door.h"

#include "cloud/rest_door.h"
#include "cloud/text.h"

using nlohmann::json;

namespace kxcloud
{

namespace
{

// ?modified=2015-06-01T12:00:00Z gives the changed node that time instead of the present.
drive::when_t when_of(const call_t& call)
{
    auto given = call.query.find("modified");
    if (given == call.query.end())
        return {};
    int64_t ms;
    if (!parse_iso_time(given->second, &ms))
        throw refusal_t{400, "Not a time: '" + given->second + "'"};
    return ms;
}

node_t require_folder(node_t node)
{
    if (node.kind != KIND_FOLDER)
        throw refusal_t{409, "'" + node.name + "' is a file"};
    return node;
}

} // namespace

void path_door::operator()(call_t& call)
{
    std::vector<std::string> path = split_path(call.path);
    path.erase(path.begin()); // "files"
    const std::string& method = call.request.method;
    if (method == "GET" || method == "HEAD")
        return get(call, path);
    if (method == "PUT")
        return put(call, path);
    if (method == "POST")
        return post(call, path);
    if (method == "DELETE")
        return call.answer(200, node_json(drive_.trash(drive_.at(path).id, when_of(call))));
    throw refusal_t{405, "Method " + method + " is not allowed here"};
}

void path_door::get(call_t& call, const path_t& path)
{
    node_t node = drive_.at(path);
    if (call.query.contains("stat"))
        return call.answer(200, node_json(node));
    if (node.kind != KIND_FOLDER) {
        int fd;
        node_t file = drive_.open_body(node.id, &fd);
        return call.send_file(file.body.size, fd);
    }
    json data = json::array();
    for (const node_t& child : drive_.children(node.id))
        data.push_back(node_json(child));
    call.answer(200, {{"count", data.size()}, {"data", data}});
}

node_t path_door::make_folders(const path_t& path, drive::when_t when)
{
    node_t folder = drive_.root();
    for (const std::string& name : path) {
        std::optional<node_t> next = drive_.child(folder.id, name);
        folder = next ? require_folder(*next) : drive_.create_folder(folder.id, name, when);
    }
    return folder;
}

void path_door::put(call_t& call, const path_t& path)
{
    if (path.empty())
        throw refusal_t{409, "The root is a folder"};
    drive::when_t when = when_of(call);
    body_writer body(drive_.contents());
    call.read([&](const char* data, size_t size) {
        body.write(data, size);
        return true;
    });
    node_t folder = make_folders({path.begin(), path.end() - 1}, when);
    std::optional<node_t> there = drive_.child(folder.id, path.back());
    if (there && there->kind == KIND_FOLDER)
        throw refusal_t{409, "'" + there->name + "' is a folder"};
    if (there)
        return call.answer(200, node_json(drive_.overwrite(there->id, body, when)));
    call.answer(201, node_json(drive_.create_file(folder.id, path.back(), body, when)));
}

void path_door::post(call_t& call, const path_t& path)
{
    drive::when_t when = when_of(call);
    if (call.query.contains("mkdir"))
        return call.answer(200, node_json(make_folders(path, when)));
    node_t node = drive_.at(path);
    if (auto name = call.query.find("rename"); name != call.query.end())
        return call.answer(200, node_json(drive_.rename(node.id, name->second, when)));
    if (auto to = call.query.find("move"); to != call.query.end()) {
        node_t folder = drive_.at(split_path(to->second, false));
        return call.answer(200, node_json(drive_.move(node.id, node.parent, folder.id, when)));
    }
    throw refusal_t{400, "Say ?mkdir, ?rename=NAME or ?move=FOLDER"};
}

} // namespace kxcloud
