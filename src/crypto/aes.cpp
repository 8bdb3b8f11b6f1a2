// AES (FIPS-197), table-driven, and AES-128-CBC without padding.
#include <stdint.h>
#include <string.h>

#include <array>

#include <trel/core.h>
#include <trel/crypto.h>

#include "core/api.h"

#include "crypto/bytes.h"

namespace {

// ---- Tables, computed at compile time from GF(2^8) arithmetic ---------------

constexpr uint8_t xtime(uint8_t x) { return (uint8_t)((x << 1) ^ ((x & 0x80) ? 0x1b : 0)); }

constexpr uint8_t gmul(uint8_t a, uint8_t b) {
    uint8_t r = 0;
    while (b != 0) {
        if (b & 1) r ^= a;
        a = xtime(a);
        b >>= 1;
    }
    return r;
}

constexpr uint8_t rotl8(uint8_t x, int n) { return (uint8_t)((x << n) | (x >> (8 - n))); }

// Walks the multiplicative group with generator 3: p runs through 3^k while q
// runs through its inverse 3^-k, so each step pairs a byte with its inverse.
constexpr std::array<uint8_t, 256> make_sbox() {
    std::array<uint8_t, 256> s{};
    uint8_t p = 1, q = 1;
    do {
        p = (uint8_t)(p ^ xtime(p));
        q = (uint8_t)(q ^ (q << 1));
        q = (uint8_t)(q ^ (q << 2));
        q = (uint8_t)(q ^ (q << 4));
        if (q & 0x80) q ^= 0x09;
        s[p] = (uint8_t)(q ^ rotl8(q, 1) ^ rotl8(q, 2) ^ rotl8(q, 3) ^ rotl8(q, 4) ^ 0x63);
    } while (p != 1);
    s[0] = 0x63;  // 0 has no inverse
    return s;
}

constexpr std::array<uint8_t, 256> kSbox = make_sbox();

constexpr std::array<uint8_t, 256> make_inv_sbox() {
    std::array<uint8_t, 256> s{};
    for (int x = 0; x < 256; x++) s[kSbox[x]] = (uint8_t)x;
    return s;
}

constexpr std::array<uint8_t, 256> kInvSbox = make_inv_sbox();

constexpr uint32_t word(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    return ((uint32_t)a << 24) | ((uint32_t)b << 16) | ((uint32_t)c << 8) | d;
}

constexpr uint32_t ror(uint32_t w, int n) { return (w >> n) | (w << (32 - n)); }

// Te0[x] = S[x].{02,01,01,03}; Te1..Te3 are byte rotations of Te0.
constexpr std::array<uint32_t, 256> make_te(int rot) {
    std::array<uint32_t, 256> t{};
    for (int x = 0; x < 256; x++) {
        uint8_t s = kSbox[x];
        uint32_t w = word(gmul(s, 2), s, s, gmul(s, 3));
        t[x] = rot == 0 ? w : ror(w, 8 * rot);
    }
    return t;
}

// Td0[x] = Si[x].{0e,09,0d,0b}; Td1..Td3 are byte rotations of Td0.
constexpr std::array<uint32_t, 256> make_td(int rot) {
    std::array<uint32_t, 256> t{};
    for (int x = 0; x < 256; x++) {
        uint8_t s = kInvSbox[x];
        uint32_t w = word(gmul(s, 14), gmul(s, 9), gmul(s, 13), gmul(s, 11));
        t[x] = rot == 0 ? w : ror(w, 8 * rot);
    }
    return t;
}

alignas(64) constexpr std::array<uint32_t, 256> Te0 = make_te(0);
alignas(64) constexpr std::array<uint32_t, 256> Te1 = make_te(1);
alignas(64) constexpr std::array<uint32_t, 256> Te2 = make_te(2);
alignas(64) constexpr std::array<uint32_t, 256> Te3 = make_te(3);
alignas(64) constexpr std::array<uint32_t, 256> Td0 = make_td(0);
alignas(64) constexpr std::array<uint32_t, 256> Td1 = make_td(1);
alignas(64) constexpr std::array<uint32_t, 256> Td2 = make_td(2);
alignas(64) constexpr std::array<uint32_t, 256> Td3 = make_td(3);

constexpr uint32_t rcon[10] = {0x01000000, 0x02000000, 0x04000000, 0x08000000, 0x10000000,
                               0x20000000, 0x40000000, 0x80000000, 0x1b000000, 0x36000000};

// Spot checks against the published tables.
static_assert(kSbox[0x00] == 0x63 && kSbox[0x53] == 0xed && kSbox[0xff] == 0x16);
static_assert(kInvSbox[0x00] == 0x52 && kInvSbox[0xff] == 0x7d);
static_assert(Te0[0] == 0xc66363a5 && Te0[1] == 0xf87c7c84 && Te1[0] == 0xa5c66363 &&
              Te3[0] == 0x6363a5c6);
static_assert(Td0[0] == 0x51f4a750 && Td0[1] == 0x7e416553 && Td1[0] == 0x5051f4a7 &&
              Td3[0] == 0xf4a75051);

using trel::load_be;
using trel::store_be;

inline uint32_t sub_word(uint32_t w) {
    return word(kSbox[w >> 24], kSbox[(w >> 16) & 0xff], kSbox[(w >> 8) & 0xff], kSbox[w & 0xff]);
}

inline int rounds_for(int keybits) {
    switch (keybits) {
        case 128:
            return 10;
        case 192:
            return 12;
        case 256:
            return 14;
        default:
            return 0;
    }
}

// One block through the forward tables; in and out may alias.
inline void encrypt_block(const uint32_t *rk, int rounds, const uint8_t *in, uint8_t *out) {
    uint32_t s0 = load_be(in) ^ rk[0];
    uint32_t s1 = load_be(in + 4) ^ rk[1];
    uint32_t s2 = load_be(in + 8) ^ rk[2];
    uint32_t s3 = load_be(in + 12) ^ rk[3];
    for (int r = 1; r < rounds; r++) {
        rk += 4;
        uint32_t t0 =
            Te0[s0 >> 24] ^ Te1[(s1 >> 16) & 0xff] ^ Te2[(s2 >> 8) & 0xff] ^ Te3[s3 & 0xff] ^ rk[0];
        uint32_t t1 =
            Te0[s1 >> 24] ^ Te1[(s2 >> 16) & 0xff] ^ Te2[(s3 >> 8) & 0xff] ^ Te3[s0 & 0xff] ^ rk[1];
        uint32_t t2 =
            Te0[s2 >> 24] ^ Te1[(s3 >> 16) & 0xff] ^ Te2[(s0 >> 8) & 0xff] ^ Te3[s1 & 0xff] ^ rk[2];
        uint32_t t3 =
            Te0[s3 >> 24] ^ Te1[(s0 >> 16) & 0xff] ^ Te2[(s1 >> 8) & 0xff] ^ Te3[s2 & 0xff] ^ rk[3];
        s0 = t0;
        s1 = t1;
        s2 = t2;
        s3 = t3;
    }
    rk += 4;
    store_be(out, word(kSbox[s0 >> 24], kSbox[(s1 >> 16) & 0xff], kSbox[(s2 >> 8) & 0xff],
                       kSbox[s3 & 0xff]) ^
                      rk[0]);
    store_be(out + 4, word(kSbox[s1 >> 24], kSbox[(s2 >> 16) & 0xff], kSbox[(s3 >> 8) & 0xff],
                           kSbox[s0 & 0xff]) ^
                          rk[1]);
    store_be(out + 8, word(kSbox[s2 >> 24], kSbox[(s3 >> 16) & 0xff], kSbox[(s0 >> 8) & 0xff],
                           kSbox[s1 & 0xff]) ^
                          rk[2]);
    store_be(out + 12, word(kSbox[s3 >> 24], kSbox[(s0 >> 16) & 0xff], kSbox[(s1 >> 8) & 0xff],
                            kSbox[s2 & 0xff]) ^
                           rk[3]);
}

#define TREL_AES_DROUND(d0, d1, d2, d3, s0, s1, s2, s3, k)                                     \
    do {                                                                                       \
        d0 = Td0[s0 >> 24] ^ Td1[(s3 >> 16) & 0xff] ^ Td2[(s2 >> 8) & 0xff] ^ Td3[s1 & 0xff] ^ \
             (k)[0];                                                                           \
        d1 = Td0[s1 >> 24] ^ Td1[(s0 >> 16) & 0xff] ^ Td2[(s3 >> 8) & 0xff] ^ Td3[s2 & 0xff] ^ \
             (k)[1];                                                                           \
        d2 = Td0[s2 >> 24] ^ Td1[(s1 >> 16) & 0xff] ^ Td2[(s0 >> 8) & 0xff] ^ Td3[s3 & 0xff] ^ \
             (k)[2];                                                                           \
        d3 = Td0[s3 >> 24] ^ Td1[(s2 >> 16) & 0xff] ^ Td2[(s1 >> 8) & 0xff] ^ Td3[s0 & 0xff] ^ \
             (k)[3];                                                                           \
    } while (0)

// One block through the inverse tables, two full rounds a pass; in and out
// may alias.
inline void decrypt_block(const uint32_t *rk, int rounds, const uint8_t *in, uint8_t *out) {
    uint32_t s0 = load_be(in) ^ rk[0];
    uint32_t s1 = load_be(in + 4) ^ rk[1];
    uint32_t s2 = load_be(in + 8) ^ rk[2];
    uint32_t s3 = load_be(in + 12) ^ rk[3];
    uint32_t t0, t1, t2, t3;
    for (int r = rounds >> 1;;) {
        TREL_AES_DROUND(t0, t1, t2, t3, s0, s1, s2, s3, rk + 4);
        rk += 8;
        if (--r == 0) break;
        TREL_AES_DROUND(s0, s1, s2, s3, t0, t1, t2, t3, rk);
    }
    store_be(out, word(kInvSbox[t0 >> 24], kInvSbox[(t3 >> 16) & 0xff], kInvSbox[(t2 >> 8) & 0xff],
                       kInvSbox[t1 & 0xff]) ^
                      rk[0]);
    store_be(out + 4, word(kInvSbox[t1 >> 24], kInvSbox[(t0 >> 16) & 0xff],
                           kInvSbox[(t3 >> 8) & 0xff], kInvSbox[t2 & 0xff]) ^
                          rk[1]);
    store_be(out + 8, word(kInvSbox[t2 >> 24], kInvSbox[(t1 >> 16) & 0xff],
                           kInvSbox[(t0 >> 8) & 0xff], kInvSbox[t3 & 0xff]) ^
                          rk[2]);
    store_be(out + 12, word(kInvSbox[t3 >> 24], kInvSbox[(t2 >> 16) & 0xff],
                            kInvSbox[(t1 >> 8) & 0xff], kInvSbox[t0 & 0xff]) ^
                           rk[3]);
}

#undef TREL_AES_DROUND

}  // namespace

