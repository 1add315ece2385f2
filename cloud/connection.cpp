#include "cloud/connection.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kxcloud
{

namespace
{

constexpr size_t buffer_bytes = 64 * 1024;

thread_local connection* current_connection = nullptr;

void address_of(int fd, int (*ask)(int, sockaddr*, socklen_t*), std::string& ip, int& port)
{
    sockaddr_storage address;
    socklen_t length = sizeof address;
    char host[NI_MAXHOST];
    char service[NI_MAXSERV];
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (ask(fd, generic, &length) != 0 || getnameinfo(generic, length, host, sizeof host, service,
                                                      sizeof service, NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return;
    ip = host;
    port = std::atoi(service);
}

} // namespace

connection::connection(int fd, SSL_CTX* tls, int stop_fd)
    : fd_(fd), stop_fd_(stop_fd), tls_(tls ? SSL_new(tls) : nullptr, SSL_free)
{
    static std::atomic<int64_t> count;
    number_ = ++count;
    current_connection = this;
    int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (tls_)
        SSL_set_fd(tls_.get(), fd_);
}

connection::~connection()
{
    current_connection = nullptr;
    if (end_ == END_RESET) {
        linger reset{1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    } else if (tls_ && !cutting_) {
        SSL_shutdown(tls_.get());
    }
    close(fd_);
}

connection& connection::current()
{
    return *current_connection;
}

bool connection::handshake()
{
    return !tls_ || SSL_accept(tls_.get()) == 1;
}

bool connection::await_socket(short events, int timeout_ms) const
{
    pollfd waits[] = {{fd_, events, 0}, {stop_fd_, POLLIN, 0}};
    int n;
    do {
        n = poll(waits, 2, timeout_ms);
    } while (n < 0 && errno == EINTR);
    return n > 0 && waits[1].revents == 0;
}

bool connection::await(int timeout_ms)
{
    if (over_ || cutting_)
        return false;
    return in_at_ < in_.size() || (tls_ && SSL_pending(tls_.get()) > 0) || await_socket(POLLIN, timeout_ms);
}

bool connection::pause(int64_t ms) const
{
    pollfd wait{stop_fd_, POLLIN, 0};
    return poll(&wait, 1, static_cast<int>(ms)) == 0;
}

void connection::begin_request()
{
    head_.clear();
    body_.clear();
    body_size_ = 0;
    in_body_ = false;
}

// ---- Reading ----

ssize_t connection::fill()
{
    // What stands in the buffer may be what the client waits for before it goes on.
    if (!flush())
        return -1;
    bool ready = (tls_ && SSL_pending(tls_.get()) > 0) || await_socket(POLLIN, io_timeout_ms);
    if (!ready)
        return -1;
    in_.resize(buffer_bytes);
    in_at_ = 0;
    ssize_t n = tls_ ? SSL_read(tls_.get(), in_.data(), static_cast<int>(in_.size()))
                     : recv(fd_, in_.data(), in_.size(), 0);
    in_.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return n;
}

ssize_t connection::read(char* data, size_t size)
{
    if (in_at_ == in_.size()) {
        if (ssize_t n = fill(); n <= 0)
            return n;
    }
    size = std::min(size, in_.size() - in_at_);
    in_.copy(data, size, in_at_);
    in_at_ += size;
    if (!in_body_) {
        head_.append(data, size);
        return static_cast<ssize_t>(size);
    }
    body_size_ += size;
    if (body_.size() < kept_body_bytes)
        body_.append(data, std::min(size, kept_body_bytes - body_.size()));
    return static_cast<ssize_t>(size);
}

// ---- Writing ----

bool connection::send_all(const char* data, size_t size)
{
    while (size > 0) {
        ssize_t n = tls_ ? SSL_write(tls_.get(), data, static_cast<int>(std::min(size, buffer_bytes)))
                         : send(fd_, data, size, MSG_NOSIGNAL);
        if (n < 0 && !tls_ && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool connection::flush()
{
    std::string out = std::move(out_);
    out_.clear();
    if (!send_all(out.data(), out.size()))
        over_ = true;
    return !over_;
}

// How much of this piece of the reply goes out; past the cut nothing does.
size_t connection::passes(const char* data, size_t size)
{
    if (!cutting_)
        return size;
    size_t head = 0;
    if (!past_head_) {
        size_t before = sent_head_.size();
        sent_head_.append(data, size);
        size_t end = sent_head_.find("\r\n\r\n");
        past_head_ = end != std::string::npos;
        head = past_head_ ? end + 4 - before : size;
    }
    size_t body = std::min<uint64_t>(size - head, cut_left_);
    cut_left_ -= body;
    return head + body;
}

ssize_t connection::write(const char* data, size_t size)
{
    if (over_)
        return static_cast<ssize_t>(size); // a dropped reply looks sent to the library
    size_t pass = passes(data, size);
    out_.append(data, pass);
    if (out_.size() >= buffer_bytes && !flush())
        return -1;
    if (pass < size) {
        flush();
        over_ = true;
    }
    return static_cast<ssize_t>(size);
}

void connection::drop(end_t end)
{
    out_.clear();
    over_ = true;
    end_ = end;
}

void connection::cut(uint64_t body_bytes, end_t end)
{
    cutting_ = true;
    cut_left_ = body_bytes;
    end_ = end;
}

void connection::replace(const std::string& bytes)
{
    out_ = bytes;
    flush();
    over_ = true;
}

void connection::get_remote_ip_and_port(std::string& ip, int& port) const
{
    address_of(fd_, getpeername, ip, port);
}

void connection::get_local_ip_and_port(std::string& ip, int& port) const
{
    address_of(fd_, getsockname, ip, port);
}

} // namespace kxcloud
