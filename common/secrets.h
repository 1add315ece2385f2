// The deployment secrets that this build was made with: both key pairs and the enciphered client credential.
// They come from the header that KXAMAZON_SECRETS names (tools/kxkeygen makes one) and live for the whole
// program.
#pragma once

// One RSA key pair as uppercase hex texts, most significant digit first.
struct rsa_components_t {
    const char* common_n;
    const char* common_e;
    const char* private_d;
    const char* secret_p;
    const char* secret_q;
    const char* secret_dmp1;
    const char* secret_dmq1;
    const char* secret_iqmp;
};

extern const rsa_components_t kx_dropbox_key;     // module 0, 1024 bits
extern const rsa_components_t kx_amazondrive_key; // module 1, 2048 bits

// "client id:client secret" enciphered with the cloud-drive key: 512 hex digits.
extern const char* const kx_client_credential;
