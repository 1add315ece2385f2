#include "cloud/bodies.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <unistd.h>

#include <openssl/evp.h>

#include "cloud/text.h"

namespace fs = std::filesystem;

namespace kxcloud
{

namespace
{

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

std::string temporary_folder()
{
    std::string name = fs::temp_directory_path() / "kxcloud-XXXXXX";
    if (!mkdtemp(name.data()))
        fail(name);
    return name;
}

} // namespace

bodies::bodies(const std::string& store)
    : folder_(store.empty() ? temporary_folder() : store + "/bodies"), temporary_(store.empty())
{
    fs::remove_all(incoming());
    fs::create_directories(incoming());
}

bodies::~bodies()
{
    std::error_code ignored;
    if (temporary_)
        fs::remove_all(folder_, ignored);
}

// Spread over 4096 folders, so that none of them grows large.
std::string bodies::path_of(const std::string& name) const
{
    return folder_ + "/" + name.substr(0, 2) + "/" + name;
}

void bodies::remove(const std::string& name) const
{
    if (!name.empty())
        unlink(path_of(name).c_str());
}

body_writer::body_writer(const bodies& where) : where_(where), digest_(EVP_MD_CTX_new(), EVP_MD_CTX_free)
{
    EVP_DigestInit_ex(digest_.get(), EVP_md5(), nullptr);
}

body_writer::~body_writer()
{
    if (fd_ != -1)
        close(fd_);
    if (kept_ || body_.name.empty())
        return;
    unlink((where_.incoming() + body_.name).c_str());
    where_.remove(body_.name);
}

void body_writer::write(const char* data, size_t size)
{
    if (size == 0)
        return;
    if (fd_ == -1) {
        body_.name = random_name();
        std::string path = where_.incoming() + body_.name;
        fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd_ == -1)
            fail(path);
    }
    EVP_DigestUpdate(digest_.get(), data, size);
    body_.size += static_cast<int64_t>(size);
    while (size > 0) {
        ssize_t n = ::write(fd_, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            fail(body_.name);
        data += n;
        size -= static_cast<size_t>(n);
    }
}

const body_t& body_writer::finish()
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_DigestFinal_ex(digest_.get(), digest, &length);
    for (unsigned i = 0; i < length; ++i) {
        body_.md5.push_back("0123456789abcdef"[digest[i] >> 4]);
        body_.md5.push_back("0123456789abcdef"[digest[i] & 15]);
    }
    if (!body_.name.empty()) {
        fs::path place = where_.path_of(body_.name);
        fs::create_directory(place.parent_path());
        fs::rename(where_.incoming() + body_.name, place);
    }
    return body_;
}

} // namespace kxcloud
