#include "cloud/drive.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>

#include "cloud/text.h"

namespace kxcloud
{

namespace
{

// The first index serves the look-up of a name in a folder and in the whole drive, the second the pages of a
// folder and their count, the third the history.
const char schema[] = R"(
CREATE TABLE IF NOT EXISTS drive(tag TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS node(
    number INTEGER PRIMARY KEY, id TEXT NOT NULL UNIQUE, parent TEXT NOT NULL,
    name TEXT NOT NULL COLLATE NOCASE, kind INT NOT NULL, status INT NOT NULL, created INT NOT NULL,
    modified INT NOT NULL, version INT NOT NULL, change INT NOT NULL, body TEXT NOT NULL, md5 TEXT NOT NULL,
    size INT NOT NULL);
CREATE INDEX IF NOT EXISTS node_name ON node(name, parent, status);
CREATE INDEX IF NOT EXISTS node_parent ON node(parent, number, status);
CREATE UNIQUE INDEX IF NOT EXISTS node_change ON node(change);
)";

const std::string select_node = "SELECT number, id, parent, name, kind, status, created, modified, version, "
                                "change, body, md5, size FROM node ";

const char* const kind_texts[] = {"FILE", "FOLDER", "ASSET"};
const char* const status_texts[] = {"AVAILABLE", "PENDING", "TRASH", "PURGED"};

template <class E, size_t N>
std::optional<E> find_text(const char* const (&texts)[N], const std::string& text)
{
    for (size_t i = 0; i < N; ++i) {
        if (text == texts[i])
            return static_cast<E>(i);
    }
    return {};
}

node_t node_from(const query& row)
{
    node_t node;
    node.number = row.number(0);
    node.id = row.text(1);
    node.parent = row.text(2);
    node.name = row.text(3);
    node.kind = static_cast<kind_t>(row.number(4));
    node.status = static_cast<status_t>(row.number(5));
    node.created = row.number(6);
    node.modified = row.number(7);
    node.version = row.number(8);
    node.change = row.number(9);
    node.body = {row.text(10), row.text(11), row.number(12)};
    return node;
}

std::vector<node_t> nodes_from(query&& rows)
{
    std::vector<node_t> nodes;
    while (rows.step())
        nodes.push_back(node_from(rows));
    return nodes;
}

std::string store_file(const std::string& store)
{
    if (store.empty())
        return ":memory:";
    std::filesystem::create_directories(store);
    return store + "/drive.sqlite";
}

struct extension_t {
    const char* extension;
    file_class_t file_class;
};

const extension_t extensions[] = {
    {"jpg", CLASS_PHOTO}, {"jpeg", CLASS_PHOTO}, {"png", CLASS_PHOTO}, {"gif", CLASS_PHOTO},
    {"tif", CLASS_PHOTO}, {"tiff", CLASS_PHOTO}, {"bmp", CLASS_PHOTO}, {"mp4", CLASS_VIDEO},
    {"mov", CLASS_VIDEO}, {"avi", CLASS_VIDEO},  {"mkv", CLASS_VIDEO}, {"mpg", CLASS_VIDEO},
    {"pdf", CLASS_DOC},   {"txt", CLASS_DOC},    {"doc", CLASS_DOC},   {"docx", CLASS_DOC},
    {"xls", CLASS_DOC},   {"xlsx", CLASS_DOC},   {"ppt", CLASS_DOC},   {"pptx", CLASS_DOC},
    {"odt", CLASS_DOC},   {"rtf", CLASS_DOC},    {"csv", CLASS_DOC},
};

file_class_t class_of(const std::string& name)
{
    size_t dot = name.rfind('.');
    if (dot == std::string::npos)
        return CLASS_OTHER;
    for (const extension_t& known : extensions) {
        if (strcasecmp(known.extension, name.c_str() + dot + 1) == 0)
            return known.file_class;
    }
    return CLASS_OTHER;
}

void require_name(const std::string& name)
{
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
        name.find('\0') != std::string::npos || name.size() > 256 || !is_utf8(name))
        throw refusal_t{400, "Invalid node name '" + name + "'"};
}

// A WHERE clause in the making.
struct where_t {
    std::string sql = "WHERE 1";
    std::vector<sql_value_t> values;

