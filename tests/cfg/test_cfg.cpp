// Configuration store: parsing, key order, queries, sections, diffs and
// allocation failures.  Failures are injected by replacing malloc and calloc
// in this program (not possible under AddressSanitizer, which owns the
// allocator).
#include <ctype.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <trel/cfg.h>

#include "trel_test.h"

using trel_test::LogCapture;
using Lines = std::vector<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

#if defined(__SANITIZE_ADDRESS__)
#define CFG_NO_INJECTION 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CFG_NO_INJECTION 1
#endif
#endif

namespace {

// Allocations left before the one that fails; negative: none fails.
long g_fail_in = -1;
bool g_failed = false;

// Runs f with the allocation after n others failing.
template <typename F>
auto with_failure(long n, F f) {
    g_fail_in = n;
    g_failed = false;
    auto r = f();
    g_fail_in = -1;
    return r;
}

// Parses text through an in-memory stream.
cfg_entry *parse_text(const std::string &text) {
    FILE *f = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
    if (f == nullptr) return nullptr;
    cfg_entry *cfg = parse_stream(f);
    fclose(f);
    return cfg;
}

// "key=value" for every node of a list.
Lines dump(const cfg_entry *list) {
    Lines out;
    for (; list != nullptr; list = list->next)
        out.push_back(std::string(list->key) + "=" + list->value);
    return out;
}

Lines dump(const Pairs &list) {
    Lines out;
    for (const auto &[key, value] : list) out.push_back(key + "=" + value);
    return out;
}

// The file text of lines, with the "# misc" marker before line marker.
std::string cfg_text(const Pairs &lines, size_t marker) {
    std::string text;
    for (size_t i = 0; i <= lines.size(); ++i) {
        if (i == marker) text += "# misc\n";
        if (i < lines.size()) text += lines[i].first + "=" + lines[i].second + "\n";
    }
    return text;
}

// The straightforward versions the indexed ones must agree with: every key
// is looked up by a walk from the head.
const std::pair<std::string, std::string> *first_equal(const Pairs &list, const std::string &key) {
    for (const auto &e : list)
        if (cfg_keycmp(e.first.c_str(), key.c_str()) == 0) return &e;
    return nullptr;
}

Lines merge_by_walk(const Pairs &lines, size_t marker) {
    Pairs out;
    for (size_t i = 0; i < lines.size(); ++i) {
        auto *same = first_equal(out, lines[i].first);
        if (i >= marker && same != nullptr)
            const_cast<std::string &>(same->second) = lines[i].second;
        else
            out.push_back(lines[i]);
    }
    return dump(out);
}

Lines diff_by_walk(const Pairs &a, const Pairs &b) {
    auto is_comment = [](const std::string &k) {
        size_t dot = k.rfind('.');
        return dot != std::string::npos && k.compare(dot + 1, std::string::npos, "comment") == 0;
    };
    Pairs out;
    for (const auto &e : b) {
        auto *old = first_equal(a, e.first);
        if (!is_comment(e.first) && (old == nullptr || old->second != e.second)) out.push_back(e);
    }
    for (const auto &e : a)
        if (!is_comment(e.first) && first_equal(b, e.first) == nullptr) out.push_back(e);
    return dump(out);
}

Pairs pairs(const cfg_entry *list) {
    Pairs out;
    for (; list != nullptr; list = list->next) out.emplace_back(list->key, list->value);
    return out;
}

// Random keys over classes of pieces that cfg_keycmp finds equal (when not
// run into a neighbouring digit): case; a digit run worth 2^32 - 256 + c,
// which weighs like the character c at its first position; runs of 30 digits
// and more whose first digits differ by a multiple of 8, 4 or 2, or by
// anything from 33 digits on (10^k d vanishes modulo 2^32); plus leading
// zeros and near misses.
class KeyGen {
public:
    explicit KeyGen(unsigned seed) : rng_(seed) {
        auto zeros = [](char first, size_t n) { return first + std::string(n - 1, '0'); };
        // clang-format off
        classes_ = {{"a", "A"}, {"b", "B"}, {"x", "X"}, {"0"}, {"00"}, {"1"}, {"01"}, {"10"}, {"9"},
                    {"comment", "COMMENT", "Comment"}, {"4294967137", "a294967137", "A294967137"},
                    {"4294967086", ".294967086"}, {"04294967137", "aa294967137", "AA294967137"},
                    {zeros('8', 30), zeros('0', 30)}, {zeros('9', 30), zeros('1', 30)},
                    {zeros('4', 31), zeros('0', 31), zeros('8', 31)},
                    {zeros('2', 32), zeros('0', 32), zeros('6', 32)},
                    {zeros('1', 33), zeros('7', 33), zeros('0', 33)}, {"4294967296"}, {"0000000000"}};
        // clang-format on
        for (int i = 0; i < 30; ++i) pool_.push_back(shape());
    }

