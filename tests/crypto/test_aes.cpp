#include <openssl/evp.h>

#include <random>

#include <trel/crypto.h>

#include "hex.h"
#include "trel_test.h"

using crypto_test::hex;
using crypto_test::random_bytes;
using crypto_test::unhex;

namespace {

const char kPlain[] = "00112233445566778899aabbccddeeff";

// SP 800-38A F.2.1 / F.2.2.
const char kCbcKey[] = "2b7e151628aed2a6abf7158809cf4f3c";
const char kCbcIv[] = "000102030405060708090a0b0c0d0e0f";
const char kCbcPlain[] =
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
const char kCbcCipher[] =
    "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
    "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7";

// One EVP pass without padding; the reference for the cross-checks.
std::vector<uint8_t> evp(const EVP_CIPHER *cipher, bool enc, const std::vector<uint8_t> &key,
                         const uint8_t *iv, const std::vector<uint8_t> &in) {
    EVP_CIPHER_CTX *c = EVP_CIPHER_CTX_new();
    std::vector<uint8_t> out(in.size() + 16);
    int n = 0, m = 0;
    EVP_CipherInit_ex(c, cipher, nullptr, key.data(), iv, enc ? 1 : 0);
    EVP_CIPHER_CTX_set_padding(c, 0);
    EVP_CipherUpdate(c, out.data(), &n, in.data(), (int)in.size());
    EVP_CipherFinal_ex(c, out.data() + n, &m);
    EVP_CIPHER_CTX_free(c);
    out.resize((size_t)(n + m));
    return out;
}

const EVP_CIPHER *ecb_for(int bits) {
    return bits == 128 ? EVP_aes_128_ecb() : bits == 192 ? EVP_aes_192_ecb() : EVP_aes_256_ecb();
}

}  // namespace

TEST(Aes, Fips197AppendixC) {
    struct Case {
        int bits;
        const char *key, *cipher;
        int rounds;
    } cases[] = {
        {128, "000102030405060708090a0b0c0d0e0f", "69c4e0d86a7b0430d8cdb78070b4c55a", 10},
        {192, "000102030405060708090a0b0c0d0e0f1011121314151617",
         "dda97ca4864cdfe06eaf70a0ec0d7191", 12},
        {256, "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f",
         "8ea2b7ca516745bfeafc49904b496089", 14},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.bits);
        auto key = unhex(c.key);
        auto pt = unhex(kPlain);
        rijndael_context ctx;
        memset(&ctx, 0xa5, sizeof ctx);
        ASSERT_EQ(rijndael_set_key(&ctx, key.data(), c.bits), 0);
        EXPECT_EQ(ctx.rounds, c.rounds);
        EXPECT_EQ(ctx.encrypt_only, 0);
        uint8_t out[16], back[16];
        rijndael_encrypt(&ctx, pt.data(), out);
        EXPECT_EQ(hex(out, 16), c.cipher);
        rijndael_decrypt(&ctx, out, back);
        EXPECT_EQ(hex(back, 16), kPlain);
        // In place, both directions.
        uint8_t buf[16];
        memcpy(buf, pt.data(), 16);
        rijndael_encrypt(&ctx, buf, buf);
        EXPECT_EQ(hex(buf, 16), c.cipher);
        rijndael_decrypt(&ctx, buf, buf);
        EXPECT_EQ(hex(buf, 16), kPlain);

        // The encryption-only context and the low-level calls agree.
        rijndael_context enc;
        memset(&enc, 0, sizeof enc);
        ASSERT_EQ(rijndael_set_key_enc_only(&enc, key.data(), c.bits), 0);
        EXPECT_EQ(enc.encrypt_only, 1);
        EXPECT_EQ(enc.rounds, c.rounds);
        EXPECT_EQ(memcmp(enc.enc_schedule, ctx.enc_schedule, 4 * 4 * (c.rounds + 1)), 0);
        uint32_t rk[60];
        EXPECT_EQ(rijndaelKeySetupEnc(rk, key.data(), c.bits), c.rounds);
        rijndaelEncrypt(rk, c.rounds, pt.data(), out);
        EXPECT_EQ(hex(out, 16), c.cipher);
        EXPECT_EQ(rijndaelKeySetupDec(rk, key.data(), c.bits), c.rounds);
        EXPECT_EQ(memcmp(rk, ctx.dec_schedule, 4 * 4 * (c.rounds + 1)), 0);
    }
}

TEST(Aes, UnsupportedKeySizes) {
    uint8_t key[32] = {0};
    uint32_t rk[60];
    for (int bits : {0, 64, 127, 129, 160, 255, 257, 512, -128}) {
        SCOPED_TRACE(bits);
        EXPECT_EQ(rijndaelKeySetupEnc(rk, key, bits), 0);
        EXPECT_EQ(rijndaelKeySetupDec(rk, key, bits), 0);
        rijndael_context ctx;
        memset(&ctx, 0, sizeof ctx);
        EXPECT_EQ(rijndael_set_key(&ctx, key, bits), -1);
        EXPECT_EQ(rijndael_set_key_enc_only(&ctx, key, bits), -1);
    }
}

