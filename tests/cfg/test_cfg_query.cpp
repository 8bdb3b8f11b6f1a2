#include <errno.h>
#include <stdint.h>

#include <algorithm>
#include <random>
#include <string>

#include "cfg_test_util.h"
#include "trel_test.h"

using cfg_test::dump;
using cfg_test::Lines;
using cfg_test::parse_text;
using trel_test::LogCapture;

TEST(CfgGetters, ValuesNumbersAndDefaults) {
    cfg_entry *cfg = parse_text(
        "Radio.1.Mode=ap\nradio.1.mode=second\nhex=0x10\noct=010\nword=abc\ntrail=12abc\n"
        "big=4294967297\nhuge=99999999999999999999\numax=4294967295\nneg=-1\n"
        "i64=-9000000000\ni64big=9223372036854775808\nblank=\n");
    EXPECT_STREQ(get_value(cfg, "x", "radio.%d.mode", 1), "ap");
    EXPECT_STREQ(get_value(cfg, "x", "radio.%d.mode", 2), "x");
    EXPECT_EQ(get_value(cfg, nullptr, "%s", "nope"), nullptr);

    errno = 0;
    EXPECT_EQ(get_int32(cfg, -7, "hex"), 16);
    EXPECT_EQ(get_int32(cfg, -7, "oct"), 8);
    EXPECT_EQ(get_int32_dec(cfg, -7, "hex"), 0);
    EXPECT_EQ(get_int32_dec(cfg, -7, "oct"), 10);
    EXPECT_EQ(get_int32(cfg, -7, "word"), -7);
    EXPECT_EQ(get_int32(cfg, -7, "blank"), -7);
    EXPECT_EQ(get_int32(cfg, -7, "trail"), 12);
    EXPECT_EQ(get_int32(cfg, -7, "missing"), -7);
    EXPECT_EQ(get_int32(cfg, -7, "big"), 1);  // cut to 32 bits
    EXPECT_EQ(get_uint32(cfg, 5, "umax"), UINT32_MAX);
    EXPECT_EQ(get_uint32(cfg, 5, "neg"), UINT32_MAX);
    EXPECT_EQ(get_int64(cfg, 5, "i64"), -9000000000LL);
    errno = 0;
    EXPECT_EQ(get_int32(cfg, -7, "huge"), -7);  // range error
    EXPECT_EQ(errno, ERANGE);
    // A range error left in errno by anything before also gives the default.
    EXPECT_EQ(get_int32(cfg, -7, "hex"), -7);
    EXPECT_EQ(get_uint32(cfg, 5, "hex"), 5u);
    EXPECT_EQ(get_int32_dec(cfg, -7, "oct"), -7);
    EXPECT_EQ(get_int64(cfg, 5, "hex"), 5);
    errno = 0;
    EXPECT_EQ(get_int64(cfg, 5, "i64big"), 5);
    errno = 0;
    EXPECT_EQ(get_int64(cfg, 5, "hex"), 16);
    free_cfg(cfg);
}

TEST(CfgGetters, EnabledWords) {
    cfg_entry *cfg = parse_text(
        "a= Enabled \nb=\tOFF\nc=no\nd=enabled\r\n"
        "t1=on\nt2=ENABLED\nt3=1\nt4=enable\nt5=active\nt6=true\n"
        "f1=off\nf2=disabled\nf3=0\nf4=disable\nf5=inactive\nf6=FALSE\n"
        "x1=01\nx2=yes\nx3=\n");
    EXPECT_EQ(get_bool(cfg, 7, "a"), 1);
    EXPECT_EQ(get_bool(cfg, 7, "b"), 0);
    EXPECT_EQ(get_bool(cfg, 7, "c"), 7);
    EXPECT_EQ(get_bool(cfg, 7, "d"), 7);  // the carriage return stays in the value
    EXPECT_EQ(get_bool(cfg, 7, "missing"), 7);
    for (int i = 1; i <= 6; ++i) {
        EXPECT_EQ(get_bool(cfg, 7, "t%d", i), 1) << i;
        EXPECT_EQ(get_bool(cfg, 7, "f%d", i), 0) << i;
    }
    for (int i = 1; i <= 3; ++i) EXPECT_EQ(get_bool(cfg, -1, "x%d", i), -1) << i;
    free_cfg(cfg);
}

