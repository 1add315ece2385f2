// Where following the cloud, or the owner, to the letter would lose what the owner has.
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

#include "common/utils.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_sync_downsync.h"
#include "kxamazon/acd_sync_upsync.h"
#include "kxamazon/acd_sync_utils.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/global.h"
#include "kxamazon/sync.h"
#include "support/support.h"
#include "support/sync_test.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using kxtest::mtime_of;
using kxtest::read_file;
using kxtest::write_file;
using testing::HasSubstr;

namespace
{

// The first poll brings down /Docs/d and /Docs/sub/e; /Korvane_other belongs to no pair.
class edges : public kxtest::pairs_test
{
protected:
    edges()
    {
        for (const char* path :
             {"/Docs/d", "/Docs/sub/e", "/Korvane_nas1/Photos/a", "/Korvane_other/box/in/deep"})
            cloud_.put(path, path);
        poll();
        later();
        events();
    }

    std::string poll()
    {
        return log([&] { EXPECT_EQ(acd_downsync_changes(pairs_.get()), 0); }, 2);
    }
    std::string at(const std::string& path) const { return read_file(base_ + path); }
    std::string tree(const std::string& path) const
    {
        std::string text;
        for (const std::string& entry : kxtest::tree_of(base_ + path))
            text += entry + " ";
        return text;
    }
    int downloads() const { return cloud_.count("GET", "/content$"); }
};

} // namespace

// Who shares a folder chooses the names in it.
TEST_F(edges, names_that_no_path_can_hold_are_left_alone_however_they_come)
{
    for (const std::string& name : {"."s, ".."s, "../../x"s, "Docs/d"s, "/"s, "d\0x"s}) {
        SCOPED_TRACE(name);
        cloud_.put("/Docs/f", "f");
        cloud_.put("/box/in", "in");
        poll();
        const std::string file = cloud_.stat("/Docs/f")["id"], box = cloud_.stat("/box")["id"],
                          in = cloud_.stat("/box/in")["id"];
        const std::string before = tree("");
        const auto left_alone = [](const std::string& log) {
            const std::regex line("error: No local file can have the name of node .* It is left alone\\.");
            return std::distance(std::sregex_iterator(log.begin(), log.end(), line), {});
        };
        later();
        cloud_.edit({{"id", file}, {"name", name}});
        cloud_.edit({{"id", box}, {"name", name}});
        cloud_.edit({{"id", in}, {"modifiedDate", "2035-06-01T12:00:00Z"}});
        cloud_.put("/Docs/d", name + name);
        EXPECT_EQ(left_alone(poll()), 2);
        EXPECT_EQ(at("/D/Docs/d"), name + name) << "what comes behind it is applied";
        acd_cache_reset();
        EXPECT_EQ(left_alone(log([&] { EXPECT_EQ(full_passes(), 0); })), 2) << "nor by listing";
        cloud_.edit({{"id", in}, {"name", name}, {"status", "TRASH"}});
        poll();
        EXPECT_EQ(tree(""), before);

        later();
        cloud_.edit({{"id", file}, {"name", "f"}});
        cloud_.edit({{"id", box}, {"name", "box"}});
        for (const char* path : {"/Docs/f", "/box"})
            cloud_.trash(path);
        poll();
    }
}

