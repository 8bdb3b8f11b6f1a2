#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <string>

#include "cfg_test_util.h"
#include "trel_test.h"

using cfg_test::dump;
using cfg_test::Lines;
using cfg_test::parse_text;

namespace {

// Straightforward key comparison: weights recomputed from scratch at every
// position, with the digit run read to its end.
int reference_keycmp(const char *a, const char *b) {
    auto weight = [](const char *p) -> uint32_t {
        unsigned char c = (unsigned char)*p;
        if (c < '0' || c > '9') return (unsigned char)tolower(c);
        uint32_t v = 0;
        for (; *p >= '0' && *p <= '9'; ++p) v = v * 10u + (uint32_t)(*p - '0');
        return 256u + v;
    };
    for (;; ++a, ++b) {
        if (*a == '\0') return *b == '\0' ? 0 : -1;
        if (*b == '\0') return 1;
        uint32_t x = weight(a), y = weight(b);
        if (x != y) return x < y ? -1 : 1;
    }
}

}  // namespace

TEST(CfgParse, LineRules) {
    cfg_entry *cfg = parse_text(
        "# comment=1\n"
        "\n"
        "\r\n"
        "no equals sign\n"
        "a.b=c\n"
        " \ta.c \t=  c \n"
        "x=1=2\n"
        "empty=\n"
        "crlf=v\r\n"
        "  =blank key\n"
        " #k=not a comment\n"
        "last=abc");
    EXPECT_EQ(dump(cfg), (Lines{"a.b=c", "a.c=  c ", "x=1=2", "empty=", "crlf=v\r", "=blank key",
                                "#k=not a comment", "last=ab"}));
    EXPECT_EQ(get_cfg_count(cfg), 8u);
    for (cfg_entry *e = cfg; e != nullptr; e = e->next) EXPECT_EQ(e->esc, nullptr);
    free_cfg(cfg);

    EXPECT_EQ(parse_text("# only\n#comments\n\n"), nullptr);
    EXPECT_EQ(parse_text(""), nullptr);
    EXPECT_EQ(parse_stream(nullptr), nullptr);
    EXPECT_EQ(parse(nullptr), nullptr);
    EXPECT_EQ(parse("/no/such/system.cfg"), nullptr);
    free_cfg(nullptr);
}

TEST(CfgParse, DuplicatesMergeOnlyAfterMiscMarker) {
    cfg_entry *cfg = parse_text("k=1\nK=2\n");
    EXPECT_EQ(dump(cfg), (Lines{"k=1", "K=2"}));
    EXPECT_STREQ(get_value(cfg, "d", "k"), "1");
    free_cfg(cfg);

    // Duplicates before the marker stay; after it, a repeated key updates the
    // first entry in place, keeping its position and spelling.
    cfg = parse_text(
        "Radio.1.Mode=ap\nx=1\nx=2\n#misc\nradio.1.mode=sta\n# miscellaneous\n"
        "y=3\nRADIO.1.MODE=mesh\nX=9\nz=4\n");
    EXPECT_EQ(dump(cfg),
              (Lines{"Radio.1.Mode=mesh", "x=9", "x=2", "radio.1.mode=sta", "y=3", "z=4"}));
    free_cfg(cfg);
}

TEST(CfgParse, BadInput) {
    std::string big(1 << 20, 'v');
    cfg_entry *cfg = parse_text("k=" + big + "\nafter=1\n");
    ASSERT_EQ(get_cfg_count(cfg), 2u);
    EXPECT_EQ(strlen(cfg->value), big.size());
    EXPECT_STREQ(get_value(cfg, nullptr, "after"), "1");
    free_cfg(cfg);

    // A NUL byte ends the text of a key or value; the line is still read to
    // its newline.
    cfg = parse_text(std::string("nul=ab\0cd\nk\0ey=v\n\0x=y\nnext=1\n", 29));
    EXPECT_EQ(dump(cfg), (Lines{"nul=ab", "k=v", "=y", "next=1"}));
    free_cfg(cfg);

    cfg = parse_text(std::string("only=x"));
    EXPECT_EQ(dump(cfg), (Lines{"only="}));
    free_cfg(cfg);
}