    void add(const char* condition, sql_value_t value)
    {
        sql += std::string(" AND ") + condition;
        values.push_back(std::move(value));
    }
};

where_t where_of(const filter_t& filter, status_t worst)
{
    where_t where;
    if (filter.root_only)
        where.add("parent=?", std::string());
    if (filter.parent)
        where.add("parent=?", *filter.parent);
    if (filter.name)
        where.add("name=?", *filter.name);
    if (filter.kind)
        where.add("kind=?", int64_t{*filter.kind});
    if (filter.status)
        where.add("status=?", int64_t{*filter.status});
    else
        where.add("status<=?", int64_t{worst});
    return where;
}

// A token holds the place to go on from and the count, so that only the first page has to find it.
bool read_token(const std::string& token, int64_t* after, int64_t* count)
{
    char end;
    long long a, c;
    if (std::sscanf(token.c_str(), "%lld-%lld%c", &a, &c, &end) != 2)
        return false;
    *after = a;
    *count = c;
    return true;
}

} // namespace

const char* kind_text(kind_t kind)
{
    return kind_texts[kind];
}

const char* status_text(status_t status)
{
    return status_texts[status];
}

std::optional<kind_t> kind_of(const std::string& text)
{
    return find_text<kind_t>(kind_texts, text);
}

std::optional<status_t> status_of(const std::string& text)
{
    return find_text<status_t>(status_texts, text);
}

drive::drive(const drive_options_t& options)
    : options_(options), database_(store_file(options.store)), bodies_(options.store)
{
    open_store();
}

void drive::open_store()
{
    database_.run_script(schema);
    if (query row = database_.ask("SELECT tag FROM drive"); row.step())
        tag_ = row.text(0);
    if (tag_.empty()) {
        tag_ = random_name(10);
        database_.run("INSERT INTO drive VALUES(?)", {tag_});
        node_t top;
        insert(top, {});
    }
    query newest = database_.ask("SELECT max(change) FROM node");
    newest.step();
    newest_change_ = newest.number(0);
    for (usage_t& part : usage_)
        part = {};
    query files = database_.ask("SELECT name, size FROM node WHERE kind=0 AND status=0");
    while (files.step()) {
        usage_t& part = usage_[class_of(files.text(0))];
        part.bytes += files.number(1);
        ++part.count;
    }
}

int64_t drive::now() const
{
    auto time = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count() + clock_offset_ms;
}

// ---- Look-ups ----

node_t drive::locked_get(const std::string& id)
{
    query row = database_.ask(select_node + "WHERE id=?", {id});
    if (!row.step())
        throw refusal_t{404, "Node '" + id + "' does not exist"};
    return node_from(row);
}

node_t drive::get(const std::string& id)
{
    std::lock_guard lock(mutex_);
    return locked_get(id);
}

node_t drive::root()
{
    std::lock_guard lock(mutex_);
    query row = database_.ask(select_node + "WHERE parent=''");
    row.step();
    return node_from(row);
}

// Of several nodes of one name the one in use, else the one trashed last.
std::optional<node_t> drive::named(const std::string& parent, const std::string& name, status_t worst)
{
    query row = database_.ask(select_node + "WHERE name=? AND parent=? AND status<=? " +
                                  "ORDER BY status, change DESC LIMIT 1",
                              {name, parent, int64_t{worst}});
    if (!row.step())
        return {};
    return node_from(row);
}

std::optional<node_t> drive::child(const std::string& parent, const std::string& name)
{
    std::lock_guard lock(mutex_);
    return named(parent, name, STATUS_PENDING);
}

node_t drive::at(const std::vector<std::string>& path)
{
    node_t node = root();
    for (const std::string& name : path) {
        std::optional<node_t> next = child(node.id, name);
        if (!next)
            throw refusal_t{404, "No '" + name + "' in '" + node.name + "'"};
        node = *next;
    }
    return node;
}

