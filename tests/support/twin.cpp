#include "support/twin.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <openssl/evp.h>
#include <random>
#include <sys/stat.h>
#include <thread>

#include "support/support.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace kxtest
{

namespace
{

constexpr long stretch_sec = 1000;

const double weights[KIND_COUNT] = {8, 6, 3, 2, 4, 4, 4, 8, 6, 3, 5, 5, 4, 4, 6, 3, 4, 5, 3};

const std::string longest(251, 'L');
const std::vector<std::string> names = {"a",
                                        "b.txt",
                                        "two words",
                                        "it's",
                                        "100%",
                                        "p%20q",
                                        "\xc3\xbc\xe6\x97\xa5\xf0\x9f\x8e\xb5",
                                        longest + ".txt",
                                        ".hidden",
                                        "-rf",
                                        "semi;colon & co",
                                        "(x)[y]{z}",
                                        "plus+sign=1",
                                        "#hash",
                                        "Mixed Case"};
// A local name goes into the requests' JSON as it is, so the service cannot send these; the cloud can.
const std::vector<std::string> cloud_names = {"d\"q", "back\\slash", "new\nline", "tab\there"};

std::string md5(const std::string& text)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    EVP_Digest(text.data(), text.size(), digest, &size, EVP_md5(), nullptr);
    std::string hex;
    for (unsigned i = 0; i < size; i++) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", digest[i]);
        hex += pair;
    }
    return hex;
}

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
    std::string text;
    for (char c : path)
        text += c == '\n' ? std::string("\\n") : c == '\t' ? std::string("\\t") : std::string(1, c);
    const std::string tail = longest.substr(1); // the first letter may change its case
    for (size_t at; (at = text.find(tail)) != std::string::npos;)
        text.replace(at, tail.size(), "{250}");
    return text;
}

bool can_be_sent(const std::string& path)
{
    return path.find_first_of("\"\\\n\t") == std::string::npos;
}

std::string shown(const entry_t& entry)
{
    return entry.is_dir ? "folder" : "file " + entry.content;
}

void set_time(const std::string& path, time_t time)
{
    timespec times[2] = {{time, 0}, {time, 0}};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
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

std::string twin_world::pick(const tree_t& tree, unsigned draw, bool want_dir, bool want_file) const
{
    paths_t fit;
    for (const auto& [path, entry] : tree)
        if (entry.is_dir ? want_dir : want_file)
            fit.push_back(path);
    return fit.empty() ? "" : fit[draw % fit.size()];
}

std::string twin_world::pick_folder(unsigned draw) const
{
    paths_t folders = {"D", "P"};
    for (const auto& [path, entry] : local_)
        if (entry.is_dir && std::count(path.begin(), path.end(), '/') < 4)
            folders.push_back(path);
    return folders[draw % folders.size()];
}

// Empty when the name is taken on either side, in whatever case, or was until a moment ago.
std::string twin_world::free_path(const std::string& folder, const std::string& name) const
{
    const std::string path = folder + "/" + name;
    const auto taken = [&](const auto& tree) {
        return std::any_of(tree.begin(), tree.end(),
                           [&](const auto& each) { return lower(each.first) == lower(path); });
    };
    const bool just_left =
        std::any_of(gone_.begin(), gone_.end(), [&](auto& each) { return lower(each) == lower(path); });
    return name.size() > 255 || taken(local_) || taken(remote_) || taken(risk_) || just_left ? "" : path;
}

std::string twin_world::new_name(const std::string& folder, const step_t& step, side_t side) const
{
    paths_t pool = names;
    if (side == cloud_side)
        pool.insert(pool.end(), cloud_names.begin(), cloud_names.end());
    const std::string& name = pool[step.draw[2] % pool.size()];
    for (int i = 0; i < 9; i++)
        if (std::string path = free_path(folder, i == 0 ? name : name + std::to_string(i)); !path.empty())
            return path;
    return free_path(folder, "n" + std::to_string(step_));
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
        return each.second.is_dir && each.first.starts_with(folder) && !related(each.first, folder);
    });
}

// ---- Order ----

void twin_world::note(side_t side, const std::string& path, bool structural)
{
    pending_.push_back({side, path, structural});
}

