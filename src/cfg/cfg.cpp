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

// 10^k modulo 2^32 for k < 32.
struct Pow10 {
    uint32_t v[32];
    constexpr Pow10() : v() {
        uint32_t p = 1;
        for (uint32_t &x : v) x = p, p *= 10u;
    }
};
constexpr Pow10 kPow10;

// 10^k modulo 2^32: 0 from k = 32 on, as 2^32 divides 10^32.
inline uint32_t pow10_mod32(size_t k) noexcept { return k < 32 ? kPow10.v[k] : 0u; }

void free_entry(cfg_entry *e) noexcept {
    if (e->esc != e->value) free(e->esc);
    free(e->key);
    free(e->value);
    free(e);
}

bool needs_escape(char c) noexcept {
    return c == '`' || c == '\\' || c == '"' || c == '\'' || c == '$';
}

// Merges the entries after settled (all of them when it is null) into the
// list before them, in order: an entry with the key of an earlier one gives
// that one its value and goes.  Keeps tail and settled (the last entry
// merged) up to date.  Through the index of the settled keys while it is
// usable, else by walks from the head.
void merge_pending(trel::cfg::KeyIndex &index, cfg_entry *head, cfg_entry *&tail,
                   cfg_entry *&settled) noexcept {
    // first: the first entry of the list with e's key, possibly e itself.
    auto settle = [&](cfg_entry *e, cfg_entry *first) {
        if (first == e) {
            settled = e;
            return;
        }
        if (first->esc != first->value) free(first->esc);
        first->esc = nullptr;
        free(first->value);
        first->value = e->value;
        e->value = nullptr;
        settled->next = e->next;  // first comes before e, so settled is set
        if (tail == e) tail = settled;
        free_entry(e);
    };
    trel::cfg::KeyIndex::Found found[trel::cfg::KeyIndex::kBatch];
    for (cfg_entry *next = settled != nullptr ? settled->next : head; next != nullptr;) {
        size_t n = index.lookup_batch(&next, found, true);
        if (n == 0) break;
        for (size_t i = 0; i < n; ++i) settle(found[i].entry, found[i].slot->entry);
    }
    for (cfg_entry *e = settled != nullptr ? settled->next : head; e != nullptr;) {
        cfg_entry *next = e->next;
        settle(e, trel::cfg::find(head, e->key));
        e = next;
    }
}

}  // namespace

namespace trel::cfg {

// A hash of the weights cfg_keycmp compares, position by position.  Keys it
// finds equal have the same length and the same weight at every position
// (a digit's may even equal a letter's, when the run's value wraps to
// 2^32 - 256 + the letter), so they hash alike.  Linear in the key: the
// value of a digit run is computed once, and each next position's follows by
// taking the leading digit off.
uint32_t key_hash(const char *key) noexcept {
    if (key == nullptr) return 0;
    uint64_t h = 0xcbf29ce484222325u;
    auto mix = [&h](uint32_t weight) { h = (h ^ weight) * 0x100000001b3u; };
    auto *p = reinterpret_cast<const unsigned char *>(key);
    while (*p != '\0') {
        if (!is_digit(*p)) {
            mix(lower(*p++));
            continue;
        }
        const unsigned char *end = p;
        uint32_t v = 0;
        while (is_digit(*end)) v = v * 10u + (uint32_t)(*end++ - '0');
        for (; p < end; ++p) {
            mix(256u + v);
            v -= (uint32_t)(*p - '0') * pow10_mod32((size_t)(end - p - 1));
        }
    }
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdu;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53u;
    h ^= h >> 33;
    return (uint32_t)h;
}

KeyIndex::~KeyIndex() { free(slots_); }

bool KeyIndex::build(cfg_entry *list) noexcept {
    free(slots_);
    slots_ = nullptr;
    count_ = 0;
    size_t n = 0, capacity = 16;
    for (cfg_entry *e = list; e != nullptr; e = e->next) ++n;
    while (capacity / 2 < n + kBatch) capacity *= 2;
    slots_ = static_cast<Slot *>(calloc(capacity, sizeof(Slot)));
    if (slots_ == nullptr) return false;
    mask_ = capacity - 1;
    Found found[kBatch];
    while (list != nullptr && lookup_batch(&list, found, true) > 0) continue;
    return usable();
}

size_t KeyIndex::lookup_batch(cfg_entry **list, Found *found, bool add) noexcept {
    if (slots_ == nullptr) return 0;
    // Room for the whole batch first, so that no slot moves while it runs.
    while (add && (count_ + kBatch) * 2 > mask_ + 1)
        if (!grow()) return 0;
    uint32_t hash[kBatch];
    size_t n = 0;
    for (cfg_entry *e = *list; e != nullptr && n < kBatch; e = e->next, ++n) {
        found[n].entry = e;
        hash[n] = key_hash(e->key);
        __builtin_prefetch(&slots_[hash[n] & mask_]);
    }
    for (size_t i = 0; i < n; ++i) {
        Slot *s = probe(found[i].entry->key, hash[i]);
        if (s->entry == nullptr && add) {
            *s = Slot{found[i].entry, hash[i], 0};
            ++count_;
        }
        found[i].slot = s->entry != nullptr ? s : nullptr;
    }
    if (n > 0) *list = found[n - 1].entry->next;
    return n;
}

KeyIndex::Slot *KeyIndex::probe(const char *key, uint32_t hash) noexcept {
    for (size_t i = hash & mask_;; i = (i + 1) & mask_) {
        Slot *s = &slots_[i];
        if (s->entry == nullptr || (s->hash == hash && cfg_keycmp(s->entry->key, key) == 0))
            return s;
    }
}

bool KeyIndex::grow() noexcept {
    size_t capacity = (mask_ + 1) * 2;
    auto *slots = static_cast<Slot *>(calloc(capacity, sizeof(Slot)));
    if (slots == nullptr) {
        free(slots_);
        slots_ = nullptr;
        return false;
    }
    for (size_t i = 0; i <= mask_; ++i) {
        if (slots_[i].entry == nullptr) continue;
        size_t j = slots_[i].hash & (capacity - 1);
        while (slots[j].entry != nullptr) j = (j + 1) & (capacity - 1);
        slots[j] = slots_[i];
    }
    free(slots_);
    slots_ = slots;
    mask_ = capacity - 1;
    return true;
}

}  // namespace trel::cfg

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
        // Kept: one character on, even in a digit run; sections sort in this order.
    }
}

TREL_API cfg_entry *parse_stream(FILE *stream) noexcept {
    if (stream == nullptr) return nullptr;
    cfg_entry *head = nullptr, *tail = nullptr;
    bool merge = false;
    // From the "# misc" line on, new entries wait after settled until a batch
    // of them is merged.
    trel::cfg::KeyIndex index;
    cfg_entry *settled = nullptr;
    size_t pending = 0;
    char *line = nullptr;
    size_t cap = 0;
    ssize_t n;
    while ((n = getline(&line, &cap, stream)) != -1) {
        if (line[0] == '#') {
            if (!merge && strncmp(line, "# misc", 6) == 0) {
                merge = true;
                index.build(head);
                settled = tail;
            }
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

        // Kept: the line less its last character, nothing else trimmed, so what
        // save_cfg wrote parses back byte for byte; an unterminated line loses one.
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

        if (tail != nullptr)
            tail->next = e;
        else
            head = e;
        tail = e;
        if (merge && ++pending == trel::cfg::KeyIndex::kBatch) {
            merge_pending(index, head, tail, settled);
            pending = 0;
        }
    }
    if (merge) merge_pending(index, head, tail, settled);
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
