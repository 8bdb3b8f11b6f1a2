// Base64: standard alphabet with '=' padding, URL-safe alphabet without, and
// one decoder that accepts both and stops at the first foreign byte.
#include <stdint.h>

#include <array>

#include <trel/crypto.h>

#include "core/api.h"

namespace {

constexpr char kStd[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kUrl[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

// 64 marks a byte outside both alphabets ('=' and NUL included).
constexpr std::array<uint8_t, 256> make_decode_table() {
    std::array<uint8_t, 256> t{};
    for (auto &v : t) v = 64;
    for (int i = 0; i < 64; i++) {
        t[(uint8_t)kStd[i]] = (uint8_t)i;
        t[(uint8_t)kUrl[i]] = (uint8_t)i;
    }
    return t;
}

constexpr std::array<uint8_t, 256> kDecode = make_decode_table();
static_assert(kDecode['+'] == 62 && kDecode['-'] == 62 && kDecode['/'] == 63 && kDecode['_'] == 63);
static_assert(kDecode['='] == 64 && kDecode[0] == 64 && kDecode['A'] == 0 && kDecode['9'] == 61);

int encoded_len(int32_t len) {
    // Computed wide: the result wraps like the int it is returned as.
    return (int)((((int64_t)len + 2) / 3) * 4 + 1);
}

int encode(char *out, const uint8_t *in, int32_t len, const char *alphabet, bool pad) {
    if (out == nullptr) return -1;
    char *p = out;
    if (in != nullptr && len > 0) {
        int32_t i = 0;
        for (; len - i > 2; i += 3) {
            uint32_t v = ((uint32_t)in[i] << 16) | ((uint32_t)in[i + 1] << 8) | in[i + 2];
            p[0] = alphabet[v >> 18];
            p[1] = alphabet[(v >> 12) & 63];
            p[2] = alphabet[(v >> 6) & 63];
            p[3] = alphabet[v & 63];
            p += 4;
        }
        if (len - i == 1) {
            *p++ = alphabet[in[i] >> 2];
            *p++ = alphabet[(in[i] & 3) << 4];
            if (pad) {
                *p++ = '=';
                *p++ = '=';
            }
        } else if (len - i == 2) {
            *p++ = alphabet[in[i] >> 2];
            *p++ = alphabet[((in[i] & 3) << 4) | (in[i + 1] >> 4)];
            *p++ = alphabet[(in[i + 1] & 15) << 2];
            if (pad) *p++ = '=';
        }
    }
    *p = '\0';
    return (int)(p - out);
}

// Number of leading characters of the alphabets.
size_t leading(const char *s) {
    const unsigned char *p = (const unsigned char *)s;
    while (kDecode[*p] != 64) p++;
    return (size_t)(p - (const unsigned char *)s);
}

// One pass: whole groups of four alphabet characters give three bytes each
// (the last of them too); a tail of 2 or 3 gives 1 or 2, a lone one nothing.
// Each byte is looked at only after the one before it was in the alphabet,
// so the terminating NUL is never passed.
void decode(uint8_t *out, const char *encoded) {
    if (out == nullptr) return;
    uint8_t *p = out;
    const unsigned char *in = (const unsigned char *)encoded;
    if (in != nullptr) {
        for (;; in += 4, p += 3) {
            uint32_t a = kDecode[in[0]];
            if (a == 64) break;
            uint32_t b = kDecode[in[1]];
            if (b == 64) break;
            uint32_t c = kDecode[in[2]];
            if (c == 64) {
                *p++ = (uint8_t)((a << 2) | (b >> 4));
                break;
            }
            uint32_t d = kDecode[in[3]];
            if (d == 64) {
                *p++ = (uint8_t)((a << 2) | (b >> 4));
                *p++ = (uint8_t)((b << 4) | (c >> 2));
                break;
            }
            uint32_t v = (a << 18) | (b << 12) | (c << 6) | d;
            p[0] = (uint8_t)(v >> 16);
            p[1] = (uint8_t)(v >> 8);
            p[2] = (uint8_t)v;
        }
    }
    *p = 0;
}

int decoded_len(const char *encoded) {
    size_t n = encoded == nullptr ? 0 : leading(encoded);
    return (int)(((n + 3) / 4) * 3 + 1);
}

}  // namespace

TREL_API int base64_encode_len(int32_t len) noexcept { return encoded_len(len); }
TREL_API int base64url_encode_len(int32_t len) noexcept { return encoded_len(len); }
TREL_API int base64_decode_len(const char *encoded) noexcept { return decoded_len(encoded); }
TREL_API int base64url_decode_len(const char *encoded) noexcept { return decoded_len(encoded); }

TREL_API int base64rfc_encode(char *out, const uint8_t *in, int32_t len) noexcept {
    return encode(out, in, len, kStd, true);
}

TREL_API int base64url_encode(char *out, const uint8_t *in, int32_t len) noexcept {
    return encode(out, in, len, kUrl, false);
}

TREL_API void base64_decode(uint8_t *out, const char *encoded) noexcept { decode(out, encoded); }
TREL_API void base64url_decode(uint8_t *out, const char *encoded) noexcept { decode(out, encoded); }
