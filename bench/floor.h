// The floors: the same I/O as the measured work, in a bare loop and with nothing else.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <curl/curl.h>
#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include "common/owners.h"

namespace kxbench
{

// One kept-alive libcurl handle.
class http_floor
{
public:
    http_floor();

    // Sends a request and returns the reply's body, or writes it to file.
    std::string send(const std::string& method, const std::string& url, const std::string& body = "",
                     FILE* file = nullptr);

    // Sends a file as a form, as an upload does; the metadata part is left out when empty.
    std::string upload(const std::string& method, const std::string& url, const std::string& metadata,
                       const std::string& path);

private:
    std::string perform();
    void begin(const std::string& method, const std::string& url);

    owner<CURL, curl_easy_cleanup> curl_;
    owner<curl_slist, curl_slist_free_all> headers_;
    std::string reply_;
};

// One prepared statement.
class statement
{
public:
    statement(sqlite3* db, const char* sql);
    void bind(int place, const std::string& text);
    void bind(int place, int64_t number);
    bool step(); // true when there is a row; ready for the next use when not
    std::string column(int place);
    void reset();

private:
    owner<sqlite3_stmt, sqlite3_finalize> statement_;
};

struct cached_node_t {
    std::string id, name, kind, md5, parent;
    int64_t created = 0, modified = 0, size = 0;
};

// Writes the rows of nodes to the open cache by prepared statements in one transaction.
void write_rows(const std::vector<cached_node_t>& nodes);

// The rows of the open cache, but for the root's.
std::vector<cached_node_t> read_rows();

// The requests of a list that the cloud kept, sent again in a bare loop. Replies with the content of a file
// go to the local paths in their order; synced puts each on the disk, and a note before it, as a download
// does.
void replay(const std::string& cloud_url, const nlohmann::json& requests,
            const std::vector<std::string>& paths = {}, bool synced = false);

} // namespace kxbench
