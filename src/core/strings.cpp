// Text helpers: trimming, hex conversion, MAC parsing, random texts and
// formatting into caller or heap buffers.
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "core/log.h"
#include "core/raii.h"

namespace {

constexpr char kUtil[] = "libtrel_util";

// Seeds rand() from /dev/urandom; on a failed read the previous seed is used
// again.  Not meant for cryptography.
void urandom() noexcept {
    static unsigned int seed;
    trel::UniqueFd fd(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    if (!fd || read(fd.get(), &seed, sizeof seed) != (ssize_t)sizeof seed)
        TREL_DBG2(kUtil, "read returned error in urandom");
    srand(seed);
}

template <bool Upper>
int bytes_to_hex(const unsigned char *data, size_t len, char *out, size_t size) noexcept {
    constexpr const char *kDigits = Upper ? "0123456789ABCDEF" : "0123456789abcdef";
    if (data == nullptr || out == nullptr || size <= 2 * len) return 0;
    memset(out, 0, size);
    for (size_t i = 0; i < len; i++) {
        out[2 * i] = kDigits[data[i] >> 4];
        out[2 * i + 1] = kDigits[data[i] & 0xf];
    }
    return (int)len;
}

}  // namespace

TREL_API void trim_trailing(char *s, int len) noexcept {
    if (s == nullptr) return;
    for (int i = len - 1; i >= 0 && isspace((unsigned char)s[i]); i--) s[i] = '\0';
}

TREL_API void strncpy_trim(char *dst, size_t size, const char *src) noexcept {
    if (dst == nullptr || size == 0) return;
    dst[0] = '\0';
    if (src == nullptr) return;
    while (isspace((unsigned char)*src)) src++;
    // Kept: only the leading white space goes; trailing blanks stay in the
    // copy, and callers get the text exactly as it follows them.
    size_t n = 0;
    while (n < size - 1 && src[n] != '\0') {
        dst[n] = src[n];
        n++;
    }
    dst[n] = '\0';
}

TREL_API int hex2uchar(const char *hex, unsigned char *out, size_t len) noexcept {
    if (hex == nullptr || out == nullptr || hex[0] == '\0') return 0;
    memset(out, 0, len);
    size_t avail = strlen(hex);
    for (size_t i = 0; i < len && 2 * i < avail; i++) {
        unsigned int v;
        if (sscanf(hex + 2 * i, "%2x", &v) != 1) break;
        out[i] = (unsigned char)v;
    }
    // Kept: len however many pairs converted; the result only tells that hex
    // was given.
    return (int)len;
}

TREL_API int uchar2hex(const unsigned char *data, size_t len, char *out, size_t size) noexcept {
    return bytes_to_hex<true>(data, len, out, size);
}

TREL_API int uchar2lowerhex(const unsigned char *data, size_t len, char *out,
                            size_t size) noexcept {
    return bytes_to_hex<false>(data, len, out, size);
}

// Two hex digits a byte while three bytes of out remain.
// Kept: only the first len - 1 bytes are converted (len <= 0: as many as
// fit); callers size len with that in mind.
TREL_API int bin2hex(const unsigned char *data, int len, char *out, int size) noexcept {
    if (data == nullptr || out == nullptr || size <= 0) return 0;
    out[0] = '\0';
    int written = 0;
    while (--len != 0 && size - written >= 3) {
        snprintf(out + written, 3, "%02x", *data++);
        written += 2;
    }
    return written;
}

TREL_API int strtomac(const char *text, unsigned char mac[6]) noexcept {
    if (text == nullptr || mac == nullptr) return -1;
    unsigned int v[6];
    if (sscanf(text, "%02x:%02x:%02x:%02x:%02x:%02x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) !=
        6)
        return -1;
    for (int i = 0; i < 6; i++) mac[i] = (unsigned char)v[i];
    return 0;
}

TREL_API int gen_rand_hex(char *buf, size_t size) noexcept {
    urandom();
    if (buf == nullptr || size == 0 || size % 2 == 0) return 0;
    size_t n = (size - 1) / 2;
    for (size_t i = 0; i < n; i++) snprintf(buf + 2 * i, 3, "%02X", (unsigned)(rand() & 0xff));
    buf[2 * n] = '\0';
    return (int)n;
}

TREL_API int gen_rand_bytes(unsigned char *buf, size_t len) noexcept {
    urandom();
    if (buf == nullptr || len == 0) return 0;
    for (size_t i = 0; i < len; i++) buf[i] = (unsigned char)(rand() & 0xff);
    return (int)len;
}

TREL_API char *gen_rand_string(char *buf, size_t len) noexcept {
    static constexpr char kChars[] =
        "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    static_assert(sizeof kChars - 1 == 62);
    urandom();
    if (buf == nullptr || len == 0) return nullptr;
    for (size_t i = 0; i < len; i++) buf[i] = kChars[rand() % 62];
    buf[len] = '\0';
    return buf;
}

TREL_API int trel_snprintf(const char *module, const char *label, char *buf, size_t size,
                           const char *fmt, ...) noexcept {
    if (size == 0) {
        TREL_ERR(module, "%s\n", label != nullptr ? label : "(null)");
        return 0;
    }
    va_list ap;
    va_start(ap, fmt);
    int r = vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    if (r < 0) {
        TREL_ERR(module, "%s failure: %d\n", "trel_snprintf", r);
        return 0;
    }
    // Kept: without a label the untruncated length comes back as vsnprintf
    // gives it, which may exceed size - 1.
    if (label == nullptr) return r;
    if ((size_t)r >= size) {
        TREL_ERR(module, "%s\n", label);
        return (int)(size - 1);
    }
    return r;
}

TREL_API char *malloc_vprintf(const char *fmt, va_list ap) noexcept {
    va_list measure;
    va_copy(measure, ap);
    int n = vsnprintf(nullptr, 0, fmt, measure);
    va_end(measure);
    if (n < 0) return nullptr;
    char *text = static_cast<char *>(malloc((size_t)n + 1));
    if (text == nullptr) return nullptr;
    vsnprintf(text, (size_t)n + 1, fmt, ap);
    return text;
}

TREL_API char *malloc_printf(const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    char *text = malloc_vprintf(fmt, ap);
    va_end(ap);
    return text;
}
