#include <openssl/evp.h>
#include <openssl/sha.h>

#include <random>

#include <trel/crypto.h>

#include "hex.h"
#include "trel_test.h"

using crypto_test::hex;
using crypto_test::random_bytes;

namespace {

std::string digest_of(const std::string &s) {
    uint8_t d[32];
    sha256((const uint8_t *)s.data(), (uint32_t)s.size(), d);
    return hex(d, 32);
}

std::string reference(const uint8_t *p, size_t n) {
    uint8_t d[32];
    unsigned int len = 0;
    EVP_Digest(p, n, d, &len, EVP_sha256(), nullptr);
    return hex(d, len);
}

}  // namespace

TEST(Sha256, Fips180Examples) {
    EXPECT_EQ(digest_of(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(digest_of("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(digest_of("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(digest_of(std::string(1000000, 'a')),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

// The context fields follow the public layout: whole blocks compressed in
// tot_len, the pending tail in len.
TEST(Sha256, ContextTracksLengths) {
    std::string s(300, 'x');
    sha256_context ctx;
    sha256_init(&ctx);
    EXPECT_EQ(ctx.tot_len, 0u);
    EXPECT_EQ(ctx.len, 0u);
    EXPECT_EQ(ctx.h[0], 0x6a09e667u);
    EXPECT_EQ(ctx.h[7], 0x5be0cd19u);
    sha256_update(&ctx, (const uint8_t *)s.data(), 63);
    EXPECT_EQ(ctx.tot_len, 0u);
    EXPECT_EQ(ctx.len, 63u);
    sha256_update(&ctx, (const uint8_t *)s.data(), 1);
    EXPECT_EQ(ctx.tot_len, 64u);
    EXPECT_EQ(ctx.len, 0u);
    sha256_update(&ctx, (const uint8_t *)s.data(), 200);
    EXPECT_EQ(ctx.tot_len, 256u);
    EXPECT_EQ(ctx.len, 8u);
}

// The bit count is kept in 32 bits: past 512 MiB the length field wraps.
// Checked cheaply by starting both sides from a state that pretends the
// first 2^29 bytes were already compressed.
TEST(Sha256, BitCountWrapsAt512MiB) {
    for (uint32_t already : {0x1fffffc0u, 0x20000000u, 0x20000040u}) {
        SCOPED_TRACE(already);
        sha256_context ours;
        sha256_init(&ours);
        ours.tot_len = already;
        sha256_update(&ours, (const uint8_t *)"abc", 3);
        uint8_t d[32];
        sha256_final(&ours, d);

        auto openssl = [&](bool full_count) {
            SHA256_CTX c;
            SHA256_Init(&c);
            uint64_t bits = (uint64_t)already * 8;
            c.Nl = (unsigned int)bits;
            c.Nh = full_count ? (unsigned int)(bits >> 32) : 0;
            SHA256_Update(&c, "abc", 3);
            uint8_t r[32];
            SHA256_Final(r, &c);
            return hex(r, 32);
        };
        EXPECT_EQ(hex(d, 32), openssl(false));
        if (already >= 0x20000000u)
            EXPECT_NE(hex(d, 32), openssl(true));
        else
            EXPECT_EQ(hex(d, 32), openssl(true));
    }
}

TEST(Sha256CrossCheck, AgreesWithLibcrypto) {
    std::mt19937 rng(0x5a256);
    int cases = 0;
    for (int i = 0; i < 2000; i++) {
        size_t len = i < 300 ? (size_t)i : rng() % 20000;
        auto data = random_bytes(rng, len);
        const std::string want = reference(data.data(), len);
        uint8_t d[32];
        sha256(data.data(), (uint32_t)len, d);
        ASSERT_EQ(hex(d, 32), want) << "len " << len;
        // Random split points.
        sha256_context ctx;
        sha256_init(&ctx);
        size_t off = 0;
        while (off < len) {
            size_t n = std::min<size_t>(len - off, rng() % 300);
            sha256_update(&ctx, data.data() + off, (uint32_t)n);
            off += n;
        }
        sha256_final(&ctx, d);
        ASSERT_EQ(hex(d, 32), want) << "len " << len;
        cases++;
    }
    printf("SHA-256 cross-check: %d messages, each one-shot and in random pieces\n", cases);
}
