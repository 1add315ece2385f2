// A model of what the service promises, and a small world that is driven beside it: an appliance, its cloud,
// and a random list of steps that change either side, stop, kill and restart the service and disturb its
// requests.
//
// The model is two trees. Which side wins a conflict is decided by whole-second times, so the world sets
// them: every step has its own stretch of 1000 seconds, which the cloud's clock enters, and local times lie
// half a stretch before or behind. All stretches lie in the past, as real changes do: whatever the service
// leaves with the present time looks newer than the cloud.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/appliance.h"

namespace kxtest
{

// By path: "D/..." in the default folder and the cloud's root, "P/..." in the share and its cloud folder.
using tree_t = contents_t;

// What may be asked of either side.
enum kind_t {
    LOCAL_CREATE,
    LOCAL_EDIT,
    LOCAL_TREE,
    LOCAL_SAVE_AS,
    LOCAL_RENAME,
    LOCAL_MOVE,
    LOCAL_DELETE,
    CLOUD_CREATE,
    CLOUD_EDIT,
    CLOUD_MKDIR,
    CLOUD_RENAME,
    CLOUD_MOVE,
    CLOUD_TRASH,
    CONFLICT,
    SETTLE,
    STOP,
    KILL,
    START,
    DISTURB,
    KIND_COUNT
};

// What one step does is drawn from the state that it finds, so that a list stays meaningful when steps are
// taken out of it.
struct step_t {
    kind_t kind;
    unsigned draw[4];
};

std::vector<step_t> random_steps(unsigned seed, size_t count);

class twin_failure : public std::runtime_error
{
    using runtime_error::runtime_error;
};

class twin_world
{
public:
    twin_world(size_t steps, double patience_sec);

    // Both throw twin_failure when the sides and the model disagree, or the service ended on its own.
    void take(const step_t& step);
    void settle();
    void start();
    void await_live();
    void finish(); // the last agreement, and a restart that transfers nothing

    // The services that are started from now on, up to the one that this ends, die at that call; 0 only
    // counts.
    void crash_at(long call, const std::string& count_file);

    const std::vector<std::string>& story() const { return story_; } // what the steps did, a line each
    std::string log() const;                                         // the last service's

private:
    enum side_t { local_side, cloud_side };
    enum change_t { an_edit, a_save, structural };
    struct pending_t {
        side_t side;
        std::string path;
        change_t change;
        bool watched; // a service was there, which may have begun to pass it on
    };
    using paths_t = std::vector<std::string>;

    // Places
    std::string local_path(const std::string& path) const;
    std::string cloud_path(const std::string& path) const;
    time_t now() const; // the cloud's
    void enter_step();

    // Choices, empty when there is none
    std::string pick(unsigned draw, bool folders_too) const;
    std::string pick_folder(unsigned draw) const;
    std::string new_name(const std::string& folder, const step_t& step, side_t side) const;
    std::string new_place(const step_t& step, const std::string& path, bool is_move, side_t side) const;
    std::string free_path(const std::string& folder, const std::string& name) const;
    std::string new_or_old_file(const step_t& step, side_t side, bool is_new) const;
    std::string new_content(unsigned draw);
    bool has_orphans(const std::string& path) const;
    bool darkens_others(const std::string& folder) const;

    // Steps
    void write(const step_t& step, side_t side, bool is_new);
    void plant(const step_t& step, side_t side, bool);
    void save_as(const step_t& step, side_t, bool);
    void relocate(const step_t& step, side_t side, bool is_move);
    void remove(const step_t& step, side_t side, bool);
    void conflict(const step_t& step, side_t, bool);
    void control(const step_t& step);
    void disturb(const step_t& step);
    void go_offline(bool kill, unsigned draw);

    // Their parts
    void prepare(side_t side, const paths_t& paths, change_t change, bool carries_edits = false);
    void put(side_t side, const std::string& path, const std::string& content);
    void make_folder(side_t side, const std::string& path);
    void leave(side_t side, const std::string& path);
    void tell(const std::string& line);

    // The service
    void await(const std::string& otherwise, const std::function<bool()>& condition);
    void await_agreement();
    void check_alive();
    bool is_crash(int status);
    void quiesce();
    void set_faults(nlohmann::json faults);

    // Comparison: an empty text when all is as the model says; the model then adopts what it left open.
    tree_t tree_now(side_t side) const;
    std::string difference(bool adopt);

    cloud cloud_;
    appliance nas_{cloud_};
    std::unique_ptr<process> service_;
    std::string last_log_;
    std::vector<std::string> crash_; // the environment that makes it crash
    bool live_ = false;

    tree_t local_;
    tree_t remote_;
    // What the cloud may hold besides: the places that a local move or delete left, when the service may have
    // ended before it passed it on. Nobody tells it afterwards, so the cloud's copy stays.
    std::multimap<std::string, std::string> risk_;
    // What the local side may hold besides when the service was killed: a cloud move that is taken up again
    // brings the folder down whole, with what only the cloud held in it.
    tree_t returning_;
    std::set<std::string> gone_; // names that left since the last agreement; not used again before it
    std::vector<pending_t> pending_;
    bool interrupted_ = false; // the service ended with events unread, or was disturbed
    bool disturbed_ = false;

    long step_ = 0;
    long steps_;
    double patience_sec_; // how long the sides may take to agree
    unsigned contents_ = 0;
    std::vector<std::string> story_;
};

} // namespace kxtest