    // A key from the pool, spelt at random, or now and then a new one.
    std::string key() {
        if (pick(10) == 0) return spell(shape());
        return spell(pool_[pick(pool_.size())]);
    }
    size_t pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng_); }

private:
    // Piece classes, each followed by a separator: "." or nothing.
    using Shape = std::vector<std::pair<size_t, bool>>;
    Shape shape() {
        Shape s(1 + pick(4));
        for (auto &[cls, dot] : s) cls = pick(classes_.size()), dot = pick(3) != 0;
        return s;
    }
    std::string spell(const Shape &s) {
        std::string key;
        for (size_t i = 0; i < s.size(); ++i) {
            const auto &members = classes_[s[i].first];
            key += members[pick(members.size())];
            if (i + 1 < s.size() && s[i].second) key += ".";
        }
        return key;
    }
    std::mt19937 rng_;
    std::vector<std::vector<std::string>> classes_;
    std::vector<Shape> pool_;
};

}  // namespace

#ifndef CFG_NO_INJECTION
extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);

static bool should_fail() {
    if (g_fail_in < 0 || g_fail_in-- > 0) return false;
    g_failed = true;
    return true;
}

extern "C" void *malloc(size_t size) { return should_fail() ? nullptr : __libc_malloc(size); }
extern "C" void *calloc(size_t n, size_t size) {
    return should_fail() ? nullptr : __libc_calloc(n, size);
}
#define SKIP_WITHOUT_INJECTION()
#else
#define SKIP_WITHOUT_INJECTION() GTEST_SKIP() << "allocation failures cannot be injected under ASan"
#endif

TEST(CfgParse, LineRulesMergingAndBadInput) {
    cfg_entry *cfg = parse_text(
        "# comment=1\n\n\r\nno equals sign\n"
        "a.b=c\n \ta.c \t=  c \n  =blank key\n #k=not a comment\n"
        "x=1=2\nempty=\ncrlf=v\r\nlast=abc");
    EXPECT_EQ(dump(cfg), (Lines{"a.b=c", "a.c=  c ", "=blank key", "#k=not a comment", "x=1=2",
                                "empty=", "crlf=v\r", "last=ab"}));
    for (cfg_entry *e = cfg; e != nullptr; e = e->next) EXPECT_EQ(e->esc, nullptr);
    free_cfg(cfg);

    EXPECT_EQ(parse_text("# only\n#comments\n\n"), nullptr);
    EXPECT_EQ(parse_stream(nullptr), nullptr);
    EXPECT_EQ(parse("/no/such/system.cfg"), nullptr);
    free_cfg(nullptr);

    // Duplicates before the marker stay (lookups find the first); after it, a
    // repeated key updates the first entry in place, keeping its position and
    // spelling.
    cfg = parse_text(
        "Radio.1.Mode=ap\nx=1\nx=2\n#misc\nradio.1.mode=sta\n# miscellaneous\n"
        "y=3\nRADIO.1.MODE=mesh\nX=9\nz=4\n");
    EXPECT_EQ(dump(cfg),
              (Lines{"Radio.1.Mode=mesh", "x=9", "x=2", "radio.1.mode=sta", "y=3", "z=4"}));
    EXPECT_STREQ(get_value(cfg, "d", "X"), "9");
    free_cfg(cfg);

    std::string big(1 << 20, 'v');
    cfg = parse_text("k=" + big + "\nafter=1\n");
    ASSERT_EQ(get_cfg_count(cfg), 2u);
    EXPECT_EQ(strlen(cfg->value), big.size());
    EXPECT_STREQ(get_value(cfg, nullptr, "after"), "1");
    free_cfg(cfg);

    // A NUL byte ends the text of a key or value; the line is still read to
    // its newline.
    cfg = parse_text(std::string("nul=ab\0cd\nk\0ey=v\n\0x=y\nnext=1\n", 29));
    EXPECT_EQ(dump(cfg), (Lines{"nul=ab", "k=v", "=y", "next=1"}));
    free_cfg(cfg);
}

