// Hex and random-data helpers for the crypto tests.
#pragma once

#include <stdint.h>

#include <random>
#include <string>
#include <vector>

namespace crypto_test {

inline std::string hex(const uint8_t *p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; i++) s.append({digits[p[i] >> 4], digits[p[i] & 15]});
    return s;
}

inline std::string hex(const std::vector<uint8_t> &v) { return hex(v.data(), v.size()); }

// Deterministic pseudo-random bytes, so a failure can be replayed.
inline std::vector<uint8_t> random_bytes(std::mt19937 &rng, size_t n) {
    std::vector<uint8_t> v(n);
    for (auto &b : v) b = (uint8_t)rng();
    return v;
}

}  // namespace crypto_test
