#include "cloud/server.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

using nlohmann::json;

namespace kxcloud
{

namespace
{

constexpr int idle_connection_sec = 300;
constexpr size_t most_connections = 900; // the library refuses descriptors from FD_SETSIZE on
constexpr int backlog = 512;

// A thread for each connection, since one that is kept alive holds its thread; finished threads take new
// ones.
class connection_threads : public httplib::TaskQueue
{
public:
    void enqueue(std::function<void()> job) override
    {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
        if (jobs_.size() > idle_ && threads_.size() < most_connections)
            threads_.emplace_back([this] { work(); });
        wake_.notify_one();
    }

    void shutdown() override
    {
        {
            std::lock_guard lock(mutex_);
            ended_ = true;
        }
        wake_.notify_all();
        for (std::thread& thread : threads_)
            thread.join();
    }

private:
    void work()
    {
        std::unique_lock lock(mutex_);
        for (;;) {
            ++idle_;
            wake_.wait(lock, [&] { return !jobs_.empty() || ended_; });
            --idle_;
            if (jobs_.empty())
                return;
            std::function<void()> job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_;
    std::vector<std::thread> threads_;
    size_t idle_ = 0;
    bool ended_ = false;
};

SSL_CTX* make_tls(const tls_files_t& files)
{
    if (files.certificate.empty())
        return nullptr;
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    if (SSL_CTX_use_certificate_chain_file(context, files.certificate.c_str()) == 1 &&
        SSL_CTX_use_PrivateKey_file(context, files.key.c_str(), SSL_FILETYPE_PEM) == 1)
        return context;
    SSL_CTX_free(context);
    throw std::runtime_error("cannot use the certificate " + files.certificate + " and the key " + files.key);
}

// Makes the library see what this server makes of a head. A request of a method that may have a body, without
// a length, has none: the library would wait for the end of the connection. Ranges are left out.
void settle_head(httplib::Request& request)
{
    if (!request.has_header("Content-Length") && !request.has_header("Transfer-Encoding"))
        request.set_header("Content-Length", "0");
    request.ranges.clear();
}

bool is_below(const std::string& path, const std::string& prefix)
{
    return path.starts_with(prefix) && (path.size() == prefix.size() || path[prefix.size()] == '/');
}

exchange_t exchange_of(const call_t& call, int64_t time)
{
    connection& line = connection::current();
    exchange_t exchange;
    exchange.method = call.request.method;
    exchange.target = call.request.target;
    exchange.path = call.path;
    for (const char* base : {"/metadata", "/content"}) {
        if (is_below(call.path, base))
            exchange.path = call.path.substr(std::strlen(base));
    }
    exchange.query = call.query_text;
    exchange.head = line.head();
    exchange.time = time;
    exchange.connection = line.number();
    return exchange;
}

void answer_with(const fault_t& fault, call_t& call)
{
    connection::end_t end = fault.reset ? connection::END_RESET : connection::END_CLOSE;
    connection& line = connection::current();
    if (fault.drop) {
        line.drop(end);
    } else if (fault.raw) {
        line.replace(*fault.raw);
    } else if (fault.status) {
        call.reply = {};
        call.reply.version = "HTTP/1.1";
        call.reply.status = *fault.status;
        call.reply.set_content(fault.body, fault.headers.value("Content-Type", "application/json"));
    }
    for (const auto& [name, value] : fault.headers.items()) {
        if (name != "Content-Type")
            call.reply.set_header(name, value.is_string() ? value.get<std::string>() : value.dump());
    }
    if (!fault.cut)
        return;
    if (std::string body = call.reply.body; !body.empty()) // counted in plain bytes: of a type never packed
        call.reply.set_content(body, "application/octet-stream");
    line.cut(*fault.cut, end);
}

// What a door throws becomes the reply.
void run_door(const door_t& door, call_t& call)
{
    try {
        door(call);
    } catch (const refusal_t& refusal) {
        call.answer(refusal.status, {{"message", refusal.message}});
    } catch (const json::exception& e) {
        call.answer(400, {{"message", e.what()}});
    } catch (const std::exception& e) {
        call.answer(500, {{"message", e.what()}});
    }
}

} // namespace

// ---- A call ----

call_t::call_t(const httplib::Request& the_request, httplib::Response& the_reply,
               const httplib::ContentReader* content)
    : request(the_request), reply(the_reply), content_(content)
{
    const std::string& target = request.target;
    size_t mark = std::min(target.find('?'), target.size());
    path = target.substr(0, mark);
    query_text = target.substr(std::min(mark + 1, target.size()));
    query = parse_query(query_text);
}

void call_t::read(const httplib::ContentReceiver& take)
{
    if (!content_)
        return;
    if (request.is_multipart_form_data()) {
        discard();
        throw refusal_t{400, "A form is not expected here"};
    }
    const httplib::ContentReader* content = std::exchange(content_, nullptr);
    if (!(*content)(take))
        throw refusal_t{400, "The body is incomplete"};
}

std::string call_t::read_text()
{
    constexpr size_t most = 16 * 1024 * 1024;
    std::string text;
    read([&](const char* data, size_t size) {
        if (text.size() + size <= most)
            text.append(data, size);
        return true;
    });
    return text;
}

void call_t::read_form(const std::function<void(const std::string& name)>& part,
                       const httplib::ContentReceiver& take)
{
    if (!content_ || !request.is_multipart_form_data()) {
        discard();
        throw refusal_t{400, "A multipart form is expected here"};
    }
    const httplib::ContentReader* content = std::exchange(content_, nullptr);
    auto begin = [&](const httplib::MultipartFormData& head) {
        part(head.name);
        return true;
    };
    if (!(*content)(begin, take))
        throw refusal_t{400, "The form is incomplete or malformed"};
}

bool call_t::discard()
{
    const httplib::ContentReader* content = std::exchange(content_, nullptr);
    if (!content)
        return true;
    auto ignore = [](const char*, size_t) { return true; };
    if (request.is_multipart_form_data())
        return (*content)([](const httplib::MultipartFormData&) { return true; }, ignore);
    return (*content)(ignore);
}

void call_t::answer(int status, const json& body)
{
    reply.status = status;
    reply.set_content(body.dump(-1, ' ', false, json::error_handler_t::replace), "application/json");
}

void call_t::send_file(int64_t size, int fd)
{
    static constexpr size_t piece_bytes = 256 * 1024;
    reply.status = 200;
    if (fd == -1) {
        reply.set_content("", "application/octet-stream");
        return;
    }
    std::shared_ptr<FILE> file(fdopen(fd, "rb"), std::fclose);
    auto buffer = std::make_shared<std::string>(piece_bytes, '\0');
    reply.set_content_provider(static_cast<size_t>(size), "application/octet-stream",
                               [file, buffer](size_t offset, size_t length, httplib::DataSink& sink) {
                                   ssize_t n =
                                       pread(fileno(file.get()), buffer->data(),
                                             std::min(length, piece_bytes), static_cast<off_t>(offset));
                                   return n > 0 && sink.write(buffer->data(), static_cast<size_t>(n));
                               });
}

// ---- The server ----

server::server(door_t drive_door, std::vector<place_t> others, trials& tests, drive& store,
               const tls_files_t& tls)
    : drive_door_(std::move(drive_door)), others_(std::move(others)), trials_(tests), drive_(store),
      tls_(make_tls(tls), SSL_CTX_free), stop_fd_(eventfd(0, EFD_CLOEXEC))
{
    new_task_queue = [] { return new connection_threads; };
    set_read_timeout(connection::io_timeout_ms / 1000);
    set_write_timeout(connection::io_timeout_ms / 1000);
    set_keep_alive_timeout(idle_connection_sec);
    set_keep_alive_max_count(1000000);
    // Not the library's SO_REUSEPORT, with which two servers would share a port unnoticed.
    set_socket_options([](socket_t fd) {
        int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    });
    set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& reply) {
        static const std::string with_body[] = {"POST", "PUT", "PATCH", "DELETE"};
        if (std::find(std::begin(with_body), std::end(with_body), request.method) != std::end(with_body))
            return HandlerResponse::Unhandled; // comes back with its body
        handle(request, reply, nullptr);
        return HandlerResponse::Handled;
    });
    HandlerWithContentReader with_content = [this](const httplib::Request& request, httplib::Response& reply,
                                                   const httplib::ContentReader& content) {
        handle(request, reply, &content);
    };
    const char any[] = R"([\s\S]*)";
    Post(any, with_content).Put(any, with_content).Patch(any, with_content).Delete(any, with_content);
}

server::~server()
{
    close(stop_fd_);
}

int server::open(const std::string& host, int port)
{
    if (port == 0)
        port = bind_to_any_port(host);
    else if (!bind_to_port(host, port))
        return -1;
    if (port > 0)
        ::listen(svr_sock_, backlog); // the library's own is 5
    return port;
}

void server::serve()
{
    listen_after_bind();
}

void server::end()
{
    uint64_t one = 1;
    if (::write(stop_fd_, &one, sizeof one) != sizeof one)
        std::abort();
    {
        std::lock_guard lock(live_mutex_);
        for (int fd : live_)
            ::shutdown(fd, SHUT_RDWR); // what is being sent or awaited ends now
    }
    while (!is_running()) // the library forgets a stop that comes before
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    stop();
}

// Leaves the list before the connection closes its socket, whose number another may then get.
struct server::live_guard {
    live_guard(server& the_owner, int the_fd) : owner(the_owner), fd(the_fd)
    {
        std::lock_guard lock(owner.live_mutex_);
        owner.live_.insert(fd);
    }

