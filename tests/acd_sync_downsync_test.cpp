#include "kxamazon/acd_sync_downsync.h"

#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>
#include <regex>
#include <set>
#include <sstream>

#include "common/utils.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_sync_utils.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/global.h"
#include "support/support.h"
#include "support/sync_test.h"

namespace fs = std::filesystem;
using kxtest::log_of;
using kxtest::read_file;
using kxtest::write_file;
using nlohmann::json;
using testing::ExitedWithCode;
using testing::HasSubstr;

namespace
{

constexpr time_t noon = 1433160000; // 2015-06-01T12:00:00Z

node_ptr node_of(const std::string& kind, const std::string& status, const std::string& name = "x",
                 const char* parent = "root", const char* time = "2015-06-01T12:00:00Z", const char* id = "n")
{
    const json dates = {{"createdDate", time}, {"modifiedDate", time}, {"isRoot", name.empty()}};
    json node = {{"id", id}, {"name", name}, {"kind", kind}, {"status", status}, {"parents", {parent}}};
    node.update(dates);
    return node_ptr(parse_node(node.dump().c_str()));
}

// A local path in a new folder and the cloud path /x, with a cache in memory.
class decision : public testing::Test
{
protected:
    decision()
        : folder_(kxtest::new_folder()), local_(folder_ + "/x"),
          sync_path_(acd_create_sync_path("/", folder_.c_str())),
          paths_(sync_path_.get(), string_ptr(safe_strdup("/x")), string_ptr(safe_strdup(local_.c_str())))
    {
        acd_cache_init(1);
    }
    ~decision() override { acd_cache_deinit(); }

    // A node in a cache that looks as if the cloud had just "renamed" or "moved" it, or neither.
    node_ptr cached_node(const std::string& kind, const std::string& status, const std::string& note)
    {
        acd_cache_reset();
        acd_cache_node(node_of("FOLDER", "AVAILABLE", "", "", "2015-01-01T00:00:00Z", "root").get());
        acd_cache_node(node_of("FOLDER", "AVAILABLE", "d", "root", "2015-01-01T00:00:00Z", "d").get());
        const char* name = note == "renamed" ? "old" : "x";
        const char* parent = note == "moved" ? "d" : "root";
        acd_cache_node(node_of(kind, "AVAILABLE", name, parent, "2015-06-01T11:59:59Z").get());
        node_ptr node = node_of(kind, status);
        acd_cache_node(node.get());
        return node;
    }

    std::string folder_;
    std::string local_;
    sync_path_ptr sync_path_;
    sync_node_scope paths_;
};

// The pairs P (/Korvane_nas1/Photos) and D (/), and places that no pair covers. As the cloud tells the time,
// they were filled an hour ago.
class downsync : public kxtest::sync_test
{
protected:
    downsync() : pairs_(acd_sync_create_sync_pair_list())
    {
        add_pair("/P", "/Korvane_nas1/Photos");
        add_pair("/D", "/");
        global.sync_pairs = pairs_.get();
        cloud_.set_clock_offset(-3600);
        for (const char* path : {"/Korvane_nas1/Photos/a", "/Korvane_nas1/Photos/sub/b", "/Docs/d",
                                 "/Korvane_other/o", "/Korvane_other/box/in", "/nas-aa-bb-cc/n"})
            cloud_.put(path, path);
    }
    ~downsync() override { global.sync_pairs = nullptr; }

    void add_pair(const char* local, const char* cloud)
    {
        fs::create_directory(base_ + local);
        acd_sync_pair_entry_t* pair = acd_sync_create_sync_pair_entry();
        pair->local_drive_path = safe_strdup((base_ + local).c_str());
        pair->cloud_drive_path = safe_strdup(cloud);
        acd_sync_sync_pair_list_insert_tail(pairs_.get(), pair);
    }

    int pass(const char* local, const char* cloud)
    {
        return acd_downsync_cloud_drive_path(cloud, cloud, (base_ + local).c_str());
    }
    int full_passes() { return pass("/P", "/Korvane_nas1/Photos") + pass("/D", "/"); }

    // One poll of the feed, and its log at info level.
    std::string poll()
    {
        return log([&] { EXPECT_EQ(acd_downsync_changes(pairs_.get()), 0); }, 2);
    }

