// The HTTP server: it accepts connections, reads each request once, and shows it to the door in charge.
//
// Requests of the drive pass the faults that wait for them and go to the list of requests; the other doors
// are always open. Every connection has a thread of its own for its whole life.
#pragma once

#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <httplib.h>
#include <openssl/ssl.h>

#include "cloud/connection.h"
#include "cloud/drive.h"
#include "cloud/text.h"
#include "cloud/trials.h"

namespace kxcloud
{

// One request in the hands of a door. A door answers by filling the reply or throws a refusal.
class call_t
{
public:
    call_t(const httplib::Request& the_request, httplib::Response& the_reply,
           const httplib::ContentReader* content);

    const httplib::Request& request;
    httplib::Response& reply;
    std::string path; // as sent, with its escapes
    std::string query_text;
    query_t query;

    // The whole body; a call reads it in one of these ways, once. Both throw when it does not come whole.
    std::string read_text();
    void read(const httplib::ContentReceiver& take);

    // The parts of a form: part(name) begins each.
    void read_form(const std::function<void(const std::string& name)>& part,
                   const httplib::ContentReceiver& take);

    // Reads on to the end of the request when nobody did, so that the next one is found. False when it
    // cannot.
    bool discard();

    void answer(int status, const nlohmann::json& body);
    void send_file(int64_t size, int fd); // closes it; -1 for an empty content

private:
    const httplib::ContentReader* content_;
};

using door_t = std::function<void(call_t&)>;

struct tls_files_t {
    std::string certificate;
    std::string key;
};

class server : public httplib::Server
{
public:
    // The drive's paths go to the first door, those below a prefix of the others to theirs.
    struct place_t {
        std::string prefix; // "/files"
        door_t door;
    };
    server(door_t drive_door, std::vector<place_t> others, trials& tests, drive& store,
           const tls_files_t& tls);
    ~server() override;

    // Binds; the port that was taken (that given, or a free one for 0), -1 when there is none.
    int open(const std::string& host, int port);
    void serve(); // returns after end()
    void end();   // from any thread
    bool secure() const { return tls_ != nullptr; }

private:
    bool process_and_close_socket(socket_t fd) override;
    void handle(const httplib::Request& request, httplib::Response& reply,
                const httplib::ContentReader* content);
    void handle_drive(call_t& call);

    door_t drive_door_;
    std::vector<place_t> others_;
    trials& trials_;
    drive& drive_;
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> tls_;
    int stop_fd_;
    struct live_guard;
    std::mutex live_mutex_;
    std::set<int> live_; // the sockets in use
};

} // namespace kxcloud
