#include "kxamazon/acd_fs_cache.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <iterator>

#include "common/constants.h"
#include "common/utils.h"
#include "kxamazon/sqlite_utils.h"
#include "support/support.h"

namespace fs = std::filesystem;
using kxtest::log_of;
using kxtest::read_file;
using kxtest::write_file;
using testing::HasSubstr;

namespace
{

using sqlite_ptr = owner<sqlite3, sqlite3_close>;

// The cells of a query, "|" before a column and a blank before a row; or the error.
std::string rows(const std::string& sql, sqlite3* db = acd_cache_db())
{
    sql_table_ptr table;
    int nrow = 0, ncol = 0;
    if (sqlite3_get_table(db, sql.c_str(), out(table), &nrow, &ncol, nullptr) != SQLITE_OK)
        return sqlite3_errmsg(db);
    std::string text;
    for (int i = ncol; i < (nrow + 1) * ncol; ++i)
        text += std::string(i % ncol ? "|" : " ") + table.get()[i];
    return text;
}

sqlite_ptr open_file(const std::string& path)
{
    sqlite_ptr db;
    sqlite3_open(path.c_str(), out(db));
    return db;
}

acd_node_t with_id(const char* id)
{
    acd_node_t node = {};
    node.id = const_cast<char*>(id);
    return node;
}

int put(const char* id, const char* name, std::vector<const char*> parents, time_t modified = 100,
        acd_node_status_t status = NODE_STATUS_AVAILABLE)
{
    acd_node_t node = with_id(id);
    node.name = const_cast<char*>(name);
    node.status = status;
    node.is_root = parents.empty();
    node.modified_date = modified;
    node.parents = {parents.size(), const_cast<char**>(parents.data())};
    return acd_cache_node(&node);
}

// The path, or "RESULT" of the failure.
std::string path_of(const char* id)
{
    acd_node_t node = with_id(id);
    string_ptr path;
    acd_cache_error_t rc = acd_cache_get_node_path(&node, out(path));
    return path ? path.get() : std::to_string(rc);
}

std::string child_of(const char* parent, const char* name)
{
    acd_node_t node = with_id(parent);
    node_ptr child;
    acd_cache_error_t rc = acd_cache_get_child_node(&node, name, out(child));
    return child ? child->id : std::to_string(rc);
}

// "OLD-NAME OLD-PATH" as the notes give them, "-" for none.
std::string notes_of(const char* id)
{
    acd_node_t node = with_id(id);
    string_ptr name, path;
    int renamed = acd_cache_is_cloud_node_renamed(&node, out(name));
    int moved = acd_cache_is_cloud_node_moved(&node, out(path));
    return std::string(renamed ? name.get() : "-") + " " + (moved ? path.get() : "-");
}

// A cache with / (root), /A (a), /B (b) and /A/Sub (s).
class Cache : public testing::Test
{
protected:
    void SetUp() override
    {
        fs::remove_all(fs::path(kx_cache_path).parent_path());
        ASSERT_EQ(0, acd_cache_init(0));
        put("root", "", {});
        put("a", "A", {"root"});
        put("b", "B", {"root"});
        put("s", "Sub", {"a"});
    }
    void TearDown() override { acd_cache_deinit(); }
};

} // namespace

TEST_F(Cache, CheckpointWithoutTextIsNone)
{
    for (const std::string& text : {std::string(" \n"), std::string(40, '\0'), std::string()}) {
        write_file(ACD_FS_CHECKPOINT, text); // a power cut may leave zeros
        EXPECT_EQ(nullptr, string_ptr(acd_cache_get_checkpoint()));
    }
}

TEST_F(Cache, StaysAsItWasOverARestart)
{
    acd_cache_deinit();
    EXPECT_EQ(-1, acd_cache_reset());
    EXPECT_EQ("-1", path_of("s"));
    EXPECT_EQ(-1, put("x", "X", {"root"}));
    EXPECT_EQ("info: Cache: Initialized schema successfully!\n", log_of([] { acd_cache_init(0); }));
    EXPECT_EQ("/A/Sub", path_of("s"));
    EXPECT_EQ(0, acd_cache_reset());
    EXPECT_EQ(" 0|1", rows("SELECT (SELECT count(*) FROM node), schema_version FROM version"));
}

