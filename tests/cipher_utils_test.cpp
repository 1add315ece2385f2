#include "common/cipher_utils.h"

#include <algorithm>
#include <gmock/gmock.h>

#include "common/owners.h"
#include "common/secrets.h"
#include "support/process.h"
#include "support/support.h"

using namespace kxtest;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace
{

// The text and then null, so that a missing result differs from an empty one.
std::string text_of(char* text)
{
    string_ptr owned(text);
    return owned ? owned.get() : "(null)";
}

std::string seal(const std::string& text, int module)
{
    return text_of(encrypt_str2hexstr(text.c_str(), module));
}

std::string unseal(const std::string& hex, int module)
{
    return text_of(decrypt_hexstr2str(hex.c_str(), module));
}

} // namespace

TEST(Cipher, DeciphersWhatItEncipheredUpToTheBlockLimitOfEachKey)
{
    for (auto [module, limit, digits] : {std::tuple{0, 117, 256}, std::tuple{1, 245, 512}}) {
        for (int size : {1, 16, limit}) {
            std::string text(size, 'x'), hex = seal(text, module);
            EXPECT_THAT(hex, MatchesRegex("[0-9A-F]+"));
            EXPECT_EQ(hex.size(), digits);
            EXPECT_EQ(unseal(hex, module), text) << module << " " << size;
        }
        std::string log =
            log_of([&, m = module, l = limit] { EXPECT_EQ(seal(std::string(l + 1, 'x'), m), "(null)"); });
        EXPECT_THAT(log, MatchesRegex("debug: Encryption Error. err=[0-9]+ [^\n]+\n"));
    }
    std::string hex = seal("authorized", 1);
    std::transform(hex.begin(), hex.end(), hex.begin(), tolower);
    EXPECT_EQ(unseal(hex, 1), "authorized");
}

TEST(Cipher, RefusesWhatIsNoWholeBlockOrHasNoKey)
{
    const std::string unknown_2 = "error: Unknown module 2!\n", unknown_minus = "error: Unknown module -1!\n";
    const std::string odd = "debug: strlen(hexstr)=255\n";
    std::tuple<size_t, int, std::string> table[] = {
        {255, 0, odd}, {255, 2, odd}, {256, 2, unknown_2}, {256, -1, unknown_minus}, {768, 1, ""}, {0, 1, ""},
    };
    for (const auto& [digits, module, log] : table)
        EXPECT_EQ(
            log_of([&, d = digits, m = module] { EXPECT_EQ(unseal(std::string(d, 'A'), m), "(null)"); }),
            log);
    EXPECT_EQ(log_of([] { EXPECT_EQ(seal("x", 2), "(null)"); }), unknown_2);
    EXPECT_EQ(log_of([] { EXPECT_EQ(seal("x", -1), "(null)"); }), unknown_minus);
    EXPECT_EQ(seal("", 1), "");
    EXPECT_EQ(decrypt_hexstr2str(nullptr, 1), nullptr);
    EXPECT_EQ(encrypt_str2hexstr(nullptr, 1), nullptr);
    EXPECT_EQ(alloc_RSA(2), nullptr);
    // A number above the modulus can be no ciphertext.
    EXPECT_THAT(log_of([] { EXPECT_EQ(unseal(std::string(512, 'F'), 1), "(null)"); }),
                MatchesRegex("debug: Encryption Error. err=[0-9]+ [^\n]+\n"));
}

TEST(Cipher, TheBuildsClientCredentialIsReadable)
{
    EXPECT_EQ(std::string(kx_client_credential).size(), 512);
    EXPECT_THAT(unseal(kx_client_credential, 1), MatchesRegex("[^:]+:.+"));
}

TEST(Nonce, FillsExactlyTheLengthAskedForWithBase62)
{
    for (int length : {-1, 0, 1, 5, 7, 64}) {
        std::string text(70, '#');
        gen_nonce_str(text.data(), length);
        size_t filled = length < 0 ? 0 : static_cast<size_t>(length);
        EXPECT_EQ(text.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"),
                  filled);
        EXPECT_EQ(text.substr(filled), std::string(70 - filled, '#'));
    }
    std::string a(20, '#'), b = a;
    gen_nonce_str(a.data(), 20);
    gen_nonce_str(b.data(), 20);
    EXPECT_NE(a, b);
}

TEST(PlaintextSignature, EncodesBothSecretsAsOneValue)
{
    EXPECT_EQ(text_of(oauth_sign_plaintext("a b", nullptr)), "a%20b%26");
    EXPECT_EQ(text_of(oauth_sign_plaintext(nullptr, "aZ09-_.~")), "%26aZ09-_.~");
    EXPECT_EQ(text_of(oauth_sign_plaintext("%/+", "\xC3\xA4")), "%25%2F%2B%26%C3%A4");
    EXPECT_EQ(text_of(oauth_sign_plaintext(std::string(2000, 'a').c_str(), "b")), std::string(1023, 'a'));
}

// Runs kxseal with these words and what the printf arguments print as its input.
run_result_t run_kxseal(const std::string& printf_words, const std::string& words)
{
    return run({"/bin/sh", "-c", "printf " + printf_words + " | " + program("kxseal") + " " + words});
}

TEST(Kxseal, SealsItsInputUntrimmed)
{
    for (int module : {0, 1}) {
        run_result_t result = run_kxseal("' a b\\n'", std::to_string(module));
        EXPECT_EQ(result.status, 0);
        ASSERT_THAT(result.out, MatchesRegex("[0-9A-F]+\n"));
        EXPECT_EQ(unseal(result.out.substr(0, result.out.size() - 1), module), " a b\n");
    }
}

TEST(Kxseal, RefusesWhatItCannotSeal)
{
    struct {
        const char *input, *words;
    } table[] = {
        {"x", ""},        {"x", "2"},       {"x", "-1"},        {"x", "1 1"},
        {"%246s x", "1"}, {"%118s x", "0"}, {"'a\\000b'", "1"},
    };
    for (const auto& [input, words] : table) {
        run_result_t result = run_kxseal(input, words);
        EXPECT_EQ(result.status, 1) << words;
        EXPECT_EQ(result.out, "") << words;
        EXPECT_THAT(result.err, HasSubstr("kxseal")) << words;
    }
}