    // Takes the beginnings in through the feed, and sets the cloud's clock right.
    void begin()
    {
        poll();
        events();
        cloud_.set_clock_offset(0);
        cloud_.forget_requests();
    }

    // What became of the beginnings: "-PATH" what is gone, "+PATH" what is new. Files must have their node's
    // time.
    std::string difference()
    {
        std::set<std::string> gone = {"D/", "D/Docs/", "D/Docs/d", "P/", "P/a", "P/sub/", "P/sub/b"};
        std::string text;
        for (const std::string& path : kxtest::tree_of(base_)) {
            const time_t time = cloud_time((path[0] == 'P' ? "/Korvane_nas1/Photos" : "") + path.substr(1));
            EXPECT_TRUE(path.back() == '/' || time == 0 || time == kxtest::mtime_of(base_ + "/" + path))
                << path;
            if (gone.erase(path) == 0)
                text += "+" + path + " ";
        }
        for (const std::string& path : gone)
            text += "-" + path + " ";
        return text;
    }

    int downloads() const { return cloud_.count("GET", "/content$"); }

    sync_pair_list_ptr pairs_;
};

// Orders of another client (separated by ";", "@" being /Korvane_nas1/Photos), what one poll makes of the
// local side, and the poll's events.
struct change_t {
    const char* name;
    const char* orders;
    const char* difference;
    const char* events;
};

const change_t changes[] = {
    {"file_renamed", "rename @/a z", "+P/z -P/a ", "LOCAL_RENAME P/a P/z\n"},
    {"folder_renamed", "rename @/sub s", "+P/s/ +P/s/b -P/sub/ -P/sub/b ", "LOCAL_RENAME P/sub P/s\n"},
    {"file_moved", "move @/a /Docs", "+D/Docs/a -P/a ", "LOCAL_MOVE P/a D/Docs/a\n"},
    {"folder_moved", "move /Docs @", "+P/Docs/ +P/Docs/d -D/Docs/ -D/Docs/d ", "LOCAL_MOVE D/Docs P/Docs\n"},
    {"both", "move @/a @/sub;rename @/sub/a it's$n", "+P/sub/it's$n -P/a ", "LOCAL_MOVE P/a P/sub/it's$n\n"},
    {"file_moved_out", "move @/a /Korvane_other", "-P/a ", "LOCAL_DELETE P/a\n"},
    {"folder_moved_out", "move @/sub /Korvane_other", "-P/sub/ -P/sub/b ",
     "LOCAL_DELETE P/sub/b\nLOCAL_DELETE P/sub\n"},
    {"file_moved_in", "move /Korvane_other/o @", "+P/o ", "DOWNLOADING P/o\nLOCAL_DOWNLOAD P/o\n"},
    {"folder_moved_in", "move /Korvane_other/box @", "+P/box/ +P/box/in ",
     "LOCAL_ADD P/box\nDOWNLOADING P/box/in\nLOCAL_DOWNLOAD P/box/in\n"},
    {"strangers", "move /Korvane_other/o /nas-aa-bb-cc;put /Korvane_other/new x", "", ""},
    {"file_changed", "put /Docs/d x", "", "DOWNLOADING D/Docs/d\nLOCAL_DOWNLOAD D/Docs/d\n"},
    {"file_added", "put /N/n x", "+D/N/ +D/N/n ", "LOCAL_ADD D/N\nDOWNLOADING D/N/n\nLOCAL_DOWNLOAD D/N/n\n"},
    {"file_trashed", "trash /Docs/d", "-D/Docs/d ", "LOCAL_DELETE D/Docs/d\n"},
    {"folder_trashed", "trash @/sub", "-P/sub/ -P/sub/b ", "LOCAL_DELETE P/sub/b\nLOCAL_DELETE P/sub\n"},
    {"pair_folder_trashed", "trash @", "", ""},
};

[[maybe_unused]] void PrintTo(const change_t& row, std::ostream* out)
{
    *out << row.name;
}

class downsync_change : public downsync, public testing::WithParamInterface<change_t>
{
protected:
    void carry_out(const std::string& orders)
    {
        std::istringstream list(std::regex_replace(orders, std::regex("@"), "/Korvane_nas1/Photos"));
        for (std::string order; std::getline(list, order, ';');) {
            std::string verb, path, word;
            std::istringstream(order) >> verb >> path >> word;
            verb == "rename"  ? cloud_.rename(path, word)
            : verb == "move"  ? cloud_.move(path, word)
            : verb == "trash" ? cloud_.trash(path)
                              : cloud_.put(path, word);
        }
    }
};

} // namespace

