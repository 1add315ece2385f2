// A kxcloud process of a test's own, and its doors.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <sys/types.h>
#include <vector>

#include "support/process.h"
#include "support/support.h"

namespace kxtest
{

struct http_reply_t {
    int status; // 0 when there was no reply
    std::string body;
};

// Starts kxcloud on a free loopback port and waits until it answers; stops it by its process id at the end.
class cloud
{
public:
    explicit cloud(const std::vector<std::string>& options = {});
    ~cloud();
    cloud(const cloud&) = delete;
    cloud& operator=(const cloud&) = delete;

    const std::string& url() const { return url_; }
    pid_t pid() const { return process_.pid(); }

    // Points this program at the cloud: the test constants, and global's tokens and base URLs.
    void connect() const;

    // One of the drive's own requests, with a token that serves until expire_token().
    http_reply_t ask(const std::string& method, const std::string& target,
                     const std::string& body = "") const;

    // The path door: another client of the same drive.
    http_reply_t get(const std::string& path) const;
    void put(const std::string& path, const std::string& content) const;
    void mkdir(const std::string& path) const;
    void trash(const std::string& path) const;
    void rename(const std::string& path, const std::string& name) const;
    void move(const std::string& path, const std::string& new_parent) const;
    bool has(const std::string& path) const;
    nlohmann::json stat(const std::string& path) const; // the node object at a path; null when there is none

    contents_t contents(const std::string& folder) const; // "" is the root; of a missing folder, nothing

    // The control door.
    // Applies the fault to the next matching requests, e.g.
    // {"method":"GET","path":"^/nodes/","times":1,"status":500,"body":"..."}; see cloud/README.md.
    void fail(const nlohmann::json& fault) const;
    void clear_faults() const;
    void expire_token() const;
    void set_clock_offset(int seconds) const;      // the server's time ahead of ours
    void edit(const nlohmann::json& change) const; // e.g. {"path":"/a","modifiedDate":"2015-06-01T12:00:00Z"}
    nlohmann::json
    requests() const; // drive requests only: method, path, query, headers, body, body_size, status
    void forget_requests() const;
    // How many of those received bear the whole of the first expression and hold the second.
    int count(const std::string& method_regex, const std::string& path_regex) const;

private:
    process process_;
    std::string url_;
};

} // namespace kxtest