// Behind a link lies what the drive does not hold.
TEST_F(edges, nothing_is_done_through_a_symbolic_link)
{
    for (const char* path : {"/Docs/in/f", "/Docs/in/g", "/Docs/file"})
        cloud_.put(path, "cloud");
    poll();
    for (const char* name : {"in", "file"}) {
        fs::rename(base_ + "/D/Docs/" + name, base_ + "/outside_" + name);
        fs::create_symlink(base_ + "/outside_" + name, base_ + "/D/Docs/" + name);
    }
    const auto outside = [&] {
        std::string text = at("/outside_file") + std::to_string(mtime_of(base_ + "/outside_file"));
        for (const char* name : {"f", "g", "h", "new", "d", "in"})
            text += at("/outside_in/"s + name) + std::to_string(mtime_of(base_ + "/outside_in/" + name));
        return text + tree("/outside_in");
    };
    const std::string before = outside();
    const std::function<void()> changes[] = {
        [&] { cloud_.put("/Docs/in/f", "changed"); },  [&] { cloud_.put("/Docs/in/new", "new"); },
        [&] { cloud_.put("/Docs/file", "changed"); },  [&] { cloud_.rename("/Docs/in/g", "h"); },
        [&] { cloud_.move("/Docs/d", "/Docs/in"); },   [&] { cloud_.move("/Docs/in/f", "/Korvane_other"); },
        [&] { cloud_.trash("/Docs/in/h"); },           [&] { cloud_.trash("/Docs/file"); },
        [&] { cloud_.move("/Docs/in/new", "/Docs"); }, [&] { cloud_.rename("/Docs/in", "in2"); },
    };
    for (size_t i = 0; i < std::size(changes); ++i) {
        SCOPED_TRACE(i);
        later();
        changes[i]();
        EXPECT_THAT(poll(), testing::ContainsRegex("error: .* leads through the symbolic link D/Docs/"));
        EXPECT_EQ(outside(), before);
        if (i == 4) {
            EXPECT_THAT(log([&] { EXPECT_EQ(pass("/D", "/"), 0); }, 0),
                        HasSubstr("error: op_full_download: Local path D/Docs/in leads through"));
        }
    }
    EXPECT_EQ(outside(), before);
    EXPECT_EQ(at("/D/Docs/d"), "/Docs/d") << "moved behind the link in the cloud";
    EXPECT_EQ(at("/D/Docs/new"), "new") << "what came out from behind it";
}

TEST_F(edges, a_folder_from_an_unknown_place_is_brought_down_whole)
{
    // What was moved into a new folder follows by its own change, without a download.
    cloud_.mkdir("/New");
    for (const char* path : {"/Docs/d", "/Docs/sub"})
        cloud_.move(path, "/New");
    cloud_.move("/Korvane_nas1/Photos/a", "/New");
    cloud_.forget_requests();
    poll();
    EXPECT_EQ(tree("/D/New"), "a d sub/ sub/e ");
    EXPECT_EQ(downloads(), 0);
    later();

    const std::string id = cloud_.stat("/New/sub")["id"];
    cloud_.trash("/New/sub");
    poll();
    EXPECT_EQ(tree("/D/New"), "a d ");
    later();
    cloud_.edit({{"id", id}, {"status", "AVAILABLE"}});
    poll();
    EXPECT_EQ(at("/D/New/sub/e"), "/Docs/sub/e");

    later();
    cloud_.move("/Korvane_other/box", "/Docs");
    acd_cache_reset();
    poll();
    EXPECT_EQ(at("/D/Docs/box/in/deep"), "/Korvane_other/box/in/deep");
}

// A link kept the folder here from going with what was in it.
TEST_F(edges, a_folder_that_comes_back_to_where_it_stands_is_completed)
{
    const std::string id = cloud_.stat("/Docs/sub")["id"];
    fs::create_symlink("nowhere", base_ + "/D/Docs/sub/link");
    cloud_.trash("/Docs/sub");
    poll();
    EXPECT_EQ(tree("/D/Docs"), "d sub/ sub/link ");
    later();
    cloud_.edit({{"id", id}, {"status", "AVAILABLE"}});
    cloud_.fail({{"method", "GET"}, {"path", "/content$"}, {"status", 403}}); // ends the process
    EXPECT_EXIT(poll(), testing::ExitedWithCode(1), "");
    acd_cache_deinit();
    EXPECT_EQ(acd_cache_init(0), ACD_CACHE_ERR_OK);
    poll();
    EXPECT_EQ(at("/D/Docs/sub/e"), "/Docs/sub/e");
    later();
    cloud_.forget_requests();
    cloud_.edit({{"path", "/Docs/sub"}, {"modifiedDate", "2035-06-01T12:00:00Z"}});
    poll();
    EXPECT_EQ(cloud_.count("GET", "children"), 0) << "known by now";
}

