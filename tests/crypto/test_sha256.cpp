#include <openssl/evp.h>
#include <openssl/sha.h>

#include <random>

#include <trel/crypto.h>

#include "hex.h"
#include "trel_test.h"

using namespace crypto_test;

namespace {

std::string digest_of(const std::string &s) {
    uint8_t d[32];
    sha256((const uint8_t *)s.data(), (uint32_t)s.size(), d);
    return hex(d, 32);
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
    const uint8_t data[200] = {0};
    sha256_context ctx;
    memset(&ctx, 0xa5, sizeof ctx);
    sha256_init(&ctx);  // must clear both counts
    const uint32_t steps[][3] = {{63, 0, 63}, {1, 64, 0}, {200, 256, 8}};
    for (const auto &s : steps) {
        sha256_update(&ctx, data, s[0]);
        EXPECT_EQ(ctx.tot_len, s[1]);
        EXPECT_EQ(ctx.len, s[2]);
    }
}

// The bit count is kept in 32 bits: past 512 MiB the length field wraps.
// Checked cheaply by starting both sides from a state that pretends the
// first bytes were already compressed.
TEST(Sha256, BitCountWrapsAt512MiB) {
    for (uint32_t already : {0x1fffffc0u, 0x20000000u, 0x20000040u}) {
        SCOPED_TRACE(already);
        sha256_context ours;
        sha256_init(&ours);
        ours.tot_len = already;
        sha256_update(&ours, (const uint8_t *)"abc", 3);
        uint8_t d[32], r[32];
        sha256_final(&ours, d);
        // libcrypto with the high word of its bit count dropped, and kept.
        for (bool full : {false, true}) {
            SHA256_CTX c;
            SHA256_Init(&c);
            c.Nl = already * 8u;  // wraps
            c.Nh = full ? already >> 29 : 0;
            SHA256_Update(&c, "abc", 3);
            SHA256_Final(r, &c);
            EXPECT_EQ(hex(d, 32) == hex(r, 32), !full || already < 0x20000000u) << full;
        }
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
