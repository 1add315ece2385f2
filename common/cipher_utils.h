// Secrets at rest: RSA ciphertext written in hexadecimal, enciphered with one of the two key pairs of the
// build. module 0 is the 1024-bit pair, module 1 the 2048-bit cloud-drive pair. Returned strings belong to
// the caller.
#pragma once

#include <cstdint>
#include <openssl/types.h>

// A new key object for module 0 or 1 (the caller frees it with RSA_free); null for any other number.
RSA* alloc_RSA(int module);

// The plaintext of one enciphered block of hex digits. Null for null or empty input, a length that is not a
// whole number of blocks, an unknown module, or a block that does not decipher.
char* decrypt_hexstr2str(const char* hexstr, int module);

// Enciphers str (at most 117 bytes for module 0, 245 for module 1) as uppercase hex digits. Null when it
// cannot; an empty text gives an empty text.
char* encrypt_str2hexstr(const char* str, int module);

// Four bytes of the cryptographic random generator.
int32_t get_rand32();

// Fills exactly len characters of str with random base-62 digits; writes no NUL. len below 1 does nothing.
void gen_nonce_str(char* str, int len);

// "consumer_secret&token_secret" percent-encoded as one parameter value; null counts as empty.
char* oauth_sign_plaintext(const char* consumer_secret, const char* token_secret);