TREL_API int rijndaelKeySetupEnc(uint32_t rk[60], const uint8_t *key, int keybits) noexcept {
    int rounds = rounds_for(keybits);
    if (rounds == 0 || rk == nullptr || key == nullptr) return 0;
    int nk = keybits / 32;
    int total = 4 * (rounds + 1);
    for (int i = 0; i < nk; i++) rk[i] = load_be(key + 4 * i);
    for (int i = nk; i < total; i++) {
        uint32_t temp = rk[i - 1];
        if (i % nk == 0)
            temp = sub_word((temp << 8) | (temp >> 24)) ^ rcon[i / nk - 1];
        else if (nk == 8 && i % nk == 4)
            temp = sub_word(temp);
        rk[i] = rk[i - nk] ^ temp;
    }
    return rounds;
}

TREL_API int rijndaelKeySetupDec(uint32_t rk[60], const uint8_t *key, int keybits) noexcept {
    int rounds = rijndaelKeySetupEnc(rk, key, keybits);
    if (rounds == 0) return 0;
    // Reverse the order of the round keys.
    for (int i = 0, j = 4 * rounds; i < j; i += 4, j -= 4) {
        for (int k = 0; k < 4; k++) {
            uint32_t t = rk[i + k];
            rk[i + k] = rk[j + k];
            rk[j + k] = t;
        }
    }
    // InvMixColumns on every round key but the first and the last:
    // Td*[S[x]] strips the S-box the inverse tables carry.
    for (int i = 4; i < 4 * rounds; i++) {
        uint32_t w = rk[i];
        rk[i] = Td0[kSbox[w >> 24]] ^ Td1[kSbox[(w >> 16) & 0xff]] ^ Td2[kSbox[(w >> 8) & 0xff]] ^
                Td3[kSbox[w & 0xff]];
    }
    return rounds;
}