// Steps that touch each other's places wait until the sides agree: what is decided then does not depend on
// which of them the service sees first. Two are let through: any edits of a local side that nobody watches,
// and a cloud folder that is renamed or moved after such edits below it.
void twin_world::prepare(side_t side, const paths_t& paths, bool structural, bool carries_edits)
{
    const auto clash = [&](const pending_t& pending) {
        const bool offline_edit = !service_ && pending.side == local_side && !pending.structural;
        if (offline_edit && side == local_side && !structural)
            return false;
        if (offline_edit && side == cloud_side && carries_edits)
            return false;
        return std::any_of(paths.begin(), paths.end(),
                           [&](auto& path) { return related(path, pending.path); });
    };
    if (std::any_of(pending_.begin(), pending_.end(), clash))
        settle();
    if (side == local_side && service_)
        await_live();
    enter_step();
}

// ---- Local steps ----

void twin_world::local_write(const step_t& step, bool is_new)
{
    std::string path = is_new ? new_name(pick_folder(step.draw[0]), step, local_side)
                              : pick(local_, step.draw[0], false, true);
    if (path.empty())
        return;
    prepare(local_side, {path}, false);
    const std::string content = new_content(step.draw[1]);
    tell("local write " + path);
    if (remote_.contains(path))
        risk_.emplace(path, remote_[path]);
    note(local_side, path, false);
    local_[path] = remote_[path] = {false, md5(content)};
    write_file(local_path(path), content, now() + stretch_sec / 2);
}

void twin_world::local_tree(const step_t& step)
{
    const std::string top = new_name(pick_folder(step.draw[0]), step, local_side);
    if (top.empty())
        return;
    prepare(local_side, {top}, false);
    tell("local tree " + top);
    note(local_side, top, false);
    const auto folder = [&](const std::string& path) {
        local_[path] = remote_[path] = {true, ""};
        fs::create_directory(local_path(path));
    };
    const auto file = [&](const std::string& path, unsigned draw) {
        const std::string content = new_content(draw);
        local_[path] = remote_[path] = {false, md5(content)};
        write_file(local_path(path), content, now() + stretch_sec / 2);
    };
    folder(top);
    file(top + "/one", step.draw[1]);
    folder(top + "/sub one");
    folder(top + "/sub one/deep");
    file(top + "/sub one/deep/two", step.draw[3]);
    folder(top + "/empty");
}

// As editors save: a temporary file, renamed over the old one.
void twin_world::local_save_as(const step_t& step)
{
    const std::string path = pick(local_, step.draw[0], false, true);
    const std::string temporary =
        path.empty() ? "" : free_path(folder_of(path), ".save~" + std::to_string(step_));
    if (temporary.empty())
        return;
    prepare(local_side, {path, temporary}, false);
    const std::string content = new_content(step.draw[1]);
    tell("local save as " + path);
    risk_.emplace(path, remote_[path]);
    risk_.emplace(temporary, entry_t{false, md5(content)});
    note(local_side, path, true);
    note(local_side, temporary, true);
    gone_.insert(temporary);
    local_[path] = remote_[path] = {false, md5(content)};
    write_file(local_path(temporary), content, now() + stretch_sec / 2);
    fs::rename(local_path(temporary), local_path(path));
}

// The new path of a rename or move; empty when there is none to be had.
std::string twin_world::new_place(const step_t& step, const std::string& path, bool is_move, side_t side)
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

// A move keeps the name and a rename the folder, so that each is one request: one that a crash cuts in two
// leaves the node halfway in the cloud and a second one at its new local place.
void twin_world::local_relocate(const step_t& step, bool is_move)
{
    const std::string from = pick(local_, step.draw[0], true, true);
    if (from.empty())
        return;
    // Should the old node be left behind, all names have to be made anew.
    const paths_t all = with_below(local_, from);
    if (!std::all_of(all.begin(), all.end(), can_be_sent))
        return;
    const std::string to = new_place(step, from, is_move, local_side);
    if (to.empty())
        return;
    const bool darkens = local_[from].is_dir && darkens_others(from);
    const bool in_peace = darkens || has_orphans(from);
    if (in_peace)
        settle();
    prepare(local_side, {from, to}, true);
    if (!local_.contains(from) || remote_.contains(to))
        return;
    tell(std::string(is_move ? "local move " : "local rename ") + from + " -> " + to +
         (service_ ? "" : " (nobody watches)"));
    note(local_side, from, true);
    note(local_side, to, true);
    for (const std::string& each : with_below(remote_, from)) {
        gone_.insert(each);
        risk_.emplace(each, remote_[each]);
    }
    if (service_ || lower(from) == lower(to)) { // new letters are made up for
        move(remote_, from, to);
    } else { // the copies in the cloud stay, since nobody tells it
        for (const std::string& each : with_below(local_, from))
            remote_[to + each.substr(from.size())] = local_[each];
    }
    move(local_, from, to);
    fs::rename(local_path(from), local_path(to));
    if (in_peace)
        settle();
    if (darkens)
        go_offline(false, 0);
}

