#include "support/cloud.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <httplib.h>

#include "common/owners.h"
#include "kxamazon/global.h"
#include "support/constants.h"

using nlohmann::json;

namespace kxtest
{

namespace
{

// The program dies with the test, also when the test crashes.
pid_t start(const std::vector<std::string>& options, int output)
{
    std::vector<std::string> words = {KXTEST_BIN_DIR "/kxcloud", "--listen", "127.0.0.1:0"};
    words.insert(words.end(), options.begin(), options.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        dup2(output, 1);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
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
    httplib::Request request;
    request.method = method;
    request.path = target;
    request.body = body;
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

cloud::cloud(const std::vector<std::string>& options)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    pid_ = start(options, ends[1]);
    close(ends[1]);
    // Its address is the first thing the server says, once it listens.
    for (char c; read(ends[0], &c, 1) == 1 && c != '\n';)
        url_.push_back(c);
    close(ends[0]);
    if (url_.empty())
        throw std::runtime_error("kxcloud did not start");
}

cloud::~cloud()
{
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
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

void cloud::fail(const json& fault) const
{
    order(url_, "POST", "/control/faults", fault.dump());
}

void cloud::set_clock_offset(int seconds) const
{
    order(url_, "POST", "/control/clock", json{{"offset_ms", seconds * 1000}}.dump());
}

void cloud::edit(const json& change) const
{
    order(url_, "POST", "/control/node", change.dump());
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

int cloud::count(const std::string& method, const std::string& path_regex) const
{
    std::regex path(path_regex);
    int count = 0;
    for (const json& request : requests())
        count += request["method"] == method && std::regex_search(request["path"].get<std::string>(), path);
    return count;
}

} // namespace kxtest
