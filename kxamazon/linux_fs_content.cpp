#include "kxamazon/linux_fs.h"

#include <fcntl.h>
#include <memory>
#include <openssl/evp.h>
#include <string>
#include <strings.h>
#include <sys/stat.h>

#include "common/owners.h"

namespace
{

constexpr size_t block_size = 256 * 1024;

using digest_ptr = owner<EVP_MD_CTX, EVP_MD_CTX_free>;

// The MD5 of what can be read from the file, as lower-case hex digits; empty on failure.
std::string md5_of(int fd)
{
    const digest_ptr digest(EVP_MD_CTX_new());
    if (!digest || !EVP_DigestInit_ex(digest.get(), EVP_md5(), nullptr))
        return "";
    const std::unique_ptr<char[]> block(new char[block_size]);
    ssize_t got;
    while ((got = read(fd, block.get(), block_size)) > 0)
        EVP_DigestUpdate(digest.get(), block.get(), static_cast<size_t>(got));
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (got < 0 || !EVP_DigestFinal_ex(digest.get(), bytes, &length))
        return "";
    std::string text;
    for (unsigned i = 0; i < length; ++i)
        for (const int digit : {bytes[i] >> 4, bytes[i] & 15})
            text += "0123456789abcdef"[digit];
    return text;
}

} // namespace

int linux_fs_has_content(const char* path, uint64_t size_byte, const char* md5)
{
    struct stat st;
    if (lstat(path, &st) != 0 || !S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) != size_byte)
        return 0;
    if (size_byte == 0)
        return 1;
    const fd_owner file(open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    return file && md5 && strcasecmp(md5_of(file.get()).c_str(), md5) == 0 && *md5 ? 1 : 0;
}
