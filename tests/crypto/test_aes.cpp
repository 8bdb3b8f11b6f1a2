#include <openssl/evp.h>

#include "hex.h"
#include "trel_test.h"

using namespace crypto_test;

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

// One EVP encryption of whole blocks (no Final, so no padding); the reference for the cross-checks.
std::vector<uint8_t> evp(const EVP_CIPHER *cipher, const std::vector<uint8_t> &key,
                         const uint8_t *iv, const std::vector<uint8_t> &in) {
    EVP_CIPHER_CTX *c = EVP_CIPHER_CTX_new();
    std::vector<uint8_t> out(in.size());
    int n = 0;
    EVP_EncryptInit_ex(c, cipher, nullptr, key.data(), iv);
    EVP_EncryptUpdate(c, out.data(), &n, in.data(), (int)in.size());
    EVP_CIPHER_CTX_free(c);
    out.resize((size_t)n);
    return out;
}

}  // namespace

// Context and low-level functions, both directions, separate and in place.
TEST(Aes, Fips197AppendixC) {
    const struct {
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
    rijndael_context ctx, enc;
    uint32_t rk[60];
    for (const auto &c : cases) {
        SCOPED_TRACE(c.bits);
        auto key = unhex(c.key), pt = unhex(kPlain), blk = pt;
        memset(&ctx, 0xa5, sizeof ctx);
        ASSERT_EQ(rijndael_set_key(&ctx, key.data(), c.bits), 0);
        EXPECT_EQ(ctx.encrypt_only, 0);
        uint8_t out[16];
        rijndael_encrypt(&ctx, blk.data(), blk.data());
        EXPECT_EQ(hex(blk), c.cipher);
        rijndael_decrypt(&ctx, blk.data(), blk.data());
        EXPECT_EQ(hex(blk), kPlain);

        ASSERT_EQ(rijndael_set_key_enc_only(&enc, key.data(), c.bits), 0);
        EXPECT_EQ(enc.encrypt_only, 1);
        rijndael_encrypt(&enc, pt.data(), out);
        EXPECT_EQ(hex(out, 16), c.cipher);
        EXPECT_EQ(rijndaelKeySetupDec(rk, key.data(), c.bits), c.rounds);
        EXPECT_EQ(memcmp(rk, ctx.dec_schedule, 4 * 4 * (c.rounds + 1)), 0);
        EXPECT_EQ(rijndaelKeySetupEnc(rk, key.data(), c.bits), c.rounds);
        rijndaelEncrypt(rk, c.rounds, pt.data(), out);
        EXPECT_EQ(hex(out, 16), c.cipher);
    }
    uint8_t key[32] = {0};
    for (int bits : {0, 64, 127, 129, 160, 255, 257, -128}) {
        SCOPED_TRACE(bits);
        EXPECT_EQ(rijndaelKeySetupEnc(rk, key, bits), 0);
        EXPECT_EQ(rijndaelKeySetupDec(rk, key, bits), 0);
        EXPECT_EQ(rijndael_set_key(&ctx, key, bits), -1);
        EXPECT_EQ(rijndael_set_key_enc_only(&ctx, key, bits), -1);
    }
}

// SP 800-38A vectors; lengths: encryption accepts 0, decryption refuses it,
// no other multiple of 16 passes, rejected calls and the IV stay untouched.
TEST(AesCbc, VectorsAndLengthRules) {
    auto key = unhex(kCbcKey), iv = unhex(kCbcIv), data = unhex(kCbcPlain);
    ASSERT_EQ(aes_cbc_encrypt_128(key.data(), iv.data(), data.data(), data.size()), 0);
    EXPECT_EQ(hex(data), kCbcCipher);
    ASSERT_EQ(aes_cbc_decrypt_128(key.data(), iv.data(), data.data(), data.size()), 0);
    EXPECT_EQ(hex(data), kCbcPlain);

    EXPECT_EQ(aes_cbc_encrypt_128(key.data(), iv.data(), data.data(), 0), 0);
    EXPECT_EQ(aes_cbc_decrypt_128(key.data(), iv.data(), data.data(), 0), -1);
    for (size_t len : {1, 15, 17, 31, 33, 63}) {
        SCOPED_TRACE(len);
        EXPECT_EQ(aes_cbc_encrypt_128(key.data(), iv.data(), data.data(), len), -1);
        EXPECT_EQ(aes_cbc_decrypt_128(key.data(), iv.data(), data.data(), len), -1);
    }
    EXPECT_EQ(hex(data), kCbcPlain);
    // Only the given length is touched.
    ASSERT_EQ(aes_cbc_encrypt_128(key.data(), iv.data(), data.data(), 48), 0);
    EXPECT_EQ(hex(data), std::string(kCbcCipher, 96) + (kCbcPlain + 96));
    EXPECT_EQ(hex(iv), kCbcIv);

    uint8_t a[16] = {0}, b[16] = {0};
    EXPECT_EQ(aes_cbc_generate_iv(a, sizeof a), 16);
    EXPECT_EQ(aes_cbc_generate_iv(b, sizeof b), 16);
    EXPECT_NE(memcmp(a, b, 16), 0);
}

// Randomized agreement with libcrypto: 3000 blocks under keys of every size,
// and 2000 AES-128-CBC messages over random keys, IVs and lengths, decrypted
// in two pieces chained by the last ciphertext block of the first.
TEST(AesCrossCheck, AgreesWithLibcrypto) {
    std::mt19937 rng(0x7e1);
    const EVP_CIPHER *ecb[] = {EVP_aes_128_ecb(), EVP_aes_192_ecb(), EVP_aes_256_ecb()};
    for (int i = 0; i < 3000; i++) {
        int bits = 128 + 64 * (i % 3);
        auto key = random_bytes(rng, (size_t)bits / 8), pt = random_bytes(rng, 16);
        rijndael_context ctx;
        ASSERT_EQ(rijndael_set_key(&ctx, key.data(), bits), 0);
        uint8_t out[16], back[16];
        rijndael_encrypt(&ctx, pt.data(), out);
        ASSERT_EQ(hex(out, 16), hex(evp(ecb[i % 3], key, nullptr, pt))) << "key " << hex(key);
        rijndael_decrypt(&ctx, out, back);
        ASSERT_EQ(hex(back, 16), hex(pt)) << "key " << hex(key);
    }
    for (int i = 0; i < 2000; i++) {
        auto key = random_bytes(rng, 16), iv = random_bytes(rng, 16);
        size_t len = 16 * (1 + rng() % 64);
        auto pt = random_bytes(rng, len), data = pt;
        ASSERT_EQ(aes_cbc_encrypt_128(key.data(), iv.data(), data.data(), len), 0);
        ASSERT_EQ(hex(data), hex(evp(EVP_aes_128_cbc(), key, iv.data(), pt)))
            << "key " << hex(key) << " iv " << hex(iv);
        size_t split = 16 * (rng() % (len / 16));
        auto parts = data;
        // A first piece of 0 bytes is refused and left alone.
        ASSERT_EQ(aes_cbc_decrypt_128(key.data(), iv.data(), parts.data(), split), split ? 0 : -1);
        const uint8_t *chain = split > 0 ? data.data() + split - 16 : iv.data();
        ASSERT_EQ(aes_cbc_decrypt_128(key.data(), chain, parts.data() + split, len - split), 0);
        ASSERT_EQ(parts, pt) << "split " << split;
    }
}