TEST_F(Cache, ForeignOrDamagedFileIsMadeAnew)
{
    std::string wal = std::string(kx_cache_path) + "-wal";
    rows("PRAGMA wal_checkpoint(TRUNCATE)");
    put("s", "Renamed", {"a"});
    std::string old_log = read_file(wal);
    size_t pairs_page = std::stoul(rows("SELECT rootpage - 1 FROM sqlite_schema WHERE name='sync_folders'"));
    acd_cache_deinit();
    std::string good = read_file(kx_cache_path), no_schema = good, bad_page = good;
    no_schema.replace(100, 1000, 1000, '\x55');
    bad_page.replace(pairs_page * 2048, 2048, 2048, '\x55');
    const struct {
        std::string content;
        const char *sql, *found;
    } files[] = {{std::string(80000, 'x'), "", "v0"},
                 {good.substr(0, good.size() / 2), "", "v"},
                 {bad_page, "", "v1"},
                 {no_schema, "", "v0"},
                 {good, "DROP TABLE version", "v0"},
                 {good, "UPDATE version SET schema_version = 2", "v2"},
                 {good, "INSERT INTO version VALUES(2)", "v0"}};
    for (const auto& file : files) {
        write_file(kx_cache_path, file.content);
        if (*file.sql)
            rows(file.sql, open_file(kx_cache_path).get());
        write_file(wal, old_log); // must not be replayed into the new file
        EXPECT_THAT(log_of([] { EXPECT_EQ(0, acd_cache_init(0)); }),
                    testing::AllOf(HasSubstr(std::string("info: Incompatible schema (") + file.found),
                                   HasSubstr(") is detected. Drop the database for v1!\n")));
        EXPECT_EQ(" 1|0|ok", rows("SELECT schema_version, (SELECT count(*) FROM node), integrity_check FROM "
                                  "version, pragma_integrity_check"));
        acd_cache_deinit();
    }
    fs::remove(kx_cache_path);
    fs::create_directory(kx_cache_path);
    EXPECT_THAT(log_of([] { EXPECT_EQ(3, acd_cache_init(0)); }),
                HasSubstr("error: __open_db: Failed to open db after retry! 14\n"));
}

TEST_F(Cache, NodeComesBackAsItWasWritten)
{
    char tag[] = "e", id[] = "f", name[] = "it's.txt", md5[] = "m", parent[] = "s";
    char* parents[] = {parent};
    acd_node_t node = {tag, id, name, md5, NODE_KIND_FILE, 0, 5, 9, {1, parents}, NODE_STATUS_AVAILABLE, 1};
    node.size_byte = (1ULL << 63) + 2048;
    EXPECT_EQ(0, acd_cache_node(&node));
    acd_node_t folder = with_id("s");
    node_ptr got;
    EXPECT_EQ(0, acd_cache_get_child_node(&folder, "IT'S.TXT", out(got)));
    node.e_tag_response = nullptr;
    std::string text = acd_node_to_string(&node);
    EXPECT_EQ(text, acd_node_to_string(got.get()));

    EXPECT_EQ(0, acd_cache_get_root_node(out(got)));
    EXPECT_EQ("/ 0 no_parent_for_root",
              got->name + (" " + std::to_string(got->is_root)) + " " + got->parents.id_array[0]);
    node.kind = NODE_KIND_ASSET;
    node.name = tag;
    EXPECT_EQ("error: acd_cache_node: DO NOT CACHE ASSET NODE!\n",
              log_of([&] { EXPECT_EQ(-1, acd_cache_node(&node)); }));
    EXPECT_EQ("f", child_of("s", "it's.txt"));
}

TEST_F(Cache, ChildLookup)
{
    put("t", "Trash", {"a"}, 100, NODE_STATUS_TRASH);
    put("d1", "Double", {"a"});
    put("d2", "double", {"a"});
    put("b1", "Sub", {"b"});
    const std::pair<std::pair<const char*, const char*>, const char*> lookups[] = {
        {{"a", "sUB"}, "s"},    {{"b", "sub"}, "b1"},   {{"a", "Trash"}, "2"},
        {{"a", "Double"}, "2"}, {{"root", "Sub"}, "2"}, {{"a", nullptr}, "-1"}};
    for (const auto& [key, found] : lookups)
        EXPECT_EQ(found, child_of(key.first, key.second));
}