TEST(CfgKeys, OrderIndexAndElement) {
    const char *same = "same";
    EXPECT_EQ(cfg_keycmp(same, same), 0);
    const struct {
        const char *a, *b;
        int sign;
    } order[] = {
        {nullptr, "a", -1},          {"a", nullptr, 1}, {"Radio.1.MODE", "radio.1.mode", 0},
        {"Radio.2", "radio.10", -1}, {"a", "a.b", -1},  {"a.b", "a", 1},
        {"a0", "a\xff", 1},           // a digit outweighs any other character
        {"0012", "12x", 1},           // a tie on the first run, then "012" against "2"
        {"n.4294967296", "n.5", -1},  // run values wrap at 32 bits
    };
    for (const auto &c : order) {
        SCOPED_TRACE(std::string(c.a ? c.a : "null") + " vs " + (c.b ? c.b : "null"));
        EXPECT_EQ(cfg_keycmp(c.a, c.b), c.sign);
    }

    // Zero, non-numbers, 32-bit zeros and range errors are skipped.
    const struct {
        const char *key;
        int n, want;
    } idx[] = {{"radio.2.vap.3.ssid", 1, 2},
               {"radio.2.vap.3.ssid", 3, -1},
               {"a.0.b.0x10x.c.4294967296.7", 1, 16},
               {"a.0.b.0x10x.c.4294967296.7", 2, 7},
               {"a.99999999999999999999.5", 1, 5},
               {"a.5", 0, -1},
               {"a..5", 1, 5},
               {nullptr, 1, -1}};
    for (const auto &c : idx) {
        SCOPED_TRACE(std::string(c.key ? c.key : "null") + " #" + std::to_string(c.n));
        EXPECT_EQ(get_cfg_key_idx(c.key, c.n), c.want);
    }
    EXPECT_STREQ(get_key_element("a.b.c", 0), "a.b.c");
    EXPECT_STREQ(get_key_element("a.b.c", 2), "c");
    EXPECT_EQ(get_key_element("a.b.c", 3), nullptr);
    EXPECT_STREQ(get_key_element("a..", 2), "");
}

TEST(CfgSave, EscapesAndWriter) {
    cfg_entry *cfg = parse_text("a=a$b\nall=`\\\"'$x\nplain=nothing here\n");
    cfg_entry *plain = cfg->next->next;
    const char *first = esc_value(cfg);
    EXPECT_STREQ(first, "a\\$b");
    EXPECT_EQ(esc_value(cfg), first);  // cached
    EXPECT_EQ(esc_value(plain), plain->value);
    EXPECT_STREQ(get_esc_value(cfg, "d", "ALL"), "\\`\\\\\\\"\\'\\$x");
    EXPECT_STREQ(get_esc_value(cfg, "d", "missing"), "d");
    free_cfg(cfg);  // separate caches freed, shared ones not twice

    trel_test::TempRoot root;
    root.mkdir("/tmp");
    root.write("/tmp/system.cfg", std::string(5000, '#'));
    cfg = parse_text("# misc\nb=2\n a = $x \nb=3\n");
    ASSERT_EQ(save_cfg(cfg, "/tmp/system.cfg"), 0);
    EXPECT_EQ(root.read("/tmp/system.cfg"), "# CFG Start\nb=3\na= $x \n");
    cfg_entry *again = parse("/tmp/system.cfg");
    EXPECT_EQ(dump(again), dump(cfg));
    free_cfg(again);
    EXPECT_EQ(save_cfg(cfg, "/no/such/dir/x.cfg"), -1);

    testing::internal::CaptureStdout();
    print_cfg(cfg);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "b=3\na= $x \n");
    free_cfg(cfg);
}

