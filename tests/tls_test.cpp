// Which servers the engine talks to over TLS.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "common/owners.h"
#include "kxamazon/acd_fs_io.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/global.h"
#include "support/cloud.h"
#include "support/support.h"

using namespace kxtest;

namespace
{

using key_ptr = owner<EVP_PKEY, EVP_PKEY_free>;
using certificate_ptr = owner<X509, X509_free>;
using extension_ptr = owner<X509_EXTENSION, X509_EXTENSION_free>;

constexpr long day = 24 * 60 * 60;

std::string trusted; // the authorities that the system trusts

void set_name(X509_NAME* name, const char* text)
{
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(text), -1, -1,
                               0);
}

void add_extension(X509* certificate, int kind, const char* value)
{
    extension_ptr extension(X509V3_EXT_conf_nid(nullptr, nullptr, kind, value));
    X509_add_ext(certificate, extension.get(), -1);
}

// Signed by the issuer and its key, or by itself.
certificate_ptr certify(EVP_PKEY* key, const char* name, X509* issuer, EVP_PKEY* issuer_key, const char* host,
                        long valid_sec)
{
    static long serial = 0;
    certificate_ptr certificate(X509_new());
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -2 * day);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), valid_sec);
    X509_set_pubkey(certificate.get(), key);
    set_name(X509_get_subject_name(certificate.get()), name);
    X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer ? issuer : certificate.get()));
    add_extension(certificate.get(), NID_basic_constraints, host ? "CA:FALSE" : "critical,CA:TRUE");
    if (host)
        add_extension(certificate.get(), NID_subject_alt_name, host);
    X509_sign(certificate.get(), issuer_key ? issuer_key : key, EVP_sha256());
    return certificate;
}

std::string write_certificate(const std::string& path, X509* certificate)
{
    file_ptr file(fopen(path.c_str(), "w"));
    PEM_write_X509(file.get(), certificate);
    return path;
}

} // namespace

// Stands before libcurl's: what a machine trusts is a list of files that a test must not touch.
extern "C" CURLcode curl_easy_perform(CURL* curl)
{
    static auto perform = reinterpret_cast<CURLcode (*)(CURL*)>(dlsym(RTLD_NEXT, "curl_easy_perform"));
    if (!trusted.empty())
        curl_easy_setopt(curl, CURLOPT_CAINFO, trusted.c_str());
    return perform(curl);
}

TEST(Tls, OnlyAServerThatATrustedAuthorityNamesIsTalkedTo)
{
    const std::string folder = new_folder();
    key_ptr authority_key(EVP_RSA_gen(2048)), key(EVP_RSA_gen(2048));
    certificate_ptr authority =
        certify(authority_key.get(), "private authority", nullptr, nullptr, nullptr, day);
    const std::string authority_file = write_certificate(folder + "/authority.pem", authority.get());
    const std::string key_file = folder + "/key.pem";
    PEM_write_PrivateKey(file_ptr(fopen(key_file.c_str(), "w")).get(), key.get(), nullptr, nullptr, 0,
                         nullptr, nullptr);
    struct {
        const char* what;
        bool is_signed;
        bool is_trusted;
        const char* host;
        long valid_sec;
        bool is_accepted;
    } rows[] = {
        {"a private authority that the system trusts", true, true, "IP:127.0.0.1", day, true},
        {"an authority that it does not know", true, false, "IP:127.0.0.1", day, false},
        {"self-signed", false, true, "IP:127.0.0.1", day, false},
        {"another host", true, true, "DNS:elsewhere.invalid,IP:127.0.0.2", day, false},
        {"expired", true, true, "IP:127.0.0.1", -day, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        certificate_ptr certificate =
            certify(key.get(), "server", row.is_signed ? authority.get() : nullptr,
                    row.is_signed ? authority_key.get() : nullptr, row.host, row.valid_sec);
        cloud server({"--tls-cert", write_certificate(folder + "/server.pem", certificate.get()), "--tls-key",
                      key_file});
        server.connect();
        trusted = row.is_trusted ? authority_file : "";
        reply_t reply;
        const std::string log = log_of([&] {
            EXPECT_EQ(acd_io_get_account_quota(&reply),
                      row.is_accepted ? ACD_FS_ERR_OK : ACD_FS_IO_ERR_READ_WRITE_ERROR);
        });
        EXPECT_EQ(log.find("acd io read write error. 60, ") != std::string::npos, !row.is_accepted) << log;
        EXPECT_EQ(server.requests().empty(), !row.is_accepted)
            << "no token reaches a server that is not known";
    }
    _free_global();
}