TEST(CfgKeycmp, OrderAndQuirks) {
    const char *s = "same";
    EXPECT_EQ(cfg_keycmp(s, s), 0);
    EXPECT_EQ(cfg_keycmp(nullptr, nullptr), 0);
    EXPECT_EQ(cfg_keycmp(nullptr, "a"), -1);
    EXPECT_EQ(cfg_keycmp("a", nullptr), 1);
    EXPECT_EQ(cfg_keycmp("Radio.1.MODE", "radio.1.mode"), 0);
    EXPECT_LT(cfg_keycmp("Radio.2", "radio.10"), 0);
    EXPECT_GT(cfg_keycmp("radio.10", "Radio.2"), 0);
    EXPECT_LT(cfg_keycmp("a", "a.b"), 0);
    EXPECT_GT(cfg_keycmp("a.b", "a"), 0);
    EXPECT_EQ(cfg_keycmp("", ""), 0);
    // A digit outweighs any other character.
    EXPECT_GT(cfg_keycmp("a0", "a~"), 0);
    EXPECT_GT(cfg_keycmp("a0", "a\xff"), 0);
    // One-character advance: "0012" and "12x" tie on the first run, then the
    // rest of the run "012" is compared with "2".
    EXPECT_GT(cfg_keycmp("0012", "12x"), 0);
    // Run values wrap at 32 bits: 4294967296 weighs like 0.
    EXPECT_LT(cfg_keycmp("n.4294967296", "n.5"), 0);

    // Long digit runs against the straightforward definition.
    std::mt19937 rng(7);
    const char alphabet[] = "0123456789012345678901234567890123456789aB.";
    for (int i = 0; i < 3000; ++i) {
        std::string a, b;
        size_t la = rng() % 80, lb = rng() % 80;
        for (size_t j = 0; j < la; ++j) a += alphabet[rng() % (sizeof alphabet - 1)];
        b = a.substr(0, std::min(la, (size_t)(rng() % 80)));
        for (size_t j = b.size(); j < lb; ++j) b += alphabet[rng() % (sizeof alphabet - 1)];
        ASSERT_EQ(cfg_keycmp(a.c_str(), b.c_str()), reference_keycmp(a.c_str(), b.c_str()))
            << a << " vs " << b;
    }
    std::string huge(200000, '7'), other = huge;
    EXPECT_EQ(cfg_keycmp(huge.c_str(), other.c_str()), 0);
    other.back() = '8';
    EXPECT_EQ(cfg_keycmp(huge.c_str(), other.c_str()),
              reference_keycmp(huge.c_str(), other.c_str()));
}

TEST(CfgEscape, CachedEscapes) {
    cfg_entry *cfg = parse_text("a=a$b\nall=`\\\"'$x\nplain=nothing here\n");
    cfg_entry *plain = cfg->next->next;
    EXPECT_STREQ(esc_value(cfg), "a\\$b");
    const char *first = cfg->esc;
    EXPECT_EQ(esc_value(cfg), first);
    EXPECT_STREQ(esc_value(cfg->next), "\\`\\\\\\\"\\'\\$x");
    EXPECT_EQ(esc_value(plain), plain->value);
    EXPECT_EQ(plain->esc, plain->value);
    EXPECT_STREQ(get_esc_value(cfg, "d", "ALL"), "\\`\\\\\\\"\\'\\$x");
    EXPECT_STREQ(get_esc_value(cfg, "d", "missing"), "d");
    EXPECT_EQ(esc_value(nullptr), nullptr);
    free_cfg(cfg);  // separate caches freed, shared ones not twice
}

TEST(CfgSave, WritesHeaderAndRawLines) {
    trel_test::TempRoot root;
    root.mkdir("/tmp");
    cfg_entry *cfg = parse_text("# misc\nb=2\n a = $x \nb=3\n");
    ASSERT_EQ(save_cfg(cfg, "/tmp/system.cfg"), 0);
    EXPECT_EQ(root.read("/tmp/system.cfg"), "# CFG Start\nb=3\na= $x \n");
    // Truncates what was there; then reads back the same.
    root.write("/tmp/other.cfg", std::string(5000, '#'));
    ASSERT_EQ(save_cfg(cfg, "/tmp/other.cfg"), 0);
    cfg_entry *again = parse("/tmp/other.cfg");
    EXPECT_EQ(dump(again), dump(cfg));
    free_cfg(again);
    EXPECT_EQ(save_cfg(cfg, "/no/such/dir/x.cfg"), -1);
    EXPECT_EQ(save_cfg(nullptr, "/tmp/empty.cfg"), 0);
    EXPECT_EQ(root.read("/tmp/empty.cfg"), "# CFG Start\n");

    testing::internal::CaptureStdout();
    print_cfg(cfg);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "b=3\na= $x \n");
    free_cfg(cfg);
}