// A folder that was found is not read again until something is written, or the file is opened anew.
TEST_F(Cache, FolderFoundOnceIsFoundAsItIsNow)
{
    sql_exec(acd_cache_db(), SQL_HERE, "UPDATE node SET kind='FOLDER'");
    auto write = [](const char* sql) { EXPECT_EQ(sql_exec(acd_cache_db(), SQL_HERE, sql), SQLITE_OK); };
    for (auto [change, found] : {std::pair("UPDATE node SET name='other' WHERE id='a'", "2"),
                                 {"UPDATE node SET name='A', status='TRASH' WHERE id='a'", "2"},
                                 {"UPDATE node SET status='AVAILABLE' WHERE id='a'", "a"},
                                 {"DELETE FROM parents WHERE node_id='a'", "2"},
                                 {"INSERT INTO parents VALUES('a','root')", "a"},
                                 {"DELETE FROM node", "2"}}) {
        child_of("root", "A");
        write(change);
        EXPECT_EQ(child_of("root", "A"), found) << change;
    }
    put("a", "A", {"root"});
    write("UPDATE node SET kind='FOLDER'");
    EXPECT_EQ(child_of("root", "A"), "a");
    ASSERT_EQ(acd_cache_deinit(), 0);
    EXPECT_EQ(rows("DELETE FROM node", open_file(kx_cache_path).get()), "");
    ASSERT_EQ(acd_cache_init(0), 0);
    EXPECT_EQ(child_of("root", "A"), "2");
}

// SQLite stops a statement that takes more steps than finding one of many rows by an index needs.
TEST_F(Cache, LookupsInALargeFolderDoNotScan)
{
    rows(
        "WITH RECURSIVE n(i) AS (VALUES(1) UNION ALL SELECT i+1 FROM n WHERE i<5000) INSERT INTO node SELECT "
        "'n'||i, 'name '||i, 'FILE', '', 'AVAILABLE', 0, 0, 0, 0 FROM n");
    rows("INSERT INTO parents SELECT id, 'a' FROM node WHERE id LIKE 'n%'");
    sqlite3_progress_handler(
        acd_cache_db(), 1000, [](void*) { return 1; }, nullptr);
    EXPECT_EQ("n4321", child_of("a", "NAME 4321"));
    EXPECT_EQ("2", child_of("a", "name 0"));
    node_ptr root;
    EXPECT_EQ(0, acd_cache_get_root_node(out(root)));
    EXPECT_EQ("", log_of([] { acd_cache_delete_trash_nodes(); }));
    EXPECT_EQ(0, put("n77", "moved", {"b"}));
    sqlite3_progress_handler(acd_cache_db(), 0, nullptr, nullptr);
    EXPECT_EQ("/A/name 1234", path_of("n1234"));
}

TEST_F(Cache, Paths)
{
    std::string longest(4096 - sizeof "/A/Sub/", 'x'), longer = longest + "x";
    put("f", longest.c_str(), {"s"});
    put("l", longer.c_str(), {"s"});
    put("o", "Orphan", {"nowhere"});
    const std::pair<const char*, std::string> paths[] = {
        {"root", "/"}, {"s", "/A/Sub"}, {"f", "/A/Sub/" + longest}, {"l", "2"}, {"o", "2"}, {"unknown", "2"}};
    for (const auto& [id, path] : paths)
        EXPECT_EQ(path, path_of(id));

    // Folders that changed places are cached one by one, so for a while each is the other's parent.
    put("a", "A", {"s"});
    EXPECT_EQ("3", path_of("a"));
    EXPECT_EQ(0, put("s", "Sub", {"root"}));
    EXPECT_EQ("/Sub/A", path_of("a"));
}

TEST_F(Cache, RenameAndMoveNotes)
{
    const struct {
        const char *fault, *name, *parent;
        time_t modified;
        const char* notes;
    } steps[] = {
        {"no note for a first sight", "f", "s", 100, "- -"},
        {"nor for an unchanged node", "f", "s", 101, "- -"},
        {"but for a name in other letters", "F", "s", 102, "f -"},
        {"a rename that is not newer does not count", "g", "s", 102, "- -"},
        {"it does once the node is newer", "g", "s", 103, "F -"},
        {"a new parent keeps the old path", "g", "b", 104, "F /A/Sub/g"},
        {"both at once: the path before either", "h", "a", 105, "g /B/g"},
        {"so does one that is not known", "h", "nowhere", 106, "g /A/h"},
        {"a path that cannot be built leaves no note", "h", "a", 107, "g /A/h"},
    };
    for (const auto& step : steps) {
        EXPECT_EQ(0, put("f", step.name, {step.parent}, step.modified));
        EXPECT_EQ(step.notes, notes_of("f")) << step.fault;
    }
    acd_node_t node = with_id("f");
    EXPECT_EQ(0, acd_cache_delete_renamed_node(&node));
    EXPECT_EQ("- /A/h", notes_of("f"));
    EXPECT_EQ(0, acd_cache_delete_moved_node(&node));
    EXPECT_EQ("- -", notes_of("f"));
    EXPECT_EQ(-1, acd_cache_delete_renamed_node(&node, nullptr));
}