TEST_F(edges, a_removal_that_the_end_of_the_process_cut_is_gone_on_with)
{
    for (const char* name : {"one", "two", "three"})
        for (const char* file : {"/a", "/b", "/in/c"})
            cloud_.put("/"s + name + file, file);
    poll();
    later();
    const std::string three = cloud_.stat("/three")["id"];
    for (const char* path : {"/one", "/two", "/three"}) {
        cloud_.trash(path);
        const auto ends = [&] { // at the first event, that of /a
            cookie_io_functions_t on_event = {};
            on_event.write = [](void*, const char*, size_t) -> ssize_t { _exit(3); };
            global.log_fp = fopencookie(nullptr, "w", on_event);
            setvbuf(global.log_fp, nullptr, _IONBF, 0);
            poll();
        };
        EXPECT_EXIT(ends(), testing::ExitedWithCode(3), "");
        EXPECT_EQ(tree("/D"s + path), "b in/ in/c ");
        acd_cache_deinit();
        EXPECT_EQ(acd_cache_init(0), ACD_CACHE_ERR_OK);
        if (path == "/two"s)
            write_file(base_ + "/D/two/in/mine", "mine", 1433160000);
        if (path == "/three"s)
            cloud_.edit({{"id", three}, {"status", "AVAILABLE"}});
        poll();
    }
    EXPECT_FALSE(kxtest::exists(base_ + "/D/one"));
    EXPECT_EQ(tree("/D/two"), "in/ in/mine ") << "written since";
    EXPECT_EQ(tree("/D/three"), "a b in/ in/c ") << "taken back meanwhile";
}

TEST_F(edges, a_folder_that_arrives_survives_the_end_of_the_process)
{
    cloud_.move("/Korvane_other/box", "/Docs");
    acd_cache_reset();
    cloud_.fail({{"method", "GET"}, {"path", "/content$"}, {"status", 403}}); // ends the process
    EXPECT_EXIT(poll(), testing::ExitedWithCode(1), "");
    EXPECT_TRUE(kxtest::exists(base_ + "/D/Docs/box/in"));
    acd_cache_deinit();
    EXPECT_EQ(acd_cache_init(0), ACD_CACHE_ERR_OK);
    poll();
    EXPECT_EQ(at("/D/Docs/box/in/deep"), "/Korvane_other/box/in/deep");
}

TEST_F(edges, a_new_place_and_new_content_at_once)
{
    const auto changed = [&](const char* path, const char* content) {
        cloud_.put(path, content);
        cloud_.forget_requests();
        poll();
        EXPECT_EQ(at("/D"s + path), content);
        EXPECT_EQ(mtime_of(base_ + "/D" + path), cloud_time(path));
        EXPECT_EQ(downloads(), 1);
        later();
    };
    cloud_.rename("/Docs/d", "r");
    changed("/Docs/r", "/DOCS/D"); // of the same size
    cloud_.move("/Docs/r", "/Docs/sub");
    changed("/Docs/sub/r", "longer than before");

    // Gone here meanwhile: neither can be renamed or moved.
    fs::remove(base_ + "/D/Docs/sub/r");
    cloud_.rename("/Docs/sub/r", "s");
    EXPECT_THAT(poll(), HasSubstr("error: op_downsync_rename_node: Failed to rename D/Docs/sub/r to"));
    EXPECT_EQ(at("/D/Docs/sub/s"), "longer than before");
    later();
    fs::remove_all(base_ + "/D/Docs/sub");
    cloud_.move("/Docs/sub", "/");
    poll();
    EXPECT_EQ(at("/D/sub/s") + at("/D/sub/e"), "longer than before/Docs/sub/e");
}

