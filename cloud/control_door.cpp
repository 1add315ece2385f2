#include "cloud/control_door.h"

#include "cloud/text.h"

using nlohmann::json;

namespace kxcloud
{

struct control_door::order_t {
    const char* method;
    const char* path;
    void (control_door::*obey)(call_t&);
};

const control_door::order_t control_door::orders[] = {
    {"POST", "/control/faults", &control_door::add_faults},
    {"GET", "/control/faults", &control_door::list_faults},
    {"DELETE", "/control/faults", &control_door::clear_faults},
    {"GET", "/control/requests", &control_door::list_requests},
    {"DELETE", "/control/requests", &control_door::clear_requests},
    {"POST", "/control/expire", &control_door::expire},
    {"POST", "/control/clock", &control_door::set_clock},
    {"POST", "/control/node", &control_door::edit_node},
    {"POST", "/control/seed", &control_door::seed},
};

namespace
{

template <class T>
T known(const std::optional<T>& value, const json& text)
{
    if (!value)
        throw refusal_t{400, "Invalid value " + text.dump()};
    return *value;
}

std::optional<int64_t> time_of(const json& text)
{
    int64_t ms;
    if (!parse_iso_time(text.get<std::string>(), &ms))
        return {};
    return ms;
}

} // namespace

void control_door::operator()(call_t& call)
{
    for (const order_t& order : orders) {
        if (call.path == order.path && call.request.method == order.method)
            return (this->*order.obey)(call);
    }
    throw refusal_t{404, "No such control: " + call.request.method + " " + call.path};
}

// One fault, or several in an array.
void control_door::add_faults(call_t& call)
{
    json text = json::parse(call.read_text());
    for (const json& fault : text.is_array() ? text : json::array({text}))
        trials_.add(fault_from(fault));
    list_faults(call);
}

void control_door::list_faults(call_t& call)
{
    call.answer(200, trials_.faults());
}

void control_door::clear_faults(call_t& call)
{
    trials_.clear_faults();
    list_faults(call);
}

void control_door::list_requests(call_t& call)
{
    call.answer(200, trials_.requests());
}

void control_door::clear_requests(call_t& call)
{
    trials_.clear_requests();
    call.answer(200, json::object());
}

void control_door::expire(call_t& call)
{
    tokens_.expire();
    call.answer(200, json::object());
}

void control_door::set_clock(call_t& call)
{
    drive_.clock_offset_ms = json::parse(call.read_text()).at("offset_ms").get<int64_t>();
    call.answer(200, {{"now", iso_time(drive_.now())}});
}

void control_door::seed(call_t& call)
{
    json text = json::parse(call.read_text());
    node_t parent = drive_.at(split_path(text.value("path", "/"), false));
    drive_.seed(parent.id, text.value("folders", int64_t{0}), text.value("files", int64_t{0}),
                text.value("content", ""));
    call.answer(200, node_json(parent));
}

void control_door::edit_node(call_t& call)
{
    json text = json::parse(call.read_text());
    edit_t edit;
    if (text.contains("name"))
        edit.name = text["name"].get<std::string>();
    if (text.contains("status"))
        edit.status = known(status_of(text["status"]), text["status"]);
    if (text.contains("kind"))
        edit.kind = known(kind_of(text["kind"]), text["kind"]);
    if (text.contains("createdDate"))
        edit.created = known(time_of(text["createdDate"]), text["createdDate"]);
    if (text.contains("modifiedDate"))
        edit.modified = known(time_of(text["modifiedDate"]), text["modifiedDate"]);
    std::string id = text.contains("id")
                         ? text["id"].get<std::string>()
                         : drive_.at(split_path(text.at("path").get<std::string>(), false)).id;
    call.answer(200, node_json(drive_.edit(id, edit)));
}

} // namespace kxcloud
