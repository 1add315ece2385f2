// kxkeygen: makes the secrets header of a build.
//
//     kxkeygen < CREDENTIAL > kx_secrets.h
//
// Standard input holds "client id:client secret". The header gets two new RSA key pairs as hex texts and the
// credential, enciphered with the cloud-drive pair. Keep the header as safe as the private keys it holds.
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include "common/owners.h"

namespace
{

constexpr size_t max_id = 61;
constexpr size_t max_secret = 64;

using key_ptr = owner<EVP_PKEY, EVP_PKEY_free>;
using context_ptr = owner<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using number_ptr = owner<BIGNUM, BN_clear_free>;

// Every component but the public exponent, which is the same for both pairs.
struct component_t {
    const char* name;      // in the header, behind the pair's prefix
    const char* parameter; // libcrypto's name of it
    int key_share;         // its size is the key's size divided by this
};
const component_t components[] = {
    {"COMMON_N", OSSL_PKEY_PARAM_RSA_N, 1},
    {"PRIVATE_D", OSSL_PKEY_PARAM_RSA_D, 1},
    {"SECRET_P", OSSL_PKEY_PARAM_RSA_FACTOR1, 2},
    {"SECRET_Q", OSSL_PKEY_PARAM_RSA_FACTOR2, 2},
    {"SECRET_DMP1", OSSL_PKEY_PARAM_RSA_EXPONENT1, 2},
    {"SECRET_DMQ1", OSSL_PKEY_PARAM_RSA_EXPONENT2, 2},
    {"SECRET_IQMP", OSSL_PKEY_PARAM_RSA_COEFFICIENT1, 2},
};

std::string hex(const std::vector<unsigned char>& bytes)
{
    std::string text;
    for (unsigned char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02X", byte);
        text += digits;
    }
    return text;
}

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "kxkeygen: %s\n", what);
    std::exit(1);
}

void print_key(EVP_PKEY* key, const char* prefix, const char* exponent, int bits)
{
    std::printf("#define %s_COMMON_E \"%s\"\n", prefix, exponent);
    for (const component_t& component : components) {
        number_ptr number;
        if (EVP_PKEY_get_bn_param(key, component.parameter, out(number)) != 1)
            fail("cannot read a key component");
        std::vector<unsigned char> bytes(bits / 8 / component.key_share);
        if (BN_bn2binpad(number.get(), bytes.data(), static_cast<int>(bytes.size())) < 0)
            fail("a key component is too large");
        std::printf("#define %s_%s \"%s\"\n", prefix, component.name, hex(bytes).c_str());
    }
}

key_ptr make_key(unsigned bits)
{
    key_ptr key(EVP_RSA_gen(bits));
    if (!key)
        fail("cannot make a key pair");
    return key;
}

std::string encipher(EVP_PKEY* key, const std::string& text)
{
    context_ptr context(EVP_PKEY_CTX_new(key, nullptr));
    size_t size = EVP_PKEY_get_size(key);
    std::vector<unsigned char> cipher(size);
    if (!context || EVP_PKEY_encrypt_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_encrypt(context.get(), cipher.data(), &size,
                         reinterpret_cast<const unsigned char*>(text.data()), text.size()) != 1)
        fail("cannot encipher the client credential");
    cipher.resize(size);
    return hex(cipher);
}

std::string read_credential()
{
    std::string text{std::istreambuf_iterator<char>(std::cin), {}};
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0 || colon > max_id || text.size() - colon - 1 > max_secret)
        fail("standard input must hold \"client id:client secret\" of at most 61 and 64 characters");
    return text;
}

} // namespace

int main()
{
    std::string credential = read_credential();
    std::printf("// Made by kxkeygen. Holds private keys: never commit it, never ship it.\n#pragma once\n\n");
    print_key(make_key(1024).get(), "KX_DROPBOX", "10001", 1024);
    key_ptr drive = make_key(2048);
    print_key(drive.get(), "KX_AMAZONDRIVE", "010001", 2048);
    std::printf("#define KX_CLIENT_CREDENTIAL \"%s\"\n", encipher(drive.get(), credential).c_str());
    return std::fflush(stdout) == 0 ? 0 : 1;
}