TEST_F(edges, an_edit_made_here_outlives_a_new_place)
{
    const auto edit = [&](const std::string& path) {
        write_file(base_ + path, "edited here", mtime_of(base_ + path) + 1);
        later();
    };
    edit("/D/Docs/d");
    cloud_.rename("/Docs/d", "r");
    poll();
    EXPECT_EQ(at("/D/Docs/r"), "edited here");
    EXPECT_EQ(mtime_of(base_ + "/D/Docs/r"), cloud_time("/Docs/r") + 1) << "newer, so that it goes up";
    edit("/D/Docs/r");
    cloud_.move("/Docs/r", "/Docs/sub");
    poll();
    EXPECT_EQ(at("/D/Docs/sub/r"), "edited here");
    EXPECT_GT(mtime_of(base_ + "/D/Docs/sub/r"), cloud_time("/Docs/sub/r"));

    // Nor does a move go over a newer file, or into a folder that is there.
    write_file(base_ + "/D/sub", "new here", time(nullptr) + 9999);
    cloud_.move("/Docs/sub/e", "/");
    write_file(base_ + "/D/e", "new here", time(nullptr) + 9999);
    poll();
    EXPECT_EQ(at("/D/e") + at("/D/Docs/sub/e"), "new here/Docs/sub/e");
    later();
    cloud_.mkdir("/to");
    poll();
    write_file(base_ + "/D/to/sub/mine", "mine");
    cloud_.move("/Docs/sub", "/to");
    poll();
    EXPECT_EQ(tree("/D/to"), "sub/ sub/mine sub/r ");
    EXPECT_EQ(tree("/D/Docs"), "sub/ sub/e sub/r ");
}

TEST_F(edges, what_is_newer_here_stays_when_it_is_moved_out)
{
    write_file(base_ + "/D/Docs/d", "newer", time(nullptr) + 9999);
    write_file(base_ + "/D/Docs/sub/e", "newer", time(nullptr) + 9999);
    for (const char* path : {"/Docs/d", "/Docs/sub"})
        cloud_.move(path, "/Korvane_other");
    const std::string log = poll();
    for (const char* path : {"d", "sub"})
        EXPECT_THAT(log, HasSubstr("is older than local node D/Docs/"s + path + "! It is kept.\n"));
    EXPECT_EQ(tree("/D/Docs"), "d sub/ sub/e ");
    later();
    cloud_.move("/Docs", "/Korvane_other");
    fs::remove_all(base_ + "/D/Docs/sub");
    write_file(base_ + "/D/Docs/d", "older", 1433160000);
    set_mtime((base_ + "/D/Docs").c_str(), 1433160000);
    poll();
    EXPECT_EQ(tree("/D"), "");
}

TEST_F(edges, the_state_that_must_not_be_ends_the_process_once)
{
    fs::remove(base_ + "/D/Docs/d");
    cloud_.move("/Docs/d", "/Docs/sub");
    EXPECT_EXIT(pass("/D", "/"), testing::ExitedWithCode(1), "");
    acd_cache_deinit();
    EXPECT_EQ(acd_cache_init(0), ACD_CACHE_ERR_OK);
    EXPECT_EQ(pass("/D", "/"), 0);
    EXPECT_EQ(at("/D/Docs/sub/d"), "/Docs/d");
}

TEST_F(edges, a_rename_to_other_letters_arrives)
{
    cloud_.rename("/Docs/d", "D");
    cloud_.rename("/Docs/sub", "Sub");
    cloud_.forget_requests();
    poll();
    EXPECT_EQ(tree("/D/Docs"), "D Sub/ Sub/e ");
    EXPECT_EQ(downloads(), 0);
}

// The feed shows each node once, in its present state: what took a name before may come after it.
TEST_F(edges, a_name_that_another_node_took_meanwhile)
{
    const auto take_over = [&](const std::string& path, const std::function<void()>& leave,
                               const std::function<void()>& go_on, const std::string& place) {
        SCOPED_TRACE(place);
        cloud_.put(path, "first");
        poll();
        later();
        leave();
        cloud_.put(path, "second");
        go_on();
        poll();
        EXPECT_EQ(at("/D" + path), "second");
        EXPECT_EQ(at("/D" + place), "first");
        EXPECT_EQ(mtime_of(base_ + "/D" + place), cloud_time(place)) << "or it would go up";
        later();
    };
    take_over(
        "/Docs/x", [&] { cloud_.rename("/Docs/x", "y"); }, [&] { cloud_.rename("/Docs/y", "z"); }, "/Docs/z");
    take_over(
        "/Docs/m", [&] { cloud_.move("/Docs/m", "/Docs/sub"); }, [&] { cloud_.rename("/Docs/sub/m", "n"); },
        "/Docs/sub/n");
}

