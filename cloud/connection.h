// One client connection under the HTTP library: buffered both ways, plain or TLS, and obedient to faults.
//
// The library reads a request from it and writes the reply to it; what it read stands here as it came, for
// the list of requests. A fault may throw the reply away, replace it by raw bytes, or cut it. One thread uses
// a connection for its whole life; current() is that thread's.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <httplib.h>
#include <openssl/ssl.h>

namespace kxcloud
{

class connection : public httplib::Stream
{
public:
    static constexpr size_t kept_body_bytes = 64 * 1024;
    static constexpr int io_timeout_ms = 300 * 1000;

    // Takes the socket over. stop_fd becomes readable when the server is to end.
    connection(int fd, SSL_CTX* tls, int stop_fd);
    ~connection() override;
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    static connection& current();

    bool handshake();             // with TLS; nothing to do without
    bool await(int timeout_ms);   // for the next request; false when there will be none
    bool pause(int64_t ms) const; // false when the server is to end meanwhile
    bool flush();                 // false when the client is gone or the connection is to end
    int64_t number() const { return number_; }

    // Between the head of a request and its body.
    void begin_request();
    void begin_body() { in_body_ = true; }
    const std::string& head() const { return head_; }
    const std::string& body() const { return body_; } // as sent, its first kept_body_bytes
    uint64_t body_size() const { return body_size_; }

    // What shall become of the reply; the connection ends after it.
    enum end_t { END_CLOSE, END_RESET };
    void drop(end_t end);                     // nothing is sent
    void cut(uint64_t body_bytes, end_t end); // the head and so much of the body is sent
    void replace(const std::string& bytes);   // these are sent instead

    bool is_readable() const override { return true; }
    bool is_writable() const override { return !over_; }
    ssize_t read(char* data, size_t size) override;
    ssize_t write(const char* data, size_t size) override;
    void get_remote_ip_and_port(std::string& ip, int& port) const override;
    void get_local_ip_and_port(std::string& ip, int& port) const override;
    socket_t socket() const override { return fd_; }

private:
    bool await_socket(short events, int timeout_ms) const;
    ssize_t fill();
    bool send_all(const char* data, size_t size);
    size_t passes(const char* data, size_t size);

    int fd_;
    int stop_fd_;
    int64_t number_;
    std::unique_ptr<SSL, void (*)(SSL*)> tls_;
    std::string in_;
    size_t in_at_ = 0;
    std::string out_;

    std::string head_;
    std::string body_;
    uint64_t body_size_ = 0;
    bool in_body_ = false;

    bool over_ = false; // nothing more is sent, and no request is read
    end_t end_ = END_CLOSE;
    bool cutting_ = false;
    uint64_t cut_left_ = 0;
    std::string sent_head_; // while looking for its end
    bool past_head_ = false;
};

} // namespace kxcloud