// Each row: kind, status, note, local time in seconds after the cloud's, action, and the message, if any,
// with %L for the local path and %N for the node.
TEST_F(decision, row_by_row)
{
    std::istringstream table(R"(FOLDER AVAILABLE renamed missing Local:Rename:FOLDER
FOLDER AVAILABLE - missing Local:Add:FOLDER debug: get_downsync_folder_action: Cloud node does not exist in local drive! acd: /x, lcd: %L
FOLDER AVAILABLE moved -1 Local:Mtime:FOLDER debug: get_downsync_folder_action: Cloud node is newer than local node. acd: /x (mtime: 2015-06-01T12:00:00Z), lcd: %L (mtime: 2015-06-01T11:59:59Z)
FOLDER AVAILABLE renamed 0 Local:NA:FOLDER
FOLDER AVAILABLE - 1 Local:NA:FOLDER
FOLDER TRASH renamed missing Local:Delete:FOLDER
FOLDER TRASH - -1 Local:Delete:FOLDER
FOLDER TRASH - 0 Local:Delete:FOLDER
FOLDER PURGED - 0 Local:Delete:FOLDER
FOLDER TRASH - 1 Local:NA:FOLDER error: get_downsync_folder_action: Is it possible? Cloud node /x (mtime: 2015-06-01T12:00:00Z) is deleted, but it is older than local node %L (mtime: 2015-06-01T12:00:01Z)!
FOLDER PENDING - -1 Local:NA:FOLDER debug: get_downsync_folder_action: Ignore status PENDING, cloud node %N.
FILE AVAILABLE renamed missing Local:Rename:FILE
FILE AVAILABLE - missing Local:Add:FILE
FILE AVAILABLE renamed -1 Local:Add:FILE debug: get_downsync_file_action: Cloud node is newer than local node! acd: /x (mtime: 2015-06-01T12:00:00Z), lcd: %L (mtime: 2015-06-01T11:59:59Z)
FILE AVAILABLE - 0 Local:NA:FILE
FILE AVAILABLE - 1 Local:NA:FILE
FILE TRASH - missing Local:NA:FILE
FILE TRASH - -1 Local:Delete:FILE
FILE PURGED - -1 Local:Delete:FILE
FILE TRASH - 0 Local:NA:FILE info: get_downsync_file_action: Cloud node /x (mtime: 2015-06-01T12:00:00Z) is deleted, but it is older than or equal to local node %L (mtime: 2015-06-01T12:00:00Z)!
FILE PENDING - missing Local:NA:FILE debug: get_downsync_file_action: Ignore status PENDING, cloud node %N.)");
    for (std::string line; std::getline(table, line);) {
        std::istringstream row(line);
        std::string kind, status, note, time, action, message;
        row >> kind >> status >> note >> time >> action >> std::ws;
        std::getline(row, message);
        node_ptr node = cached_node(kind, status, note);
        fs::remove_all(local_);
        if (time != "missing") {
            fs::create_directory(local_);
            set_mtime(local_.c_str(), noon + std::stoi(time));
        }
        const char* decided = nullptr;
        const std::string log = log_of([&] {
            decided =
                kind == "FILE"
                    ? sync_file_action_to_string(get_downsync_file_action(node.get(), sync_path_.get()))
                    : sync_folder_action_to_string(get_downsync_folder_action(node.get(), sync_path_.get()));
        });
        EXPECT_EQ(decided, action) << line;
        message = std::regex_replace(message, std::regex("%L"), local_);
        message = std::regex_replace(message, std::regex("%N"), acd_node_to_short_string(node.get()));
        EXPECT_EQ(log, message.empty() ? "" : message + "\n");
    }
}