// A program that runs cannot be written to.
TEST_F(edges, a_download_that_failed_is_no_edit_of_the_owner)
{
    const std::string program = base_ + "/D/Docs/d", moved = base_ + "/D/Docs/sub/r";
    later();
    fs::copy("/bin/sleep", program, fs::copy_options::overwrite_existing);
    kxtest::process runs({program, "60"});
    ASSERT_TRUE(kxtest::eventually(
        [&] { return fs::read_symlink("/proc/" + std::to_string(runs.pid()) + "/exe") == program; }));
    cloud_.put("/Docs/d", "new program");
    EXPECT_THAT(poll(), HasSubstr("error: Cannot open D/Docs/d.\n"));
    cloud_.put("/Docs/gone", "whole");
    cloud_.fail({{"method", "GET"}, {"path", "/content$"}, {"status", 404}});
    poll();
    acd_cache_deinit();
    EXPECT_EQ(acd_cache_init(0), ACD_CACHE_ERR_OK);
    later();
    cloud_.rename("/Docs/d", "r");
    cloud_.rename("/Docs/gone", "here");
    EXPECT_THAT(poll(), HasSubstr("error: Cannot open D/Docs/r.\n"));
    EXPECT_EQ(at("/D/Docs/here"), "whole");
    EXPECT_EQ(mtime_of(base_ + "/D/Docs/r"), cloud_time("/Docs/r")) << "or it would go up";
    runs.signal(SIGKILL);
    runs.wait();
    later();
    cloud_.move("/Docs/r", "/Docs/sub");
    poll();
    EXPECT_EQ(read_file(moved).substr(0, 20), "new program");
}

// What the watcher tells of a local change.
class edges_live : public edges
{
protected:
    void notify(const char* path, watch_type_v2_t type)
    {
        EXPECT_EQ(watch_notify((base_ + path).c_str(), type, nullptr), 0);
    }
    void notify_move(const char* from, const char* to, watch_type_v2_t type = WATCH_TYPE_V2_MOVE_FILE)
    {
        EXPECT_EQ(watch_notify_move((base_ + from).c_str(), (base_ + to).c_str(), type), 0);
    }
    void idle() { EXPECT_EQ(watch_notify(nullptr, WATCH_TYPE_V2_NONE, nullptr), 0); }
    std::string id_at(const char* path) const { return cloud_.stat(path).value("id", ""); }
};

TEST_F(edges_live, the_echo_of_own_work_never_meets_another_node)
{
    const std::string d = id_at("/Docs/d"), sub = id_at("/Docs/sub");
    cloud_.rename("/Docs/d", "r");
    cloud_.move("/Docs/sub", "/");
    idle();
    EXPECT_EQ(tree("/D"), "Docs/ Docs/r sub/ sub/e ");
    later();
    cloud_.put("/Docs/d", "new");
    cloud_.put("/Docs/sub/new", "new");
    cloud_.forget_requests();
    notify_move("/D/Docs/d", "/D/Docs/r");
    notify_move("/D/Docs/sub", "/D/sub", WATCH_TYPE_V2_MOVE_DIR);
    EXPECT_EQ(cloud_.count("POST|PUT|PATCH", "."), 0);
    EXPECT_EQ(id_at("/Docs/r"), d);
    EXPECT_EQ(id_at("/sub"), sub);
    idle();

    later();
    for (const char* path : {"/Docs/r", "/sub", "/Docs/d"})
        cloud_.trash(path);
    cloud_.move("/Docs/sub/new", "/Korvane_other");
    idle();
    EXPECT_EQ(tree("/D"), "Docs/ Docs/sub/ ");
    later();
    for (const char* path : {"/Docs/r", "/sub/e", "/Docs/sub/new"})
        cloud_.put(path, "again");
    cloud_.forget_requests();
    for (const char* path : {"/D/Docs/r", "/D/sub/e", "/D/Docs/d", "/D/Docs/sub/new"})
        notify(path, WATCH_TYPE_V2_DEL_FILE);
    notify("/D/sub", WATCH_TYPE_V2_DEL_DIR);
    EXPECT_EQ(cloud_.count("POST|PUT|PATCH", "."), 0);
    for (const char* path : {"/Docs/r", "/sub/e", "/Docs/sub/new"})
        EXPECT_TRUE(cloud_.has(path)) << path;

    // An echo is heard once, and none is waited for when there was time enough to hear it.
    notify("/D/Docs/r", WATCH_TYPE_V2_DEL_FILE);
    EXPECT_FALSE(cloud_.has("/Docs/r"));
    later();
    cloud_.trash("/sub/e");
    idle();
    idle();
    cloud_.put("/sub/e", "once more");
    notify("/D/sub/e", WATCH_TYPE_V2_DEL_FILE);
    EXPECT_FALSE(cloud_.has("/sub/e"));
}