TEST(CfgGetters, ValuesNumbersEnabledWordsAndDefaults) {
    cfg_entry *cfg = parse_text(
        "Radio.1.Mode=ap\nradio.1.mode=second\nhex=0x10\noct=010\nword=abc\ntrail=12abc\n"
        "big=4294967297\nhuge=99999999999999999999\numax=4294967295\n"
        "i64=-9000000000\ni64big=9223372036854775808\n");
    EXPECT_STREQ(get_value(cfg, "x", "radio.%d.mode", 1), "ap");
    EXPECT_STREQ(get_value(cfg, "x", "radio.%d.mode", 2), "x");
    errno = 0;
    // Base 0; "big" is cut to 32 bits.
    const std::pair<const char *, int> i32[] = {{"hex", 16},   {"oct", 8},      {"word", -7},
                                                {"trail", 12}, {"missing", -7}, {"big", 1}};
    for (const auto &[key, want] : i32) EXPECT_EQ(get_int32(cfg, -7, "%s", key), want) << key;
    EXPECT_EQ(get_int32_dec(cfg, -7, "oct"), 10);
    EXPECT_EQ(get_uint32(cfg, 5, "umax"), UINT32_MAX);
    EXPECT_EQ(get_int64(cfg, 5, "i64"), -9000000000LL);
    EXPECT_EQ(get_int32(cfg, -7, "huge"), -7);  // range error
    EXPECT_EQ(errno, ERANGE);
    // A range error left in errno by anything before also gives the default.
    EXPECT_EQ(get_int32(cfg, -7, "hex"), -7);
    EXPECT_EQ(get_uint32(cfg, 5, "hex"), 5u);
    EXPECT_EQ(get_int64(cfg, 5, "hex"), 5);
    errno = 0;
    EXPECT_EQ(get_int64(cfg, 5, "i64big"), 5);
    free_cfg(cfg);

    // The carriage return stays in the value of "d".
    cfg = parse_text(
        "d=enabled\r\nt1=on\nt2= Enabled \nt3=1\nt4=enable\nt5=active\nt6=true\n"
        "f1=\tOFF\nf2=disabled\nf3=0\nf4=disable\nf5=inactive\nf6=FALSE\nx1=01\nx2=yes\nx3=\n");
    const std::pair<const char *, int> words[] = {
        {"d", 7},  {"missing", 7}, {"t1", 1}, {"t2", 1}, {"t3", 1}, {"t4", 1},
        {"t5", 1}, {"t6", 1},      {"f1", 0}, {"f2", 0}, {"f3", 0}, {"f4", 0},
        {"f5", 0}, {"f6", 0},      {"x1", 7}, {"x2", 7}, {"x3", 7}};
    for (const auto &[key, want] : words) EXPECT_EQ(get_bool(cfg, 7, "%s", key), want) << key;
    free_cfg(cfg);
}

