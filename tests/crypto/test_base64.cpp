#include <openssl/evp.h>

#include <random>

#include <trel/crypto.h>

#include "hex.h"
#include "trel_test.h"

using crypto_test::random_bytes;

namespace {

std::string encode(const std::string &in, bool url) {
    std::string out((size_t)base64_encode_len((int32_t)in.size()), '\xee');
    if (url)
        base64url_encode(out.data(), (const uint8_t *)in.data(), (int32_t)in.size());
    else
        base64rfc_encode(out.data(), (const uint8_t *)in.data(), (int32_t)in.size());
    size_t n = strlen(out.c_str());
    EXPECT_LT(n, out.size());
    return out.substr(0, n);
}

// Decoded bytes, from the known length of n leading characters.
std::string decode(const std::string &text, bool url) {
    std::string out((size_t)base64_decode_len(text.c_str()) + 8, '\xee');
    if (url)
        base64url_decode((uint8_t *)out.data(), text.c_str());
    else
        base64_decode((uint8_t *)out.data(), text.c_str());
    size_t n = 0;
    while (n < text.size() &&
           (isalnum((unsigned char)text[n]) || strchr("+/-_", text[n]) != nullptr))
        n++;
    size_t bytes = n / 4 * 3 + (n % 4 == 0 ? 0 : n % 4 - 1);
    EXPECT_LE(bytes + 1, (size_t)base64_decode_len(text.c_str())) << text;
    EXPECT_EQ(out[bytes], '\0') << text;
    EXPECT_EQ(out[bytes + 1], '\xee') << "wrote past the NUL: " << text;
    return out.substr(0, bytes);
}

}  // namespace

TEST(Base64, Rfc4648Vectors) {
    const char *vectors[][3] = {
        {"", "", ""},
        {"f", "Zg==", "Zg"},
        {"fo", "Zm8=", "Zm8"},
        {"foo", "Zm9v", "Zm9v"},
        {"foob", "Zm9vYg==", "Zm9vYg"},
        {"fooba", "Zm9vYmE=", "Zm9vYmE"},
        {"foobar", "Zm9vYmFy", "Zm9vYmFy"},
    };
    for (auto &v : vectors) {
        SCOPED_TRACE(v[0]);
        EXPECT_EQ(encode(v[0], false), v[1]);
        EXPECT_EQ(encode(v[0], true), v[2]);
        for (bool url : {false, true}) {
            EXPECT_EQ(decode(v[1], url), v[0]);
            EXPECT_EQ(decode(v[2], url), v[0]);
        }
    }
    // Both alphabets through either decoder.
    EXPECT_EQ(encode("\xfb\xff", false), "+/8=");
    EXPECT_EQ(encode("\xfb\xff", true), "-_8");
    EXPECT_EQ(encode("\xfb\xef\xbe", false), "++++");
    for (bool url : {false, true}) {
        EXPECT_EQ(decode("+/8=", url), "\xfb\xff");
        EXPECT_EQ(decode("-_8", url), "\xfb\xff");
        EXPECT_EQ(decode("-/8", url), "\xfb\xff");
    }
}

TEST(Base64, Lengths) {
    EXPECT_EQ(base64_encode_len(0), 1);
    EXPECT_EQ(base64_encode_len(1), 5);
    EXPECT_EQ(base64_encode_len(2), 5);
    EXPECT_EQ(base64_encode_len(3), 5);
    EXPECT_EQ(base64_encode_len(4), 9);
    EXPECT_EQ(base64url_encode_len(4), 9);
    EXPECT_EQ(base64_encode_len(300), 401);
    EXPECT_EQ(base64_decode_len(""), 1);
    EXPECT_EQ(base64_decode_len("Zg"), 4);
    EXPECT_EQ(base64_decode_len("Zg=="), 4);
    EXPECT_EQ(base64_decode_len("Zm9v"), 4);
    EXPECT_EQ(base64_decode_len("Zm9vY"), 7);
    EXPECT_EQ(base64url_decode_len("Zm9vYmFy junk"), 7);
    // The decode bound counts leading alphabet characters only.
    EXPECT_EQ(base64_decode_len("Zm9v=Zm9vZm9v"), 4);
}

TEST(Base64, DecoderStopsAtForeignBytes) {
    EXPECT_EQ(decode("Zm9v YmFy", false), "foo");
    EXPECT_EQ(decode("Zm9vYmFy\n", false), "foobar");
    EXPECT_EQ(decode("Zm9v=YmFy", true), "foo");
    EXPECT_EQ(decode("Zm*9v", false), "f");
    EXPECT_EQ(decode("!Zm9v", false), "");
    EXPECT_EQ(decode("Z", false), "");
    EXPECT_EQ(decode("Zm9vY", false), "foo");  // a lone trailing character gives nothing
    EXPECT_EQ(decode("Zm9v\xc3\xa9", false), "foo");
    // Null arguments do nothing harmful.
    uint8_t out[4] = {1, 1, 1, 1};
    base64_decode(out, nullptr);
    EXPECT_EQ(out[0], 0);
    base64_decode(nullptr, "Zm9v");
    EXPECT_EQ(base64_decode_len(nullptr), 1);
    char text[8] = "xxxxxxx";
    base64rfc_encode(text, (const uint8_t *)"abc", -5);
    EXPECT_STREQ(text, "");
}

// Encoding against EVP_EncodeBlock and decoding against EVP_DecodeBlock, over
// random lengths; the URL form is checked as the standard form translated.
TEST(Base64CrossCheck, AgreesWithLibcrypto) {
    std::mt19937 rng(0xb64);
    int cases = 0;
    for (int i = 0; i < 2000; i++) {
        size_t len = i < 100 ? (size_t)i : rng() % 3000;
        auto bytes = random_bytes(rng, len);
        std::string in(bytes.begin(), bytes.end());
        std::string want(4 * ((len + 2) / 3) + 1, '\0');
        int n = EVP_EncodeBlock((unsigned char *)want.data(), bytes.data(), (int)len);
        want.resize((size_t)n);
        const std::string got = encode(in, false);
        ASSERT_EQ(got, want) << "len " << len;
        std::string url = want;
        while (!url.empty() && url.back() == '=') url.pop_back();
        for (char &c : url) c = c == '+' ? '-' : c == '/' ? '_' : c;
        ASSERT_EQ(encode(in, true), url) << "len " << len;
        ASSERT_EQ(decode(got, false), in) << "len " << len;
        ASSERT_EQ(decode(url, true), in) << "len " << len;
        // libcrypto decodes what the standard form produced (it keeps the
        // padding as zero bytes, so compare the prefix).
        std::string ref(want.size() / 4 * 3 + 3, '\0');
        int m = EVP_DecodeBlock((unsigned char *)ref.data(), (const unsigned char *)want.data(),
                                (int)want.size());
        ASSERT_GE(m, (int)len);
        ASSERT_EQ(ref.substr(0, len), in);
        cases++;
    }
    printf("Base64 cross-check: %d random inputs, both alphabets, encode and decode\n", cases);
}