TEST_F(decision, states_that_must_not_be_end_the_process)
{
    g_nosystemd = 1;
    node_ptr folder = cached_node("FOLDER", "AVAILABLE", "moved");
    EXPECT_EXIT(op_downsync_node_folder(folder.get(), sync_path_.get()), ExitedWithCode(1),
                "get_downsync_folder_action: shall not see SYNC_FOLDER_ACTION_MOVE");
    EXPECT_EXIT(op_downsync_rename_node(folder.get(), sync_path_.get()), ExitedWithCode(1),
                "op_downsync_rename_node: If cloud node name was not changed, I should not be called!");
    EXPECT_EXIT(sync_file_action_to_string(static_cast<sync_file_action_t>(5)), ExitedWithCode(1),
                "Invalid sync action 5");
}

TEST_F(decision, a_failed_rename_is_tried_once)
{
    node_ptr node = cached_node("FILE", "AVAILABLE", "renamed");
    EXPECT_THAT(
        log_of([&] { EXPECT_EQ(op_downsync_node_file(node.get(), sync_path_.get()), -1); }),
        HasSubstr("error: op_downsync_rename_node: Failed to rename " + folder_ + "/old to " + local_));
    EXPECT_EQ(get_downsync_file_action(node.get(), sync_path_.get()), SYNC_FILE_ACTION_ADD);
}

TEST_F(decision, a_deleted_tree_keeps_what_the_cloud_never_held)
{
    write_file(local_ + "/sub/a", "a");
    write_file(local_ + "/gone/b", "b");
    fs::create_symlink("nowhere", local_ + "/sub/link");
    const std::string log =
        log_of([&] { op_downsync_delete_node(node_of("FOLDER", "TRASH").get(), sync_path_.get()); });
    EXPECT_EQ(std::regex_replace(log, std::regex(folder_ + "/"), ""),
              "info: Local:Delete:FILE x/gone/b\ninfo: Local:Delete:FOLDER x/gone\ninfo: Local:Delete:FILE "
              "x/sub/a\n"
              "error: op_downsync_delete_node_linux_fs: Local: Failed to delete folder x/sub!\n"
              "error: op_downsync_delete_node: Local: Failed to delete folder x!\n");
    EXPECT_THAT(kxtest::tree_of(local_), testing::ElementsAre("sub/", "sub/link"));
    EXPECT_EQ(op_downsync_delete_node(node_of("FILE", "TRASH").get(), sync_path_.get()), 0);
    EXPECT_TRUE(kxtest::exists(local_)) << "a folder is not the file that was deleted";
}

TEST_F(decision, only_named_nodes_of_known_kind_and_status_pass)
{
    EXPECT_EQ(op_default_filter(node_of("FILE", "PURGED").get()), 1);
    for (auto [kind, status, name] : {std::tuple("FILE", "PENDING", "x"),
                                      {"FILE", "STRANGE", "x"},
                                      {"ASSET", "AVAILABLE", "x"},
                                      {"FOLDER", "AVAILABLE", ""}})
        EXPECT_EQ(op_default_filter(node_of(kind, status, name).get()), 0) << kind << status << name;
}

TEST_F(downsync, a_full_pass_brings_everything_but_the_appliances_folders_and_the_next_transfers_nothing)
{
    EXPECT_THAT(log([&] { EXPECT_EQ(full_passes(), 0); }), HasSubstr("\ninfo: Local:Add:FILE D/Docs/d\n"));
    EXPECT_EQ(difference(), "");
    EXPECT_EQ(read_file(base_ + "/D/Docs/d"), "/Docs/d");
    EXPECT_EQ(events(),
              "DOWNLOADING P/a\nLOCAL_DOWNLOAD P/a\nLOCAL_ADD P/sub\nDOWNLOADING P/sub/b\n"
              "LOCAL_DOWNLOAD P/sub/b\nLOCAL_ADD D/Docs\nDOWNLOADING D/Docs/d\nLOCAL_DOWNLOAD D/Docs/d\n");
    cloud_.forget_requests();
    EXPECT_EQ(
        log([&] { EXPECT_EQ(pass("/D", "/"), 0); }, 2),
        "info: Start full downsync cloud folder path. / ===> D, cloud folder path = /\n"
        "info: Ignore folder /Docs --> D/Docs\ninfo: Ignore file /Docs/d --> D/Docs/d\n"
        "info: acd_downsync_cloud_drive_path: Full downsync cloud folder path successfully. / ===> D, cloud "
        "folder path = /\n");
    EXPECT_EQ(downloads() + cloud_.count("POST", "^/nodes$"), 0);
}

