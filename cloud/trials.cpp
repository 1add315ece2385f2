#include "cloud/trials.h"

#include <strings.h>

#include "cloud/drive.h"
#include "cloud/text.h"

using nlohmann::json;

namespace kxcloud
{

namespace
{

// A repeated header's values stand in one text, a line each.
json headers_of(const std::string& head)
{
    json headers = json::object();
    size_t at = head.find("\r\n");
    while (at != std::string::npos && at + 2 < head.size()) {
        size_t begin = at + 2;
        at = head.find("\r\n", begin);
        std::string line = head.substr(begin, at - begin);
        size_t colon = line.find(':');
        if (colon == std::string::npos)
            continue;
        std::string value = line.substr(std::min(line.find_first_not_of(' ', colon + 1), line.size()));
        json& header = headers[line.substr(0, colon)];
        header = header.is_string() ? header.get<std::string>() + "\n" + value : value;
    }
    return headers;
}

json json_of(const exchange_t& exchange)
{
    return {{"method", exchange.method},
            {"target", exchange.target},
            {"path", exchange.path},
            {"query", exchange.query},
            {"headers", headers_of(exchange.head)},
            {"body", exchange.body},
            {"body_size", exchange.body_size},
            {"status", exchange.status},
            {"time", iso_time(exchange.time)},
            {"connection", exchange.connection}};
}

size_t bytes_of(const exchange_t& exchange)
{
    return sizeof exchange + 2 * exchange.target.size() + exchange.head.size() + exchange.body.size();
}

bool matches(const fault_t& fault, const exchange_t& request)
{
    if (!fault.method.empty() && strcasecmp(fault.method.c_str(), request.method.c_str()) != 0)
        return false;
    std::string full_path = request.target.substr(0, request.target.find('?'));
    if (fault.path && !std::regex_search(request.path, *fault.path) &&
        !std::regex_search(full_path, *fault.path))
        return false;
    return !fault.query || std::regex_search(request.query, *fault.query);
}

std::optional<std::regex> pattern(const json& text, const char* name)
{
    if (!text.contains(name))
        return {};
    return std::regex(text.at(name).get<std::string>(), std::regex::ECMAScript | std::regex::optimize);
}

std::string text_or_json(const json& value)
{
    return value.is_string() ? value.get<std::string>() : value.dump();
}

// What the connection suffers; the request is carried out first where its reply shall be cut or delayed only.
void read_effects(const json& text, fault_t& fault)
{
    fault.run = text.value("run", false);
    fault.delay_ms = text.value("delay_ms", int64_t{0});
    fault.headers = text.value("headers", json::object());
    if (text.contains("status"))
        fault.status = text.at("status").get<int>();
    if (text.contains("body"))
        fault.body = text_or_json(text.at("body"));
    if (text.contains("raw"))
        fault.raw = text.at("raw").get<std::string>();
    if (text.contains("cut"))
        fault.cut = text.at("cut").get<uint64_t>();
    fault.reset = text.value("reset", false);
    fault.drop = text.value("drop", false);
    fault.early = text.value("early", false);
    if (fault.early && !fault.drop) // a reply before the body would leave the next request unfound
        throw refusal_t{400, "'early' is for 'drop'"};
}

} // namespace

fault_t fault_from(const json& text)
{
    static const char* const known[] = {"method", "path",     "query",  "skip",  "times",
                                        "run",    "delay_ms", "status", "body",  "headers",
                                        "raw",    "cut",      "drop",   "reset", "early"};
    try {
        for (const auto& [name, value] : text.items()) {
            if (std::find(std::begin(known), std::end(known), name) == std::end(known))
                throw refusal_t{400, "Unknown member '" + name + "' of a fault"};
        }
        fault_t fault;
        fault.text = text;
        fault.method = text.value("method", "");
        fault.path = pattern(text, "path");
        fault.query = pattern(text, "query");
        fault.skip = text.value("skip", int64_t{0});
        fault.times = text.value("times", int64_t{1});
        read_effects(text, fault);
        return fault;
    } catch (const std::exception& e) { // of the wrong type, or a broken pattern
        throw refusal_t{400, e.what()};
    }
}

void trials::add(fault_t fault)
{
    std::lock_guard lock(mutex_);
    faults_.push_back(std::move(fault));
}

json trials::faults()
{
    std::lock_guard lock(mutex_);
    json list = json::array();
    for (const fault_t& fault : faults_) {
        list.push_back(fault.text);
        list.back()["times"] = fault.times;
        list.back()["skip"] = fault.skip;
    }
    return list;
}

void trials::clear_faults()
{
    std::lock_guard lock(mutex_);
    faults_.clear();
}

std::optional<fault_t> trials::take(const exchange_t& request)
{
    std::lock_guard lock(mutex_);
    for (auto fault = faults_.begin(); fault != faults_.end(); ++fault) {
        if (!matches(*fault, request))
            continue;
        if (fault->skip > 0) {
            --fault->skip;
            continue;
        }
        fault_t taken = *fault;
        if (fault->times > 0 && --fault->times == 0)
            faults_.erase(fault);
        return taken;
    }
    return {};
}

void trials::record(exchange_t exchange)
{
    std::lock_guard lock(mutex_);
    bytes_ += bytes_of(exchange);
    requests_.push_back(std::move(exchange));
    for (; bytes_ > kept_bytes; requests_.pop_front())
        bytes_ -= bytes_of(requests_.front());
}

json trials::requests()
{
    std::lock_guard lock(mutex_);
    json list = json::array();
    for (const exchange_t& exchange : requests_)
        list.push_back(json_of(exchange));
    return list;
}

void trials::clear_requests()
{
    std::lock_guard lock(mutex_);
    requests_.clear();
    bytes_ = 0;
}

} // namespace kxcloud