// Each table in turn refuses its row, then the commit fails: nothing of the node may stay.
TEST_F(Cache, FailedWriteLeavesNoHalfNode)
{
    auto everything = [] {
        return rows(
            "SELECT 'n', id, name, status FROM node UNION SELECT 'p', node_id, parent_id, '' FROM parents "
            "UNION SELECT 'r', id, name, '' FROM renamed_node UNION SELECT 'm', id, old_path, '' FROM "
            "moved_node");
    };
    std::string before = everything();
    for (const char* table : {"moved_node", "renamed_node", "node", "parents"}) {
        rows(std::string("CREATE TEMP TRIGGER refuse BEFORE INSERT ON main.") + table +
             " BEGIN SELECT RAISE(ABORT, 'refused'); END");
        EXPECT_THAT(log_of([] { EXPECT_EQ(3, put("s", "New", {"b"}, 200)); }), HasSubstr("emsg=refused\n"));
        EXPECT_EQ(before, everything()) << table;
        rows("DROP TRIGGER refuse");
    }
    sqlite3_commit_hook(
        acd_cache_db(), [](void*) { return 1; }, nullptr);
    EXPECT_EQ(3, put("s", "New", {"b"}, 200));
    EXPECT_EQ(before, everything());
    sqlite3_commit_hook(acd_cache_db(), nullptr, nullptr);
    EXPECT_EQ(0, put("s", "New", {"b"}, 200));
    EXPECT_EQ("/B/New Sub /A/Sub", path_of("s") + " " + notes_of("s"));
}

TEST_F(Cache, TrashCleanUpGoesOnAfterAFailure)
{
    put("t1", "T1", {"a"}, 100, NODE_STATUS_TRASH);
    put("t2", "T2", {"a"}, 100, NODE_STATUS_PURGED);
    put("t3", "T3", {"a"}, 100, NODE_STATUS_TRASH);
    rows("CREATE TEMP TRIGGER refuse BEFORE DELETE ON main.parents WHEN old.node_id='t1' BEGIN SELECT "
         "RAISE(ABORT, 'refused'); END");
    EXPECT_THAT(log_of([] { EXPECT_EQ(0, acd_cache_delete_trash_nodes()); }),
                HasSubstr("error: acd_cache_delete_trash_nodes: Failed to delete node id = t1\n"));
    EXPECT_EQ(" a b root s t1", rows("SELECT id FROM node ORDER BY id"));
    EXPECT_EQ(" a b root s t1", rows("SELECT node_id FROM parents ORDER BY node_id"));
}

TEST(SqliteUtils, LockedDatabaseIsReadFiveTimesAndWrittenOnce)
{
    std::string path = kxtest::new_folder() + "/db";
    sqlite_ptr holder = open_file(path), db = open_file(path);
    rows("CREATE TABLE t(a)", holder.get());
    rows("BEGIN EXCLUSIVE", holder.get());
    int attempts = 0;
    sqlite3_busy_handler(
        db.get(), [](void* count, int) { return ++*static_cast<int*>(count), 0; }, &attempts);

    EXPECT_EQ(
        "", log_of([&] { EXPECT_EQ(SQLITE_BUSY, sql_exec(db.get(), "f.c", 9, "INSERT INTO t VALUES(1)")); }));
    EXPECT_EQ(1, attempts);
    sql_table_ptr table;
    log_of([&] {
        EXPECT_EQ(SQLITE_BUSY,
                  _sql_get_table(db.get(), "f.c", 9, out(table), nullptr, nullptr, "SELECT 1 FROM t"));
    });
    EXPECT_EQ(6, attempts);
    EXPECT_EQ(SQLITE_BUSY, sql_in_transaction(db.get(), "f.c", 9, [] { return SQLITE_OK; }));
}
