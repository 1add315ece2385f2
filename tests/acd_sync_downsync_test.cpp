#include "kxamazon/acd_sync_downsync.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <regex>
#include <sstream>

#include "common/utils.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_sync_utils.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/global.h"
#include "support/support.h"
#include "support/sync_test.h"

namespace fs = std::filesystem;
using kxtest::write_file;

namespace
{

constexpr time_t noon = 1433160000; // 2015-06-01T12:00:00Z

node_ptr node_of(const std::string& kind, const std::string& status, const char* name = "x",
                 const char* time = "2015-06-01T12:00:00Z")
{
    const nlohmann::json node = {{"id", "n"},           {"name", name},        {"kind", kind},
                                 {"status", status},    {"parents", {"root"}}, {"createdDate", time},
                                 {"modifiedDate", time}};
    return node_ptr(parse_node(node.dump().c_str()));
}

// A local path in a new folder and the cloud path /x, with a cache in memory.
class decision : public testing::Test
{
protected:
    decision() { acd_cache_init(1); }
    ~decision() override { acd_cache_deinit(); }

    // A node in a cache that looks as if the cloud had just renamed it, or not.
    node_ptr cached_node(const std::string& kind, const std::string& status, bool renamed)
    {
        acd_cache_reset();
        acd_cache_node(node_of(kind, "AVAILABLE", renamed ? "old" : "x", "2015-06-01T11:59:59Z").get());
        node_ptr node = node_of(kind, status);
        acd_cache_node(node.get());
        return node;
    }

    std::string folder_ = kxtest::new_folder();
    std::string local_ = folder_ + "/x";
    sync_path_ptr path_{acd_create_sync_path("/", folder_.c_str())};
    sync_node_scope paths_{path_.get(), string_ptr(safe_strdup("/x")),
                           string_ptr(safe_strdup(local_.c_str()))};
};

// Beside the pairs' there are places that no pair covers. As the cloud tells the time, all was filled an hour
// ago.
class downsync : public kxtest::pairs_test
{
protected:
    downsync()
    {
        for (const char* path : {"/Korvane_nas1/Photos/a", "/Korvane_nas1/Photos/sub/b", "/Docs/d",
                                 "/Korvane_other/o", "/Korvane_other/box/in", "/nas-aa-bb-cc/n"})
            cloud_.put(path, path);
    }

    void poll() { EXPECT_EQ(acd_downsync_changes(pairs_.get()), 0); }

