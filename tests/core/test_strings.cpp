#include <ctype.h>
#include <string.h>

#include <set>
#include <string>

#include "trel_test.h"

using trel_test::LogCapture;

TEST(Strings, Trimming) {
    char s[] = "ab \t\n";
    trim_trailing(s, (int)strlen(s));
    EXPECT_STREQ(s, "ab");
    char t[] = "   ";
    trim_trailing(t, 3);
    EXPECT_STREQ(t, "");

    char dst[8];
    strncpy_trim(dst, sizeof dst, "  ab  ");
    EXPECT_STREQ(dst, "ab  ");
    strncpy_trim(dst, sizeof dst, "\t 0123456789");
    EXPECT_STREQ(dst, "0123456");
    strcpy(dst, "x");
    strncpy_trim(dst, sizeof dst, nullptr);
    EXPECT_STREQ(dst, "");
    strncpy_trim(nullptr, 4, "a");  // harmless
}

TEST(Strings, HexConversions) {
    unsigned char out[4] = {9, 9, 9, 9};
    EXPECT_EQ(hex2uchar("0a0b", out, 4), 4);
    EXPECT_EQ(out[0], 0x0a);
    EXPECT_EQ(out[1], 0x0b);
    EXPECT_EQ(out[2], 0);
    EXPECT_EQ(out[3], 0);
    EXPECT_EQ(hex2uchar("", out, 4), 0);
    EXPECT_EQ(hex2uchar(nullptr, out, 4), 0);
    EXPECT_EQ(hex2uchar("12zz34", out, 3), 3);  // stops at the bad group
    EXPECT_EQ(out[0], 0x12);
    EXPECT_EQ(out[1], 0);
    EXPECT_EQ(hex2uchar("abc", out, 4), 4);  // odd length stays in bounds
    EXPECT_EQ(out[0], 0xab);
    EXPECT_EQ(out[1], 0x0c);

    const unsigned char data[] = {0x01, 0xab, 0xff};
    char hex[16];
    EXPECT_EQ(uchar2hex(data, 2, hex, 4), 0);
    EXPECT_EQ(uchar2hex(data, 2, hex, 5), 2);
    EXPECT_STREQ(hex, "01AB");
    EXPECT_EQ(uchar2lowerhex(data, 3, hex, sizeof hex), 3);
    EXPECT_STREQ(hex, "01abff");
    EXPECT_EQ(uchar2hex(nullptr, 1, hex, sizeof hex), 0);

    // bin2hex converts len - 1 bytes.
    const unsigned char three[] = {1, 2, 3};
    EXPECT_EQ(bin2hex(three, 3, hex, sizeof hex), 4);
    EXPECT_STREQ(hex, "0102");
    EXPECT_EQ(bin2hex(three, 3, hex, 4), 2);  // room for one pair only
    EXPECT_STREQ(hex, "01");
    const unsigned char many[8] = {0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7};
    EXPECT_EQ(bin2hex(many, 0, hex, 9), 8);  // len 0: until the output is full
    EXPECT_STREQ(hex, "a0a1a2a3");
}

TEST(Strings, MacParsing) {
    unsigned char mac[6] = {7, 7, 7, 7, 7, 7};
    EXPECT_EQ(strtomac("00:11:aa:BB:cc:0f", mac), 0);
    const unsigned char want[6] = {0x00, 0x11, 0xaa, 0xbb, 0xcc, 0x0f};
    EXPECT_EQ(memcmp(mac, want, 6), 0);
    unsigned char untouched[6] = {7, 7, 7, 7, 7, 7};
    EXPECT_EQ(strtomac("00:11:22:33:44", untouched), -1);
    EXPECT_EQ(strtomac("00-11-22-33-44-55", untouched), -1);
    for (unsigned char b : untouched) EXPECT_EQ(b, 7);
}

TEST(Strings, RandomTexts) {
    char hex[40];
    EXPECT_EQ(gen_rand_hex(hex, 33), 16);
    EXPECT_EQ(strlen(hex), 32u);
    for (int i = 0; i < 32; i++) EXPECT_TRUE(isxdigit((unsigned char)hex[i]) && !islower(hex[i]));
    EXPECT_EQ(gen_rand_hex(hex, 32), 0);
    EXPECT_EQ(gen_rand_hex(hex, 0), 0);
    EXPECT_EQ(gen_rand_hex(nullptr, 33), 0);

    unsigned char bytes[64] = {};
    EXPECT_EQ(gen_rand_bytes(bytes, sizeof bytes), 64);
    EXPECT_EQ(gen_rand_bytes(nullptr, 4), 0);
    EXPECT_EQ(gen_rand_bytes(bytes, 0), 0);

    char s[201];
    s[200] = 'x';
    EXPECT_EQ(gen_rand_string(s, 200), s);
    EXPECT_EQ(s[200], '\0');
    std::set<char> seen(s, s + 200);
    for (char c : seen) EXPECT_TRUE(isalnum((unsigned char)c));
    EXPECT_GT(seen.size(), 20u);  // 200 draws over 62 characters
    EXPECT_EQ(gen_rand_string(s, 0), nullptr);
    EXPECT_EQ(gen_rand_string(nullptr, 5), nullptr);

    // Reseeded from /dev/urandom on every call.
    char a[33], b[33];
    gen_rand_hex(a, sizeof a);
    gen_rand_hex(b, sizeof b);
    EXPECT_STRNE(a, b);
}

TEST(Strings, BoundedFormatterReportsTruncation) {
    LogCapture cap;
    char buf[4];
    EXPECT_EQ(trel_snprintf("mod", "label", buf, sizeof buf, "%s", "hello"), 3);
    EXPECT_STREQ(buf, "hel");
    EXPECT_TRUE(cap.contains("mod.trel_snprintf(): label\n")) << cap.text();
    cap.clear();
    EXPECT_EQ(trel_snprintf("mod", nullptr, buf, sizeof buf, "%s", "hello"), 5);
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(trel_snprintf("mod", "lbl", buf, sizeof buf, "%s", "abc"), 3);
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(trel_snprintf("mod", "size zero", buf, 0, "%s", "abc"), 0);
    EXPECT_TRUE(cap.contains("[error] mod.trel_snprintf(): size zero")) << cap.text();
    // Quiet at level 0.
    cap.clear();
    libtrel_log_level = 0;
    trel_snprintf("mod", "label", buf, sizeof buf, "%s", "hello");
    libtrel_log_level = 4;
    EXPECT_EQ(cap.text(), "");
}

TEST(Strings, HeapFormatting) {
    char *s = malloc_printf("%s-%05d", "id", 42);
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "id-00042");
    free(s);
    std::string big(10000, 'b');
    s = malloc_printf("%s!", big.c_str());
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(std::string(s), big + "!");
    free(s);
}
