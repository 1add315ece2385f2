#include "common/cipher_utils.h"

#include <algorithm>
#include <gmock/gmock.h>

#include "common/owners.h"
#include "common/secrets.h"
#include "support/process.h"
#include "support/support.h"

using namespace kxtest;
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
    const std::string odd = "debug: strlen\\(hexstr\\)=255\n", unknown = "error: Unknown module 2!\n";
    // The last is a number above the modulus, which can be no ciphertext.
    const std::tuple<size_t, char, int, std::string> rows[] = {
        {255, 'A', 0, odd},
        {256, 'A', 2, unknown},
        {768, 'A', 1, ""},
        {0, 'A', 1, ""},
        {512, 'F', 1, "debug: Encryption Error. err=[0-9]+ [^\n]+\n"},
    };
    for (const auto& [digits, digit, module, log] : rows)
        EXPECT_THAT(log_of([&, n = digits, c = digit, m = module] {
                        EXPECT_EQ(unseal(std::string(n, c), m), "(null)");
                    }),
                    MatchesRegex(log));
    EXPECT_EQ(log_of([] { EXPECT_EQ(seal("x", 2), "(null)"); }), unknown);
    EXPECT_EQ(seal("", 1), "");
    EXPECT_EQ(decrypt_hexstr2str(nullptr, 1), nullptr);
    EXPECT_EQ(encrypt_str2hexstr(nullptr, 1), nullptr);
    EXPECT_THAT(unseal(kx_client_credential, 1), MatchesRegex("[^:]+:.+")) << "the build's own";
}

TEST(Nonce, FillsExactlyTheLengthAskedForWithBase62)
{
    for (int length : {-1, 0, 1, 64}) {
        std::string text(70, '#');
        gen_nonce_str(text.data(), length);
        size_t filled = length < 0 ? 0 : static_cast<size_t>(length);
        EXPECT_EQ(text.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"),
                  filled);
        EXPECT_EQ(text.substr(filled), std::string(70 - filled, '#'));
    }
}

TEST(PlaintextSignature, EncodesBothSecretsAsOneValue)
{
    EXPECT_EQ(text_of(oauth_sign_plaintext("a b", nullptr)), "a%20b%26");
    EXPECT_EQ(text_of(oauth_sign_plaintext("%/+", "\xC3\xA4_")), "%25%2F%2B%26%C3%A4_");
    EXPECT_EQ(text_of(oauth_sign_plaintext(std::string(2000, 'a').c_str(), "b")), std::string(1023, 'a'));
}

TEST(Kxseal, SealsItsInputUntrimmedOrNothing)
{
    const struct {
        const char *input, *words, *text;
    } rows[] = {{"' a b\\n'", "1", " a b\n"}, {"x", "2", nullptr},       {"x", "1 1", nullptr},
                {"x", "", nullptr},           {"%118s x", "0", nullptr}, {"'a\\000b'", "1", nullptr}};
    for (const auto& [input, words, text] : rows) {
        const std::string line = std::string("printf ") + input + " | " + program("kxseal") + " " + words;
        const run_result_t result = run({"/bin/sh", "-c", line});
        EXPECT_EQ(result.status, text ? 0 : 1) << words;
        EXPECT_EQ(result.out.empty(), text == nullptr) << words;
        EXPECT_EQ(result.err.empty(), text != nullptr) << words;
        if (text) {
            EXPECT_EQ(unseal(result.out.substr(0, result.out.size() - 1), 1), text);
        }
    }
}