void twin_world::local_delete(const step_t& step)
{
    const std::string path = pick(local_, step.draw[0], true, true);
    if (path.empty())
        return;
    prepare(local_side, {path}, true);
    tell("local delete " + path + (service_ ? "" : " (nobody watches)"));
    note(local_side, path, true);
    for (const std::string& each : with_below(remote_, path)) {
        gone_.insert(each);
        risk_.emplace(each, remote_[each]);
    }
    erase(local_, path);
    if (service_)
        erase(remote_, path);
    fs::remove_all(local_path(path));
}

// ---- Cloud steps ----

void twin_world::cloud_write(const step_t& step, bool is_new)
{
    std::string path = is_new ? new_name(pick_folder(step.draw[0]), step, cloud_side)
                              : pick(local_, step.draw[0], false, true);
    if (path.empty())
        return;
    prepare(cloud_side, {path}, false);
    const std::string content = new_content(step.draw[1]);
    tell("cloud write " + path);
    note(cloud_side, path, false);
    local_[path] = remote_[path] = {false, md5(content)};
    cloud_.put(cloud_path(path), content);
}

void twin_world::cloud_mkdir(const step_t& step)
{
    const std::string top = new_name(pick_folder(step.draw[0]), step, cloud_side);
    if (top.empty())
        return;
    prepare(cloud_side, {top}, false);
    const std::string content = new_content(step.draw[1]);
    tell("cloud tree " + top);
    note(cloud_side, top, false);
    for (const std::string& folder : {top, top + "/cloud sub", top + "/cloud sub/hollow"})
        local_[folder] = remote_[folder] = {true, ""};
    local_[top + "/cloud sub/file"] = remote_[top + "/cloud sub/file"] = {false, md5(content)};
    cloud_.mkdir(cloud_path(top + "/cloud sub/hollow"));
    cloud_.put(cloud_path(top + "/cloud sub/file"), content);
}

void twin_world::cloud_relocate(const step_t& step, bool is_move)
{
    const std::string from = pick(local_, step.draw[0], true, true);
    const std::string to = from.empty() ? "" : new_place(step, from, is_move, cloud_side);
    if (to.empty())
        return;
    prepare(cloud_side, {from, to}, true, local_[from].is_dir);
    if (!local_.contains(from) || remote_.contains(to))
        return;
    // A folder that the cloud does not know yet, or that holds one.
    if (!cloud_.has(cloud_path(from)))
        return;
    tell(std::string(is_move ? "cloud move " : "cloud rename ") + from + " -> " + to);
    note(cloud_side, from, true);
    note(cloud_side, to, true);
    const bool darkens = service_ && local_[from].is_dir && darkens_others(from);
    for (const std::string& each : with_below(remote_, from)) {
        gone_.insert(each);
        if (!local_.contains(each))
            returning_.emplace(to + each.substr(from.size()), remote_[each]);
    }
    move(local_, from, to);
    move(remote_, from, to);
    if (is_move)
        cloud_.move(cloud_path(from), folder_of(to) == "D" ? "/" : cloud_path(folder_of(to)));
    else
        cloud_.rename(cloud_path(from), name_of(to));
    if (darkens) {
        settle();
        go_offline(false, 0);
    }
}

