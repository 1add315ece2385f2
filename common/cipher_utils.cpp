// The key components come as plain numbers, which only libcrypto's older RSA interface takes as they are.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "common/cipher_utils.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include "common/owners.h"
#include "common/secrets.h"
#include "common/utils.h"

namespace
{

using bytes_t = std::vector<unsigned char>;
using rsa_ptr = owner<RSA, RSA_free>;
using number_ptr = owner<BIGNUM, BN_clear_free>;

constexpr size_t hex_unit = 256; // every ciphertext's length is a multiple of this, whatever the key
constexpr int base62_group = 5;  // digits drawn from one random number

const char base62[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
const char dec2hex[] = "0123456789ABCDEF";

int _hex2dec(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return 0;
}

char _dec2hex(int v)
{
    return v >= 0 && v <= 15 ? dec2hex[v] : '0';
}

bytes_t hex_to_bytes(const char* digits, size_t count)
{
    bytes_t bytes(count);
    for (size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<unsigned char>(_hex2dec(digits[2 * i]) << 4 | _hex2dec(digits[2 * i + 1]));
    return bytes;
}

char* bytes_to_hex(const bytes_t& bytes)
{
    std::string hex;
    hex.reserve(2 * bytes.size());
    for (unsigned char byte : bytes) {
        hex += _dec2hex(byte >> 4);
        hex += _dec2hex(byte & 15);
    }
    return safe_strdup(hex.c_str());
}

number_ptr to_number(const char* hex)
{
    number_ptr number;
    BN_hex2bn(out(number), hex);
    return number;
}

RSA* alloc_RSA_of(const rsa_components_t& key)
{
    rsa_ptr rsa(RSA_new());
    number_ptr n = to_number(key.common_n), e = to_number(key.common_e), d = to_number(key.private_d);
    number_ptr p = to_number(key.secret_p), q = to_number(key.secret_q);
    number_ptr dmp1 = to_number(key.secret_dmp1), dmq1 = to_number(key.secret_dmq1);
    number_ptr iqmp = to_number(key.secret_iqmp);
    if (!rsa || !n || !e || !d || !p || !q || !dmp1 || !dmq1 || !iqmp)
        return nullptr;
    // None of these fails once no number is missing; the key owns them from here on.
    RSA_set0_key(rsa.get(), n.release(), e.release(), d.release());
    RSA_set0_factors(rsa.get(), p.release(), q.release());
    RSA_set0_crt_params(rsa.get(), dmp1.release(), dmq1.release(), iqmp.release());
    return rsa.release();
}

RSA* alloc_RSA_dropbox()
{
    return alloc_RSA_of(kx_dropbox_key);
}

RSA* alloc_RSA_amazondrive()
{
    return alloc_RSA_of(kx_amazondrive_key);
}

bool known_module(int module)
{
    if (static_cast<unsigned>(module) <= 1)
        return true;
    LOG_ERROR("Unknown module %d!\n", module);
    return false;
}

void log_encryption_errors()
{
    ERR_load_crypto_strings();
    while (unsigned long err = ERR_get_error()) {
        const char* reason = ERR_reason_error_string(err);
        LOG_DEBUG("Encryption Error. err=%lu %s\n", err, reason ? reason : "");
    }
}

// One block through the key, appended to result; the queued errors are logged when it fails.
bool append_block(decltype(&RSA_public_encrypt) transform, RSA* rsa, const unsigned char* block, size_t size,
                  bytes_t& result)
{
    size_t before = result.size();
    result.resize(before + static_cast<size_t>(RSA_size(rsa)));
    int length = transform(static_cast<int>(size), block, result.data() + before, rsa, RSA_PKCS1_PADDING);
    if (length < 0) {
        log_encryption_errors();
        return false;
    }
    result.resize(before + static_cast<size_t>(length));
    return true;
}

// Five base-62 digits of a number, most significant first.
void int32_to_base62x5(int32_t number, char* digits)
{
    for (int i = base62_group - 1; i >= 0; --i, number /= 62)
        digits[i] = base62[number % 62];
}

bool is_unreserved(char c)
{
    return c != '\0' && (std::strchr(base62, c) || std::strchr("-_.~", c));
}

char* percent_encode(const char* text)
{
    std::string encoded;
    for (const char* c = text; *c; ++c) {
        if (is_unreserved(*c)) {
            encoded += *c;
            continue;
        }
        auto byte = static_cast<unsigned char>(*c);
        encoded += {'%', _dec2hex(byte >> 4), _dec2hex(byte & 15)};
    }
    return safe_strdup(encoded.c_str());
}

} // namespace

RSA* alloc_RSA(int module)
{
    switch (module) {
    case 0:
        return alloc_RSA_dropbox();
    case 1:
        return alloc_RSA_amazondrive();
    default:
        return nullptr;
    }
}

char* decrypt_hexstr2str(const char* hexstr, int module)
{
    if (!hexstr)
        return nullptr;
    size_t length = std::strlen(hexstr);
    if (length % hex_unit != 0) {
        LOG_DEBUG("strlen(hexstr)=%zu\n", length);
        return nullptr;
    }
    if (!known_module(module))
        return nullptr;
    rsa_ptr rsa(alloc_RSA(module));
    size_t rsa_size = rsa ? static_cast<size_t>(RSA_size(rsa.get())) : 0;
    if (!rsa || length == 0 || length % (2 * rsa_size) != 0)
        return nullptr;
    bytes_t plain;
    for (size_t at = 0; at < length; at += 2 * rsa_size) {
        bytes_t block = hex_to_bytes(hexstr + at, rsa_size);
        if (!append_block(RSA_private_decrypt, rsa.get(), block.data(), block.size(), plain))
            return nullptr;
    }
    plain.push_back('\0');
    return safe_strdup(reinterpret_cast<const char*>(plain.data()));
}

char* encrypt_str2hexstr(const char* str, int module)
{
    if (!str || !known_module(module))
        return nullptr;
    rsa_ptr rsa(alloc_RSA(module));
    if (!rsa)
        return nullptr;
    size_t length = std::strlen(str), rsa_size = static_cast<size_t>(RSA_size(rsa.get()));
    auto bytes = reinterpret_cast<const unsigned char*>(str);
    bytes_t cipher;
    for (size_t at = 0; at < length; at += rsa_size) {
        size_t piece = std::min(rsa_size, length - at);
        if (!append_block(RSA_public_encrypt, rsa.get(), bytes + at, piece, cipher))
            return nullptr;
    }
    return bytes_to_hex(cipher);
}

int32_t get_rand32()
{
    int32_t number = 0;
    RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof number);
    return number;
}

void gen_nonce_str(char* str, int len)
{
    for (int at = 0; at < len; at += base62_group) {
        char digits[base62_group];
        int32_to_base62x5(get_rand32() & 0x3FFFFFFF, digits);
        std::copy_n(digits, std::min(base62_group, len - at), str + at);
    }
}

char* oauth_sign_plaintext(const char* consumer_secret, const char* token_secret)
{
    char joined[1024];
    safe_snprintf(joined, sizeof joined, "%s&%s", consumer_secret ? consumer_secret : "",
                  token_secret ? token_secret : "");
    return percent_encode(joined);
}
