// The configuration model: parser, writer, value escaping and key comparison.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>

#include <trel/cfg.h>

#include "cfg/cfg_internal.h"
#include "core/log.h"
#include "core/path_root.h"

using trel::cfg::kModule;

namespace {

inline bool is_digit(unsigned char c) noexcept { return c >= '0' && c <= '9'; }
inline unsigned lower(unsigned char c) noexcept {
    return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c;
}

// Weights of the positions of one text, visited left to right.  A digit
// weighs 256 plus the value of the digit run starting there, wrapping at 32
// bits.  Since 10^32 is a multiple of 2^32, only the last 32 digits of a run
// contribute, which keeps long runs linear.
class Weigher {
public:
    uint32_t at(const unsigned char *p) noexcept {
        if (!is_digit(*p)) return lower(*p);
        if (p >= run_end_) {
            run_end_ = p;
            while (is_digit(*run_end_)) ++run_end_;
        }
        const unsigned char *q = run_end_ - p > 32 ? run_end_ - 32 : p;
        uint32_t v = 0;
        for (; q < run_end_; ++q) v = v * 10u + (uint32_t)(*q - '0');
        return 256u + v;
    }

private:
    const unsigned char *run_end_ = nullptr;
};

void free_entry(cfg_entry *e) noexcept {
    if (e->esc != e->value) free(e->esc);
    free(e->key);
    free(e->value);
    free(e);
}

bool needs_escape(char c) noexcept {
    return c == '`' || c == '\\' || c == '"' || c == '\'' || c == '$';
}

}  // namespace

TREL_API int cfg_keycmp(const char *a, const char *b) noexcept {
    if (a == b) return 0;
    if (a == nullptr) return -1;
    if (b == nullptr) return 1;
    auto *pa = reinterpret_cast<const unsigned char *>(a);
    auto *pb = reinterpret_cast<const unsigned char *>(b);
    Weigher wa, wb;
    for (;; ++pa, ++pb) {
        if (*pa == '\0') return *pb == '\0' ? 0 : -1;
        if (*pb == '\0') return 1;
        uint32_t x, y;
        if (!is_digit(*pa) && !is_digit(*pb)) {
            x = lower(*pa);
            y = lower(*pb);
        } else {
            x = wa.at(pa);
            y = wb.at(pb);
        }
        if (x < y) return -1;
        if (x != y) return 1;
        // Equal: advance one character, even inside a digit run.
    }
}

TREL_API cfg_entry *parse_stream(FILE *stream) noexcept {
    if (stream == nullptr) return nullptr;
    cfg_entry *head = nullptr, *tail = nullptr;
    bool merge = false;
    char *line = nullptr;
    size_t cap = 0;
    ssize_t n;
    while ((n = getline(&line, &cap, stream)) != -1) {
        if (line[0] == '#') {
            if (strncmp(line, "# misc", 6) == 0) merge = true;
            continue;
        }
        if (line[0] == '\n' || line[0] == '\r') continue;
        char *eq = static_cast<char *>(memchr(line, '=', (size_t)n));
        if (eq == nullptr) continue;

        auto *e = static_cast<cfg_entry *>(calloc(1, sizeof(cfg_entry)));
        if (e == nullptr) {
            TREL_ERR_CALLOC(kModule, 1, sizeof(cfg_entry));
            break;
        }
        const char *ks = line, *ke = eq;
        while (ks < ke && trel::cfg::is_blank(*ks)) ++ks;
        while (ke > ks && trel::cfg::is_blank(ke[-1])) --ke;
        size_t klen = (size_t)(ke - ks);
        e->key = static_cast<char *>(malloc(klen + 1));
        if (e->key == nullptr) {
            TREL_ERR_MALLOC(kModule, klen + 1);
            free_entry(e);
            break;
        }
        memcpy(e->key, ks, klen);
        e->key[klen] = '\0';

        // The value is the rest of the line less its last character (the
        // newline, or the last real one on an unterminated last line).
        size_t rlen = (size_t)(line + n - (eq + 1));
        size_t vsize = rlen > 0 ? rlen : 1;
        e->value = static_cast<char *>(malloc(vsize));
        if (e->value == nullptr) {
            TREL_ERR_MALLOC(kModule, vsize);
            free_entry(e);
            break;
        }
        if (rlen > 0) memcpy(e->value, eq + 1, rlen - 1);
        e->value[vsize - 1] = '\0';

        if (merge) {
            cfg_entry *old = trel::cfg::find(head, e->key);
            if (old != nullptr) {
                if (old->esc != old->value) free(old->esc);
                old->esc = nullptr;
                free(old->value);
                old->value = e->value;
                e->value = nullptr;
                free_entry(e);
                continue;
            }
        }
        if (tail != nullptr)
            tail->next = e;
        else
            head = e;
        tail = e;
    }
    free(line);
    return head;
}

TREL_API cfg_entry *parse(const char *path) noexcept {
    if (path == nullptr) return nullptr;
    FILE *f = trel::path_fopen(path, "r");
    if (f == nullptr) return nullptr;
    cfg_entry *cfg = parse_stream(f);
    fclose(f);
    return cfg;
}

TREL_API void free_cfg(cfg_entry *cfg) noexcept {
    while (cfg != nullptr) {
        cfg_entry *next = cfg->next;
        free_entry(cfg);
        cfg = next;
    }
}

TREL_API void print_cfg(cfg_entry *cfg) noexcept {
    for (cfg_entry *e = cfg; e != nullptr; e = e->next) printf("%s=%s\n", e->key, e->value);
}

TREL_API int save_cfg(cfg_entry *cfg, const char *path) noexcept {
    if (path == nullptr) return -1;
    FILE *f = trel::path_fopen(path, "w");
    if (f == nullptr) return -1;
    fputs("# CFG Start\n", f);
    for (cfg_entry *e = cfg; e != nullptr; e = e->next) fprintf(f, "%s=%s\n", e->key, e->value);
    fclose(f);
    return 0;
}

TREL_API const char *esc_value(cfg_entry *entry) noexcept {
    if (entry == nullptr || entry->value == nullptr) return nullptr;
    if (entry->esc != nullptr) return entry->esc;
    size_t len = 0, count = 0;
    for (const char *p = entry->value; *p != '\0'; ++p, ++len)
        if (needs_escape(*p)) ++count;
    if (count == 0) return entry->esc = entry->value;
    size_t size = len + count + 1;
    char *out = static_cast<char *>(malloc(size));
    if (out == nullptr) {
        TREL_ERR_MALLOC(kModule, size);
        return nullptr;
    }
    char *o = out;
    for (const char *p = entry->value; *p != '\0'; ++p) {
        if (needs_escape(*p)) *o++ = '\\';
        *o++ = *p;
    }
    *o = '\0';
    return entry->esc = out;
}