// A folder that goes in the cloud takes along what was written below it before: prepare() lets that go up
// first.
void twin_world::cloud_trash(const step_t& step)
{
    const std::string path = pick(local_, step.draw[0], true, true);
    if (path.empty())
        return;
    prepare(cloud_side, {path}, true);
    tell("cloud trash " + path);
    note(cloud_side, path, true);
    for (const std::string& each : with_below(remote_, path))
        gone_.insert(each);
    erase(local_, path);
    erase(remote_, path);
    cloud_.trash(cloud_path(path));
}

// The same file changed on both sides while the service was away: the times decide.
void twin_world::conflict(const step_t& step)
{
    const bool local_wins = step.draw[1] % 2;
    const bool is_new = step.draw[3] % 4 == 0;
    const bool is_trashed = step.draw[3] % 4 == 1;
    std::string path = is_new ? new_name(pick_folder(step.draw[0]), step, local_side)
                              : pick(local_, step.draw[0], false, true);
    if (path.empty() || (is_trashed && !can_be_sent(name_of(path))))
        return;
    prepare(cloud_side, {path}, true);
    go_offline(false, 0);
    if (is_new != !remote_.contains(path))
        return;
    const std::string ours = new_content(step.draw[2]);
    const std::string theirs = new_content(step.draw[2] + 1);
    tell(std::string("both ") +
         (is_new       ? "create "
          : is_trashed ? "edit and trash "
                       : "edit ") +
         path + (local_wins ? ", local newer" : ", cloud newer"));
    note(local_side, path, true);
    write_file(local_path(path), ours, now() + (local_wins ? stretch_sec / 2 : -stretch_sec / 2));
    if (is_trashed)
        cloud_.trash(cloud_path(path));
    else
        cloud_.put(cloud_path(path), theirs);
    if (local_wins || !is_trashed) {
        local_[path] = remote_[path] = {false, md5(local_wins ? ours : theirs)};
    } else {
        gone_.insert(path);
        erase(local_, path);
        erase(remote_, path);
    }
}

// ---- Disturbances ----

