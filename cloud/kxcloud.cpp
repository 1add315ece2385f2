// The local cloud server: options, start, and an orderly end on SIGTERM or SIGINT.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <getopt.h>
#include <string>
#include <thread>

#include <arpa/inet.h>

#include "cloud/control_door.h"
#include "cloud/path_door.h"
#include "cloud/rest_door.h"
#include "cloud/server.h"

namespace
{

using namespace kxcloud;

const char usage_text[] =
    "usage: kxcloud --listen HOST:PORT [options]\n"
    "  --listen HOST:PORT   address to serve; port 0 takes a free one\n"
    "  --store DIR          keep the drive here; without it nothing outlives the server\n"
    "  --tls-cert FILE --tls-key FILE   serve https with this certificate chain and key (PEM)\n"
    "  --page-size N        nodes on a page of a listing (200)\n"
    "  --list-trashed       listings and look-ups by name show trashed nodes too\n"
    "  --expose             allow an address that other machines can reach\n";

struct options_t {
    std::string host;
    int port = -1;
    bool expose = false;
    drive_options_t drive;
    tls_files_t tls;
};

bool read_address(const std::string& text, options_t& options)
{
    size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size())
        return false;
    options.host = text.substr(0, colon);
    if (options.host.front() == '[' && options.host.back() == ']')
        options.host = options.host.substr(1, options.host.size() - 2);
    char* end;
    long port = std::strtol(text.c_str() + colon + 1, &end, 10);
    options.port = static_cast<int>(port);
    return *end == '\0' && port >= 0 && port <= 65535;
}

bool read_options(int argc, char** argv, options_t& options)
{
    static const option names[] = {
        {"listen", required_argument, nullptr, 'l'},    {"store", required_argument, nullptr, 's'},
        {"tls-cert", required_argument, nullptr, 'c'},  {"tls-key", required_argument, nullptr, 'k'},
        {"page-size", required_argument, nullptr, 'p'}, {"list-trashed", no_argument, nullptr, 't'},
        {"expose", no_argument, nullptr, 'e'},          {},
    };
    bool good = true;
    for (int c; (c = getopt_long(argc, argv, "", names, nullptr)) != -1;) {
        switch (c) {
        case 'l':
            good = good && read_address(optarg, options);
            break;
        case 's':
            options.drive.store = optarg;
            break;
        case 'c':
            options.tls.certificate = optarg;
            break;
        case 'k':
            options.tls.key = optarg;
            break;
        case 'p':
            options.drive.page_size = std::atoll(optarg);
            break;
        case 't':
            options.drive.list_trashed = true;
            break;
        case 'e':
            options.expose = true;
            break;
        default:
            good = false;
        }
    }
    return good && optind == argc && options.port >= 0 && options.drive.page_size > 0 &&
           options.tls.certificate.empty() == options.tls.key.empty();
}

bool is_loopback(const std::string& host)
{
    in_addr v4;
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1)
        return ntohl(v4.s_addr) >> 24 == 127;
    return host == "::1" || host == "localhost";
}

// The first line holds the address alone, for programs that asked for a free port.
void print_places(const std::string& base, const options_t& options)
{
    std::printf("%s\n", base.c_str());
    std::printf("  account  %s/drive/v1/account/endpoint, %s/auth/o2/token\n", base.c_str(), base.c_str());
    std::printf("  drive    %s/metadata/, %s/content/\n", base.c_str(), base.c_str());
    std::printf("  files    %s/files/ (another client: curl is enough)\n", base.c_str());
    std::printf("  control  %s/control/ (for tests)\n", base.c_str());
    std::printf("  store    %s\n", options.drive.store.empty() ? "none" : options.drive.store.c_str());
    std::fflush(stdout);
}

int serve(const options_t& options)
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr); // inherited by every thread; one waits for them
    std::signal(SIGPIPE, SIG_IGN);

    drive store(options.drive);
    tokens access;
    trials tests;
    server web(rest_door(store, access, !options.tls.certificate.empty()),
               {{"/files", path_door(store)}, {"/control", control_door(store, access, tests)}}, tests, store,
               options.tls);
    int port = web.open(options.host, options.port);
    if (port <= 0) {
        std::fprintf(stderr, "kxcloud: cannot listen on %s:%d\n", options.host.c_str(), options.port);
        return 1;
    }
    std::thread waiter([&] {
        int number;
        sigwait(&ends, &number);
        web.end();
    });
    std::string host = options.host.find(':') == std::string::npos ? options.host : "[" + options.host + "]";
    print_places((web.secure() ? "https://" : "http://") + host + ":" + std::to_string(port), options);
    web.serve();
    waiter.join();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    options_t options;
    if (!read_options(argc, argv, options)) {
        std::fputs(usage_text, stderr);
        return 2;
    }
    if (!is_loopback(options.host) && !options.expose) {
        std::fprintf(stderr, "kxcloud: %s is no loopback address; --expose allows it\n",
                     options.host.c_str());
        return 2;
    }
    try {
        return serve(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kxcloud: %s\n", e.what());
        return 1;
    }
}
