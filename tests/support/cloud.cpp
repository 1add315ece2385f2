#include "support/cloud.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <stdexcept>

#include <httplib.h>

#include "kxamazon/global.h"
#include "support/support.h"

using nlohmann::json;

namespace kxtest
{

namespace
{

std::vector<std::string> command(const std::vector<std::string>& options)
{
    std::vector<std::string> words = {program("kxcloud"), "--listen", "127.0.0.1:0"};
    words.insert(words.end(), options.begin(), options.end());
    return words;
}

std::string escaped(const std::string& text)
{
    std::string escapes;
    for (unsigned char c : text) {
        char escape[4];
        std::snprintf(escape, sizeof escape, "%%%02X", c);
        escapes += std::isalnum(c) || c == '/' ? std::string(1, static_cast<char>(c)) : escape;
    }
    return escapes;
}

http_reply_t send(const std::string& url, const std::string& method, const std::string& target,
                  const std::string& body = "")
{
    httplib::Client client(url);
    client.enable_server_certificate_verification(false);
    client.set_url_encode(false);
    client.set_read_timeout(static_cast<time_t>(5) * setting("KXTEST_SLOWNESS", 1));
    client.set_tcp_nodelay(true); // or a request with a body waits for the acknowledgement of its head
    httplib::Request request;
    request.method = method;
    request.path = target;
    request.body = body;
    request.set_header("Authorization", "Bearer any");
    httplib::Result result = client.send(request);
    return result ? http_reply_t{result->status, result->body} : http_reply_t{0, ""};
}

// What a test asks of its doors works, or the test makes no sense.
std::string order(const std::string& url, const std::string& method, const std::string& target,
                  const std::string& body = "")
{
    http_reply_t reply = send(url, method, target, body);
    if (reply.status != 200 && reply.status != 201)
        throw std::runtime_error(method + " " + target + ": " + std::to_string(reply.status) + " " +
                                 reply.body);
    return reply.body;
}

} // namespace

// Its contents without a store lie in the temporary directory, which is the test's own here.
cloud::cloud(const std::vector<std::string>& options) : process_(command(options), {"TMPDIR=" + sysroot()})
{
    // Its address is the first line that the server writes, once it listens.
    eventually([this] { return process_.out().find('\n') != std::string::npos || process_.wait(0) != -1; });
    std::string out = process_.out();
    url_ = out.substr(0, out.find('\n'));
    if (url_.empty())
        throw std::runtime_error("kxcloud did not start: " + process_.err());
}

cloud::~cloud()
{
    process_.signal(SIGTERM);
    process_.wait(10);
}

void cloud::connect() const
{
    auto set = [](const char*& field, const std::string& text) {
        std::free(const_cast<char*>(field));
        field = strdup(text.c_str());
    };
    set_cloud_url(url_);
    set(global.token, "test-access-token");
    set(global.refresh, "test-refresh-token");
    set(global.content_url, url_ + "/content/");
    set(global.metadata_url, url_ + "/metadata/");
}

http_reply_t cloud::ask(const std::string& method, const std::string& target, const std::string& body) const
{
    return send(url_, method, target, body);
}

http_reply_t cloud::get(const std::string& path) const
{
    return send(url_, "GET", "/files" + escaped(path));
}

void cloud::put(const std::string& path, const std::string& content) const
{
    order(url_, "PUT", "/files" + escaped(path), content);
}

void cloud::mkdir(const std::string& path) const
{
    order(url_, "POST", "/files" + escaped(path) + "?mkdir");
}

void cloud::trash(const std::string& path) const
{
    order(url_, "DELETE", "/files" + escaped(path));
}

void cloud::rename(const std::string& path, const std::string& name) const
{
    order(url_, "POST", "/files" + escaped(path) + "?rename=" + escaped(name));
}

void cloud::move(const std::string& path, const std::string& new_parent) const
{
    order(url_, "POST", "/files" + escaped(path) + "?move=" + escaped(new_parent));
}

bool cloud::has(const std::string& path) const
{
    return !stat(path).is_null();
}

json cloud::stat(const std::string& path) const
{
    http_reply_t reply = send(url_, "GET", "/files" + escaped(path) + "?stat");
    return reply.status == 200 ? json::parse(reply.body) : json();
}

contents_t cloud::contents(const std::string& folder) const
{
    contents_t all;
    const http_reply_t reply = get(folder.empty() ? "/" : folder);
    if (reply.status != 200)
        return all;
    const json listing = json::parse(reply.body);
    for (const json& node : listing["data"]) {
        const std::string name = node["name"];
        const bool is_file = node["kind"] == "FILE";
        all[name] = is_file ? node["contentProperties"]["md5"] : json("");
        if (!is_file)
            for (const auto& [path, content] : contents(folder + "/" + name))
                all[name + "/" + path] = content;
    }
    return all;
}

void cloud::fail(const json& fault) const
{
    order(url_, "POST", "/control/faults", fault.dump());
}

void cloud::set_clock_offset(int seconds) const
{
    order(url_, "POST", "/control/clock", json{{"offset_ms", int64_t{seconds} * 1000}}.dump());
}

void cloud::edit(const json& change) const
{
    order(url_, "POST", "/control/node", change.dump());
}

void cloud::clear_faults() const
{
    order(url_, "DELETE", "/control/faults");
}

void cloud::expire_token() const
{
    order(url_, "POST", "/control/expire");
}

json cloud::requests() const
{
    return json::parse(order(url_, "GET", "/control/requests"));
}

void cloud::forget_requests() const
{
    order(url_, "DELETE", "/control/requests");
}

int cloud::count(const std::string& method_regex, const std::string& path_regex) const
{
    std::regex method(method_regex);
    std::regex path(path_regex);
    int count = 0;
    for (const json& request : requests())
        count += std::regex_match(request["method"].get<std::string>(), method) &&
                 std::regex_search(request["path"].get<std::string>(), path);
    return count;
}

} // namespace kxtest