TEST(CfgLists, PrefixExactSectionsAndDiff) {
    cfg_entry *cfg = parse_text(
        "radio.1.mode=ap\nradio.10.mode=sta\nRadio.2.mode=x\nradio.1.mode=dup\n"
        "radio.1=on\nvlan.1.id=5\n");
    cfg_entry *it = get_cfg_it(cfg, 0, "radio.%d", 1);
    EXPECT_EQ(dump(it),
              (Lines{"radio.1.mode=ap", "radio.10.mode=sta", "radio.1.mode=dup", "radio.1=on"}));
    EXPECT_EQ(get_cfg_key_count(cfg, 0, "radio.%d", 1), 4u);
    // Nodes borrow keys from the configuration.
    EXPECT_EQ(it->key, cfg->key);
    EXPECT_EQ(esc_value(it), it->value);  // nothing to escape: the value itself, still borrowed

    cfg_entry *exact = get_cfg_it(cfg, 1, "RADIO.1.MODE");
    EXPECT_EQ(dump(exact), (Lines{"radio.1.mode=ap", "radio.1.mode=dup"}));
    EXPECT_EQ(get_cfg_key_count(cfg, 1, "RADIO.1.MODE"), 2u);
    EXPECT_EQ(get_cfg_it(cfg, 0, "RADIO."), nullptr);  // prefixes are case-sensitive

    cfg_entry *whole = cfg_it_append(nullptr, &exact);
    EXPECT_EQ(exact, nullptr);
    cfg_entry *vlan = get_cfg_it(cfg, 0, "vlan.");
    whole = cfg_it_append(whole, &vlan);
    EXPECT_EQ(vlan, nullptr);
    EXPECT_EQ(dump(whole), (Lines{"radio.1.mode=ap", "radio.1.mode=dup", "vlan.1.id=5"}));
    free_cfg_it(whole);
    free_cfg_it(it);
    free_cfg(cfg);

    cfg = parse_text(
        "vlan.10.status=enabled\nvlan.2.status=disabled\nvlan.x.status=enabled\n"
        "vlan.2.id=20\nvlan.3=on\nvlan.3.Status= On \nvlan.0x4.status=Enabled\n"
        "vlan.2.STATUS=enabled\nvlanx.1.status=enabled\n");
    cfg_entry *s = get_cfg_section(cfg, ".status", nullptr, "vlan.");
    // Sorted stably; "0x4" sorts by its first digit: "0" weighs less than "2".
    EXPECT_EQ(dump(s),
              (Lines{"vlan.0x4.status=Enabled", "vlan.2.status=disabled", "vlan.2.STATUS=enabled",
                     "vlan.3.Status= On ", "vlan.10.status=enabled"}));
    free_cfg_it(s);
    EXPECT_EQ(get_cfg_section_count(cfg, ".status", nullptr, "vlan."), 5u);
    EXPECT_EQ(get_cfg_section_enabled_count(cfg, ".status", "vlan."), 4u);
    s = get_cfg_section(cfg, ".status", "enabled", "%s.", "vlan");
    EXPECT_EQ(dump(s), (Lines{"vlan.2.STATUS=enabled", "vlan.10.status=enabled"}));
    free_cfg_it(s);
    s = get_cfg_section(cfg, nullptr, nullptr, "vlan.");
    EXPECT_EQ(dump(s), (Lines{"vlan.3=on"}));
    free_cfg_it(s);

    LogCapture cap;
    EXPECT_EQ(get_cfg_section(cfg, "status", nullptr, "vlan."), nullptr);
    EXPECT_TRUE(
        cap.contains("[error] cfg.process_cfg_section(): postfix must start with '.': 'status'"))
        << cap.text();
    cap.clear();
    EXPECT_EQ(get_cfg_section_count(cfg, ".status", nullptr, "vla%s", "n"), 0u);
    EXPECT_TRUE(
        cap.contains("[warn ] cfg.process_cfg_section(): deprecated prefix doesn't end with '.': "
                     "'vla%s' => 'vlan'"))
        << cap.text();
    free_cfg(cfg);

    cfg_entry *a = parse_text("keep=1\nchange=old\ngone=x\ngone.comment=a\nCase=v\n");
    cfg_entry *b = parse_text("new=n\nnote.comment=b\nx.comment=c\nchange=new\nkeep=1\nCASE=V\n");
    cfg_entry *d = get_cfg_diff_it(a, b);
    EXPECT_EQ(dump(d), (Lines{"new=n", "change=new", "CASE=V", "gone=x"}));
    free_cfg_it(d);
    EXPECT_EQ(get_cfg_diff_it(a, a), nullptr);
    free_cfg(a);
    free_cfg(b);
}

// The indexed merge and diff against the walks above, over random files whose
// keys meet every way cfg_keycmp finds two spellings equal.
TEST(CfgIndex, MergeAndDiffMatchTheWalks) {
    size_t wrapped_letters = 0, long_runs = 0;
    for (unsigned seed = 1; seed <= 100; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        KeyGen gen(seed);
        // The last seed makes a large file, so the index grows many times.
        size_t n = seed == 100 ? 600 : 20 + gen.pick(200);
        Pairs lines, other;
        for (size_t i = 0; i < n; ++i) {
            lines.emplace_back(gen.key(), "v" + std::to_string(gen.pick(3)));
            other.emplace_back(gen.key(), "v" + std::to_string(gen.pick(3)));
        }
        // Count the kinds of equal spellings met, to know the corners are hit.
        for (size_t i = 0; i < lines.size() && n < 1000; ++i)
            for (size_t j = 0; j < i; ++j) {
                const std::string &p = lines[i].first, &q = lines[j].first;
                if (strcasecmp(p.c_str(), q.c_str()) == 0 || cfg_keycmp(p.c_str(), q.c_str()) != 0)
                    continue;
                bool mixed = false;
                for (size_t k = 0; k < p.size(); ++k) mixed |= !isdigit(p[k]) != !isdigit(q[k]);
                ++(mixed ? wrapped_letters : long_runs);
            }

        size_t marker = gen.pick(n + 1);
        cfg_entry *merged = parse_text(cfg_text(lines, marker));
        ASSERT_EQ(dump(merged), merge_by_walk(lines, marker));
        free_cfg(merged);

        // Unmerged lists, so the diff also meets duplicate keys (the first counts).
        cfg_entry *a = parse_text(cfg_text(lines, n));
        cfg_entry *b = parse_text(cfg_text(other, n));
        cfg_entry *d = get_cfg_diff_it(a, b);
        ASSERT_EQ(dump(d), diff_by_walk(pairs(a), pairs(b)));
        free_cfg_it(d);
        d = get_cfg_diff_it(b, a);
        ASSERT_EQ(dump(d), diff_by_walk(pairs(b), pairs(a)));
        free_cfg_it(d);
        free_cfg(a);
        free_cfg(b);
    }
    EXPECT_GT(wrapped_letters, 1000u);
    EXPECT_GT(long_runs, 1000u);
}

