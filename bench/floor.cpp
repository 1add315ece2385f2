#include "floor.h"

#include <ctime>
#include <fcntl.h>
#include <unistd.h>
#include <utime.h>

#include "bench.h"
#include "kxamazon/acd_fs_cache.h"
#include "support/support.h"

namespace kxbench
{

namespace
{

size_t append(char* bytes, size_t size, size_t n, void* reply)
{
    static_cast<std::string*>(reply)->append(bytes, size * n);
    return size * n;
}

} // namespace

http_floor::http_floor()
    : curl_(curl_easy_init()), headers_(curl_slist_append(nullptr, "Authorization: Bearer test-access-token"))
{
}

void http_floor::begin(const std::string& method, const std::string& url)
{
    curl_easy_reset(curl_.get());
    curl_easy_setopt(curl_.get(), CURLOPT_ACCEPT_ENCODING, "gzip");
    curl_easy_setopt(curl_.get(), CURLOPT_HTTPHEADER, headers_.get());
    curl_easy_setopt(curl_.get(), CURLOPT_URL, url.c_str());
    if (method != "GET")
        curl_easy_setopt(curl_.get(), CURLOPT_CUSTOMREQUEST, method.c_str());
    reply_.clear();
    curl_easy_setopt(curl_.get(), CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(curl_.get(), CURLOPT_WRITEDATA, &reply_);
}

std::string http_floor::perform()
{
    long status = 0;
    expect(curl_easy_perform(curl_.get()) == CURLE_OK, "a request of the floor failed");
    curl_easy_getinfo(curl_.get(), CURLINFO_RESPONSE_CODE, &status);
    expect(status == 200 || status == 201,
           "a request of the floor was answered with " + std::to_string(status));
    return std::move(reply_);
}

std::string http_floor::send(const std::string& method, const std::string& url, const std::string& body,
                             FILE* file)
{
    begin(method, url);
    if (!body.empty())
        curl_easy_setopt(curl_.get(), CURLOPT_POSTFIELDS, body.c_str());
    if (file) {
        curl_easy_setopt(curl_.get(), CURLOPT_WRITEFUNCTION, nullptr);
        curl_easy_setopt(curl_.get(), CURLOPT_WRITEDATA, file);
    }
    return perform();
}

std::string http_floor::upload(const std::string& method, const std::string& url, const std::string& metadata,
                               const std::string& path)
{
    begin(method, url);
    owner<curl_mime, curl_mime_free> form(curl_mime_init(curl_.get()));
    if (!metadata.empty()) {
        curl_mimepart* part = curl_mime_addpart(form.get());
        curl_mime_name(part, "metadata");
        curl_mime_data(part, metadata.c_str(), CURL_ZERO_TERMINATED);
    }
    curl_mimepart* part = curl_mime_addpart(form.get());
    curl_mime_name(part, "content");
    curl_mime_filedata(part, path.c_str());
    curl_easy_setopt(curl_.get(), CURLOPT_MIMEPOST, form.get());
    return perform();
}

statement::statement(sqlite3* db, const char* sql)
{
    expect(sqlite3_prepare_v2(db, sql, -1, out(statement_), nullptr) == SQLITE_OK, sqlite3_errmsg(db));
}

void statement::bind(int place, const std::string& text)
{
    sqlite3_bind_text(statement_.get(), place, text.c_str(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

void statement::bind(int place, int64_t number)
{
    sqlite3_bind_int64(statement_.get(), place, number);
}

bool statement::step()
{
    int rc = sqlite3_step(statement_.get());
    expect(rc == SQLITE_ROW || rc == SQLITE_DONE, "a statement of the floor failed");
    if (rc == SQLITE_DONE)
        sqlite3_reset(statement_.get());
    return rc == SQLITE_ROW;
}

std::string statement::column(int place)
{
    const unsigned char* text = sqlite3_column_text(statement_.get(), place);
    return text ? reinterpret_cast<const char*>(text) : "";
}

void statement::reset()
{
    sqlite3_reset(statement_.get());
}

void write_rows(const std::vector<cached_node_t>& nodes)
{
    sqlite3* db = acd_cache_db();
    statement begin(db, "BEGIN"), commit(db, "COMMIT");
    statement node(db, "INSERT OR REPLACE INTO node (id,name,kind,md5,status,created,modified,size) "
                       "VALUES (?,?,?,?,'AVAILABLE',?,?,?)");
    statement parent(db, "INSERT OR REPLACE INTO parents (node_id,parent_id) VALUES (?,?)");
    begin.step();
    for (const cached_node_t& row : nodes) {
        const std::string* texts[] = {&row.id, &row.name, &row.kind, &row.md5};
        const int64_t numbers[] = {row.created, row.modified, row.size};
        for (int i = 0; i < 4; ++i)
            node.bind(i + 1, *texts[i]);
        for (int i = 0; i < 3; ++i)
            node.bind(i + 5, numbers[i]);
        node.step();
        parent.bind(1, row.id);
        parent.bind(2, row.parent);
        parent.step();
    }
    commit.step();
}

std::vector<cached_node_t> read_rows()
{
    statement select(acd_cache_db(),
                     "SELECT id,name,kind,md5,parent_id,created,modified,size FROM node, parents "
                     "WHERE id=node_id AND name!='/'");
    std::vector<cached_node_t> rows;
    while (select.step())
        rows.push_back({select.column(0), select.column(1), select.column(2), select.column(3),
                        select.column(4), std::stoll(select.column(5)), std::stoll(select.column(6)),
                        std::stoll(select.column(7))});
    return rows;
}

void replay(const std::string& cloud_url, const nlohmann::json& requests,
            const std::vector<std::string>& paths, bool synced)
{
    http_floor http;
    size_t next = 0;
    fd_owner note(open((kxtest::sysroot() + "/note").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    for (const auto& request : requests) {
        std::string target = request["target"], method = request["method"];
        bool content = method == "GET" && target.ends_with("/content");
        expect(!content || next < paths.size(), "more files were read than there are");
        if (content && synced)
            expect(pwrite(note.get(), target.data(), target.size(), 0) > 0 && fdatasync(note.get()) == 0,
                   "no note");
        file_ptr file(content ? fopen(paths[next].c_str(), "wb") : nullptr);
        http.send(method, cloud_url + target, request["body"], file.get());
        if (!content)
            continue;
        fflush(file.get());
        utimbuf times = {time(nullptr), 1};
        utime(paths[next++].c_str(), &times);
        expect(!synced || fsync(fileno(file.get())) == 0, "no sync");
    }
}

} // namespace kxbench