// Nobody saw the new letters: the service was down.
TEST_F(edges_live, new_letters_that_nobody_saw)
{
    const std::string d = id_at("/Docs/d"), sub = id_at("/Docs/sub");
    fs::rename(base_ + "/D/Docs/d", base_ + "/D/Docs/D");
    fs::rename(base_ + "/D/Docs/sub", base_ + "/D/Docs/Sub");
    write_file(base_ + "/D/Docs/D", "edited", mtime_of(base_ + "/D/Docs/D") + 1);

    // Neither a full pass nor a change in the cloud makes a second file or folder.
    cloud_.forget_requests();
    later();
    cloud_.put("/Docs/sub/e", "newer");
    EXPECT_EQ(full_passes(), 0);
    later();
    cloud_.put("/Docs/sub/f", "new");
    poll();
    EXPECT_EQ(tree("/D"), "Docs/ Docs/D Docs/Sub/ Docs/Sub/e Docs/Sub/f ");
    EXPECT_EQ(at("/D/Docs/D") + at("/D/Docs/Sub/e"), "editednewer");

    EXPECT_EQ(acd_upsync_local_path((base_ + "/D").c_str(), "/"), 0);
    EXPECT_EQ(cloud_.get("/Docs/d").body, "edited");
    EXPECT_EQ(cloud_.count("PATCH", "."), 0) << "a pass renames nothing";
    poll();
    notify_of_letters();
    EXPECT_EQ(cloud_.stat("/Docs/d")["name"], "D");
    EXPECT_EQ(cloud_.stat("/Docs/sub")["name"], "Sub");
    EXPECT_EQ(id_at("/Docs/d") + id_at("/Docs/sub"), d + sub);
    later();
    cloud_.rename("/Docs/D", "r");
    cloud_.trash("/Docs/Sub/e");
    idle();
    EXPECT_EQ(tree("/D"), "Docs/ Docs/Sub/ Docs/Sub/f Docs/r ");

    // The cloud renames, moves and trashes what has new letters here.
    for (const char* name : {"a", "b", "c"})
        cloud_.put("/Docs/"s + name, name);
    idle();
    later();
    for (auto [name, letters] : {std::pair("a", "A"), {"b", "B"}, {"c", "C"}})
        fs::rename(base_ + "/D/Docs/" + name, base_ + "/D/Docs/" + letters);
    cloud_.rename("/Docs/a", "a2");
    cloud_.move("/Docs/b", "/Docs/Sub");
    cloud_.trash("/Docs/c");
    cloud_.forget_requests();
    idle();
    EXPECT_EQ(tree("/D/Docs"), "Sub/ Sub/b Sub/f a2 r ");
    EXPECT_EQ(downloads(), 0);
}

