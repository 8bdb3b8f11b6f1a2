// Rounded means, the running accumulator and outlier removal.
#include <vector>

#include "ipc_test.h"

namespace {

TEST(Avg, RoundsHalfAwayFromZero) {
    EXPECT_EQ(trel_avg_round(5, 2), 3);
    EXPECT_EQ(trel_avg_round(-5, 2), -3);
    EXPECT_EQ(trel_avg_round(4, 3), 1);
    EXPECT_EQ(trel_avg_round(-4, 3), -1);
    EXPECT_EQ(trel_avg_round(7, 2), 4);
    EXPECT_EQ(trel_avg_round(3, 4), 1);
    EXPECT_EQ(trel_avg_round(-3, 4), -1);
    EXPECT_EQ(trel_avg_round(1, 3), 0);
    EXPECT_EQ(trel_avg_round(12345, 0), 0);
    EXPECT_EQ(trel_avg_round(-1, 0), 0);
    EXPECT_EQ(trel_avg_round(INT64_MIN, -1), INT64_MIN);

    int64_t values[] = {1, 2, 2};
    EXPECT_EQ(trel_avg_array(values, 3), 2);
    int64_t negative[] = {-1, -2};
    EXPECT_EQ(trel_avg_array(negative, 2), -2);
    EXPECT_EQ(trel_avg_array(values, 0), 0);
}

TEST(Avg, Accumulator) {
    trel_avg a{};
    EXPECT_EQ(trel_avg_compute(&a, 77), 77);
    EXPECT_EQ(a.avg, 77);
    EXPECT_EQ(trel_avg_compute(&a, 0xFFFFFFFFu), -1);

    trel_avg_inc(&a, -7);
    trel_avg_inc(&a, 2);
    EXPECT_EQ(a.sum, -5);
    EXPECT_EQ(a.count, 2);
    EXPECT_EQ(trel_avg_compute(&a, 77), -3);
    EXPECT_EQ(a.avg, -3);

    trel_avg w{};
    trel_avg_inc_weighted(&w, -1, 100);
    EXPECT_EQ(w.sum, 0);
    EXPECT_EQ(w.count, 0);
    trel_avg_inc_weighted(&w, 3, 4);
    EXPECT_EQ(w.sum, 12);
    EXPECT_EQ(w.count, 4);
    trel_avg_inc_weighted(&w, -2, 1);
    EXPECT_EQ(w.sum, 10);
    EXPECT_EQ(w.count, 5);
    EXPECT_EQ(trel_avg_compute(&w, 0), 2);

    // The product is taken in 32 bits and wraps.
    trel_avg big{};
    trel_avg_inc_weighted(&big, 65536, 65536);
    EXPECT_EQ(big.sum, 0);
    EXPECT_EQ(big.count, 65536);
    trel_avg_inc_weighted(&big, INT32_MAX, 2);
    EXPECT_EQ(big.sum, -2);

    // Negative weights can empty the accumulator again.
    trel_avg neg{};
    trel_avg_inc_weighted(&neg, 5, -1);
    EXPECT_EQ(neg.count, -1);
    EXPECT_EQ(trel_avg_compute(&neg, 9), 9);

    // The result is cut to 32 bits.
    trel_avg wide{};
    wide.sum = (int64_t)1 << 33 | 5;
    wide.count = 1;
    EXPECT_EQ(trel_avg_compute(&wide, 0), 5);
}

TEST(Avg, RemoveOutliers) {
    int64_t mean = -1;
    uint64_t n = 0;
    int64_t one[] = {42};
    EXPECT_EQ(trel_remove_outliers(one, &mean, &n), -1);
    n = 1;
    EXPECT_EQ(trel_remove_outliers(one, &mean, &n), 0);
    EXPECT_EQ(mean, 42);
    EXPECT_EQ(n, 1u);

    int64_t flat[] = {10, 10, 10, 10};
    n = 4;
    EXPECT_EQ(trel_remove_outliers(flat, &mean, &n), 0);
    EXPECT_EQ(mean, 10);
    EXPECT_EQ(n, 4u);

    // Standard deviation 2846: the large value lies 316 hundredths out.
    std::vector<int64_t> v(10, 100);
    v.insert(v.begin() + 4, 10000);
    n = v.size();
    EXPECT_EQ(trel_remove_outliers(v.data(), &mean, &n), 0);
    EXPECT_EQ(n, 10u);
    EXPECT_EQ(mean, 1000);
    for (uint64_t i = 0; i < n; i++) EXPECT_EQ(v[i], 100) << i;
    EXPECT_EQ(v[10], 100);

    // Exactly 300 hundredths out is kept: mean 4, sd 10, q 300 and -40.
    std::vector<int64_t> edge(8, 0);
    edge.push_back(34);
    n = edge.size();
    EXPECT_EQ(trel_remove_outliers(edge.data(), &mean, &n), 0);
    EXPECT_EQ(mean, 4);
    EXPECT_EQ(n, 9u);
    edge.assign(8, 0);
    edge[3] = -34;
    n = 9;
    edge.push_back(0);
    EXPECT_EQ(trel_remove_outliers(edge.data(), &mean, &n), 0);
    EXPECT_EQ(mean, -4);
    EXPECT_EQ(n, 9u);

    // 301.96 truncates to 301 and is removed: mean 17, sd 51; order is kept.
    std::vector<int64_t> over = {0, 0, 0, 0, 0, 171, 0, 0, 0, 0};
    n = over.size();
    EXPECT_EQ(trel_remove_outliers(over.data(), &mean, &n), 0);
    EXPECT_EQ(mean, 17);
    EXPECT_EQ(n, 9u);
    for (uint64_t i = 0; i < n; i++) EXPECT_EQ(over[i], 0) << i;
    std::vector<int64_t> under = {0, 0, 0, -171, 0, 0, 0, 0, 0, 3};
    n = under.size();
    EXPECT_EQ(trel_remove_outliers(under.data(), &mean, &n), 0);
    EXPECT_EQ(mean, -17);
    EXPECT_EQ(n, 9u);
    EXPECT_EQ(under[3], 0);
    EXPECT_EQ(under[8], 3);
}

}  // namespace
