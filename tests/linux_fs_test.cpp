#include "kxamazon/linux_fs.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <map>

#include "support/support.h"

namespace fs = std::filesystem;

namespace
{

const auto first = linux_fs_scan_dir_op_first;
const auto next = linux_fs_scan_dir_op_next;

std::string visited;                // each path with a blank behind it
std::map<std::string, int> answers; // to the walk, by path; else 0

int visit(const char* path, const dirent* entry, void* dir)
{
    const fs::path relative = fs::relative(path, static_cast<const char*>(dir));
    EXPECT_EQ(relative.filename(), entry->d_name);
    visited += relative.string() + " ";
    return answers[relative];
}

int remove_folders(const char* path, const dirent* entry, void*)
{
    if (entry->d_type == DT_DIR)
        fs::remove_all(path);
    return 0;
}

int folders_and_files(const dirent* entry)
{
    return entry->d_name[0] != '.' && entry->d_type != DT_LNK;
}

std::string new_tree()
{
    const std::string dir = kxtest::new_folder();
    for (const char* file : {"/z", "/b/y", "/b/c/x", "/a", "/d/w"})
        kxtest::write_file(dir + file, "");
    fs::create_symlink("b", dir + "/link");
    return dir;
}

TEST(LinuxFs, WalksInOrderAndStopsWhereToldTo)
{
    const struct {
        decltype(first) walk;
        int recursive;
        std::map<std::string, int> answers;
        int result;
        const char* visited;
    } rows[] = {
        {first, 1, {}, 0, "a b b/c b/c/x b/y d d/w z "},
        {next, 1, {}, 0, "a b/c/x b/c b/y b d/w d z "},
        {first, 0, {}, 0, "a b d z "},
        {first, 1, {{"b", 200}, {"d/w", 200}, {"z", 200}}, 0, "a b d d/w z "},
        {next, 1, {{"b", 200}, {"z", 200}}, 0, "a b/c/x b/c b/y b d/w d z "},
        {first, 1, {{"d", 9}}, 9, "a b b/c b/c/x b/y d "},
        {next, 1, {{"b", 9}}, 9, "a b/c/x b/c b/y b "},
        // A stop inside a folder ends that folder's walk only; the folder entered last gives the result.
        {first, 1, {{"b/c", 9}}, 0, "a b b/c d d/w z "},
        {next, 1, {{"d/w", 5}}, 5, "a b/c/x b/c b/y b d/w d z "},
    };
    std::string dir = new_tree();
    for (const auto& row : rows) {
        visited.clear();
        answers = row.answers;
        EXPECT_EQ(row.walk(dir.c_str(), row.recursive, folders_and_files, visit, dir.data()), row.result);
        EXPECT_STREQ(visited.c_str(), row.visited);
    }
}

TEST(LinuxFs, ReportsFoldersThatCannotBeRead)
{
    const std::string dir = new_tree();
    const std::string text = "error: linux_fs_scan_dir_op_first: Failed to scan dir '" + dir;
    const auto walk = [&] {
        EXPECT_EQ(first(dir.c_str(), 1, folders_and_files, remove_folders, nullptr), ACD_FS_ERR_LOCAL_IO);
    };
    EXPECT_EQ(kxtest::log_of(walk),
              text + "/b' (No such file or directory)\n" + text + "/d' (No such file or directory)\n");
    EXPECT_EQ(next("/nonexistent", 1, folders_and_files, visit, nullptr), ACD_FS_ERR_LOCAL_IO);
}

} // namespace
