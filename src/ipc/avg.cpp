// Integer averages: a mean rounded half away from zero, a running (optionally
// weighted) accumulator, and a filter dropping samples more than three
// standard deviations from the mean.  Overflowing sums and products wrap.
#include <math.h>
#include <stdint.h>

#include <trel/ipc.h>

#include "core/api.h"

namespace {

constexpr int64_t kMaxDeviation = 300;  // in hundredths of a standard deviation

int64_t wrap_add(int64_t a, int64_t b) noexcept { return (int64_t)((uint64_t)a + (uint64_t)b); }

int64_t wrap_mul(int64_t a, int64_t b) noexcept { return (int64_t)((uint64_t)a * (uint64_t)b); }

// Truncation toward zero that saturates out of range and maps NaN to 0.
int64_t to_i64(double d) noexcept {
    if (d != d) return 0;
    if (d >= 9223372036854775808.0) return INT64_MAX;
    if (d < -9223372036854775808.0) return INT64_MIN;
    return (int64_t)d;
}

// Truncating division; INT64_MIN / -1 wraps instead of trapping.
int64_t div_i64(int64_t a, int64_t b) noexcept { return b == -1 ? wrap_mul(a, -1) : a / b; }

}  // namespace

TREL_API int64_t trel_avg_round(int64_t sum, int64_t count) noexcept {
    if (count == 0) return 0;
    int64_t half = count / 2;
    if (sum < 0) half = -half;
    return div_i64(wrap_add(sum, half), count);
}

TREL_API int64_t trel_avg_array(const int64_t *values, uint64_t n) noexcept {
    int64_t sum = 0;
    if (values != nullptr)
        for (uint64_t i = 0; i < n; i++) sum = wrap_add(sum, values[i]);
    return trel_avg_round(sum, (int64_t)n);
}

TREL_API void trel_avg_inc(trel_avg *avg, int32_t sample) noexcept {
    if (avg == nullptr) return;
    avg->sum = wrap_add(avg->sum, sample);
    avg->count = wrap_add(avg->count, 1);
}

TREL_API void trel_avg_inc_weighted(trel_avg *avg, int32_t sample, int32_t weight) noexcept {
    // -1 marks a missing sample.
    if (avg == nullptr || sample == -1) return;
    // Kept: the product is taken in 32 bits and wraps before it is widened, so
    // averages come out as those already reported.
    auto product = (int32_t)((uint32_t)sample * (uint32_t)weight);
    avg->sum = wrap_add(avg->sum, product);
    avg->count = wrap_add(avg->count, weight);
}

TREL_API int32_t trel_avg_compute(trel_avg *avg, uint32_t def) noexcept {
    if (avg == nullptr) return (int32_t)def;
    if (avg->count > 0)
        avg->avg = (int32_t)(uint32_t)(uint64_t)trel_avg_round(avg->sum, avg->count);
    else
        avg->avg = (int32_t)def;
    return avg->avg;
}

TREL_API int trel_remove_outliers(int64_t *values, int64_t *mean, uint64_t *n) noexcept {
    if (n == nullptr || *n == 0 || values == nullptr) return -1;
    const uint64_t count = *n;
    if (count == 1) {
        if (mean != nullptr) *mean = values[0];
        return 0;
    }
    // Kept: *mean is the mean of all the values and is not recomputed after the
    // filter: it is the reference the filter used.
    const int64_t m = trel_avg_array(values, count);
    if (mean != nullptr) *mean = m;

    // Sum of squared deviations, truncated to an integer after every step.
    int64_t acc = 0;
    for (uint64_t i = 0; i < count; i++) {
        auto d = (double)wrap_add(values[i], wrap_mul(m, -1));
        acc = to_i64(fma(d, d, (double)acc));
    }
    const uint64_t variance = (uint64_t)acc / count;
    const int64_t sd = to_i64(sqrt((double)variance));
    if (sd == 0) return 0;

    uint64_t kept = 0;
    for (uint64_t i = 0; i < count; i++) {
        int64_t q = div_i64(wrap_mul(wrap_add(values[i], wrap_mul(m, -1)), 100), sd);
        if (q >= -kMaxDeviation && q <= kMaxDeviation) values[kept++] = values[i];
    }
    *n = kept;
    return 0;
}
