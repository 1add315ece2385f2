// The drive by plain paths, as another client of it: for people with curl, and for tests. No token is needed,
// and every change appears in the feed like any other.
#pragma once

#include "cloud/drive.h"
#include "cloud/server.h"

namespace kxcloud
{

class path_door
{
public:
    explicit path_door(drive& store) : drive_(store) {}

    void operator()(call_t& call); // for paths below /files

private:
    using path_t = std::vector<std::string>;

    void get(call_t& call, const path_t& path);
    void put(call_t& call, const path_t& path);
    void post(call_t& call, const path_t& path);
    node_t make_folders(const path_t& path, drive::when_t when);

    drive& drive_;
};

} // namespace kxcloud