TEST(AesCbc, Sp800_38aVectors) {
    auto key = unhex(kCbcKey), iv = unhex(kCbcIv), data = unhex(kCbcPlain);
    ASSERT_EQ(aes_cbc_encrypt_128(key.data(), iv.data(), data.data(), data.size()), 0);
    EXPECT_EQ(hex(data), kCbcCipher);
    EXPECT_EQ(hex(iv), kCbcIv);
    ASSERT_EQ(aes_cbc_decrypt_128(key.data(), iv.data(), data.data(), data.size()), 0);
    EXPECT_EQ(hex(data), kCbcPlain);
    EXPECT_EQ(hex(iv), kCbcIv);
    // Decryption of the last two blocks alone, chained from the second block.
    auto tail = unhex(std::string(kCbcCipher).substr(64));
    auto iv2 = unhex(std::string(kCbcCipher).substr(32, 32));
    ASSERT_EQ(aes_cbc_decrypt_128(key.data(), iv2.data(), tail.data(), tail.size()), 0);
    EXPECT_EQ(hex(tail), std::string(kCbcPlain).substr(64));
}

TEST(AesCbc, LengthRules) {
    auto key = unhex(kCbcKey), iv = unhex(kCbcIv);
    std::vector<uint8_t> buf(64, 0x5c);
    const std::vector<uint8_t> orig = buf;
    // Zero: encryption accepts it and writes nothing, decryption refuses it.
    EXPECT_EQ(aes_cbc_encrypt_128(key.data(), iv.data(), buf.data(), 0), 0);
    EXPECT_EQ(aes_cbc_decrypt_128(key.data(), iv.data(), buf.data(), 0), -1);
    EXPECT_EQ(buf, orig);
    for (size_t len : {1, 15, 17, 31, 33, 47, 63}) {
        SCOPED_TRACE(len);
        EXPECT_EQ(aes_cbc_encrypt_128(key.data(), iv.data(), buf.data(), len), -1);
        EXPECT_EQ(aes_cbc_decrypt_128(key.data(), iv.data(), buf.data(), len), -1);
        EXPECT_EQ(buf, orig);
    }
    // Only the given length is touched.
    ASSERT_EQ(aes_cbc_encrypt_128(key.data(), iv.data(), buf.data(), 48), 0);
    EXPECT_NE(memcmp(buf.data(), orig.data(), 48), 0);
    EXPECT_EQ(memcmp(buf.data() + 48, orig.data() + 48, 16), 0);
    ASSERT_EQ(aes_cbc_decrypt_128(key.data(), iv.data(), buf.data(), 48), 0);
    EXPECT_EQ(buf, orig);
    EXPECT_EQ(hex(iv), kCbcIv);
}

TEST(AesCbc, GenerateIvForwardsToRandomBytes) {
    uint8_t a[16] = {0}, b[16] = {0};
    EXPECT_EQ(aes_cbc_generate_iv(a, sizeof a), 16);
    EXPECT_EQ(aes_cbc_generate_iv(b, sizeof b), 16);
    EXPECT_NE(memcmp(a, b, 16), 0);
    EXPECT_EQ(aes_cbc_generate_iv(a, 0), gen_rand_bytes(a, 0));
}

// Randomized agreement with libcrypto: keys of every size through the block
// functions, and AES-128-CBC over random keys, IVs and lengths, decrypted in
// one call and in pieces chained by the last ciphertext block.
TEST(AesCrossCheck, AgreesWithLibcrypto) {
    std::mt19937 rng(0x7e1);
    int blocks = 0, cbc = 0, splits = 0;
    for (int i = 0; i < 3000; i++) {
        int bits = 128 + 64 * (i % 3);
        auto key = random_bytes(rng, (size_t)bits / 8);
        auto pt = random_bytes(rng, 16);
        rijndael_context ctx;
        memset(&ctx, 0, sizeof ctx);
        ASSERT_EQ(rijndael_set_key(&ctx, key.data(), bits), 0);
        uint8_t out[16], back[16];
        rijndael_encrypt(&ctx, pt.data(), out);
        auto want = evp(ecb_for(bits), true, key, nullptr, pt);
        ASSERT_EQ(hex(out, 16), hex(want)) << "key " << hex(key);
        rijndael_decrypt(&ctx, out, back);
        ASSERT_EQ(hex(back, 16), hex(pt)) << "key " << hex(key);
        blocks++;
    }
    for (int i = 0; i < 2000; i++) {
        auto key = random_bytes(rng, 16), iv = random_bytes(rng, 16);
        size_t len = 16 * (1 + rng() % 64);
        auto pt = random_bytes(rng, len);
        auto want = evp(EVP_aes_128_cbc(), true, key, iv.data(), pt);
        auto data = pt;
        ASSERT_EQ(aes_cbc_encrypt_128(key.data(), iv.data(), data.data(), len), 0);
        ASSERT_EQ(hex(data), hex(want)) << "key " << hex(key) << " iv " << hex(iv);
        auto plain = evp(EVP_aes_128_cbc(), false, key, iv.data(), data);
        ASSERT_EQ(plain, pt);
        // Split decryption: the first part with the IV, the rest chained.
        size_t split = 16 * (rng() % (len / 16));
        auto parts = data;
        if (split > 0) {
            ASSERT_EQ(aes_cbc_decrypt_128(key.data(), iv.data(), parts.data(), split), 0);
        }
        const uint8_t *chain = split > 0 ? data.data() + split - 16 : iv.data();
        ASSERT_EQ(aes_cbc_decrypt_128(key.data(), chain, parts.data() + split, len - split), 0);
        ASSERT_EQ(parts, pt) << "split " << split;
        cbc++;
        splits++;
    }
    RecordProperty("block_cases", blocks);
    RecordProperty("cbc_cases", cbc);
    printf(
        "AES cross-check: %d block cases (128/192/256), %d CBC cases with %d split decryptions\n",
        blocks, cbc, splits);
}
