// JSON helpers: forgiving typed readers and adders, the self-thinning sample
// series, files as Base64 strings, MAC prefixes and integers kept as text.
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <trel/crypto.h>
#include <trel/telemetry.h>

#include "core/log.h"
#include "core/raii.h"

struct timespec qx_now;

namespace {

constexpr char kUtil[] = "libtrel_util";
constexpr size_t kSeriesKeySize = 40;  // each series key with its terminator
constexpr long kDefaultInterval = 10;  // seconds between samples at first
constexpr size_t kSeriesMax = 360;     // samples kept before halving
constexpr int32_t kBase64Chunk = 300;  // a multiple of 3: chunk encodings concatenate

// Adds like the machine does instead of overflowing.
template <typename T>
T wrapping_add(T a, T b) noexcept {
    return static_cast<T>(static_cast<unsigned long long>(a) + static_cast<unsigned long long>(b));
}

template <typename T>
T read_integer(const json_t *object, const char *key, T def) noexcept {
    const json_t *v = json_object_get(object, key);
    return json_is_integer(v) ? static_cast<T>(json_integer_value(v)) : def;
}

template <typename T>
int add_integer(json_t *object, const char *key, T delta) noexcept {
    T current = read_integer<T>(object, key, 0);
    return json_object_set_new(object, key, json_integer(wrapping_add(current, delta)));
}

// Formats "<prefix><suffix>" into key; false when it needs more than 39
// characters.
bool series_key(char (&key)[kSeriesKeySize], const char *prefix, const char *suffix) noexcept {
    int n = snprintf(key, sizeof key, "%s%s", prefix, suffix);
    return n >= 0 && static_cast<size_t>(n) < sizeof key;
}

}  // namespace

TREL_API const char *trel_json_get_str(const json_t *object, const char *key,
                                       const char *def) noexcept {
    const json_t *v = json_object_get(object, key);
    return json_is_string(v) ? json_string_value(v) : def;
}

TREL_API int trel_json_get_bool(const json_t *object, const char *key, int def) noexcept {
    const json_t *v = json_object_get(object, key);
    if (json_is_integer(v)) return json_integer_value(v) != 0;
    if (json_is_true(v)) return 1;
    if (json_is_false(v)) return 0;
    return def;
}

TREL_API long trel_json_read_long(const json_t *object, const char *key, long def) noexcept {
    return read_integer(object, key, def);
}

TREL_API int64_t trel_json_read_i64(const json_t *object, const char *key, int64_t def) noexcept {
    return trel_json_read_long(object, key, def);
}

TREL_API int trel_json_read_array(const json_t *object, const char *key, long **values,
                                  size_t *count) noexcept {
    if (values == nullptr || count == nullptr) return -1;
    const json_t *array = json_object_get(object, key);
    size_t size = json_array_size(array);
    if (size == 0) return -1;
    trel::MallocPtr<long> out(static_cast<long *>(malloc(size * sizeof(long))));
    if (!out) {
        TREL_ERR(kUtil, "Failed to allocate memory");
        return -1;
    }
    size_t n = 0;
    for (size_t i = 0; i < size; i++) {
        const json_t *member = json_array_get(array, i);
        if (json_is_integer(member)) out.get()[n++] = static_cast<long>(json_integer_value(member));
    }
    *count = n;
    if (n == 0) return -1;
    *values = out.release();
    return 0;
}

TREL_API int trel_json_add_long(json_t *object, const char *key, long delta) noexcept {
    return add_integer(object, key, delta);
}

TREL_API int trel_json_add_i64(json_t *object, const char *key, int64_t delta) noexcept {
    return trel_json_add_long(object, key, delta);
}

TREL_API int trel_json_append_array(json_t *object, const char *key, long value) noexcept {
    json_t *existing = json_object_get(object, key);
    if (existing != nullptr) {
        // Kept: neither the append's result nor the value's type is looked at:
        // an existing key always answers 0.
        json_array_append_new(existing, json_integer(value));
        return 0;
    }
    json_t *array = json_array();
    if (array == nullptr) {
        TREL_ERR(kUtil, "Failed to allocate json array");
        return -1;
    }
    json_array_append_new(array, json_integer(value));
    return json_object_set_new(object, key, array);
}

// A history that always spans every sample since the first: 360 samples at
// the base interval, then each sample that would be the 361st first drops
// every other one and doubles the interval.  O(n) per thinning.
TREL_API int trel_json_maybe_append_array(json_t *object, const char *prefix, long value) noexcept {
    if (object == nullptr || prefix == nullptr) return -1;
    char array_key[kSeriesKeySize], time_key[kSeriesKeySize], interval_key[kSeriesKeySize];
    if (!series_key(array_key, prefix, "Array") || !series_key(time_key, prefix, "Time") ||
        !series_key(interval_key, prefix, "Interval")) {
        TREL_ERR(kUtil, "key too long: %s\n", prefix);
        return -1;
    }
    const int64_t now = qx_now.tv_sec;
    json_t *array = json_object_get(object, array_key);
    if (array == nullptr) {
        array = json_array();
        if (array == nullptr) {
            TREL_ERR(kUtil, "Failed to allocate json array");
            return -1;
        }
        json_array_append_new(array, json_integer(value));
        json_object_set_new(object, time_key, json_integer(now));
        return json_object_set_new(object, array_key, array);
    }

    int64_t last = trel_json_read_i64(object, time_key, 0);
    int64_t interval = trel_json_read_i64(object, interval_key, kDefaultInterval);
    if (last != 0 && wrapping_add(now, -last) < interval) return -2;

    // Kept: the size is checked before the new sample goes in, so a series
    // never holds more than 360 samples after a call.
    if (json_array_size(array) >= kSeriesMax) {
        for (size_t i = 1; i < json_array_size(array); i++) json_array_remove(array, i);
        json_object_set_new(object, interval_key, json_integer(wrapping_add(interval, interval)));
    }
    json_object_set_new(object, time_key, json_integer(now));
    return json_array_append_new(array, json_integer(value));
}

