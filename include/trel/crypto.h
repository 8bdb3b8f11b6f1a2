/* libtrel crypto and encoding: AES (block and AES-128-CBC), SHA-256, Base64. */
#ifndef TREL_CRYPTO_H
#define TREL_CRYPTO_H

#include <stddef.h>
#include <stdint.h>

#include <trel/common.h>

TREL_BEGIN_DECLS

/* ---- AES ------------------------------------------------------------------ */

/* Key schedules for 128, 192 or 256-bit keys (4 x (rounds + 1) words used). */
typedef struct rijndael_context rijndael_context;
struct rijndael_context {
    int32_t encrypt_only;
    int32_t rounds;
    uint32_t enc_schedule[60];
    uint32_t dec_schedule[60];
};

/* Build the encryption (decryption) round keys of a 128, 192 or 256-bit key
 * into rk: the number of rounds (10, 12, 14), 0 for another key size or a
 * null argument. */
int rijndaelKeySetupEnc(uint32_t rk[60], const uint8_t *key, int keybits) TREL_NOEXCEPT;
int rijndaelKeySetupDec(uint32_t rk[60], const uint8_t *key, int keybits) TREL_NOEXCEPT;
/* Encrypts one block with round keys from rijndaelKeySetupEnc; in and out
 * may be the same.  Nothing for a null argument or rounds outside 1..14. */
void rijndaelEncrypt(const uint32_t rk[], int rounds, const uint8_t in[16],
                     uint8_t out[16]) TREL_NOEXCEPT;

/* Fill ctx with the encryption schedule only, or with both: 0, or -1 for an
 * unsupported key size or a null argument. */
int rijndael_set_key_enc_only(rijndael_context *ctx, const uint8_t *key, int keybits) TREL_NOEXCEPT;
int rijndael_set_key(rijndael_context *ctx, const uint8_t *key, int keybits) TREL_NOEXCEPT;
/* One block; src and dst may be the same buffer.  Decryption needs a context
 * from rijndael_set_key.  Nothing for a null argument. */
void rijndael_encrypt(const rijndael_context *ctx, const uint8_t src[16],
                      uint8_t dst[16]) TREL_NOEXCEPT;
void rijndael_decrypt(const rijndael_context *ctx, const uint8_t src[16],
                      uint8_t dst[16]) TREL_NOEXCEPT;

/* len random IV bytes: gen_rand_bytes and its result (rand()-based, not a
 * cryptographic source). */
int aes_cbc_generate_iv(uint8_t *iv, size_t len) TREL_NOEXCEPT;
/* AES-128-CBC in place, no padding; iv is not modified.  0, or -1 when len is
 * not a multiple of 16 (decryption also refuses 0) or an argument is null;
 * refused data is left as it was. */
int aes_cbc_encrypt_128(const uint8_t key[16], const uint8_t iv[16], uint8_t *data,
                        size_t len) TREL_NOEXCEPT;
int aes_cbc_decrypt_128(const uint8_t key[16], const uint8_t iv[16], uint8_t *data,
                        size_t len) TREL_NOEXCEPT;

/* ---- SHA-256 ---------------------------------------------------------------- */

/* The bit count is kept in 32 bits: inputs of 512 MiB or more hash differently
 * from the standard digest. */
typedef struct sha256_context sha256_context;
struct sha256_context {
    uint32_t tot_len;
    uint32_t len;
    uint8_t block[128];
    uint32_t h[8];
};

/* Incremental digest in a caller's context: init, any number of updates,
 * final (digest big-endian); sha256 does all three.  No result; a null
 * context, or null data with a non-zero len, does nothing. */
void sha256_init(sha256_context *ctx) TREL_NOEXCEPT;
void sha256_update(sha256_context *ctx, const uint8_t *data, uint32_t len) TREL_NOEXCEPT;
void sha256_final(sha256_context *ctx, uint8_t digest[32]) TREL_NOEXCEPT;
void sha256(const uint8_t *data, uint32_t len, uint8_t digest[32]) TREL_NOEXCEPT;

/* ---- Base64 ------------------------------------------------------------------ */

/* Output sizes including the NUL. */
int base64_encode_len(int32_t len) TREL_NOEXCEPT;
int base64url_encode_len(int32_t len) TREL_NOEXCEPT;
/* Upper bound of the decoded size plus one. */
int base64_decode_len(const char *encoded) TREL_NOEXCEPT;
int base64url_decode_len(const char *encoded) TREL_NOEXCEPT;

/* Standard alphabet with '=' padding / URL-safe alphabet without padding
 * into out, which holds base64_encode_len(len) bytes; the output is
 * NUL-terminated and the result carries no meaning. */
int base64rfc_encode(char *out, const uint8_t *in, int32_t len) TREL_NOEXCEPT;
int base64url_encode(char *out, const uint8_t *in, int32_t len) TREL_NOEXCEPT;
/* Into out, which holds base64_decode_len(encoded) bytes, NUL-terminated.
 * Both accept either alphabet and stop at the first foreign byte ('=' too).
 * Nothing for a null out. */
void base64_decode(uint8_t *out, const char *encoded) TREL_NOEXCEPT;
void base64url_decode(uint8_t *out, const char *encoded) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