TREL_API void rijndaelEncrypt(const uint32_t rk[], int rounds, const uint8_t in[16],
                              uint8_t out[16]) noexcept {
    if (rk == nullptr || in == nullptr || out == nullptr || rounds < 1 || rounds > 14) return;
    encrypt_block(rk, rounds, in, out);
}

TREL_API int rijndael_set_key_enc_only(rijndael_context *ctx, const uint8_t *key,
                                       int keybits) noexcept {
    if (ctx == nullptr) return -1;
    int rounds = rijndaelKeySetupEnc(ctx->enc_schedule, key, keybits);
    if (rounds == 0) return -1;
    ctx->rounds = rounds;
    ctx->encrypt_only = 1;
    return 0;
}

TREL_API int rijndael_set_key(rijndael_context *ctx, const uint8_t *key, int keybits) noexcept {
    if (ctx == nullptr) return -1;
    int rounds = rijndaelKeySetupEnc(ctx->enc_schedule, key, keybits);
    if (rounds == 0) return -1;
    if (rijndaelKeySetupDec(ctx->dec_schedule, key, keybits) != rounds) return -1;
    ctx->rounds = rounds;
    ctx->encrypt_only = 0;
    return 0;
}

TREL_API void rijndael_encrypt(const rijndael_context *ctx, const uint8_t src[16],
                               uint8_t dst[16]) noexcept {
    if (ctx == nullptr) return;
    rijndaelEncrypt(ctx->enc_schedule, ctx->rounds, src, dst);
}

