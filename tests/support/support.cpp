#include "support/support.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <openssl/evp.h>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "common/cipher_utils.h"
#include "common/constants.h"
#include "common/owners.h"
#include "common/utils.h"

namespace fs = std::filesystem;

namespace kxtest
{

namespace
{

// Removes this program's own folder at its end; a forked child that ends through exit() leaves it alone.
struct sysroot_cleaner {
    pid_t program = getpid();

    ~sysroot_cleaner()
    {
        if (getpid() == program && !std::getenv("KXTEST_SYSROOT")) {
            std::error_code ignored;
            fs::remove_all(sysroot(), ignored);
        }
    }
} cleaner;

} // namespace

std::string new_folder(const std::string& name)
{
    static int count = 0;
    fs::path folder = fs::path(sysroot()) / (name + std::to_string(++count));
    fs::create_directories(folder);
    return folder;
}

void write_file(const std::string& path, const std::string& content, time_t mtime)
{
    fs::create_directories(fs::path(path).parent_path());
    fd_owner fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666));
    if (!fd || write(fd.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        throw std::runtime_error("cannot write " + path);
    timespec times[2] = {{mtime, 0}, {mtime, 0}};
    if (mtime != 0)
        futimens(fd.get(), times);
}

std::string read_file(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

bool exists(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

time_t mtime_of(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mtime : 0;
}

std::vector<std::string> tree_of(const std::string& folder)
{
    std::vector<std::string> paths;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        paths.push_back(entry.path().lexically_relative(folder).string() + (entry.is_directory() ? "/" : ""));
    std::sort(paths.begin(), paths.end());
    return paths;
}

contents_t contents_of(const std::string& folder)
{
    contents_t contents;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        contents[entry.path().lexically_relative(folder)] =
            entry.is_directory() ? "" : md5_of(read_file(entry.path()));
    return contents;
}

std::string md5_of(const std::string& text)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    EVP_Digest(text.data(), text.size(), digest, &size, EVP_md5(), nullptr);
    std::string hex;
    for (unsigned i = 0; i < 2 * size; i++)
        hex += "0123456789abcdef"[digest[i / 2] >> (i % 2 ? 0 : 4) & 15];
    return hex;
}

std::string output_of(int fd, const std::function<void()>& run)
{
    std::fflush(nullptr);
    FILE* file = std::tmpfile();
    int saved = dup(fd);
    dup2(fileno(file), fd);
    run();
    std::fflush(nullptr);
    dup2(saved, fd);
    close(saved);
    std::string text;
    std::rewind(file);
    for (int c; (c = std::fgetc(file)) != EOF;)
        text.push_back(static_cast<char>(c));
    std::fclose(file);
    return text;
}

std::string log_of(const std::function<void()>& run, int verbosity)
{
    int verbose = std::exchange(g_verbose, verbosity);
    int nosystemd = std::exchange(g_nosystemd, 1);
    std::string raw = output_of(2, run);
    g_verbose = verbose;
    g_nosystemd = nosystemd;
    // Places first: a debug line opens with the very escape that closes every line.
    raw = std::regex_replace(raw, std::regex("\x1b\\[[0-9]+m[^ \x1b]*\\(([a-z]+)\\) "), "$1: ");
    return std::regex_replace(raw, std::regex("\x1b\\[39m"), "");
}

std::string events_in(const std::string& path)
{
    std::string text = read_file(path);
    text = std::regex_replace(text, std::regex("<Log .*\"LOGMSG_AMAZONDRIVE_([A-Z_]*)\"><args"), "$1");
    text = std::regex_replace(text, std::regex(" item_[0-9]+=\"([^\"]*)\""), " $1");
    return std::regex_replace(text, std::regex("/></Log>"), "");
}

void write_settings(const std::string& lines, const std::string& provision)
{
    string_ptr sealed(encrypt_str2hexstr(provision.c_str(), 1));
    write_file(kx_settings_path, std::string("AMAZONDRIVE_PROVISION=") + sealed.get() + "\n" + lines);
}

bool eventually(const std::function<bool()>& condition, double seconds)
{
    seconds *= setting("KXTEST_SLOWNESS", 1);
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

} // namespace kxtest
