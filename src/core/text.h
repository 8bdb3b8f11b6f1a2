// Small text helpers shared inside the library.
#pragma once

#include <stddef.h>
#include <string.h>

namespace trel {

// Copies src into dst[size], cut to fit and always terminated.  A null src
// gives the empty text; nothing happens for a null dst or a zero size.
inline void copy_text(char *dst, size_t size, const char *src) noexcept {
    if (dst == nullptr || size == 0) return;
    if (src == nullptr) {
        dst[0] = '\0';
        return;
    }
    size_t n = strnlen(src, size - 1);
    memcpy(dst, src, n);
    dst[n] = '\0';
}

}  // namespace trel