TREL_API void rijndael_decrypt(const rijndael_context *ctx, const uint8_t src[16],
                               uint8_t dst[16]) noexcept {
    // Decryption walks the rounds two at a time.
    if (ctx == nullptr || src == nullptr || dst == nullptr) return;
    if (ctx->rounds < 2 || ctx->rounds > 14 || (ctx->rounds & 1) != 0) return;
    decrypt_block(ctx->dec_schedule, ctx->rounds, src, dst);
}

TREL_API int aes_cbc_generate_iv(uint8_t *iv, size_t len) noexcept {
    return gen_rand_bytes(iv, len);
}

TREL_API int aes_cbc_encrypt_128(const uint8_t key[16], const uint8_t iv[16], uint8_t *data,
                                 size_t len) noexcept {
    if (len % 16 != 0) return -1;
    rijndael_context ctx;
    memset(&ctx, 0, sizeof ctx);
    if (rijndael_set_key_enc_only(&ctx, key, 128) != 0) return -1;
    if (len == 0) return 0;
    if (iv == nullptr || data == nullptr) return -1;
    uint8_t chain[16];
    memcpy(chain, iv, 16);
    for (size_t off = 0; off < len; off += 16) {
        for (int i = 0; i < 16; i++) chain[i] ^= data[off + i];
        encrypt_block(ctx.enc_schedule, 10, chain, chain);
        memcpy(data + off, chain, 16);
    }
    return 0;
}

TREL_API int aes_cbc_decrypt_128(const uint8_t key[16], const uint8_t iv[16], uint8_t *data,
                                 size_t len) noexcept {
    // Kept: nothing to decrypt is refused, though encryption accepts it: an
    // empty ciphertext is taken as the caller's mistake.
    if (len == 0 || len % 16 != 0) return -1;
    if (iv == nullptr || data == nullptr) return -1;
    rijndael_context ctx;
    memset(&ctx, 0, sizeof ctx);
    if (rijndael_set_key(&ctx, key, 128) != 0) return -1;
    uint8_t prev[16], saved[16];
    memcpy(prev, iv, 16);
    for (size_t off = 0; off < len; off += 16) {
        uint8_t *block = data + off;
        memcpy(saved, block, 16);
        decrypt_block(ctx.dec_schedule, 10, block, block);
        for (int i = 0; i < 16; i++) block[i] ^= prev[i];
        memcpy(prev, saved, 16);
    }
    return 0;
}
