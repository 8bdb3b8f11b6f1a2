// Rounded means, the running accumulator and outlier removal.
#include <vector>

#include "ipc_test.h"

namespace {

TEST(Avg, RoundingAndAccumulator) {
    EXPECT_EQ(trel_avg_round(5, 2), 3);
    EXPECT_EQ(trel_avg_round(-5, 2), -3);
    EXPECT_EQ(trel_avg_round(4, 3), 1);
    EXPECT_EQ(trel_avg_round(-3, 4), -1);
    EXPECT_EQ(trel_avg_round(7, 0), 0);
    int64_t values[] = {1, 2, 2, -9};
    EXPECT_EQ(trel_avg_array(values, 4), -1);
    EXPECT_EQ(trel_avg_array(values, 3), 2);

    trel_avg a{};
    EXPECT_EQ(trel_avg_compute(&a, 77), 77);
    EXPECT_EQ(trel_avg_compute(&a, 0xFFFFFFFFu), -1);
    trel_avg_inc(&a, -7);
    trel_avg_inc(&a, 2);
    EXPECT_EQ(a.sum, -5);
    EXPECT_EQ(a.count, 2);
    EXPECT_EQ(trel_avg_compute(&a, 77), -3);
    EXPECT_EQ(a.avg, -3);

    // -1 is no sample; the product wraps in 32 bits.
    trel_avg w{};
    trel_avg_inc_weighted(&w, -1, 100);
    trel_avg_inc_weighted(&w, 3, 4);
    EXPECT_EQ(w.sum, 12);
    EXPECT_EQ(w.count, 4);
    trel_avg_inc_weighted(&w, 65536, 65536);
    EXPECT_EQ(w.sum, 12);
    EXPECT_EQ(w.count, 65540);
    trel_avg_inc_weighted(&w, INT32_MAX, 2);
    EXPECT_EQ(w.sum, 10);

    // The average is cut to 32 bits.
    trel_avg wide{((int64_t)1 << 33) + 5, 1, 0};
    EXPECT_EQ(trel_avg_compute(&wide, 0), 5);
}

// Runs the filter; returns the values kept.
std::vector<int64_t> filter(std::vector<int64_t> v, int64_t *mean) {
    uint64_t n = v.size();
    EXPECT_EQ(trel_remove_outliers(v.data(), mean, &n), 0);
    v.resize(n);
    return v;
}

TEST(Avg, RemoveOutliers) {
    int64_t mean = -1, one = 42;
    uint64_t n = 0;
    EXPECT_EQ(trel_remove_outliers(&one, &mean, &n), -1);
    EXPECT_EQ(filter({42}, &mean), std::vector<int64_t>{42});
    EXPECT_EQ(mean, 42);
    EXPECT_EQ(filter({10, 10, 10, 10}, &mean).size(), 4u);

    // sd 2846: the large value is 316 hundredths out; the mean is not redone.
    std::vector<int64_t> v(10, 100);
    v.insert(v.begin() + 4, 10000);
    EXPECT_EQ(filter(v, &mean), std::vector<int64_t>(10, 100));
    EXPECT_EQ(mean, 1000);

    // Mean 4, sd 10: 300 hundredths out is kept.
    EXPECT_EQ(filter({0, 0, 0, 0, 0, 0, 0, 0, 34}, &mean).size(), 9u);
    EXPECT_EQ(mean, 4);
    // Mean -17, sd 51: 301.96 truncates to 301 and goes; the order is kept.
    EXPECT_EQ(filter({0, 0, 0, -171, 0, 0, 0, 0, 0, 3}, &mean),
              (std::vector<int64_t>{0, 0, 0, 0, 0, 0, 0, 0, 3}));
    EXPECT_EQ(mean, -17);
}

}  // namespace