// The cloud holds one of them only.
TEST_F(edges_live, two_local_names_that_differ_in_letters)
{
    const std::string d = id_at("/Docs/d");
    const auto write = [&](const char* path, const char* content) {
        write_file(base_ + path, content, time(nullptr) + (clock_offset_ += 10));
    };
    write("/D/Docs/D", "another");
    write("/D/Docs/Sub/e", "another");
    const auto is_left = [&](const std::function<void()>& run) {
        EXPECT_THAT(log(run, 0), HasSubstr("whose node it is! It is left alone.\n"));
        idle();
        EXPECT_EQ(at("/D/Docs/d") + at("/D/Docs/sub/e"), "/Docs/d/Docs/sub/e");
        EXPECT_EQ(cloud_.get("/Docs/d").body + cloud_.get("/Docs/sub/e").body, "/Docs/d/Docs/sub/e");
        EXPECT_EQ(id_at("/Docs/d"), d);
    };
    is_left([&] { EXPECT_EQ(acd_upsync_local_path((base_ + "/D").c_str(), "/"), 0); });
    notify_of_letters();
    for (const char* path : {"/D/Docs/D", "/D/Docs/Sub/e"})
        is_left([&] { notify(path, WATCH_TYPE_V2_ADD_FILE); });
    is_left([&] { notify("/D/Docs/D", WATCH_TYPE_V2_DEL_FILE); });
    is_left([&] { notify_move("/D/Docs/other", "/D/Docs/D"); });
    fs::rename(base_ + "/D/Docs/D", base_ + "/D/Docs/x");
    is_left([&] { notify_move("/D/Docs/D", "/D/Docs/x"); });
    EXPECT_EQ(cloud_.get("/Docs/x").body, "another");
}

TEST_F(edges_live, what_never_was_at_its_old_path_comes_up_at_the_new_one)
{
    write_file(base_ + "/D/Docs/d", "saved", mtime_of(base_ + "/D/Docs/d") + 1);
    notify("/D/Docs/d.tmp", WATCH_TYPE_V2_ADD_FILE);
    notify_move("/D/Docs/d.tmp", "/D/Docs/d");
    EXPECT_EQ(cloud_.get("/Docs/d").body, "saved");
    write_file(base_ + "/D/album/in/one", "1");
    write_file(base_ + "/D/album/two", "2");
    notify_move("/D/untitled", "/D/album", WATCH_TYPE_V2_MOVE_DIR);
    EXPECT_EQ(cloud_.get("/album/in/one").body + cloud_.get("/album/two").body, "12");

    // Saved and moved before the save was heard of.
    fs::rename(base_ + "/D/album/two", base_ + "/D/album/three");
    write_file(base_ + "/D/album/three", "33", mtime_of(base_ + "/D/album/three") + 1);
    later();
    const std::string id = id_at("/album/two");
    notify_move("/D/album/two", "/D/album/three");
    EXPECT_EQ(cloud_.get("/album/three").body, "33");
    EXPECT_EQ(id_at("/album/three"), id);
}

TEST_F(edges_live, a_move_that_names_stand_in_the_way_of)
{
    const auto move = [&](const char* from, const char* to) {
        for (const char* path : {from, to, "/Docs/x", "/to/x"})
            cloud_.put(path, path);
        idle();
        later();
        fs::rename(base_ + "/D" + from, base_ + "/D" + to);
    };
    // The node that stands at the new place goes, the others stay.
    move("/Docs/x", "/to/y");
    const std::string id = id_at("/Docs/x");
    notify_move("/D/Docs/x", "/D/to/y");
    EXPECT_EQ(id_at("/to/y"), id);
    EXPECT_EQ(cloud_.get("/to/x").body + cloud_.get("/to/y").body, "/to/x/Docs/x");

    cloud_.put("/Docs/z", "z"); // nor can it be renamed first
    move("/Docs/x", "/to/z");
    cloud_.fail({{"method", "POST"}, {"path", "^/nodes$"}, {"status", 400}, {"body", {{"message", "no"}}}});
    notify_move("/D/Docs/x", "/D/to/z");
    EXPECT_EQ(cloud_.get("/Docs/x").body, "/Docs/x") << "the new content is not up";
    write_file(base_ + "/D/Docs/x", "new at the old place");
    notify_move("/D/Docs/x", "/D/to/z");
    EXPECT_EQ(cloud_.get("/Docs/x").body, "/Docs/x") << "something stands there";
    fs::remove(base_ + "/D/Docs/x");
    cloud_.put("/to/z", "old");
    notify_move("/D/Docs/x", "/D/to/z");
    EXPECT_FALSE(cloud_.has("/Docs/x"));
    EXPECT_EQ(cloud_.get("/to/z").body + cloud_.get("/to/x").body + cloud_.get("/Docs/z").body,
              "/Docs/x/to/xz");
}