page_t drive::list(const filter_t& filter, const std::string& start_token)
{
    status_t worst = options_.list_trashed ? STATUS_TRASH : STATUS_PENDING;
    int64_t limit = options_.page_size;
    int64_t after = 0;
    page_t page{{}, -1, ""};
    if (!start_token.empty() && !read_token(start_token, &after, &page.count))
        throw refusal_t{400, "Invalid startToken '" + start_token + "'"};

    std::lock_guard lock(mutex_);
    if (filter.parent)
        locked_get(*filter.parent);
    if (filter.parent && filter.name && !filter.status) {
        if (std::optional<node_t> only = named(*filter.parent, *filter.name, worst))
            page.nodes.push_back(*only);
        page.count = static_cast<int64_t>(page.nodes.size());
        return page;
    }
    where_t where = where_of(filter, worst);
    where_t rows = where;
    rows.add("number>?", after);
    rows.values.push_back(limit + 1);
    page.nodes = nodes_from(database_.ask(select_node + rows.sql + " ORDER BY number LIMIT ?", rows.values));
    bool more = static_cast<int64_t>(page.nodes.size()) > limit;
    if (page.count < 0 && more) {
        query counted = database_.ask("SELECT count(*) FROM node " + where.sql, where.values);
        counted.step();
        page.count = counted.number(0);
    }
    if (page.count < 0)
        page.count = static_cast<int64_t>(page.nodes.size());
    if (more) {
        page.nodes.pop_back();
        page.next_token = std::to_string(page.nodes.back().number) + "-" + std::to_string(page.count);
    }
    return page;
}

std::vector<node_t> drive::children(const std::string& id)
{
    std::lock_guard lock(mutex_);
    return nodes_from(database_.ask(select_node + "WHERE parent=? AND status<=1 ORDER BY name", {id}));
}

std::vector<node_t> drive::changes(int64_t after, int64_t limit, bool with_purged)
{
    std::lock_guard lock(mutex_);
    return nodes_from(database_.ask(select_node + "WHERE change>? AND status<=? ORDER BY change LIMIT ?",
                                    {after, int64_t{with_purged ? STATUS_PURGED : STATUS_TRASH}, limit}));
}

int64_t drive::newest_change()
{
    std::lock_guard lock(mutex_);
    return newest_change_;
}

usage_t drive::usage(file_class_t file_class)
{
    std::lock_guard lock(mutex_);
    return usage_[file_class];
}

// Opened under the lock, since an overwrite deletes the old content.
node_t drive::open_body(const std::string& id, int* fd)
{
    std::lock_guard lock(mutex_);
    node_t node = locked_get(id);
    if (node.kind == KIND_FOLDER)
        throw refusal_t{400, "Node '" + id + "' is a folder"};
    *fd = node.body.name.empty() ? -1 : open(bodies_.path_of(node.body.name).c_str(), O_RDONLY | O_CLOEXEC);
    if (*fd == -1 && !node.body.name.empty())
        throw refusal_t{500, "The content of node '" + id + "' is lost"};
    return node;
}

// ---- Changes ----

void drive::count(const node_t& node, int sign)
{
    if (node.kind != KIND_FILE || node.status != STATUS_AVAILABLE)
        return;
    usage_t& part = usage_[class_of(node.name)];
    part.bytes += sign * node.body.size;
    part.count += sign;
}

node_t drive::insert(node_t node, when_t when)
{
    node.id = random_name();
    node.created = node.modified = when.value_or(now());
    node.version = 1;
    node.change = ++newest_change_;
    database_.run(
        "INSERT INTO node(id, parent, name, kind, status, created, modified, version, change, body, "
        "md5, size) VALUES(?,?,?,?,?,?,?,?,?,?,?,?)",
        {node.id, node.parent, node.name, int64_t{node.kind}, int64_t{node.status}, node.created,
         node.modified, node.version, node.change, node.body.name, node.body.md5, node.body.size});
    count(node, 1);
    return node;
}

node_t drive::update(const node_t& before, node_t after, when_t when)
{
    after.modified = when.value_or(now());
    after.version = before.version + 1;
    after.change = ++newest_change_;
    database_.run("UPDATE node SET parent=?, name=?, kind=?, status=?, created=?, modified=?, version=?, "
                  "change=?, body=?, md5=?, size=? WHERE number=?",
                  {after.parent, after.name, int64_t{after.kind}, int64_t{after.status}, after.created,
                   after.modified, after.version, after.change, after.body.name, after.body.md5,
                   after.body.size, after.number});
    count(before, -1);
    count(after, 1);
    return after;
}

// A folder in the trash cannot take anything either: what went in would be lost to every path.
node_t drive::require_folder(const std::string& id)
{
    node_t folder = locked_get(id);
    if (folder.status > STATUS_PENDING)
        throw refusal_t{404, "Folder '" + id + "' is in the trash"};
    if (folder.kind != KIND_FOLDER)
        throw refusal_t{400, "Node '" + id + "' is not a folder"};
    return folder;
}