TEST(CfgLists, PrefixExactAndAppend) {
    cfg_entry *cfg = parse_text(
        "radio.1.mode=ap\nradio.10.mode=sta\nRadio.2.mode=x\nradio.1.mode=dup\n"
        "radio.1=on\nvlan.1.id=5\n");
    cfg_entry *it = get_cfg_it(cfg, 0, "radio.%d", 1);
    EXPECT_EQ(dump(it),
              (Lines{"radio.1.mode=ap", "radio.10.mode=sta", "radio.1.mode=dup", "radio.1=on"}));
    EXPECT_EQ(get_cfg_key_count(cfg, 0, "radio.%d", 1), 4u);
    // Nodes borrow key and value from the configuration.
    EXPECT_EQ(it->key, cfg->key);
    EXPECT_EQ(it->value, cfg->value);
    EXPECT_EQ(it->esc, nullptr);
    // Lookups work on iterator lists too.
    EXPECT_STREQ(get_value(it, "d", "RADIO.10.MODE"), "sta");

    cfg_entry *exact = get_cfg_it(cfg, 1, "RADIO.1.MODE");
    EXPECT_EQ(dump(exact), (Lines{"radio.1.mode=ap", "radio.1.mode=dup"}));
    EXPECT_EQ(get_cfg_key_count(cfg, 1, "RADIO.1.MODE"), 2u);
    EXPECT_EQ(get_cfg_it(cfg, 0, "RADIO."), nullptr);  // prefixes are case-sensitive
    EXPECT_EQ(get_cfg_key_count(cfg, 0, "RADIO."), 0u);

    cfg_entry *none = nullptr;
    EXPECT_EQ(cfg_it_append(it, &none), it);
    cfg_entry *whole = cfg_it_append(nullptr, &exact);
    EXPECT_EQ(exact, nullptr);
    cfg_entry *vlan = get_cfg_it(cfg, 0, "vlan.");
    cfg_entry *vlan_head = vlan;
    whole = cfg_it_append(whole, &vlan);
    EXPECT_EQ(vlan, nullptr);
    EXPECT_EQ(dump(whole), (Lines{"radio.1.mode=ap", "radio.1.mode=dup", "vlan.1.id=5"}));
    EXPECT_EQ(whole->next->next, vlan_head);
    free_cfg_it(whole);
    free_cfg_it(it);
    free_cfg(cfg);
}

TEST(CfgSections, MatchingSortingAndCounts) {
    cfg_entry *cfg = parse_text(
        "vlan.10.status=enabled\nvlan.2.status=disabled\nvlan.x.status=enabled\n"
        "vlan.2.id=20\nvlan.3=on\nvlan.3.Status= On \nvlan.0x4.status=Enabled\n"
        "vlan.2.status=enabled\nvlanx.1.status=enabled\n");
    cfg_entry *s = get_cfg_section(cfg, ".status", nullptr, "vlan.");
    // "0x4" sorts by its first digit: "0" weighs less than "2".
    EXPECT_EQ(dump(s),
              (Lines{"vlan.0x4.status=Enabled", "vlan.2.status=disabled", "vlan.2.status=enabled",
                     "vlan.3.Status= On ", "vlan.10.status=enabled"}));
    free_cfg_it(s);
    EXPECT_EQ(get_cfg_section_count(cfg, ".status", nullptr, "vlan."), 5u);
    EXPECT_EQ(get_cfg_section_enabled_count(cfg, ".status", "vlan."), 4u);
    EXPECT_EQ(get_cfg_section_count(cfg, ".status", "enabled", "vlan."), 2u);
    s = get_cfg_section(cfg, ".status", "enabled", "%s.", "vlan");
    EXPECT_EQ(dump(s), (Lines{"vlan.2.status=enabled", "vlan.10.status=enabled"}));
    free_cfg_it(s);
    s = get_cfg_section(cfg, nullptr, nullptr, "vlan.");
    EXPECT_EQ(dump(s), (Lines{"vlan.3=on"}));
    free_cfg_it(s);

    LogCapture cap;
    EXPECT_EQ(get_cfg_section(cfg, "status", nullptr, "vlan."), nullptr);
    EXPECT_EQ(get_cfg_section_count(cfg, "", nullptr, "vlan."), 0u);
    EXPECT_TRUE(
        cap.contains("[error] cfg.process_cfg_section(): postfix must start with '.': 'status'"))
        << cap.text();
    EXPECT_TRUE(cap.contains("postfix must start with '.': ''"));
    cap.clear();
    EXPECT_EQ(get_cfg_section_count(cfg, ".status", nullptr, "vla%s", "n"), 0u);
    EXPECT_TRUE(
        cap.contains("[warn ] cfg.process_cfg_section(): deprecated prefix doesn't end with '.': "
                     "'vla%s' => 'vlan'"))
        << cap.text();
    free_cfg(cfg);
}