TEST(CfgOom, ParseKeepsWhatItHasAndQueriesFallBack) {
    SKIP_WITHOUT_INJECTION();
    // Without the marker, and with it: there the index of keys allocates its
    // table, and again when it grows for the second batch of keys; failing
    // either costs nothing (the list is walked instead).
    Pairs keys;
    for (int i = 0; i < 40; ++i) keys.emplace_back("K" + std::to_string(i % 30), std::to_string(i));
    const struct {
        const char *what;
        Pairs lines;
        size_t marker;
    } rows[] = {{"plain", {{"a", "1"}, {"b", "2"}, {"c", "3"}}, 3}, {"merged", keys, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const std::string text = cfg_text(row.lines, row.marker);
        const Lines full = merge_by_walk(row.lines, row.marker);
        bool saw_calloc = false, saw_malloc = false, failed = true;
        for (long k = 0; failed && k < 200; ++k) {
            SCOPED_TRACE("failing allocation " + std::to_string(k));
            LogCapture cap;
            cfg_entry *cfg = with_failure(k, [&] { return parse_text(text); });
            failed = g_failed;
            Lines got = dump(cfg);
            free_cfg(cfg);
            // Whatever was parsed before the failure is kept intact, merged
            // as far as it went.
            size_t m = 0;
            auto upto = [&](size_t m) { return Pairs(row.lines.begin(), row.lines.begin() + m); };
            while (m <= row.lines.size() && merge_by_walk(upto(m), row.marker) != got) ++m;
            EXPECT_LE(m, row.lines.size());
            // Unlogged, a failure in the stream's own buffering loses all or
            // nothing; one of the index loses nothing.
            bool logged = cap.contains("[error] cfg.parse_stream(): ");
            EXPECT_TRUE(logged || got.empty() || got == full);
            saw_calloc |= logged && cap.contains(": calloc(1, 32) failed");
            saw_malloc |= logged && cap.contains(": malloc(2) failed");
        }
        EXPECT_FALSE(failed);
        EXPECT_TRUE(saw_calloc);
        EXPECT_TRUE(saw_malloc);
    }

    cfg_entry *cfg = parse_text("k=a$b\nk.1=x\nk.2=y\n");
    LogCapture cap;

    EXPECT_EQ(with_failure(0, [&] { return esc_value(cfg); }), nullptr);
    EXPECT_TRUE(cap.contains("[error] cfg.esc_value(): ")) << cap.text();
    EXPECT_TRUE(cap.contains(": malloc(5) failed"));
    EXPECT_STREQ(esc_value(cfg), "a\\$b");  // tried again

    // The key text cannot be formatted.
    EXPECT_STREQ(with_failure(0, [&] { return get_value(cfg, "def", "k"); }), "def");
    EXPECT_TRUE(cap.contains("[error] cfg.vget_value(): OOM")) << cap.text();

    // Pattern, first node, then the second node fails.
    cfg_entry *it = with_failure(2, [&] { return get_cfg_it(cfg, 0, "k."); });
    EXPECT_EQ(dump(it), (Lines{"k.1=x"}));
    EXPECT_TRUE(cap.contains("[error] cfg.append_cfg_match_cb(): ")) << cap.text();
    free_cfg_it(it);

    // The diff's index failing costs nothing; a node failing loses that
    // difference only.
    cfg_entry *other = parse_text("k=new\nk.1=x\n");
    const struct {
        long fail_in;
        Lines want;
        bool logged;
    } diffs[] = {{0, {"k=new", "k.2=y"}, false}, {1, {"k.2=y"}, true}};
    for (const auto &row : diffs) {
        SCOPED_TRACE("failing allocation " + std::to_string(row.fail_in));
        cap.clear();
        cfg_entry *d = with_failure(row.fail_in, [&] { return get_cfg_diff_it(cfg, other); });
        EXPECT_TRUE(g_failed);
        EXPECT_EQ(dump(d), row.want);
        EXPECT_EQ(cap.contains("[error] cfg.get_cfg_diff_it(): "), row.logged) << cap.text();
        free_cfg_it(d);
    }
    free_cfg(other);
    free_cfg(cfg);
}
