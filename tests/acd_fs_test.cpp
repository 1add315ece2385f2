// The cloud drive by path, against a cloud and a cache of its own.
#include <gtest/gtest.h>

#include <filesystem>
#include <sys/inotify.h>
#include <thread>

#include "common/constants.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_fs_checkpoint.h"
#include "kxamazon/global.h"
#include "kxamazon/sqlite_utils.h"
#include "support/cloud.h"
#include "support/support.h"

namespace
{

constexpr acd_fs_error_t ok = ACD_FS_ERR_OK, missing = ACD_FS_ERR_RESOURCE_NOT_FOUND,
                         refused = ACD_FS_ERR_FORBIDDEN, bad_arguments = ACD_FS_ERR_INVALID_ARGUMENTS;

class acd_fs : public testing::Test
{
protected:
    explicit acd_fs(const std::vector<std::string>& options = {}) : cloud(options)
    {
        std::filesystem::remove_all(std::filesystem::path(kx_cache_path).parent_path());
        global.dmode = 0755;
        cloud.connect();
        EXPECT_EQ(acd_fs_init(), ok);
    }
    ~acd_fs() override { acd_fs_deinit(); }

    size_t requests() { return cloud.requests().size(); }

    int rows_of(const char* table)
    {
        int rows = -1;
        sql_get_int_mprintf(acd_cache_db(), SQL_HERE, &rows, nullptr, "SELECT count(*) FROM %s", table);
        return rows;
    }

    kxtest::cloud cloud;
    node_ptr node;
};

class acd_fs_with_trash_listed : public acd_fs
{
protected:
    acd_fs_with_trash_listed() : acd_fs({"--list-trashed"}) {}
};

} // namespace

TEST_F(acd_fs, StartsWithACacheThatMatchesItsCheckpoint)
{
    cloud.put("/a/f", "x");
    EXPECT_EQ(acd_fs_get_node("/a/f", out(node)), ok);
    for (bool saved : {true, false}) {
        saved ? acd_fs_flush_checkpoint() : void(std::filesystem::remove(ACD_FS_CHECKPOINT));
        const int cached = rows_of("node");
        EXPECT_EQ(acd_fs_deinit(), ok);
        EXPECT_EQ(acd_fs_get_checkpoint(), nullptr);
        cloud.forget_requests();
        EXPECT_EQ(acd_fs_init(), ok);
        EXPECT_NE(acd_fs_get_checkpoint(), nullptr);
        EXPECT_EQ(rows_of("node"), saved ? cached : 0);
        EXPECT_EQ(cloud.count("POST", "/changes$") == 0, saved);
    }
    acd_fs_deinit();
    cloud.fail({{"path", "/account/quota$"}, {"status", 403}});
    EXPECT_EQ(acd_fs_init(), refused);
}

TEST_F(acd_fs, MkdirMakesWhatIsMissing)
{
    EXPECT_EQ(acd_fs_mkdir("/a/b/c"), ok);
    EXPECT_EQ(cloud.count("POST", "/nodes$"), 3);
    cloud.forget_requests();
    EXPECT_EQ(acd_fs_mkdir("/a/b/c/"), ok);
    EXPECT_EQ(acd_fs_mkdir("/"), ok);
    EXPECT_EQ(requests(), 0u) << "all is cached";
    acd_cache_reset();
    EXPECT_EQ(acd_fs_mkdir("/a/b"), ok);
    EXPECT_EQ(requests(), 3u) << "looked up, not made";
    EXPECT_EQ(acd_fs_mkdir("a"), bad_arguments);
    cloud.fail({{"method", "POST"}, {"status", 403}});
    EXPECT_EQ(acd_fs_mkdir("/a/x"), refused);
}

TEST_F(acd_fs_with_trash_listed, MkdirReplacesATrashedFolder)
{
    cloud.mkdir("/a/b");
    cloud.trash("/a/b");
    EXPECT_EQ(acd_fs_get_node("/a/b", out(node)), ok) << "as listed";
    EXPECT_EQ(acd_fs_mkdir("/a/b/c"), ok);
    EXPECT_TRUE(cloud.has("/a/b/c"));
}

TEST_F(acd_fs, MovesAndRenamesWithTheFewestRequests)
{
    const struct {
        const char *old_path, *new_path;
        int moves, renames, trashed;
    } rows[] = {
        {"/a/f", "/b/f", 1, 0, 0}, {"/a/f", "/a/g", 0, 1, 0},
        {"/a/f", "/b/g", 1, 1, 0}, {"/a/f", "/a/F", 0, 1, 0},
        {"/a/f", "/a/f", 0, 0, 0}, {"/a/f", "/a/h", 0, 1, 1},
        {"/a/f", "/b/h", 1, 1, 1}, {"/a/d", "/d2", 1, 1, 0},
        {"/a/h", "/b/g", 2, 1, 0}, // the old name is taken there
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.new_path);
        for (const char* path : {"/a/f", "/a/h", "/b/h"})
            cloud.put(path, "x");
        cloud.put("/a/d/below", "x");
        EXPECT_EQ(acd_fs_get_node(row.old_path, out(node)), ok);
        const std::string id = node->id;
        cloud.forget_requests();
        EXPECT_EQ(acd_fs_move_file(row.old_path, row.new_path, out(node)), ok);
        EXPECT_EQ(cloud.count("POST", "/children$"), row.moves);
        EXPECT_EQ(cloud.count("PATCH", "/nodes/"), row.renames);
        EXPECT_EQ(cloud.count("PUT", "/trash/"), row.trashed);
        EXPECT_EQ(cloud.stat(row.new_path)["id"], id);
        EXPECT_EQ(node ? node->id : "", row.moves + row.renames ? id : "");
        cloud.forget_requests();
        EXPECT_EQ(acd_fs_get_node(row.new_path, out(node)), ok);
        EXPECT_EQ(requests(), 0u) << "cached at its new place";
        EXPECT_EQ(rows_of("moved_node") + rows_of("renamed_node"), 0) << "a poll would repeat it locally";
        for (const char* folder : {"/a", "/b", "/d2"})
            if (cloud.has(folder))
                cloud.trash(folder);
        acd_cache_reset();
    }
}