void twin_world::disturb(const step_t& step)
{
    const char* const paths[] = {".", "content", "nodes", "changes", "trash", "children", "^/nodes"};
    const json effects[] = {{{"status", 401}},
                            {{"status", 429}},
                            {{"status", 500}},
                            {{"status", 503}},
                            {{"status", 504}},
                            {{"drop", true}},
                            {{"drop", true}, {"reset", true}},
                            {{"cut", 5}},
                            {{"cut", 5000}},
                            {{"cut", 100}, {"reset", true}},
                            {{"status", 500}, {"run", true}},
                            {{"drop", true}, {"run", true}}};
    json faults = json::array();
    for (unsigned i = 0; i < 3; i++) {
        json fault = effects[(step.draw[i] >> 8) % std::size(effects)];
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
    live_ = false;
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

void twin_world::await_live()
{
    if (live_)
        return;
    const std::string line = "DidAdd: add_watch(" + nas_.drive + ") ";
    live_ = eventually(
        [&] {
            check_alive();
            return service_->err().find(line) != std::string::npos;
        },
        patience_sec_);
    if (!live_)
        throw twin_failure("the service is not live in time");
}

// ---- Agreement ----

// Throws when the tree changes under the reading.
tree_t twin_world::local_tree_now() const
{
    tree_t tree;
    for (const auto& [root, folder] : {std::pair{"D", nas_.drive}, std::pair{"P", nas_.photos}})
        for (const auto& entry : fs::recursive_directory_iterator(folder)) {
            const std::string path = root + entry.path().string().substr(folder.size());
            tree[path] =
                entry.is_directory() ? entry_t{true, ""} : entry_t{false, md5(read_file(entry.path()))};
        }
    return tree;
}

void twin_world::read_cloud(const std::string& from, const std::string& path, tree_t& tree) const
{
    const http_reply_t reply = cloud_.get(from.empty() ? "/" : from);
    if (reply.status != 200)
        return;
    const json listing = json::parse(reply.body);
    for (const json& node : listing["data"]) {
        const std::string name = node["name"];
        if (path == "D" && name.starts_with("Korvane_"))
            continue;
        const bool is_dir = node["kind"] == "FOLDER";
        tree[path + "/" + name] = {is_dir, is_dir ? "" : node["contentProperties"]["md5"].get<std::string>()};
        if (is_dir)
            read_cloud(from + "/" + name, path + "/" + name, tree);
    }
}

tree_t twin_world::cloud_tree_now() const
{
    tree_t tree;
    read_cloud("", "D", tree);
    read_cloud(nas_.cloud_photos, "P", tree);
    return tree;
}

std::string twin_world::difference(bool adopt)
{
    std::string text;
    const auto compare = [&text](const char* side, const tree_t& model, const tree_t& real) {
        for (const auto& [path, entry] : model)
            if (auto found = real.find(path); found == real.end())
                text += std::string(side) + " lacks " + path + " (" + shown(entry) + ")\n";
            else if (found->second != entry)
                text += std::string(side) + " has " + path + " as " + shown(found->second) + ", not as " +
                        shown(entry) + "\n";
        for (const auto& [path, entry] : real)
            if (!model.contains(path))
                text += std::string(side) + " has " + path + " (" + shown(entry) + ") too many\n";
    };
    tree_t real;
    try {
        real = local_tree_now();
    } catch (const fs::filesystem_error& error) {
        return error.what();
    }
    tree_t local_model = local_;
    for (const auto& [path, entry] : returning_)
        if (auto found = real.find(path); interrupted_ && found != real.end() && found->second == entry)
            local_model.emplace(path, entry);
    compare("local", local_model, real);
    if (!text.empty())
        return text;
    real = cloud_tree_now();
    tree_t model = remote_;
    for (const auto& [path, entry] : risk_)
        if (auto found = real.find(path);
            interrupted_ && found != real.end() && !remote_.contains(path) && found->second == entry)
            model[path] = entry;
    compare("cloud", model, real);
    if (text.empty() && adopt) {
        local_ = local_model;
        remote_ = model;
    }
    return text;
}

// Two polls without an event in between: nothing is on its way any more.
void twin_world::quiesce()
{
    cloud_.forget_requests();
    const bool quiet = eventually(
        [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(40));
            check_alive();
            return cloud_.count("POST", "changes") >= 2;
        },
        patience_sec_);
    if (!quiet)
        throw twin_failure("the cloud is not polled any more");
}

void twin_world::await_agreement()
{
    std::string left;
    const bool agreed = eventually(
        [&] {
            check_alive();
            if ((left = difference(false)).empty())
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            return false;
        },
        patience_sec_);
    if (agreed) {
        quiesce();
        left = difference(true);
    }
    if (!left.empty())
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
    for (const auto& [path, entry] : local_)
        if (entry.is_dir)
            set_time(local_path(path), now());
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
    int transfers = 0;
    std::string which;
    for (const json& request : cloud_.requests()) {
        const std::string method = request["method"], path = request["path"];
        if (method == "PUT" || method == "PATCH" || path.find("content") != std::string::npos ||
            (method == "POST" && path.find("nodes") != std::string::npos)) {
            transfers++;
            which += method + " " + path + " " + request["body"].get<std::string>().substr(0, 300) + "\n";
        }
    }
    if (transfers)
        throw twin_failure("a restart after the agreement sends\n" + which);
}

void twin_world::take(const step_t& step)
{
    switch (step.kind) {
    case LOCAL_CREATE:
        return local_write(step, true);
    case LOCAL_EDIT:
        return local_write(step, false);
    case LOCAL_TREE:
        return local_tree(step);
    case LOCAL_SAVE_AS:
        return local_save_as(step);
    case LOCAL_RENAME:
        return local_relocate(step, false);
    case LOCAL_MOVE:
        return local_relocate(step, true);
    case LOCAL_DELETE:
        return local_delete(step);
    case CLOUD_CREATE:
        return cloud_write(step, true);
    case CLOUD_EDIT:
        return cloud_write(step, false);
    case CLOUD_MKDIR:
        return cloud_mkdir(step);
    case CLOUD_RENAME:
        return cloud_relocate(step, false);
    case CLOUD_MOVE:
        return cloud_relocate(step, true);
    case CLOUD_TRASH:
        return cloud_trash(step);
    case CONFLICT:
        return conflict(step);
    case SETTLE:
        return settle();
    case STOP:
    case KILL:
        return go_offline(step.kind == KILL, step.draw[0]);
    case START:
        return start();
    default:
        return disturb(step);
    }
}

std::string twin_world::log() const
{
    return service_ ? service_->err() : last_log_;
}

} // namespace kxtest
