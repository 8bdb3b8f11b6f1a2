// The values of a check joined by spaces, so that one comparison shows them
// all.  A braced list: the values are evaluated left to right.
#pragma once

#include <sstream>
#include <string>

namespace device_test {

struct Join {
    template <typename... T>
    explicit Join(const T &...v) {
        std::ostringstream out;
        ((out << v << ' '), ...);
        text = out.str();
        if (!text.empty()) text.pop_back();
    }
    std::string text;
};

}  // namespace device_test

#define JOIN(...) (device_test::Join{__VA_ARGS__}.text)
