#include "support/twin.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/stat.h>
#include <thread>

#include "support/support.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using nlohmann::json;

namespace kxtest
{

namespace
{

constexpr long stretch_sec = 1000;

const double weights[KIND_COUNT] = {8, 6, 3, 2, 4, 4, 4, 8, 6, 3, 5, 5, 4, 4, 6, 3, 4, 5, 3};

const std::string longest(251, 'L');
const char* const names[] = {
    "a",       "b.txt", "two words",       "it's",      "100%",        "p%20q", "\u00fc\u65e5\U0001f3b5",
    ".hidden", "-rf",   "semi;colon & co", "(x)[y]{z}", "plus+sign=1", "#hash", "Mixed Case"};
// A local name goes into the requests' JSON as it is, so the service cannot send these; the cloud can.
const std::vector<std::string> cloud_names = {"d\"q", "back\\slash", "new\nline", "tab\there"};

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

std::string folder_of(const std::string& path)
{
    return path.substr(0, path.rfind('/'));
}

std::string name_of(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

bool is_below(const std::string& path, const std::string& folder)
{
    return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

bool related(const std::string& a, const std::string& b)
{
    return a == b || is_below(a, b) || is_below(b, a);
}

std::vector<std::string> with_below(const tree_t& tree, const std::string& path)
{
    std::vector<std::string> found;
    for (auto at = tree.lower_bound(path); at != tree.end() && at->first.starts_with(path); ++at)
        if (related(at->first, path))
            found.push_back(at->first);
    return found;
}

void erase(tree_t& tree, const std::string& path)
{
    for (const std::string& each : with_below(tree, path))
        tree.erase(each);
}

void move(tree_t& tree, const std::string& from, const std::string& to)
{
    for (const std::string& each : with_below(tree, from)) {
        tree[to + each.substr(from.size())] = tree[each];
        tree.erase(each);
    }
}

// A line of the story: what does not fit one is written short.
std::string one_line(const std::string& path)
{
    std::string text = json(path).dump();
    const std::string tail = longest.substr(1); // the first letter may change its case
    for (size_t at; (at = text.find(tail)) != std::string::npos;)
        text.replace(at, tail.size(), "{250}");
    return text;
}

bool can_be_sent(const std::string& path)
{
    return path.find_first_of("\"\\\n\t") == std::string::npos;
}

std::string shown(const std::string& entry)
{
    return entry.empty() ? "folder" : "file " + entry;
}

std::string compared(const std::string& side, const tree_t& model, const tree_t& real)
{
    std::string text;
    for (const auto& [path, entry] : model)
        if (auto found = real.find(path); found == real.end())
            text += side + " lacks " + path + " (" + shown(entry) + ")\n";
        else if (found->second != entry)
            text += side + " has " + path + " as " + shown(found->second) + ", not as " + shown(entry) + "\n";
    for (const auto& [path, entry] : real)
        if (!model.contains(path))
            text += side + " has " + path + " (" + shown(entry) + ") too many\n";
    return text;
}

bool holds(const tree_t& tree, const std::string& path, const std::string& entry)
{
    const auto found = tree.find(path);
    return found != tree.end() && found->second == entry;
}

} // namespace

std::vector<step_t> random_steps(unsigned seed, size_t count)
{
    std::mt19937 random(seed);
    std::discrete_distribution<int> kind(std::begin(weights), std::end(weights));
    std::vector<step_t> steps(count);
    for (step_t& step : steps) {
        step.kind = static_cast<kind_t>(kind(random));
        for (unsigned& draw : step.draw)
            draw = static_cast<unsigned>(random());
    }
    return steps;
}

twin_world::twin_world(size_t steps, double patience_sec)
    : steps_(static_cast<long>(steps)), patience_sec_(patience_sec)
{
    enter_step();
    cloud_.mkdir(nas_.cloud_photos);
    set_faults(json::array());
}

// The service polls without a pause, so that a test need not wait for it; this gives it one.
void twin_world::set_faults(json faults)
{
    faults.push_back({{"method", "POST"}, {"path", "^/changes"}, {"times", -1}, {"delay_ms", 25}});
    cloud_.clear_faults();
    cloud_.fail(faults);
}

// ---- Places and times ----

std::string twin_world::local_path(const std::string& path) const
{
    return (path[0] == 'D' ? nas_.drive : nas_.photos) + path.substr(1);
}

std::string twin_world::cloud_path(const std::string& path) const
{
    return (path[0] == 'D' ? "" : nas_.cloud_photos) + path.substr(1);
}

time_t twin_world::now() const
{
    return time(nullptr) - (steps_ + 3 - step_) * stretch_sec;
}

void twin_world::enter_step()
{
    step_++;
    cloud_.set_clock_offset(static_cast<int>(-(steps_ + 3 - step_) * stretch_sec));
}

void twin_world::tell(const std::string& line)
{
    story_.push_back(one_line(line));
}

// ---- Choices ----

std::string twin_world::pick(unsigned draw, bool folders_too) const
{
    paths_t fit;
    for (const auto& [path, entry] : local_)
        if (folders_too || !entry.empty())
            fit.push_back(path);
    return fit.empty() ? "" : fit[draw % fit.size()];
}

std::string twin_world::pick_folder(unsigned draw) const
{
    paths_t folders = {"D", "P"};
    for (const auto& [path, entry] : local_)
        if (entry.empty() && std::count(path.begin(), path.end(), '/') < 4)
            folders.push_back(path);
    return folders[draw % folders.size()];
}

// Empty when the name is taken on either side, in whatever case, or was until a moment ago.
std::string twin_world::free_path(const std::string& folder, const std::string& name) const
{
    const std::string path = folder + "/" + name;
    paths_t taken(gone_.begin(), gone_.end());
    for (const tree_t* tree : {&local_, &remote_})
        for (const auto& [each, entry] : *tree)
            taken.push_back(each);
    for (const auto& [each, entry] : risk_)
        taken.push_back(each);
    const auto is_same = [&](const std::string& each) { return lower(each) == lower(path); };
    return name.size() > 255 || std::any_of(taken.begin(), taken.end(), is_same) ? "" : path;
}

std::string twin_world::new_name(const std::string& folder, const step_t& step, side_t side) const
{
    paths_t pool(std::begin(names), std::end(names));
    pool.push_back(longest + ".txt");
    if (side == cloud_side)
        pool.insert(pool.end(), cloud_names.begin(), cloud_names.end());
    const std::string& name = pool[step.draw[2] % pool.size()];
    for (int i = 0; i < 9; i++)
        if (std::string path = free_path(folder, i == 0 ? name : name + std::to_string(i)); !path.empty())
            return path;
    return free_path(folder, "n" + std::to_string(step_));
}

std::string twin_world::new_or_old_file(const step_t& step, side_t side, bool is_new) const
{
    return is_new ? new_name(pick_folder(step.draw[0]), step, side) : pick(step.draw[0], false);
}

std::string twin_world::new_content(unsigned draw)
{
    const size_t sizes[] = {0, 10, 100, 3000, 70000, 300000};
    std::string text = "content " + std::to_string(++contents_) + "\n";
    text.append(sizes[draw % std::size(sizes)], static_cast<char>('a' + draw % 26));
    return draw % 40 == 7 ? "" : text;
}

// Whether the cloud holds something there that the local side lacks.
bool twin_world::has_orphans(const std::string& path) const
{
    const paths_t below = with_below(remote_, path);
    return std::any_of(below.begin(), below.end(), [&](auto& each) { return !local_.contains(each); });
}

// Watches leave by the beginning of their path: when the folder "a" is moved, nobody listens to "a1" any more
// until the next start.
bool twin_world::darkens_others(const std::string& folder) const
{
    return std::any_of(local_.begin(), local_.end(), [&](const auto& each) {
        return each.second.empty() && each.first.starts_with(folder) && !related(each.first, folder);
    });
}

// The new path of a rename or move.
std::string twin_world::new_place(const step_t& step, const std::string& path, bool is_move,
                                  side_t side) const
{
    if (is_move) {
        const std::string folder = pick_folder(step.draw[1]);
        return folder == path || is_below(folder, path) ? "" : free_path(folder, name_of(path));
    }
    std::string name = name_of(path);
    const auto letter = std::find_if(name.begin(), name.end(), [](unsigned char c) { return isalpha(c); });
    if (step.draw[3] % 6 != 0 || letter == name.end() || has_orphans(path))
        return new_name(folder_of(path), step, side);
    *letter = static_cast<char>(*letter ^ ('a' ^ 'A'));
    return gone_.contains(folder_of(path) + "/" + name) ? "" : folder_of(path) + "/" + name;
}

// ---- Order ----

// Steps that touch each other's places wait until the sides agree: what is decided then does not depend on
// which of them the service sees first. Two are let through: any edits of a local side that nobody watches,
// and a cloud folder that is renamed or moved after such edits below it.
void twin_world::prepare(side_t side, const paths_t& paths, change_t change, bool carries_edits)
{
    const auto clash = [&](const pending_t& pending) {
        const bool edit = !service_ && pending.side == local_side && pending.change == an_edit;
        if (edit && (side == local_side ? change != structural : carries_edits && !pending.watched))
            return false;
        return std::any_of(paths.begin(), paths.end(),
                           [&](auto& path) { return related(path, pending.path); });
    };
    if (std::any_of(pending_.begin(), pending_.end(), clash))
        settle();
    if (side == local_side && service_)
        await_live();
    enter_step();
    for (const std::string& path : paths)
        pending_.push_back({side, path, change, service_ != nullptr});
}

// ---- Steps ----

void twin_world::put(side_t side, const std::string& path, const std::string& content)
{
    local_[path] = remote_[path] = md5_of(content);
    if (side == local_side)
        write_file(local_path(path), content, now() + stretch_sec / 2);
    else
        cloud_.put(cloud_path(path), content);
}

void twin_world::make_folder(side_t side, const std::string& path)
{
    local_[path] = remote_[path] = "";
    if (side == local_side)
        fs::create_directory(local_path(path));
    else
        cloud_.mkdir(cloud_path(path));
}

// What goes away there, and what the cloud keeps of it when it does not hear of that.
void twin_world::leave(side_t side, const std::string& path)
{
    for (const std::string& each : with_below(remote_, path)) {
        gone_.insert(each);
        if (side == local_side)
            risk_.emplace(each, remote_[each]);
    }
}

void twin_world::write(const step_t& step, side_t side, bool is_new)
{
    const std::string path = new_or_old_file(step, side, is_new);
    if (path.empty())
        return;
    prepare(side, {path}, an_edit);
    tell((side == local_side ? "local "s : "cloud "s) + "write " + path);
    if (side == local_side && remote_.contains(path))
        risk_.emplace(path, remote_[path]);
    put(side, path, new_content(step.draw[1]));
}

void twin_world::plant(const step_t& step, side_t side, bool)
{
    const std::string top = new_name(pick_folder(step.draw[0]), step, side);
    if (top.empty())
        return;
    prepare(side, {top}, an_edit);
    tell((side == local_side ? "local "s : "cloud "s) + "tree " + top);
    make_folder(side, top);
    put(side, top + "/one", new_content(step.draw[1]));
    for (const char* folder : {"/sub one", "/sub one/deep", "/empty"})
        make_folder(side, top + folder);
    put(side, top + "/sub one/deep/two", new_content(step.draw[3]));
}

// As editors save: a temporary file, renamed over the old one.
void twin_world::save_as(const step_t& step, side_t, bool)
{
    const std::string path = pick(step.draw[0], false);
    const std::string temporary =
        path.empty() ? "" : free_path(folder_of(path), ".save~" + std::to_string(step_));
    if (temporary.empty())
        return;
    prepare(local_side, {path, temporary}, a_save);
    const std::string content = new_content(step.draw[1]);
    tell("local save as " + path);
    risk_.emplace(path, remote_[path]);
    risk_.emplace(temporary, md5_of(content));
    gone_.insert(temporary);
    local_[path] = remote_[path] = md5_of(content);
    write_file(local_path(temporary), content, now() + stretch_sec / 2);
    fs::rename(local_path(temporary), local_path(path));
}

// A move keeps the name and a rename the folder, so that each is one request: one that a crash cuts in two
// leaves the node halfway in the cloud and a second one at its new local place.
void twin_world::relocate(const step_t& step, side_t side, bool is_move)
{
    const std::string from = pick(step.draw[0], true);
    // Should the old node be left behind, all names have to be made anew.
    const paths_t all = with_below(local_, from);
    if (from.empty() || (side == local_side && !std::all_of(all.begin(), all.end(), can_be_sent)))
        return;
    const std::string to = new_place(step, from, is_move, side);
    if (to.empty())
        return;
    const bool darkens = local_[from].empty() && darkens_others(from);
    bool in_peace = side == local_side && (darkens || has_orphans(from));
    if (in_peace)
        settle();
    prepare(side, {from, to}, structural, side == cloud_side && local_[from].empty());
    in_peace |= side == local_side && has_orphans(from); // an agreement just now may have left some
    // The cloud may not know a folder yet, or what holds it.
    if (!local_.contains(from) || remote_.contains(to) ||
        (side == cloud_side && !cloud_.has(cloud_path(from))))
        return;
    tell((side == local_side ? "local "s : "cloud "s) + (is_move ? "move " : "rename ") + from + " -> " + to);
    leave(side, from);
    for (const std::string& each : with_below(remote_, from))
        if (side == cloud_side && !local_.contains(each))
            returning_.emplace(to + each.substr(from.size()), remote_[each]);
    if (side == cloud_side || service_ || lower(from) == lower(to)) // new letters are made up for
        move(remote_, from, to);
    else // the copies in the cloud stay, since nobody tells it
        for (const std::string& each : with_below(local_, from))
            remote_[to + each.substr(from.size())] = local_[each];
    move(local_, from, to);
    if (side == local_side)
        fs::rename(local_path(from), local_path(to));
    else if (is_move)
        cloud_.move(cloud_path(from), folder_of(to) == "D" ? "/" : cloud_path(folder_of(to)));
    else
        cloud_.rename(cloud_path(from), name_of(to));
    const bool awaited = in_peace || (darkens && service_);
    if (awaited)
        settle();
    if (awaited && darkens)
        go_offline(false, 0);
}

// A folder that goes in the cloud takes along what was written below it before: prepare() lets that go up
// first.
void twin_world::remove(const step_t& step, side_t side, bool)
{
    const std::string path = pick(step.draw[0], true);
    if (path.empty())
        return;
    prepare(side, {path}, structural);
    tell((side == local_side ? "local "s : "cloud "s) + "delete " + path);
    leave(side, path);
    erase(local_, path);
    if (side == cloud_side || service_)
        erase(remote_, path);
    if (side == local_side)
        fs::remove_all(local_path(path));
    else
        cloud_.trash(cloud_path(path));
}

// The same file changed on both sides while the service was away: the times decide.
void twin_world::conflict(const step_t& step, side_t, bool)
{
    const bool local_wins = step.draw[1] % 2;
    const bool is_new = step.draw[3] % 4 == 0;
    const bool is_trashed = step.draw[3] % 4 == 1;
    const std::string path = new_or_old_file(step, local_side, is_new);
    if (path.empty() || (is_trashed && !can_be_sent(name_of(path))))
        return;
    prepare(cloud_side, {path}, structural);
    go_offline(false, 0);
    if (is_new != !remote_.contains(path))
        return;
    tell("both " + std::string(is_trashed ? "edit and trash " : "write ") + path +
         (local_wins ? ", local newer" : ", cloud newer"));
    const std::string ours = new_content(step.draw[2]);
    if (is_trashed)
        cloud_.trash(cloud_path(path));
    else
        put(cloud_side, path, new_content(step.draw[2] + 1));
    write_file(local_path(path), ours, now() + (local_wins ? stretch_sec / 2 : -stretch_sec / 2));
    if (local_wins) {
        local_[path] = remote_[path] = md5_of(ours);
    } else if (is_trashed) {
        gone_.insert(path);
        erase(local_, path);
        erase(remote_, path);
    }
}

// ---- Disturbances ----

void twin_world::disturb(const step_t& step)
{
    const char* const paths[] = {".", "content", "nodes", "changes", "trash", "children", "^/nodes"};
    static const json effects = json::parse(
        R"([{"status": 401}, {"status": 429}, {"status": 500}, {"status": 503}, {"status": 504},
            {"drop": true}, {"drop": true, "reset": true}, {"cut": 5}, {"cut": 5000},
            {"cut": 100, "reset": true}, {"status": 500, "run": true}, {"drop": true, "run": true}])");
    json faults = json::array();
    for (unsigned i = 0; i < 3; i++) {
        json fault = effects[(step.draw[i] >> 8) % effects.size()];
        fault["path"] = paths[step.draw[i] % std::size(paths)];
        fault["skip"] = (step.draw[i] >> 16) % 5;
        fault["times"] = 1 + (step.draw[i] >> 20) % 3;
        faults.push_back(fault);
    }
    tell("faults " + faults.dump());
    disturbed_ = interrupted_ = true;
    set_faults(faults);
}

void twin_world::go_offline(bool kill, unsigned draw)
{
    if (!service_)
        return;
    tell(kill ? "kill" : "stop");
    if (kill) {
        std::this_thread::sleep_for(std::chrono::milliseconds(draw % 250));
        service_->signal(SIGKILL);
        service_->wait(10);
    } else {
        service_->signal(SIGUSR1);
        const int status = service_->wait(30);
        const bool just_begun = status == 128 + SIGUSR1; // before it could take the signal
        if (status != 0 && !disturbed_ && !just_begun && !is_crash(status))
            throw twin_failure("the service ended with status " + std::to_string(status) +
                               " when it was told to stop");
    }
    interrupted_ = true;
    last_log_ = service_->err();
    service_.reset();
}

void twin_world::control(const step_t& step)
{
    if (step.kind == SETTLE)
        settle();
    else if (step.kind == START)
        start();
    else if (step.kind == DISTURB)
        disturb(step);
    else
        go_offline(step.kind == KILL, step.draw[0]);
}

void twin_world::start()
{
    if (service_)
        return;
    tell("start");
    std::vector<std::string> env = {"KXTEST_IDLE_SEC=0"};
    env.insert(env.end(), crash_.begin(), crash_.end());
    service_ = nas_.start(env);
    live_ = false;
}

void twin_world::crash_at(long call, const std::string& count_file)
{
    crash_ = {"LD_PRELOAD=" + program("libcrash_point.so"), "KXCRASH_AT=" + std::to_string(call),
              "KXCRASH_COUNT=" + count_file, "ASAN_OPTIONS=verify_asan_link_order=0"};
}

// Only the first one is meant to end so.
bool twin_world::is_crash(int status)
{
    if (status != 128 + SIGKILL || crash_.empty())
        return false;
    crash_.clear();
    return interrupted_ = true;
}

// A disturbed request may end the service, as its faults do; it is then started again, as the system does.
void twin_world::check_alive()
{
    const int status = service_->wait(0);
    if (status == -1)
        return;
    const bool crashed = is_crash(status);
    if (!crashed && (!disturbed_ || (status != 1 && status != 255)))
        throw twin_failure("the service ended with status " + std::to_string(status));
    tell(crashed ? "(the service crashed)" : "(the service gave up)");
    last_log_ = service_->err();
    service_.reset();
    start();
}

// Throws when that does not come in time, or the service ends.
void twin_world::await(const std::string& otherwise, const std::function<bool()>& condition)
{
    const auto holds = [&] { return check_alive(), condition(); };
    if (!eventually(holds, patience_sec_))
        throw twin_failure(otherwise);
}

void twin_world::await_live()
{
    if (live_)
        return;
    await("the service is not live in time", [this] { return nas_.is_live_now(*service_); });
    live_ = true;
}

// ---- Agreement ----

// Throws when the local tree changes under the reading.
tree_t twin_world::tree_now(side_t side) const
{
    tree_t tree;
    for (const std::string root : {"D", "P"}) {
        const contents_t part =
            side == local_side ? contents_of(local_path(root)) : cloud_.contents(cloud_path(root));
        for (const auto& [path, entry] : part)
            if (root == "P" || !path.starts_with("Korvane_"))
                tree[root + "/" + path] = entry;
    }
    return tree;
}

std::string twin_world::difference(bool adopt)
{
    tree_t here;
    try {
        here = tree_now(local_side);
    } catch (const fs::filesystem_error& error) {
        return error.what();
    }
    tree_t local = local_, remote = remote_;
    for (const auto& [path, entry] : returning_)
        if (interrupted_ && holds(here, path, entry))
            local.emplace(path, entry);
    if (std::string text = compared("local", local, here); !text.empty())
        return text;
    const tree_t there = tree_now(cloud_side);
    for (const auto& [path, entry] : risk_)
        if (interrupted_ && holds(there, path, entry) && !remote_.contains(path))
            remote[path] = entry;
    std::string text = compared("cloud", remote, there);
    if (text.empty() && adopt) {
        local_ = local;
        remote_ = remote;
    }
    return text;
}

// Four polls: one pass over the feed takes two, and events are read between passes.
void twin_world::quiesce()
{
    cloud_.forget_requests();
    await("the cloud is not polled any more", [this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        return cloud_.count("POST", "changes") >= 4;
    });
}

void twin_world::await_agreement()
{
    std::string left;
    try {
        await("", [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(left.empty() ? 0 : 50));
            return (left = difference(false)).empty();
        });
    } catch (const twin_failure& failure) {
        throw twin_failure(failure.what() + left);
    }
    quiesce();
    if (left = difference(true); !left.empty())
        throw twin_failure(left);
}

// A disturbed service is restarted without the disturbance first: what it gave up live it does then.
void twin_world::settle()
{
    if (disturbed_) {
        set_faults(json::array());
        if (service_)
            go_offline(false, 0);
    }
    disturbed_ = false;
    start();
    await_live();
    await_agreement();
    tell("agreed");
    pending_.clear();
    risk_.clear();
    returning_.clear();
    gone_.clear();
    interrupted_ = false;
    // A folder's time is that of its last change, as it is where both clocks show the same time.
    const timespec times[] = {{now(), 0}, {now(), 0}};
    for (const auto& [path, entry] : local_)
        if (entry.empty())
            utimensat(AT_FDCWD, local_path(path).c_str(), times, 0);
}

void twin_world::finish()
{
    enter_step();
    settle();
    go_offline(false, 0);
    cloud_.forget_requests();
    start();
    await_live();
    await_agreement();
    go_offline(false, 0);
    std::string sent;
    for (const json& request : cloud_.requests()) {
        const std::string method = request["method"], path = request["path"];
        if (method == "PUT" || method == "PATCH" || path.find("content") != std::string::npos ||
            (method == "POST" && path.find("nodes") != std::string::npos))
            sent += method + " " + path + " " + request["body"].get<std::string>().substr(0, 300) + "\n";
    }
    if (!sent.empty())
        throw twin_failure("a restart after the agreement sends\n" + sent);
}

void twin_world::take(const step_t& step)
{
    static const struct {
        void (twin_world::*run)(const step_t&, side_t, bool);
        side_t side;
        bool flag;
    } operations[] = {
        {&twin_world::write, local_side, true},     {&twin_world::write, local_side, false},
        {&twin_world::plant, local_side, true},     {&twin_world::save_as, local_side, true},
        {&twin_world::relocate, local_side, false}, {&twin_world::relocate, local_side, true},
        {&twin_world::remove, local_side, true},    {&twin_world::write, cloud_side, true},
        {&twin_world::write, cloud_side, false},    {&twin_world::plant, cloud_side, true},
        {&twin_world::relocate, cloud_side, false}, {&twin_world::relocate, cloud_side, true},
        {&twin_world::remove, cloud_side, true},    {&twin_world::conflict, cloud_side, true},
    };
    if (step.kind >= SETTLE)
        return control(step);
    const auto& [run, side, flag] = operations[step.kind];
    (this->*run)(step, side, flag);
}

std::string twin_world::log() const
{
    return service_ ? service_->err() : last_log_;
}

} // namespace kxtest