    ~live_guard()
    {
        std::lock_guard lock(owner.live_mutex_);
        owner.live_.erase(fd);
    }

    server& owner;
    int fd;
};

bool server::process_and_close_socket(socket_t fd)
{
    connection line(fd, tls_.get(), stop_fd_);
    live_guard alive(*this, fd);
    if (!line.handshake())
        return false;
    bool ended = false;
    while (!ended && line.await(idle_connection_sec * 1000)) {
        line.begin_request();
        bool went = process_request(line, false, ended, [&](httplib::Request& request) {
            line.begin_body();
            settle_head(request);
        });
        if (!went || !line.flush())
            break;
    }
    return true;
}

void server::handle(const httplib::Request& request, httplib::Response& reply,
                    const httplib::ContentReader* content)
{
    call_t call(request, reply, content);
    for (const place_t& place : others_) {
        if (!is_below(call.path, place.prefix))
            continue;
        run_door(place.door, call);
        call.discard();
        return;
    }
    handle_drive(call);
}

// The exchange is recorded before its reply is sent: who has the reply finds the request in the list.
void server::handle_drive(call_t& call)
{
    connection& line = connection::current();
    exchange_t exchange = exchange_of(call, drive_.now());
    std::optional<fault_t> fault = trials_.take(exchange);
    if (!fault || !fault->replaces_reply() || fault->run)
        run_door(drive_door_, call);
    if (!fault || !fault->early)
        call.discard();
    if (fault && fault->delay_ms > 0)
        line.pause(fault->delay_ms);
    exchange.status = call.reply.status;
    if (fault && (fault->drop || fault->raw))
        exchange.status = 0;
    else if (fault && fault->status)
        exchange.status = *fault->status;
    exchange.body = line.body();
    exchange.body_size = line.body_size();
    trials_.record(std::move(exchange));
    if (fault)
        answer_with(*fault, call);
}

} // namespace kxcloud
