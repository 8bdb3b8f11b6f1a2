// The growable byte queue: data is appended at the write end and consumed from
// the read position; storage grows in 4096-byte steps.
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "core/log.h"

struct buffer_state {
    unsigned char *data;
    uint64_t pos;
    uint64_t end;
    uint64_t len;
    uint64_t capacity;
    uint64_t initial_capacity;
};

namespace {

constexpr size_t kStep = 4096;
constexpr size_t kMaxInitialCapacity = 4194304;

// Makes room for n more bytes at the write end and claims them.
unsigned char *reserve(buffer_state *s, size_t n) noexcept {
    if (s->len == 0) s->pos = s->end = 0;
    if (s->end + n > s->capacity) {
        if (n > SIZE_MAX - kStep - s->capacity) return nullptr;
        size_t grown = s->capacity + (n + kStep - 1) / kStep * kStep;
        auto *p = static_cast<unsigned char *>(realloc(s->data, grown));
        if (p == nullptr) return nullptr;
        s->data = p;
        s->capacity = grown;
    }
    unsigned char *at = s->data + s->end;
    s->end += n;
    s->len += n;
    return at;
}

int buffer_op_init(buffer *buf, size_t capacity) noexcept {
    auto *s = static_cast<buffer_state *>(calloc(1, sizeof(buffer_state)));
    if (s == nullptr) return -1;
    s->data = static_cast<unsigned char *>(calloc(capacity ? capacity : 1, 1));
    if (s->data == nullptr) {
        free(s);
        return -1;
    }
    s->capacity = s->initial_capacity = capacity;
    buf->state = s;
    return 0;
}

uint32_t buffer_op_length(buffer *buf) noexcept { return (uint32_t)buf->state->len; }

uint32_t buffer_op_capacity(buffer *buf) noexcept { return (uint32_t)buf->state->capacity; }

size_t buffer_op_append(buffer *buf, const void *bytes, size_t n) noexcept {
    if (bytes == nullptr || n == 0) return 0;
    unsigned char *at = reserve(buf->state, n);
    if (at == nullptr) return 0;
    memcpy(at, bytes, n);
    return n;
}

int buffer_op_printf(buffer *buf, const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    va_list measure;
    va_copy(measure, ap);
    int n = vsnprintf(nullptr, 0, fmt, measure);
    va_end(measure);
    unsigned char *at = n < 0 ? nullptr : reserve(buf->state, (size_t)n + 1);
    if (at != nullptr) {
        vsnprintf(reinterpret_cast<char *>(at), (size_t)n + 1, fmt, ap);
        // The terminator stays in storage just past the end.
        buf->state->end--;
        buf->state->len--;
    }
    va_end(ap);
    return at != nullptr ? n : 0;
}

size_t buffer_op_read(buffer *buf, void *dst, size_t n) noexcept {
    buffer_state *s = buf->state;
    size_t k = n < s->len ? n : (size_t)s->len;
    if (k == 0) return 0;
    if (dst != nullptr) memcpy(dst, s->data + s->pos, k);
    s->pos += k;
    s->len -= k;
    return k;
}

void *buffer_op_data(buffer *buf) noexcept { return buf->state->data + buf->state->pos; }

buffer *make_buffer(size_t capacity) noexcept;

// Kept: copies the first len bytes of storage counted from its start, not from
// the read position, so a clone is exact only for a buffer never read from.
buffer *buffer_op_clone(buffer *buf) noexcept {
    buffer_state *s = buf->state;
    if (s->len == 0) return buffer_create();
    buffer *copy = make_buffer(s->capacity);
    if (copy == nullptr) return nullptr;
    memcpy(copy->state->data, s->data, s->len);
    copy->state->len = s->len;
    return copy;
}

void buffer_reset(buffer *buf) noexcept {
    buffer_state *s = buf->state;
    s->pos = s->end = s->len = 0;
    if (s->capacity > s->initial_capacity) {
        auto *p = static_cast<unsigned char *>(
            realloc(s->data, s->initial_capacity ? s->initial_capacity : 1));
        if (p == nullptr) {
            TREL_WARN("buffer", "Failed to reallocate buffer");
        } else {
            s->data = p;
            s->capacity = s->initial_capacity;
        }
    }
    memset(s->data, 0, s->capacity);
}

void buffer_op_rewind(buffer *buf) noexcept {
    buf->state->pos = 0;
    buf->state->len = buf->state->end;
}

void buffer_op_destroy(buffer *buf) noexcept {
    if (buf->state != nullptr) free(buf->state->data);
    free(buf->state);
    free(buf);
}

ssize_t buffer_op_send(buffer *buf, int fd, int flags) noexcept {
    if (fd < 0) return -1;
    buffer_state *s = buf->state;
    ssize_t r = send(fd, s->data + s->pos, s->len, flags);
    if (r >= 0) {
        s->pos += (uint64_t)r;
        s->len -= (uint64_t)r;
    }
    return r;
}

void *buffer_op_alloc_zero(buffer *buf, size_t n) noexcept {
    unsigned char *at = reserve(buf->state, n);
    if (at != nullptr) memset(at, 0, n);
    return at;
}

constexpr buffer kOperations = {
    nullptr,          buffer_op_init,    buffer_op_length, buffer_op_capacity,   buffer_op_append,
    buffer_op_printf, buffer_op_read,    buffer_op_data,   buffer_op_clone,      buffer_reset,
    buffer_op_rewind, buffer_op_destroy, buffer_op_send,   buffer_op_alloc_zero,
};

buffer *make_buffer(size_t capacity) noexcept {
    auto *buf = static_cast<buffer *>(malloc(sizeof(buffer)));
    if (buf == nullptr) return nullptr;
    *buf = kOperations;
    if (buf->init(buf, capacity) != 0) {
        free(buf);
        return nullptr;
    }
    return buf;
}

}  // namespace

TREL_API buffer *buffer_create2(size_t capacity) noexcept {
    if (capacity > kMaxInitialCapacity) return nullptr;
    return make_buffer(capacity);
}

TREL_API buffer *buffer_create(void) noexcept { return buffer_create2(kStep); }

TREL_API void buffer_destroy(buffer *buf) noexcept {
    if (buf != nullptr) buf->destroy(buf);
}

TREL_API void buffer_pop(buffer *buf, int n) noexcept {
    if (buf == nullptr || n <= 0) return;
    buffer_state *s = buf->state;
    s->len = s->len > (uint64_t)n ? s->len - (uint64_t)n : 0;
    s->end = s->end > (uint64_t)n ? s->end - (uint64_t)n : 0;
}

TREL_API void buffer_fill(buffer *buf, int count) noexcept {
    static constexpr char kDigits[] = "12345678901234567890123456789012345678901234567890";
    static constexpr char kLine[50] = "123456789012345678901234567890123456789\n";
    if (buf == nullptr) return;
    for (int i = 0; i < count; i++) {
        buf->printf(buf, "%04d-%04d ", 100 * i + 1, 100 * i + 100);
        buf->append(buf, kDigits, 50);
        buf->append(buf, kLine, sizeof kLine);
    }
}
