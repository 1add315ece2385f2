// The control door of the tests: faults, received requests, tokens, the clock, and nodes set at will.
#pragma once

#include "cloud/drive.h"
#include "cloud/rest_door.h"
#include "cloud/server.h"
#include "cloud/trials.h"

namespace kxcloud
{

class control_door
{
public:
    control_door(drive& store, tokens& access, trials& tests) : drive_(store), tokens_(access), trials_(tests)
    {
    }

    void operator()(call_t& call); // for paths below /control

private:
    struct order_t;
    static const order_t orders[];

    void add_faults(call_t& call);
    void list_faults(call_t& call);
    void clear_faults(call_t& call);
    void list_requests(call_t& call);
    void clear_requests(call_t& call);
    void expire(call_t& call);
    void set_clock(call_t& call);
    void edit_node(call_t& call);
    void seed(call_t& call);

    drive& drive_;
    tokens& tokens_;
    trials& trials_;
};

} // namespace kxcloud