TREL_API int64_t trel_grab_ts(void) noexcept {
    clock_gettime(CLOCK_MONOTONIC, &qx_now);
    return qx_now.tv_sec;
}

TREL_API void trel_set_ts(int64_t seconds) noexcept {
    qx_now.tv_sec = static_cast<time_t>(seconds);
}

TREL_API char *load_file_base64(FILE *stream) noexcept {
    if (stream == nullptr) return nullptr;
    // Kept: the size is taken as a signed 32-bit number, so a file of 2 GiB or
    // more does not come out whole.
    int32_t size = -1;
    if (fseek(stream, 0, SEEK_END) == 0) size = static_cast<int32_t>(ftell(stream));
    int err = errno;
    rewind(stream);
    if (size < 0) {
        TREL_DBG(kUtil, "Couldn't find file size: %s", strerror(err));
        return nullptr;
    }
    if (size == 0) return strdup("");

    size_t encoded = (static_cast<size_t>(size) + 2) / 3 * 4 + 1;
    trel::MallocPtr<char> out(static_cast<char *>(malloc(encoded)));
    if (!out) {
        // Kept: the line number log readers know this failure by.
        TREL_ERR(kUtil, "%d: malloc(%zu) failed", 626, encoded);
        return nullptr;
    }
    uint8_t chunk[kBase64Chunk];
    char *p = out.get();
    for (int32_t left = size; left > 0;) {
        int32_t want = left < kBase64Chunk ? left : kBase64Chunk;
        if (fread(chunk, 1, static_cast<size_t>(want), stream) != static_cast<size_t>(want)) {
            TREL_ERR(kUtil, "Couldn't read all bytes from file");
            return nullptr;
        }
        base64rfc_encode(p, chunk, want);
        p += want / 3 * 4;
        left -= want;
    }
    return out.release();
}

TREL_API int json_object_load_file_base64(json_t *object, const char *key, FILE *stream) noexcept {
    trel::MallocPtr<char> text(load_file_base64(stream));
    if (!text) {
        json_object_set_new(object, key, json_string(""));
        return -1;
    }
    return json_object_set_new(object, key, json_string(text.get())) == 0 ? 0 : -1;
}

TREL_API json_t *mac_str_to_oui_json_string(const char *mac) noexcept {
    if (mac == nullptr) return nullptr;
    unsigned char o[6];
    if (sscanf(mac, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &o[0], &o[1], &o[2], &o[3], &o[4], &o[5]) < 3)
        return nullptr;
    char oui[7];
    snprintf(oui, sizeof oui, "%02x%02x%02x", o[0], o[1], o[2]);
    return json_string(oui);
}

TREL_API int trel_json_integer_value_from_obj(const json_t *object, const char *obj_name,
                                              const char *key, int allow_integer,
                                              int *value) noexcept {
    const char *name = obj_name != nullptr ? obj_name : "(null)";
    const char *k = key != nullptr ? key : "(null)";
    if (value == nullptr) {
        TREL_ERR(kUtil, "NULL pointer provided for value, obj_name %s, key %s", name, k);
        return 0;
    }
    const json_t *v = json_object_get(object, key);
    if (v == nullptr) {
        TREL_DBG(kUtil, "no obj for obj_name %s, key %s", name, k);
        return 0;
    }
    if (json_is_string(v)) {
        const char *text = json_string_value(v);
        if (text == nullptr) {
            TREL_DBG(kUtil, "no string for obj_name %s, key %s", name, k);
            return 0;
        }
        // "%i" of scanf: optional blanks and sign, then decimal, 0x hex or 0
        // octal; the first foreign character ends the number.  The number is
        // read as a long and cut to the int, as the C library does.
        char *end;
        long n = strtol(text, &end, 0);
        if (end == text) {
            TREL_DBG(kUtil, "invalid integer '%s' in object %s, key %s", text, name, k);
            return 0;
        }
        *value = static_cast<int>(static_cast<unsigned int>(n));
        return 1;
    }
    if (json_is_integer(v)) {
        if (allow_integer == 0) {
            TREL_DBG(kUtil, "JSON object as integer is not acceptable, obj_name %s, key %s", name,
                     k);
            return 0;
        }
        *value = static_cast<int>(static_cast<unsigned int>(json_integer_value(v)));
        return 2;
    }
    TREL_DBG(kUtil, "JSON object is of type %d, not a string or integer, obj_name %s, key %s",
             static_cast<int>(json_typeof(v)), name, k);
    return 0;
}
