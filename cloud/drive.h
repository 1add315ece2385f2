// The drive: every file and folder, its history of changes, and the space used.
//
// Nodes are rows of SQLite (in memory without a store), contents are files of their own. All calls may come
// from any thread; each is one step that other threads see whole. What a caller asks for and cannot get is
// thrown as a refusal, whose status and message become the HTTP reply.
//
// Names are unique among the available children of a folder, without regard to the case of ASCII letters. A
// trashed node never stands in the way of a new one of its name. Trashing a folder changes that one node:
// what is below it keeps its state, and only its path is gone.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "cloud/bodies.h"
#include "cloud/database.h"

namespace kxcloud
{

struct refusal_t {
    int status; // of HTTP
    std::string message;
};

enum kind_t { KIND_FILE, KIND_FOLDER, KIND_ASSET };
enum status_t { STATUS_AVAILABLE, STATUS_PENDING, STATUS_TRASH, STATUS_PURGED };

struct node_t {
    int64_t number = 0; // order of creation
    std::string id;
    std::string parent; // id; empty for the root
    std::string name;   // empty for the root
    kind_t kind = KIND_FOLDER;
    status_t status = STATUS_AVAILABLE;
    int64_t created = 0;  // ms since the epoch
    int64_t modified = 0; // ms since the epoch
    int64_t version = 0;  // counts the node's changes
    int64_t change = 0;   // its place in the history of the whole drive
    body_t body;          // files only
};

const char* kind_text(kind_t kind);
const char* status_text(status_t status);
std::optional<kind_t> kind_of(const std::string& text);
std::optional<status_t> status_of(const std::string& text);

// What a listing shows; without a status the nodes in use, and the trashed ones where the drive lists those.
struct filter_t {
    std::optional<std::string> parent;
    std::optional<std::string> name;
    std::optional<kind_t> kind;
    std::optional<status_t> status;
    bool root_only = false;
};

struct page_t {
    std::vector<node_t> nodes;
    int64_t count;          // on all pages together
    std::string next_token; // empty on the last page
};

// What a test may set of a node at will.
struct edit_t {
    std::optional<std::string> name; // also one that the drive would refuse
    std::optional<status_t> status;
    std::optional<kind_t> kind;
    std::optional<int64_t> created;
    std::optional<int64_t> modified;
};

struct usage_t {
    int64_t bytes = 0;
    int64_t count = 0;
};

enum file_class_t { CLASS_OTHER, CLASS_DOC, CLASS_PHOTO, CLASS_VIDEO, CLASS_COUNT };

struct drive_options_t {
    std::string store; // a folder; empty: nothing outlives the process
    bool list_trashed = false;
    int64_t page_size = 200;
};

class drive
{
public:
    explicit drive(const drive_options_t& options);

    // Look-ups.
    node_t root();
    node_t get(const std::string& id); // any status
    std::optional<node_t> child(const std::string& parent, const std::string& name);
    node_t at(const std::vector<std::string>& path); // only through available nodes
    page_t list(const filter_t& filter, const std::string& start_token = "");
    node_t open_body(const std::string& id, int* fd);    // the caller closes it; -1 for an empty content
    std::vector<node_t> children(const std::string& id); // all of the available ones, by name

    // Changes. The time is the node's new modified time; none means now.
    using when_t = std::optional<int64_t>;
    node_t create_folder(const std::string& parent, const std::string& name, when_t when = {});
    node_t create_file(const std::string& parent, const std::string& name, body_writer& body,
                       when_t when = {});
    node_t overwrite(const std::string& id, body_writer& body, when_t when = {});
    node_t rename(const std::string& id, const std::string& name, when_t when = {});
    node_t move(const std::string& id, const std::string& from, const std::string& to, when_t when = {});
    node_t trash(const std::string& id, when_t when = {});
    node_t edit(const std::string& id, const edit_t& edit);
    void seed(const std::string& parent, int64_t folders, int64_t files, const std::string& content);

    // Nodes changed after a point of the history, oldest change first; each in its present state.
    std::vector<node_t> changes(int64_t after, int64_t limit, bool with_purged);
    int64_t newest_change();
    const std::string& tag() const { return tag_; } // tells this drive's checkpoints from another's

    usage_t usage(file_class_t file_class);
    int64_t now() const; // ms since the epoch, with the offset
    std::atomic<int64_t> clock_offset_ms{0};

    const bodies& contents() const { return bodies_; }
    const drive_options_t& options() const { return options_; }

private:
    node_t locked_get(const std::string& id);
    node_t require_folder(const std::string& id);
    std::optional<node_t> named(const std::string& parent, const std::string& name, status_t worst);
    void require_free(const std::string& parent, const std::string& name, const node_t& node);
    node_t insert(node_t node, when_t when);
    node_t update(const node_t& before, node_t after, when_t when);
    void count(const node_t& node, int sign);
    void open_store();

    drive_options_t options_;
    std::mutex mutex_;
    database database_;
    bodies bodies_;
    std::string tag_;
    int64_t newest_change_ = 0;
    usage_t usage_[CLASS_COUNT];
};

} // namespace kxcloud