TEST_F(downsync, failures_stay_with_their_node_or_pair)
{
    cloud_.fail({{"method", "GET"}, {"path", "/content$"}, {"status", 404}});
    EXPECT_THAT(log([&] { EXPECT_EQ(full_passes(), 0); }),
                HasSubstr("error: Failed to download file '/Korvane_nas1/Photos/a' --> 'P/a'\n"));
    EXPECT_EQ(difference(), "");
    cloud_.fail({{"method", "GET"}, {"path", "/children$"}, {"status", 404}});
    EXPECT_THAT(
        log([&] { EXPECT_EQ(pass("/D", "/"), -1); }),
        HasSubstr(
            "error: acd_downsync_cloud_drive_path: Failed to scan cloud folder path /. fs_err = 4\n"
            "info: acd_downsync_cloud_drive_path: Failed to full download folder drive path! / ===> D,"));

    fs::remove_all(base_ + "/D");
    const std::string gone = "Local drive path D does not exist or is not a folder!\n";
    EXPECT_THAT(log([&] { EXPECT_EQ(pass("/D", "/"), -1); }),
                HasSubstr("acd_downsync_cloud_drive_path: " + gone));
    cloud_.put("/Korvane_nas1/Photos/new", "x");
    cloud_.move("/Korvane_nas1/Photos/sub", "/Docs");
    const std::string log = poll();
    EXPECT_THAT(log, HasSubstr("error: op_downsync_changes: " + gone));
    EXPECT_THAT(log, HasSubstr("error: op_downsync_move_node: " + gone));
    EXPECT_EQ(difference(), "+P/new -D/ -D/Docs/ -D/Docs/d ");

    g_nosystemd = 1;
    cloud_.fail({{"method", "POST"}, {"path", "^/changes$"}, {"status", 403}});
    EXPECT_EXIT(acd_downsync_changes(pairs_.get()), ExitedWithCode(1),
                "acd_downsync_changes:acd_sync_downsync_changes.cpp:[0-9]+ FORBIDDEN!");
}

TEST_P(downsync_change, is_applied_once)
{
    begin();
    carry_out(GetParam().orders);
    poll();
    const std::string happened = events();
    EXPECT_EQ(happened, GetParam().events);
    EXPECT_EQ(difference(), GetParam().difference);
    EXPECT_EQ(downloads(), happened.find("LOCAL_DOWNLOAD") != std::string::npos);

    // Nothing is left to do, and no note stands in the way of a full pass.
    cloud_.forget_requests();
    poll();
    EXPECT_EQ(full_passes(), 0);
    EXPECT_EQ(difference(), GetParam().difference);
    EXPECT_EQ(downloads(), 0);
}

INSTANTIATE_TEST_SUITE_P(changes, downsync_change, testing::ValuesIn(changes),
                         [](const auto& row) { return row.param.name; });

TEST_F(downsync, a_trashed_pair_folder_is_restored_in_the_cloud)
{
    begin();
    cloud_.trash("/Korvane_nas1/Photos");
    EXPECT_THAT(poll(),
                HasSubstr("info: op_downsync_changes: Cloud drive path /Korvane_nas1/Photos was deleted! "
                          "Restore it.\n"));
    cloud_.trash("/Korvane_nas1/Photos"); // there again
    cloud_.fail({{"method", "POST"}, {"path", "^/nodes$"}, {"status", 409}});
    EXPECT_THAT(poll(), HasSubstr("error: op_downsync_changes: Failed to mkdir cloud drive path "
                                  "/Korvane_nas1/Photos! 6\n"));
}

// The rename note of a node that was also moved speaks of its old folder.
TEST_F(downsync, a_move_with_a_new_name_leaves_no_rename_behind)
{
    begin();
    cloud_.move("/Korvane_nas1/Photos/a", "/Korvane_nas1/Photos/sub");
    cloud_.rename("/Korvane_nas1/Photos/sub/a", "n");
    poll();
    fs::remove(base_ + "/P/sub/n");
    write_file(base_ + "/P/sub/a", "a stranger");
    cloud_.put("/Korvane_nas1/Photos/sub/n", "newer");
    poll();
    EXPECT_EQ(read_file(base_ + "/P/sub/n"), "newer");
    EXPECT_EQ(read_file(base_ + "/P/sub/a"), "a stranger");
}