TEST(CfgSections, SortIsStableByKey) {
    std::mt19937 rng(11);
    const char *nums[] = {"1", "2", "10", "02", "0x1", "4294967296"};
    const char *tails[] = {"", "A", "a", "b", "9x", "1"};
    std::string text;
    std::vector<std::pair<std::string, std::string>> expect;
    for (int i = 0; i < 300; ++i) {
        std::string key = std::string("s.") + nums[rng() % 6] + tails[rng() % 6];
        std::string value = std::to_string(i);
        text += key + "=" + value + "\n";
        expect.emplace_back(key, value);
    }
    std::stable_sort(expect.begin(), expect.end(), [](auto &x, auto &y) {
        return cfg_keycmp(x.first.c_str(), y.first.c_str()) < 0;
    });
    Lines want;
    for (auto &[k, v] : expect) want.push_back(k + "=" + v);
    cfg_entry *cfg = parse_text(text);
    cfg_entry *s = get_cfg_section(cfg, nullptr, nullptr, "s.");
    EXPECT_EQ(dump(s), want);
    free_cfg_it(s);
    free_cfg(cfg);
}

TEST(CfgKeys, IndexAndElement) {
    EXPECT_EQ(get_cfg_key_idx("radio.2.vap.3.ssid", 1), 2);
    EXPECT_EQ(get_cfg_key_idx("radio.2.vap.3.ssid", 2), 3);
    EXPECT_EQ(get_cfg_key_idx("radio.2.vap.3.ssid", 3), -1);
    EXPECT_EQ(get_cfg_key_idx("a.0.b.0x10x.c.4294967296.7", 1), 16);
    EXPECT_EQ(get_cfg_key_idx("a.0.b.0x10x.c.4294967296.7", 2), 7);
    EXPECT_EQ(get_cfg_key_idx("a.99999999999999999999.5", 1), 5);
    EXPECT_EQ(get_cfg_key_idx("a.5", 0), -1);
    EXPECT_EQ(get_cfg_key_idx(nullptr, 1), -1);
    EXPECT_STREQ(get_key_element("a.b.c", 0), "a.b.c");
    EXPECT_STREQ(get_key_element("a.b.c", 2), "c");
    EXPECT_EQ(get_key_element("a.b.c", 3), nullptr);
    EXPECT_STREQ(get_key_element("a..", 2), "");
    EXPECT_EQ(get_key_element(nullptr, 0), nullptr);
}

TEST(CfgDiff, ChangedThenRemoved) {
    cfg_entry *a = parse_text("keep=1\nchange=old\ngone=x\ngone.comment=a\nCase=v\n");
    cfg_entry *b = parse_text("new=n\nnote.comment=b\nx.comment=c\nchange=new\nkeep=1\nCASE=V\n");
    cfg_entry *d = get_cfg_diff_it(a, b);
    EXPECT_EQ(dump(d), (Lines{"new=n", "change=new", "CASE=V", "gone=x"}));
    EXPECT_EQ(d->value, b->value);
    EXPECT_EQ(d->next->next->next->value, a->next->next->value);
    free_cfg_it(d);
    EXPECT_EQ(get_cfg_diff_it(a, a), nullptr);
    EXPECT_EQ(get_cfg_diff_it(nullptr, nullptr), nullptr);
    d = get_cfg_diff_it(nullptr, a);
    EXPECT_EQ(dump(d), (Lines{"keep=1", "change=old", "gone=x", "Case=v"}));
    free_cfg_it(d);
    free_cfg(a);
    free_cfg(b);
}
