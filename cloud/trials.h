// What tests ask of the server: faults that wait for their requests, and the list of requests received.
//
// Both are shared by all connections and locked inside. Only requests of the drive count, not those of the
// path door and of this door.
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <mutex>
#include <optional>
#include <regex>
#include <string>

#include <nlohmann/json.hpp>

namespace kxcloud
{

// A request as it was received. The path stands below its base URL: "/nodes/ID", whichever base it was sent
// to.
struct exchange_t {
    std::string method;
    std::string target; // path and query as sent
    std::string path;
    std::string query; // as sent
    std::string head;  // request line and headers as sent
    std::string body;  // as sent, its beginning when it is long
    uint64_t body_size = 0;
    int status = 0; // 0: no reply was sent
    int64_t time = 0;
    int64_t connection = 0;
};

struct fault_t {
    std::string method; // empty: any
    std::optional<std::regex> path;
    std::optional<std::regex> query;
    int64_t skip = 0;
    int64_t times = 1;   // below 0: for ever
    nlohmann::json text; // as given, for the list

    bool early = false; // before the body is read
    bool run = false;   // carry the request out although its reply is replaced
    int64_t delay_ms = 0;
    std::optional<int> status;
    std::string body;
    nlohmann::json headers = nlohmann::json::object();
    std::optional<std::string> raw;
    std::optional<uint64_t> cut;
    bool drop = false;
    bool reset = false;

    bool replaces_reply() const { return status || raw || drop; }
};

// Throws a refusal when the description is not one of a fault.
fault_t fault_from(const nlohmann::json& text);

class trials
{
public:
    void add(fault_t fault);
    nlohmann::json faults();
    void clear_faults();
    std::optional<fault_t> take(const exchange_t& request); // the first that matches, which counts one down

    void record(exchange_t exchange);
    nlohmann::json requests();
    void clear_requests();

private:
    static constexpr size_t kept_bytes = 64 * 1024 * 1024;

    std::mutex mutex_;
    std::list<fault_t> faults_;
    std::deque<exchange_t> requests_;
    size_t bytes_ = 0;
};

} // namespace kxcloud
