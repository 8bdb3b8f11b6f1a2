// Allocation failures, injected by replacing malloc and calloc in this
// program (not possible under AddressSanitizer, which owns the allocator).
#include <stdlib.h>
#include <string.h>

#include <string>

#include "cfg_test_util.h"
#include "trel_test.h"

using cfg_test::dump;
using cfg_test::Lines;
using cfg_test::parse_text;
using trel_test::LogCapture;

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

void fail_after(long n) {
    g_fail_in = n;
    g_failed = false;
}
}  // namespace

#ifndef CFG_NO_INJECTION
extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);

namespace {
bool should_fail() {
    if (g_fail_in < 0) return false;
    if (g_fail_in-- > 0) return false;
    g_failed = true;
    return true;
}
}  // namespace

extern "C" void *malloc(size_t size) { return should_fail() ? nullptr : __libc_malloc(size); }
extern "C" void *calloc(size_t n, size_t size) {
    return should_fail() ? nullptr : __libc_calloc(n, size);
}
#define SKIP_WITHOUT_INJECTION()
#else
#define SKIP_WITHOUT_INJECTION() GTEST_SKIP() << "allocation failures cannot be injected under ASan"
#endif

TEST(CfgOom, ParseStopsAndKeepsWhatItHas) {
    SKIP_WITHOUT_INJECTION();
    const std::string text = "a=1\nb=2\nc=3\n";
    bool saw_calloc = false, saw_malloc = false;
    for (long k = 0;; ++k) {
        LogCapture cap;
        FILE *f = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
        ASSERT_NE(f, nullptr);
        fail_after(k);
        cfg_entry *cfg = parse_stream(f);
        bool failed = g_failed;
        fail_after(-1);
        fclose(f);
        Lines got = dump(cfg);
        free_cfg(cfg);
        Lines full{"a=1", "b=2", "c=3"};
        if (!failed) {
            EXPECT_EQ(got, full);
            break;
        }
        // Whatever was parsed before the failure is kept intact (a failure
        // inside the stream's own buffering may cost nothing).
        ASSERT_LE(got.size(), 3u) << k;
        EXPECT_TRUE(std::equal(got.begin(), got.end(), full.begin())) << k;
        saw_calloc |=
            cap.contains("cfg.parse_stream(): ") && cap.contains(": calloc(1, 32) failed");
        saw_malloc |= cap.contains("cfg.parse_stream(): ") && cap.contains(": malloc(2) failed");
        ASSERT_LT(k, 100);
    }
    EXPECT_TRUE(saw_calloc);
    EXPECT_TRUE(saw_malloc);
}

TEST(CfgOom, QueriesFallBack) {
    SKIP_WITHOUT_INJECTION();
    cfg_entry *cfg = parse_text("k=a$b\nk.1=x\nk.2=y\n");
    LogCapture cap;

    fail_after(0);
    const char *esc = esc_value(cfg);
    fail_after(-1);
    EXPECT_EQ(esc, nullptr);
    EXPECT_EQ(cfg->esc, nullptr);
    EXPECT_TRUE(cap.contains("cfg.esc_value(): ")) << cap.text();
    EXPECT_TRUE(cap.contains(": malloc(5) failed"));
    EXPECT_STREQ(esc_value(cfg), "a\\$b");  // tried again

    fail_after(0);  // the key text
    EXPECT_STREQ(get_value(cfg, "def", "k"), "def");
    fail_after(-1);
    EXPECT_TRUE(cap.contains("[error] cfg.vget_value(): OOM")) << cap.text();

    fail_after(2);  // pattern, first node, then the second node fails
    cfg_entry *it = get_cfg_it(cfg, 0, "k.");
    fail_after(-1);
    EXPECT_EQ(dump(it), (Lines{"k.1=x"}));
    EXPECT_TRUE(cap.contains("cfg.append_cfg_match_cb(): ")) << cap.text();
    free_cfg_it(it);

    cfg_entry *other = parse_text("k=new\nk.1=x\n");
    fail_after(0);  // the first difference is lost, the others kept
    cfg_entry *d = get_cfg_diff_it(cfg, other);
    fail_after(-1);
    EXPECT_EQ(dump(d), (Lines{"k.2=y"}));
    EXPECT_TRUE(cap.contains("cfg.get_cfg_diff_it(): ")) << cap.text();
    free_cfg_it(d);
    free_cfg(other);
    free_cfg(cfg);
}