TEST_F(acd_fs, FailedMovesChangeNothing)
{
    cloud.put("/a/f", "x");
    cloud.put("/b/f", "x");
    // The method that the cloud refuses, or nothing.
    const std::tuple<const char*, const char*, const char*, acd_fs_error_t> rows[] = {
        {"/", "/b", "", bad_arguments},     {"/a", "/", "", bad_arguments},
        {"/a", nullptr, "", bad_arguments}, {"/a/none", "/b/g", "", missing},
        {"/a/f", "b", "", bad_arguments},   {"/a/f", "/c/g", "", missing},
        {"/a/f", "/b/f", "PUT", refused},   {"/a/f", "/b/g", "POST", refused},
        {"/a/f", "/a/g", "PATCH", refused},
    };
    for (const auto& [old_path, new_path, method, rc] : rows) {
        if (*method)
            cloud.fail({{"method", method}, {"status", 403}});
        EXPECT_EQ(acd_fs_move_folder(old_path, new_path, out(node)), rc);
        EXPECT_FALSE(node);
    }
    EXPECT_TRUE(cloud.has("/a/f") && cloud.has("/b/f"));
}

TEST_F(acd_fs, ContentsGoUpAndComeDown)
{
    const std::string folder = kxtest::new_folder(), file = folder + "/file", copy = folder + "/x/y/copy";
    cloud.mkdir("/a");
    for (const auto& send : {acd_fs_upload_file, acd_fs_overwrite_file}) {
        const std::string content = send == acd_fs_upload_file ? "first" : "second";
        kxtest::write_file(file, content, 1000);
        EXPECT_EQ(send(file.c_str(), "/none/f", out(node)), missing);
        EXPECT_EQ(send("file", "/a/f", out(node)), bad_arguments);
        EXPECT_EQ(kxtest::mtime_of(file), 1000);
        EXPECT_EQ(send(file.c_str(), "/a/f", out(node)), ok);
        EXPECT_EQ(cloud.get("/a/f").body, content);
        EXPECT_EQ(kxtest::mtime_of(file), node->modified_date);
    }
    EXPECT_EQ(acd_fs_download_file(node->id, copy.c_str()), ok);
    EXPECT_EQ(kxtest::read_file(copy), "second");
    EXPECT_EQ(acd_fs_download_file("none", copy.c_str()), missing);
    EXPECT_EQ(acd_fs_download_file(node->id, folder.c_str()), ACD_FS_ERR_LOCAL_IO);
    EXPECT_EQ(acd_fs_download_file(node->id, "/dev/full"), ACD_FS_ERR_LOCAL_IO);
    EXPECT_EQ(acd_fs_delete_file("/a/f"), ok);
    EXPECT_FALSE(cloud.has("/a/f"));
    EXPECT_EQ(acd_fs_delete_file("/a/f"), missing);
    const int rows_before = rows_of("node");
    acd_fs_flush();
    EXPECT_EQ(rows_of("node"), rows_before - 1) << "the trashed one";
}

TEST_F(acd_fs, ASaveDuringTheUploadStaysNewerThanTheCloudsCopy)
{
    const std::string local = kxtest::new_folder() + "/f";
    const std::tuple<decltype(&acd_fs_upload_file), std::string> rows[] = {{acd_fs_upload_file, "POST"},
                                                                           {acd_fs_overwrite_file, "PUT"}};
    for (const auto& [send, method] : rows) {
        kxtest::write_file(local, "before", 1433160000);
        cloud.fail({{"method", method}, {"path", "^/nodes"}, {"delay_ms", 300}});
        fd_owner watch(inotify_init());
        inotify_add_watch(watch.get(), local.c_str(), IN_ACCESS);
        std::thread editor([&] {
            char event[sizeof(inotify_event) + 256];
            EXPECT_GT(read(watch.get(), event, sizeof event), 0); // the content is being sent
            kxtest::write_file(local, "after!", 1433160001);
        });
        EXPECT_EQ(send(local.c_str(), "/f", out(node)), ok);
        editor.join();
        EXPECT_GT(kxtest::mtime_of(local), node->modified_date);
    }
}

TEST_F(acd_fs, ScansKeepTheirCheckpoint)
{
    for (const char* path : {"/f", "/g", "/h"})
        cloud.put(path, "x");
    static std::vector<std::string> saved; // what the file holds when each node of the feed is applied
    auto note = [](const char*, const acd_node_t*, acd_sync_pair_list_t*) {
        saved.push_back(kxtest::read_file(ACD_FS_CHECKPOINT));
        return ok;
    };
    EXPECT_EQ(acd_fs_scan_changes(1, 100, 1, nullptr, note, nullptr, acd_fs_flush), ok);
    ASSERT_EQ(saved.size(), 3u);
    EXPECT_EQ(saved[0], "");
    EXPECT_TRUE(saved[1] != "" && saved[1] != saved[2] && saved[2] != acd_fs_get_checkpoint());
    cloud.fail({{"path", "/changes$"}, {"status", 200}, {"body", {{"checkpoint", "9"}, {"nodes", {}}}}});
    EXPECT_EQ(acd_fs_scan_changes(1, 100, 1, nullptr, note, nullptr, nullptr), ok);
    EXPECT_EQ(kxtest::read_file(ACD_FS_CHECKPOINT), "9");
}
