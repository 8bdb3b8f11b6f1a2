#include <openssl/evp.h>

#include "hex.h"
#include "trel_test.h"

namespace {

// Encodes into a buffer of exactly the announced size plus a guard byte.
std::string encode(const std::string &in, bool url) {
    const int size = base64_encode_len((int32_t)in.size());
    std::string out((size_t)size + 1, '\xee');
    (url ? base64url_encode : base64rfc_encode)(out.data(), (const uint8_t *)in.data(),
                                                (int32_t)in.size());
    EXPECT_EQ(out[(size_t)size], '\xee') << "wrote past the announced size";
    EXPECT_LT(strlen(out.c_str()), (size_t)size);
    return out.c_str();
}

// Decodes into a buffer prefilled with a marker byte: the last byte written
// must be the NUL ending the output, within the announced bound.
std::string decode(const std::string &text, bool url) {
    const size_t bound = (size_t)base64_decode_len(text.c_str());
    std::string out(bound + 8, '\xee');
    (url ? base64url_decode : base64_decode)((uint8_t *)out.data(), text.c_str());
    const size_t end = out.find_last_not_of('\xee');
    EXPECT_TRUE(end < bound && out[end] == '\0') << "no NUL within " << bound << " bytes: " << text;
    return out.substr(0, std::min(end, bound));
}

}  // namespace

// Announced lengths, foreign bytes and null arguments; the alphabets and
// padding are checked against libcrypto below.
TEST(Base64, LengthsForeignBytesAndNulls) {
    EXPECT_EQ(base64_encode_len(0), 1);
    EXPECT_EQ(base64_encode_len(1), 5);
    EXPECT_EQ(base64_encode_len(3), 5);
    EXPECT_EQ(base64url_encode_len(4), 9);
    EXPECT_EQ(base64_decode_len(""), 1);
    EXPECT_EQ(base64_decode_len("Zm9vY"), 7);
    // The decode bound counts leading alphabet characters only.
    EXPECT_EQ(base64url_decode_len("Zm9vYmFy junk"), 7);
    EXPECT_EQ(base64_decode_len("Zm9v=Zm9vZm9v"), 4);

    EXPECT_EQ(decode("Zm9v YmFy", false), "foo");
    EXPECT_EQ(decode("Zm9v=YmFy", true), "foo");
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

// 2000 inputs of every length up to 100 and random ones up to 3000: the
// standard form against EVP_EncodeBlock, the URL form as its translation,
// both decoded back through either decoder.
TEST(Base64CrossCheck, AgreesWithLibcrypto) {
    std::mt19937 rng(0xb64);
    for (int i = 0; i < 2000; i++) {
        size_t len = i < 100 ? (size_t)i : rng() % 3000;
        auto bytes = crypto_test::random_bytes(rng, len);
        const std::string in(bytes.begin(), bytes.end());
        std::string want(4 * ((len + 2) / 3) + 1, '\0');
        want.resize((size_t)EVP_EncodeBlock((unsigned char *)want.data(), bytes.data(), (int)len));
        ASSERT_EQ(encode(in, false), want) << "len " << len;
        std::string url = want.substr(0, want.find('='));
        for (char &c : url) c = c == '+' ? '-' : c == '/' ? '_' : c;
        ASSERT_EQ(encode(in, true), url) << "len " << len;
        for (bool url_decoder : {false, true}) {
            ASSERT_EQ(decode(want, url_decoder), in) << "len " << len;
            ASSERT_EQ(decode(url, url_decoder), in) << "len " << len;
        }
    }
}
