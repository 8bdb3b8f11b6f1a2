// SHA-256 with an incremental interface.  The message length is counted in
// 32 bits, so inputs of 512 MiB or more give non-standard digests.
#include <stdint.h>
#include <string.h>

#include <trel/crypto.h>

#include "core/api.h"

#include "crypto/bytes.h"

namespace {

constexpr uint32_t kInit[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                               0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

constexpr uint32_t K[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

inline uint32_t rotr(uint32_t x, int n) { return (x >> n) | (x << (32 - n)); }

using trel::load_be;
using trel::store_be;

// Four schedule words at a time in vector registers (SSE2 or NEON through
// the compiler's generic vectors); the rounds stay scalar.
typedef uint32_t v4u __attribute__((vector_size(16)));

#if defined(__clang__)
#define TREL_SHUF(a, b, i0, i1, i2, i3) __builtin_shufflevector(a, b, i0, i1, i2, i3)
#else
#define TREL_SHUF(a, b, i0, i1, i2, i3) __builtin_shuffle(a, b, (v4u){i0, i1, i2, i3})
#endif

inline v4u vrotr(v4u x, int n) { return (x >> n) | (x << (32 - n)); }
inline v4u vsigma0(v4u x) { return vrotr(x, 7) ^ vrotr(x, 18) ^ (x >> 3); }
inline v4u vsigma1(v4u x) { return vrotr(x, 17) ^ vrotr(x, 19) ^ (x >> 10); }

// W[i+16..i+19] from W[i..i+15] held in a, b, c, d.
inline v4u next_words(v4u a, v4u b, v4u c, v4u d) {
    v4u t = a + TREL_SHUF(c, d, 1, 2, 3, 4) + vsigma0(TREL_SHUF(a, b, 1, 2, 3, 4));
    v4u lo = t + vsigma1(TREL_SHUF(d, d, 2, 3, 2, 3));
    v4u hi = t + vsigma1(TREL_SHUF(lo, lo, 0, 1, 0, 1));
    return TREL_SHUF(lo, hi, 0, 1, 6, 7);
}

inline v4u load4(const uint32_t *p) {
    v4u v;
    memcpy(&v, p, sizeof v);
    return v;
}

// Compresses n whole 64-byte blocks into h.
void compress(uint32_t h[8], const uint8_t *data, size_t n) {
    while (n-- > 0) {
        uint32_t m[16];
        for (int i = 0; i < 16; i++) m[i] = load_be(data + 4 * i);
        v4u x0 = load4(m), x1 = load4(m + 4), x2 = load4(m + 8), x3 = load4(m + 12);
        uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4], f = h[5], g = h[6], hh = h[7];
        uint32_t bc = b ^ c;

#define TREL_SHA_ROUND(a, b, c, d, e, f, g, h, wk)                                               \
    do {                                                                                         \
        uint32_t t1 = h + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25)) + (g ^ (e & (f ^ g))) + (wk); \
        uint32_t ab_ = a ^ b;                                                                    \
        uint32_t t2 = (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22)) + (b ^ (ab_ & bc));               \
        bc = ab_;                                                                                \
        d += t1;                                                                                 \
        h = t1 + t2;                                                                             \
    } while (0)
#define TREL_SHA_ROUNDS_A(wk)                           \
    do {                                                \
        TREL_SHA_ROUND(a, b, c, d, e, f, g, hh, wk[0]); \
        TREL_SHA_ROUND(hh, a, b, c, d, e, f, g, wk[1]); \
        TREL_SHA_ROUND(g, hh, a, b, c, d, e, f, wk[2]); \
        TREL_SHA_ROUND(f, g, hh, a, b, c, d, e, wk[3]); \
    } while (0)
#define TREL_SHA_ROUNDS_E(wk)                           \
    do {                                                \
        TREL_SHA_ROUND(e, f, g, hh, a, b, c, d, wk[0]); \
        TREL_SHA_ROUND(d, e, f, g, hh, a, b, c, wk[1]); \
        TREL_SHA_ROUND(c, d, e, f, g, hh, a, b, wk[2]); \
        TREL_SHA_ROUND(b, c, d, e, f, g, hh, a, wk[3]); \
    } while (0)

        for (int i = 0; i < 64; i += 16) {
            v4u wk = x0 + load4(K + i);
            if (i < 48) x0 = next_words(x0, x1, x2, x3);
            TREL_SHA_ROUNDS_A(wk);
            wk = x1 + load4(K + i + 4);
            if (i < 48) x1 = next_words(x1, x2, x3, x0);
            TREL_SHA_ROUNDS_E(wk);
            wk = x2 + load4(K + i + 8);
            if (i < 48) x2 = next_words(x2, x3, x0, x1);
            TREL_SHA_ROUNDS_A(wk);
            wk = x3 + load4(K + i + 12);
            if (i < 48) x3 = next_words(x3, x0, x1, x2);
            TREL_SHA_ROUNDS_E(wk);
        }
#undef TREL_SHA_ROUND
#undef TREL_SHA_ROUNDS_A
#undef TREL_SHA_ROUNDS_E

        h[0] += a;
        h[1] += b;
        h[2] += c;
        h[3] += d;
        h[4] += e;
        h[5] += f;
        h[6] += g;
        h[7] += hh;
        data += 64;
    }
}

}  // namespace

TREL_API void sha256_init(sha256_context *ctx) noexcept {
    if (ctx == nullptr) return;
    memcpy(ctx->h, kInit, sizeof ctx->h);
    ctx->tot_len = 0;
    ctx->len = 0;
}

TREL_API void sha256_update(sha256_context *ctx, const uint8_t *data, uint32_t len) noexcept {
    if (ctx == nullptr || (data == nullptr && len != 0) || ctx->len >= 64) return;
    uint32_t room = 64 - ctx->len;
    uint32_t take = len < room ? len : room;
    if (take != 0) memcpy(ctx->block + ctx->len, data, take);
    if ((uint64_t)ctx->len + len < 64) {
        ctx->len += len;
        return;
    }
    uint32_t rest = len - take;
    uint32_t blocks = rest / 64;
    const uint8_t *tail = data + take;
    compress(ctx->h, ctx->block, 1);
    compress(ctx->h, tail, blocks);
    uint32_t left = rest % 64;
    memcpy(ctx->block, tail + (size_t)blocks * 64, left);
    ctx->len = left;
    ctx->tot_len += (blocks + 1) * 64;
}

TREL_API void sha256_final(sha256_context *ctx, uint8_t digest[32]) noexcept {
    if (ctx == nullptr || digest == nullptr || ctx->len >= 64) return;
    uint32_t blocks = ctx->len > 55 ? 2 : 1;
    // Kept: the bit count is taken in 32 bits and fills only the last 4 bytes,
    // so inputs of 512 MiB or more hash unlike the standard: digests stay
    // comparable with those already computed.
    uint32_t bits = (ctx->tot_len + ctx->len) * 8;
    uint32_t padded = blocks * 64;
    memset(ctx->block + ctx->len, 0, padded - ctx->len);
    ctx->block[ctx->len] = 0x80;
    store_be(ctx->block + padded - 4, bits);
    compress(ctx->h, ctx->block, blocks);
    for (int i = 0; i < 8; i++) store_be(digest + 4 * i, ctx->h[i]);
}

TREL_API void sha256(const uint8_t *data, uint32_t len, uint8_t digest[32]) noexcept {
    sha256_context ctx;
    sha256_init(&ctx);
    sha256_update(&ctx, data, len);
    sha256_final(&ctx, digest);
}
