#include <openssl/evp.h>

#include "hex.h"
#include "trel_test.h"

using namespace crypto_test;

namespace {

// One EVP encryption of whole blocks (no Final, so no padding): the reference.
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

// 3000 random blocks under keys of every size through every block entry
// point: contexts (both directions, in place), encrypt-only contexts and the
// bare key schedules with their round counts.
TEST(Aes, BlockFunctionsAgreeWithLibcrypto) {
    std::mt19937 rng(0x7e1);
    const EVP_CIPHER *ecb[] = {EVP_aes_128_ecb(), EVP_aes_192_ecb(), EVP_aes_256_ecb()};
    for (int i = 0; i < 3000; i++) {
        const int bits = 128 + 64 * (i % 3), rounds = 10 + 2 * (i % 3);
        auto key = random_bytes(rng, (size_t)bits / 8), pt = random_bytes(rng, 16), blk = pt;
        const std::string want = hex(evp(ecb[i % 3], key, nullptr, pt));
        SCOPED_TRACE("key " + hex(key) + " block " + hex(pt));
        rijndael_context ctx, enc;
        memset(&ctx, 0xa5, sizeof ctx);
        memset(&enc, 0xa5, sizeof enc);
        ASSERT_EQ(rijndael_set_key(&ctx, key.data(), bits), 0);
        ASSERT_EQ(rijndael_set_key_enc_only(&enc, key.data(), bits), 0);
        EXPECT_EQ(ctx.encrypt_only, 0);
        EXPECT_EQ(enc.encrypt_only, 1);
        uint32_t rk[60];
        ASSERT_EQ(rijndaelKeySetupDec(rk, key.data(), bits), rounds);
        ASSERT_EQ(memcmp(rk, ctx.dec_schedule, 16 * (rounds + 1)), 0);
        ASSERT_EQ(rijndaelKeySetupEnc(rk, key.data(), bits), rounds);
        uint8_t out[16];
        rijndaelEncrypt(rk, rounds, pt.data(), out);
        ASSERT_EQ(hex(out, 16), want);
        rijndael_encrypt(&enc, pt.data(), out);
        ASSERT_EQ(hex(out, 16), want);
        rijndael_encrypt(&ctx, blk.data(), blk.data());
        ASSERT_EQ(hex(blk), want);
        rijndael_decrypt(&ctx, blk.data(), blk.data());
        ASSERT_EQ(blk, pt);
    }
    uint8_t key[32] = {0};
    uint32_t rk[60];
    rijndael_context ctx;
    // A context with a round count the decryption cannot walk is refused.
    ASSERT_EQ(rijndael_set_key(&ctx, key, 256), 0);
    ctx.rounds = 16;
    uint8_t in[16] = {0}, out[16] = {7};
    rijndael_decrypt(&ctx, in, out);
    EXPECT_EQ(out[0], 7);
    for (int bits : {0, 64, 127, 129, 160, 255, 257, -128}) {
        SCOPED_TRACE(bits);
        EXPECT_EQ(rijndaelKeySetupEnc(rk, key, bits), 0);
        EXPECT_EQ(rijndaelKeySetupDec(rk, key, bits), 0);
        EXPECT_EQ(rijndael_set_key(&ctx, key, bits), -1);
        EXPECT_EQ(rijndael_set_key_enc_only(&ctx, key, bits), -1);
    }
}

// 2000 AES-128-CBC messages over random keys, IVs and lengths, decrypted in
// two pieces chained by the last ciphertext block of the first; nothing past
// the length and not the IV is touched.
TEST(AesCbc, AgreesWithLibcryptoAndKeepsItsBounds) {
    std::mt19937 rng(0xcbc);
    for (int i = 0; i < 2000; i++) {
        auto key = random_bytes(rng, 16), iv = random_bytes(rng, 16), iv_copy = iv;
        size_t len = 16 * (1 + rng() % 64);
        auto pt = random_bytes(rng, len + 16), data = pt;
        ASSERT_EQ(aes_cbc_encrypt_128(key.data(), iv.data(), data.data(), len), 0);
        auto want = evp(EVP_aes_128_cbc(), key, iv.data(), {pt.begin(), pt.begin() + len});
        want.insert(want.end(), pt.end() - 16, pt.end());
        ASSERT_EQ(hex(data), hex(want)) << "key " << hex(key) << " iv " << hex(iv);
        size_t split = 16 * (rng() % (len / 16));
        auto parts = data;
        // A first piece of 0 bytes is refused and left alone.
        ASSERT_EQ(aes_cbc_decrypt_128(key.data(), iv.data(), parts.data(), split), split ? 0 : -1);
        const uint8_t *chain = split > 0 ? data.data() + split - 16 : iv.data();
        ASSERT_EQ(aes_cbc_decrypt_128(key.data(), chain, parts.data() + split, len - split), 0);
        ASSERT_EQ(parts, pt) << "split " << split;
        ASSERT_EQ(iv, iv_copy);
    }
    // Encryption accepts 0 bytes, decryption refuses them; no other length
    // that is not a multiple of 16 passes, and a refused call changes nothing.
    uint8_t key[16] = {1}, iv[16] = {2}, data[64] = {3};
    EXPECT_EQ(aes_cbc_encrypt_128(key, iv, data, 0), 0);
    EXPECT_EQ(aes_cbc_decrypt_128(key, iv, data, 0), -1);
    for (size_t len : {1, 15, 17, 31, 33, 63}) {
        SCOPED_TRACE(len);
        EXPECT_EQ(aes_cbc_encrypt_128(key, iv, data, len), -1);
        EXPECT_EQ(aes_cbc_decrypt_128(key, iv, data, len), -1);
    }
    EXPECT_EQ(hex(data, 64), "03" + std::string(126, '0'));

    uint8_t a[16] = {0}, b[16] = {0};
    EXPECT_EQ(aes_cbc_generate_iv(a, sizeof a), 16);
    EXPECT_EQ(aes_cbc_generate_iv(b, sizeof b), 16);
    EXPECT_NE(memcmp(a, b, 16), 0);
}