TEST_F(edges_live, a_second_save_within_the_second_goes_up)
{
    const std::string path = base_ + "/D/Docs/d";
    write_file(path, "once more", mtime_of(path));
    notify("/D/Docs/d", WATCH_TYPE_V2_ADD_FILE);
    EXPECT_EQ(cloud_.get("/Docs/d").body, "/Docs/d") << "the same time";
    const timespec times[] = {{mtime_of(path), 1000000}, {mtime_of(path), 1000000}};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
    notify("/D/Docs/d", WATCH_TYPE_V2_ADD_FILE);
    EXPECT_EQ(cloud_.get("/Docs/d").body, "once more");
    cloud_.forget_requests();
    notify("/D/Docs/d", WATCH_TYPE_V2_ADD_FILE);
    EXPECT_EQ(cloud_.count("PUT", "."), 0) << "once";
}

TEST_F(edges_live, a_move_with_an_empty_answer_is_not_repeated_here)
{
    for (const char* method : {"POST", "PATCH"})
        cloud_.fail({{"method", method}, {"path", "^/nodes/"}, {"status", 200}, {"body", ""}, {"run", true}});
    fs::rename(base_ + "/D/Docs/d", base_ + "/D/Docs/sub/r");
    notify_move("/D/Docs/d", "/D/Docs/sub/r");
    write_file(base_ + "/D/Docs/d", "new at the old path");
    idle();
    EXPECT_EQ(at("/D/Docs/d"), "new at the old path");
    EXPECT_EQ(at("/D/Docs/sub/r"), "/Docs/d");
    EXPECT_EQ(cloud_.get("/Docs/sub/r").body, "/Docs/d");
}

TEST_F(edges_live, a_move_whose_answer_was_lost_leaves_the_old_path_alone)
{
    cloud_.move("/Docs/d", "/Docs/sub");
    fs::rename(base_ + "/D/Docs/d", base_ + "/D/Docs/sub/d");
    write_file(base_ + "/D/Docs/d", "new at the old path");
    idle();
    EXPECT_EQ(at("/D/Docs/d"), "new at the old path");
    EXPECT_EQ(at("/D/Docs/sub/d"), "/Docs/d");
    later();
    fs::rename(base_ + "/D/Docs/sub", base_ + "/D/sub");
    fs::create_directory(base_ + "/D/Docs/sub");
    cloud_.move("/Docs/sub", "/");
    idle();
    EXPECT_EQ(tree("/D"), "Docs/ Docs/d Docs/sub/ sub/ sub/d sub/e ");
    EXPECT_EQ(at("/D/Docs/d"), "new at the old path");
    EXPECT_EQ(at("/D/sub/d"), "/Docs/d");
}

TEST_F(edges, a_ring_of_parents_hangs_no_path_query)
{
    const auto folder = [&](const char* id, const char* parent) {
        return nlohmann::json{{"id", id},
                              {"name", id},
                              {"kind", "FOLDER"},
                              {"status", "AVAILABLE"},
                              {"parents", {parent}},
                              {"createdDate", "2015-06-01T12:00:00Z"},
                              {"modifiedDate", "2015-06-01T12:00:00Z"}};
    };
    const auto answer = [&](const char* id, const char* parent) {
        cloud_.fail(
            {{"path", "^/nodes/"s + id}, {"times", -1}, {"status", 200}, {"body", folder(id, parent)}});
    };
    answer("ring_a", "ring_b");
    answer("ring_b", "ring_a");
    const node_ptr node(parse_node(folder("ring_a", "ring_b").dump().c_str()));
    acd_cache_node(node.get());
    string_ptr path;
    EXPECT_EQ(acd_node_get_path(node.get(), out(path)), ACD_FS_ERR_RESOURCE_NOT_FOUND);
}
