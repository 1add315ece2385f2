// The drive's REST interface: endpoint discovery, tokens, account, nodes, contents, trash and the change
// feed.
//
// Base URLs: BASE/drive/v1/account/endpoint and BASE/auth/o2/token are fixed, the rest stands below the two
// that the endpoint names, BASE/metadata/ and BASE/content/.
#pragma once

#include <mutex>
#include <set>
#include <string>

#include <nlohmann/json.hpp>

#include "cloud/drive.h"
#include "cloud/server.h"

namespace kxcloud
{

// A node as the service describes it.
nlohmann::json node_json(const node_t& node);

// Bearer tokens. Any is good until expire() is called; from then on only those that a refresh gave since.
class tokens
{
public:
    void expire();
    bool good(const std::string& authorization); // the header's value
    std::string grant();                         // a new access token

private:
    std::mutex mutex_;
    bool any_ = true;
    std::set<std::string> granted_;
};

class rest_door
{
public:
    rest_door(drive& store, tokens& access, bool secure) : drive_(store), tokens_(access), secure_(secure) {}

    void operator()(call_t& call);

private:
    struct route_t;
    static const route_t routes[];

    void endpoint(call_t& call, const std::string& id);
    void token(call_t& call, const std::string& id);
    void info(call_t& call, const std::string& id);
    void quota(call_t& call, const std::string& id);
    void usage(call_t& call, const std::string& id);
    void find(call_t& call, const std::string& id);
    void create_folder(call_t& call, const std::string& id);
    void node(call_t& call, const std::string& id);
    void rename(call_t& call, const std::string& id);
    void children(call_t& call, const std::string& id);
    void move(call_t& call, const std::string& id);
    void trash(call_t& call, const std::string& id);
    void changes(call_t& call, const std::string& id);
    void upload(call_t& call, const std::string& id);
    void overwrite(call_t& call, const std::string& id);
    void download(call_t& call, const std::string& id);

    drive& drive_;
    tokens& tokens_;
    bool secure_;
};

} // namespace kxcloud