    // Another client's orders, separated by ";" ("@" is /Korvane_nas1/Photos), later than all that is there.
    void carry_out(const std::string& orders)
    {
        later();
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

    // What is new ("+PATH") and gone ("-PATH") on the local side since the last call. Files must have their
    // node's time.
    std::string difference()
    {
        std::string text;
        const std::vector<std::string> tree = kxtest::tree_of(base_);
        for (const std::string& path : tree) {
            const time_t time = cloud_time((path[0] == 'P' ? "/Korvane_nas1/Photos" : "") + path.substr(1));
            EXPECT_TRUE(path.back() == '/' || time == 0 || time == kxtest::mtime_of(base_ + "/" + path))
                << path;
            if (!std::ranges::count(tree_, path))
                text += "+" + path + " ";
        }
        for (const std::string& path : tree_)
            if (!std::ranges::count(tree, path))
                text += "-" + path + " ";
        tree_ = tree;
        return text;
    }

    std::vector<std::string> tree_ = {"D/", "P/"};
};

} // namespace

// Each row: kind, status, note, and the actions for a local node that is missing, and for one whose time is a
// second before the cloud's, the same, and a second after it.
TEST_F(decision, row_by_row)
{
    std::istringstream table(R"(FOLDER AVAILABLE - Add Mtime NA NA
                                FOLDER AVAILABLE renamed Rename Mtime NA NA
                                FOLDER TRASH - Delete Delete Delete NA
                                FOLDER PURGED renamed Delete Delete Delete NA
                                FOLDER PENDING - NA NA NA NA
                                FILE AVAILABLE - Add Add NA NA
                                FILE AVAILABLE renamed Rename Add NA NA
                                FILE TRASH renamed NA Delete NA NA
                                FILE PURGED - NA Delete NA NA
                                FILE PENDING - NA NA NA NA)");
    for (std::string kind, status, note, expected; table >> kind >> status >> note;) {
        node_ptr node = cached_node(kind, status, note == "renamed");
        fs::remove_all(local_);
        for (int local : {-2, -1, 0, 1}) {
            if (local != -2) {
                fs::create_directory(local_);
                set_mtime(local_.c_str(), noon + local);
            }
            table >> expected;
            EXPECT_EQ(kind == "FILE"
                          ? sync_file_action_to_string(get_downsync_file_action(node.get(), path_.get()))
                          : sync_folder_action_to_string(get_downsync_folder_action(node.get(), path_.get())),
                      "Local:" + expected + ":" + kind)
                << status << note << local;
        }
    }
}

TEST_F(decision, a_deleted_tree_keeps_what_the_cloud_never_held)
{
    write_file(local_ + "/sub/a", "a");
    write_file(local_ + "/gone/b", "b");
    fs::create_symlink("gone", local_ + "/sub/link");
    EXPECT_EQ(op_downsync_delete_node(node_of("FOLDER", "TRASH").get(), path_.get()), 0);
    EXPECT_THAT(kxtest::tree_of(local_), testing::ElementsAre("sub/", "sub/link"));
    fs::remove_all(local_ + "/sub");
    EXPECT_EQ(op_downsync_delete_node(node_of("FILE", "TRASH").get(), path_.get()), 0);
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

TEST_F(downsync, failures_stay_with_their_node_or_pair)
{
    cloud_.fail({{"method", "GET"}, {"path", "/content$"}, {"status", 404}});
    EXPECT_EQ(full_passes(), 0);
    EXPECT_EQ(events(), "DOWNLOADING P/a\nLOCAL_ADD P/sub\nDOWNLOADING P/sub/b\nLOCAL_DOWNLOAD P/sub/b\n"
                        "LOCAL_ADD D/Docs\nDOWNLOADING D/Docs/d\nLOCAL_DOWNLOAD D/Docs/d\n");
    cloud_.fail({{"method", "GET"}, {"path", "/children$"}, {"status", 404}});
    EXPECT_EQ(pass("/D", "/"), -1);

    fs::remove_all(base_ + "/D");
    EXPECT_EQ(pass("/D", "/"), -1);
    carry_out("put @/new x;move @/sub /Docs;rename /Docs/d e");
    poll();
    EXPECT_EQ(events(), "DOWNLOADING P/new\nLOCAL_DOWNLOAD P/new\n");
    EXPECT_FALSE(kxtest::exists(base_ + "/D"));

    cloud_.fail({{"method", "POST"}, {"path", "^/changes$"}, {"status", 403}});
    EXPECT_EXIT(poll(), testing::ExitedWithCode(1), "");
}

TEST_F(downsync, changes_are_applied_once)
{
    // Orders, what one poll makes of the local side, and the poll's events; each row goes on from the last.
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"rename @/a z", "+P/z -P/a ", "LOCAL_RENAME P/a P/z\n"},
        {"rename @/sub s", "+P/s/ +P/s/b -P/sub/ -P/sub/b ", "LOCAL_RENAME P/sub P/s\n"},
        {"move @/z /Docs", "+D/Docs/z -P/z ", "LOCAL_MOVE P/z D/Docs/z\n"},
        {"move /Docs @", "+P/Docs/ +P/Docs/d +P/Docs/z -D/Docs/ -D/Docs/d -D/Docs/z ",
         "LOCAL_MOVE D/Docs P/Docs\n"},
        {"move @/Docs/z @/s;rename @/s/z it's$n", "+P/s/it's$n -P/Docs/z ",
         "LOCAL_MOVE P/Docs/z P/s/it's$n\n"},
        {"move @/s/b /Korvane_other", "-P/s/b ", "LOCAL_DELETE P/s/b\n"},
        {"move @/Docs /Korvane_other", "-P/Docs/ -P/Docs/d ", "LOCAL_DELETE P/Docs/d\nLOCAL_DELETE P/Docs\n"},
        {"move /Korvane_other/o @", "+P/o ", "DOWNLOADING P/o\nLOCAL_DOWNLOAD P/o\n"},
        {"move /Korvane_other/box @", "+P/box/ +P/box/in ",
         "LOCAL_ADD P/box\nDOWNLOADING P/box/in\nLOCAL_DOWNLOAD P/box/in\n"},
        {"move /Korvane_other/b /nas-aa-bb-cc;put /Korvane_other/new x", "", ""},
        {"put @/o x", "", "DOWNLOADING P/o\nLOCAL_DOWNLOAD P/o\n"},
        {"put /N/n x", "+D/N/ +D/N/n ", "LOCAL_ADD D/N\nDOWNLOADING D/N/n\nLOCAL_DOWNLOAD D/N/n\n"},
        {"trash /N/n", "-D/N/n ", "LOCAL_DELETE D/N/n\n"},
        {"trash @/box", "-P/box/ -P/box/in ", "LOCAL_DELETE P/box/in\nLOCAL_DELETE P/box\n"},
    };
    poll();
    difference();
    events();
    for (auto [orders, local, happened] : rows) {
        carry_out(orders);
        poll();
        EXPECT_EQ(events(), happened) << orders;
        EXPECT_EQ(difference(), local) << orders;
        // Nothing is left to do, and no note stands in the way of a full pass.
        poll();
        EXPECT_EQ(full_passes(), 0);
        EXPECT_EQ(events() + difference(), "") << orders;
    }

    // A note on the older name of the node that was also moved would speak of its old folder.
    fs::remove(base_ + "/P/s/it's$n");
    write_file(base_ + "/P/s/z", "a stranger");
    carry_out("put @/s/it's$n newer");
    poll();
    EXPECT_EQ(difference(), "+P/s/z ");
}

TEST_F(downsync, a_trashed_pair_folder_is_restored_in_the_cloud_and_kept_here)
{
    poll();
    difference();
    for (bool fails : {false, true}) {
        carry_out("trash @");
        if (fails)
            cloud_.fail({{"method", "POST"}, {"path", "^/nodes$"}, {"status", 409}});
        poll();
        EXPECT_EQ(cloud_.has("/Korvane_nas1/Photos"), !fails);
        EXPECT_EQ(difference(), "");
    }
}