void drive::require_free(const std::string& parent, const std::string& name, const node_t& node)
{
    require_name(name);
    if (node.status > STATUS_PENDING)
        return;
    std::optional<node_t> other = named(parent, name, STATUS_PENDING);
    if (other && other->id != node.id)
        throw refusal_t{409, "Node with the name '" + name + "' already exists under parent '" + parent +
                                 "', conflicting node id '" + other->id + "'"};
}

node_t drive::create_folder(const std::string& parent, const std::string& name, when_t when)
{
    std::lock_guard lock(mutex_);
    node_t folder;
    folder.parent = parent;
    folder.name = name;
    require_folder(parent);
    require_free(parent, name, folder);
    return insert(folder, when);
}

node_t drive::create_file(const std::string& parent, const std::string& name, body_writer& body, when_t when)
{
    node_t file;
    file.body = body.finish();
    file.kind = KIND_FILE;
    file.parent = parent;
    file.name = name;
    std::lock_guard lock(mutex_);
    require_folder(parent);
    require_free(parent, name, file);
    file = insert(file, when);
    body.keep();
    return file;
}

node_t drive::overwrite(const std::string& id, body_writer& body, when_t when)
{
    const body_t& content = body.finish();
    std::lock_guard lock(mutex_);
    node_t before = locked_get(id);
    if (before.kind == KIND_FOLDER)
        throw refusal_t{400, "Node '" + id + "' is a folder"};
    node_t after = before;
    after.body = content;
    after = update(before, after, when);
    body.keep();
    bodies_.remove(before.body.name); // a download that is under way has it open
    return after;
}

node_t drive::rename(const std::string& id, const std::string& name, when_t when)
{
    std::lock_guard lock(mutex_);
    node_t node = locked_get(id);
    if (node.parent.empty())
        throw refusal_t{400, "The root folder cannot be renamed"};
    require_free(node.parent, name, node);
    node_t after = node;
    after.name = name;
    return update(node, after, when);
}

node_t drive::move(const std::string& id, const std::string& from, const std::string& to, when_t when)
{
    std::lock_guard lock(mutex_);
    node_t node = locked_get(id);
    node_t above = require_folder(to);
    if (node.parent.empty() || node.parent != from)
        throw refusal_t{400, "Folder '" + from + "' is not the parent of node '" + id + "'"};
    for (; !above.parent.empty(); above = locked_get(above.parent)) {
        if (above.id == id)
            throw refusal_t{400, "A folder cannot be moved below itself"};
    }
    require_free(to, node.name, node);
    node_t after = node;
    after.parent = to;
    return update(node, after, when);
}

node_t drive::trash(const std::string& id, when_t when)
{
    std::lock_guard lock(mutex_);
    node_t node = locked_get(id);
    if (node.parent.empty())
        throw refusal_t{400, "The root folder cannot be trashed"};
    if (node.status == STATUS_TRASH)
        return node;
    node_t after = node;
    after.status = STATUS_TRASH;
    return update(node, after, when);
}

node_t drive::edit(const std::string& id, const edit_t& edit)
{
    std::lock_guard lock(mutex_);
    node_t node = locked_get(id);
    node_t after = node;
    after.name = edit.name.value_or(node.name);
    after.status = edit.status.value_or(node.status);
    after.kind = edit.kind.value_or(node.kind);
    after.created = edit.created.value_or(node.created);
    if (!node.parent.empty() && !edit.name)
        require_free(node.parent, node.name, after);
    return update(node, after, edit.modified.value_or(node.modified));
}

// Folders "folder-0" and on, each with files "file-0.txt" and on, in a parent without children.
void drive::seed(const std::string& parent, int64_t folders, int64_t files, const std::string& content)
{
    std::lock_guard lock(mutex_);
    require_folder(parent);
    if (database_.ask("SELECT 1 FROM node WHERE parent=? LIMIT 1", {parent}).step())
        throw refusal_t{409, "Folder '" + parent + "' is not empty"};
    transaction all(database_);
    for (int64_t i = 0; i < folders; ++i) {
        node_t node;
        node.parent = parent;
        node.name = "folder-" + std::to_string(i);
        node.parent = insert(node, {}).id;
        node.kind = KIND_FILE;
        for (int64_t j = 0; j < files; ++j) {
            body_writer body(bodies_);
            body.write(content.data(), content.size());
            node.body = body.finish();
            body.keep();
            node.name = "file-" + std::to_string(j) + ".txt";
            insert(node, {});
        }
    }
    all.commit();
}

} // namespace kxcloud
