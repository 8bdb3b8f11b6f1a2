#include <ctype.h>
#include <string.h>

#include "trel_test.h"

TEST(Strings, TrimmingHexAndMac) {
    char s[] = "ab \t\n";
    trim_trailing(s, (int)strlen(s));
    EXPECT_STREQ(s, "ab");
    char dst[8] = "x";
    strncpy_trim(dst, 1, "ab");
    EXPECT_STREQ(dst, "");
    strncpy_trim(dst, sizeof dst, "  ab  ");
    EXPECT_STREQ(dst, "ab  ");
    strncpy_trim(dst, sizeof dst, "\t 0123456789");
    EXPECT_STREQ(dst, "0123456");

    unsigned char out[4] = {9, 9, 9, 9};
    EXPECT_EQ(hex2uchar("", out, 4), 0);
    EXPECT_EQ(hex2uchar("0a1b2c", out, 4), 4);
    EXPECT_EQ(memcmp(out, "\x0a\x1b\x2c\0", 4), 0);
    EXPECT_EQ(hex2uchar("12zz34", out, 3), 3);  // stops at the bad group
    EXPECT_EQ(memcmp(out, "\x12\0\0", 3), 0);

    const unsigned char data[] = {0x01, 0xab, 0xff};
    char hex[16];
    EXPECT_EQ(uchar2hex(data, 2, hex, 4), 0);
    EXPECT_EQ(uchar2hex(data, 2, hex, 5), 2);
    EXPECT_STREQ(hex, "01AB");
    // bin2hex converts len - 1 bytes, and with len 0 fills the output.
    EXPECT_EQ(bin2hex(data, 3, hex, sizeof hex), 4);
    EXPECT_STREQ(hex, "01ab");
    EXPECT_EQ(bin2hex(data, 3, hex, 4), 2);  // room for one pair only
    EXPECT_STREQ(hex, "01");
    const unsigned char many[8] = {0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7};
    EXPECT_EQ(bin2hex(many, 0, hex, 9), 8);
    EXPECT_STREQ(hex, "a0a1a2a3");

    unsigned char mac[6] = {7, 7, 7, 7, 7, 7};
    EXPECT_EQ(strtomac("00:11:22:33:44", mac), -1);
    EXPECT_EQ(memcmp(mac, "\7\7\7\7\7\7", 6), 0);
    EXPECT_EQ(strtomac("00:11:aa:BB:cc:0f", mac), 0);
    EXPECT_EQ(memcmp(mac, "\x00\x11\xaa\xbb\xcc\x0f", 6), 0);
}

// Random output stays within its length and alphabet.
TEST(Strings, RandomTexts) {
    char hex[40];
    EXPECT_EQ(gen_rand_hex(hex, 33), 16);
    EXPECT_EQ(strspn(hex, "0123456789ABCDEF"), 32u);
    EXPECT_EQ(hex[32], '\0');
    EXPECT_EQ(gen_rand_hex(hex, 32), 0);

    char s[201];
    s[200] = 'x';
    EXPECT_EQ(gen_rand_string(s, 0), nullptr);
    EXPECT_EQ(gen_rand_string(s, 200), s);
    EXPECT_EQ(s[200], '\0');
    EXPECT_EQ(strspn(s, "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"), 200u);

    unsigned char bytes[64] = {0};
    EXPECT_EQ(gen_rand_bytes(bytes, 0), 0);
    EXPECT_EQ(gen_rand_bytes(bytes, 63), 63);
    EXPECT_EQ(bytes[63], 0);  // nothing past len
    EXPECT_NE(std::string((char *)bytes, 63), std::string(63, '\0'));
}

TEST(Strings, Formatting) {
    trel_test::LogCapture cap;
    char buf[4];
    EXPECT_EQ(trel_snprintf("mod", "label", buf, sizeof buf, "%s", "hello"), 3);
    EXPECT_STREQ(buf, "hel");
    EXPECT_TRUE(cap.contains("[error] mod.trel_snprintf(): label\n")) << cap.text();
    cap.clear();
    EXPECT_EQ(trel_snprintf("mod", nullptr, buf, sizeof buf, "%s", "hello"), 5);
    EXPECT_EQ(trel_snprintf("mod", "lbl", buf, sizeof buf, "%s", "abc"), 3);
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(trel_snprintf("mod", "size zero", buf, 0, "%s", "abc"), 0);
    EXPECT_TRUE(cap.contains("mod.trel_snprintf(): size zero")) << cap.text();

    std::string big(10000, 'b');
    char *s = malloc_printf("%s-%05d", big.c_str(), 42);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(std::string(s), big + "-00042");
    free(s);
}
