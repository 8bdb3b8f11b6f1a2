#include <openssl/evp.h>
#include <openssl/sha.h>

#include "hex.h"
#include "trel_test.h"

using namespace crypto_test;

// The context fields follow the public layout: whole blocks compressed in
// tot_len, the pending tail in len. The bit count is kept in 32 bits: past
// 512 MiB the length field wraps, unlike the standard's 64-bit count.
TEST(Sha256, ContextLengthsAndBitCountWrap) {
    const uint8_t data[200] = {0};
    sha256_context ctx;
    memset(&ctx, 0xa5, sizeof ctx);
    sha256_init(&ctx);  // must clear both counts
    const uint32_t steps[][3] = {{63, 0, 63}, {1, 64, 0}, {200, 256, 8}, {0, 256, 8}};
    for (const auto &s : steps) {
        SCOPED_TRACE(s[0]);
        sha256_update(&ctx, s[0] ? data : nullptr, s[0] ? s[0] : 5);  // null data: nothing
        EXPECT_EQ(ctx.tot_len, s[1]);
        EXPECT_EQ(ctx.len, s[2]);
    }
    // The wrap is checked cheaply by starting both sides from a state that
    // pretends the first bytes were already compressed.
    for (uint32_t already : {0x1fffffc0u, 0x20000000u, 0x20000040u}) {
        SCOPED_TRACE(already);
        sha256_context ours;
        sha256_init(&ours);
        ours.tot_len = already;
        sha256_update(&ours, (const uint8_t *)"abc", 3);
        uint8_t d[32], r[32];
        sha256_final(&ours, d);
        // libcrypto with the high word of its bit count left at 0.
        SHA256_CTX c;
        SHA256_Init(&c);
        c.Nl = already * 8u;  // wraps
        SHA256_Update(&c, "abc", 3);
        SHA256_Final(r, &c);
        EXPECT_EQ(hex(d, 32), hex(r, 32));
    }
}

// 2000 messages of every length up to 300 and random ones up to 20000,
// one-shot and in random pieces.
TEST(Sha256CrossCheck, AgreesWithLibcrypto) {
    std::mt19937 rng(0x5a256);
    for (int i = 0; i < 2000; i++) {
        size_t len = i < 300 ? (size_t)i : rng() % 20000;
        auto data = random_bytes(rng, len);
        uint8_t want[32], d[32];
        EVP_Digest(data.data(), len, want, nullptr, EVP_sha256(), nullptr);
        sha256(data.data(), (uint32_t)len, d);
        ASSERT_EQ(hex(d, 32), hex(want, 32)) << "len " << len;
        sha256_context ctx;
        sha256_init(&ctx);
        for (size_t off = 0, n; off < len; off += n) {
            n = std::min<size_t>(len - off, rng() % 300);
            sha256_update(&ctx, data.data() + off, (uint32_t)n);
        }
        sha256_final(&ctx, d);
        ASSERT_EQ(hex(d, 32), hex(want, 32)) << "len " << len;
    }
}
