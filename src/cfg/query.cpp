// Queries on a parsed configuration: typed getters, iterator lists, sections,
// counts, key helpers and diffs.
#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <trel/cfg.h>
#include <trel/core.h>

#include "cfg/cfg_internal.h"
#include "core/log.h"
#include "core/raii.h"

using trel::cfg::is_blank;
using trel::cfg::kModule;

namespace {

// Head and tail of a list being built.
struct match_ctx {
    cfg_entry *head;
    cfg_entry *tail;
};

using match_cb = int (*)(void *ctx, cfg_entry *entry);

const char *vget_value(cfg_entry *cfg, const char *def, const char *fmt, int escaped,
                       va_list ap) noexcept {
    if (fmt == nullptr) return def;
    trel::MallocPtr<char> key(malloc_vprintf(fmt, ap));
    if (!key) {
        TREL_ERR(kModule, "OOM");
        return def;
    }
    cfg_entry *e = trel::cfg::find(cfg, key.get());
    if (e == nullptr) return def;
    if (!escaped) return e->value;
    const char *esc = esc_value(e);
    return esc != nullptr ? esc : def;
}

// 1 for a true word, 0 for a false word, -1 for anything else; the text is
// [s, s + len) and is blank-trimmed first.
int enabled_word(const char *s, size_t len) noexcept {
    while (len > 0 && is_blank(*s)) ++s, --len;
    while (len > 0 && is_blank(s[len - 1])) --len;
    static constexpr const char *kTrue[] = {"on", "enabled", "1", "enable", "active", "true"};
    static constexpr const char *kFalse[] = {"off",     "disabled", "0",
                                             "disable", "inactive", "false"};
    for (const char *w : kTrue)
        if (strlen(w) == len && strncasecmp(s, w, len) == 0) return 1;
    for (const char *w : kFalse)
        if (strlen(w) == len && strncasecmp(s, w, len) == 0) return 0;
    return -1;
}

int append_cfg_match_cb(void *arg, cfg_entry *entry) noexcept {
    auto *ctx = static_cast<match_ctx *>(arg);
    if (ctx == nullptr || (ctx->head != nullptr && ctx->tail == nullptr)) {
        TREL_ERR(kModule, "invalid ctx state");
        return -1;
    }
    auto *node = static_cast<cfg_entry *>(calloc(1, sizeof(cfg_entry)));
    if (node == nullptr) {
        TREL_ERR_CALLOC(kModule, 1, sizeof(cfg_entry));
        return -1;
    }
    node->key = entry->key;
    node->value = entry->value;
    if (ctx->tail != nullptr)
        ctx->tail->next = node;
    else
        ctx->head = node;
    ctx->tail = node;
    return 0;
}

int count_cb(void *arg, cfg_entry *) noexcept {
    ++*static_cast<uint32_t *>(arg);
    return 0;
}

int count_enabled_cb(void *arg, cfg_entry *entry) noexcept {
    if (entry->value != nullptr && enabled_word(entry->value, strlen(entry->value)) == 1)
        ++*static_cast<uint32_t *>(arg);
    return 0;
}

bool key_matches(const char *key, const char *pattern, size_t plen, int exact) noexcept {
    if (key == nullptr) return false;
    return exact ? cfg_keycmp(key, pattern) == 0 : strncmp(key, pattern, plen) == 0;
}

void process_cfg_it(match_cb cb, void *ctx, cfg_entry *cfg, int exact, const char *fmt,
                    va_list ap) noexcept {
    if (fmt == nullptr) return;
    trel::MallocPtr<char> pattern(malloc_vprintf(fmt, ap));
    if (!pattern) {
        TREL_ERR(kModule, "OOM");
        return;
    }
    size_t plen = strlen(pattern.get());
    for (cfg_entry *e = cfg; e != nullptr; e = e->next)
        if (key_matches(e->key, pattern.get(), plen, exact) && cb(ctx, e) != 0) return;
}

void process_cfg_section(match_cb cb, void *ctx, cfg_entry *cfg, const char *postfix,
                         const char *value, const char *fmt, va_list ap) noexcept {
    if (postfix != nullptr && postfix[0] != '.') {
        TREL_ERR(kModule, "postfix must start with '.': '%s'", postfix);
        return;
    }
    if (fmt == nullptr) return;
    trel::MallocPtr<char> prefix(malloc_vprintf(fmt, ap));
    if (!prefix) {
        TREL_ERR(kModule, "OOM");
        return;
    }
    size_t plen = strlen(prefix.get());
    if (plen == 0 || prefix.get()[plen - 1] != '.')
        TREL_WARN(kModule, "deprecated prefix doesn't end with '.': '%s' => '%s'", fmt,
                  prefix.get());  // Kept: warned, then used as it is by old callers

    for (cfg_entry *e = cfg; e != nullptr; e = e->next) {
        if (e->key == nullptr || strncmp(e->key, prefix.get(), plen) != 0) continue;
        const char *after = e->key + plen;
        char *end;
        strtol(after, &end, 0);
        if (end == after) continue;
        const char *rest = strchr(after, '.');
        if (postfix == nullptr ? rest != nullptr
                               : rest == nullptr || cfg_keycmp(rest, postfix) != 0)
            continue;
        if (value != nullptr && (e->value == nullptr || strcmp(e->value, value) != 0)) continue;
        if (cb(ctx, e) != 0) return;
    }
}

// Stable sort by cfg_keycmp: a node moves ahead of another only when its
// key compares lower, so equal keys keep configuration order.  (The result
// is that of repeated adjacent swaps, reached in n log n steps.)
cfg_entry *sort_section(cfg_entry *list) noexcept {
    if (list == nullptr || list->next == nullptr) return list;
    cfg_entry *slow = list, *fast = list->next;
    while (fast != nullptr && fast->next != nullptr) {
        slow = slow->next;
        fast = fast->next->next;
    }
    cfg_entry *right = slow->next;
    slow->next = nullptr;
    cfg_entry *left = sort_section(list);
    right = sort_section(right);
    cfg_entry head{}, *tail = &head;
    while (left != nullptr && right != nullptr) {
        if (cfg_keycmp(left->key, right->key) > 0) {
            tail->next = right;
            right = right->next;
        } else {
            tail->next = left;
            left = left->next;
        }
        tail = tail->next;
    }
    tail->next = left != nullptr ? left : right;
    return head.next;
}

bool is_comment_key(const char *key) noexcept {
    const char *dot = key != nullptr ? strrchr(key, '.') : nullptr;
    return dot != nullptr && strcmp(dot + 1, "comment") == 0;
}

}  // namespace

TREL_API const char *get_value(cfg_entry *cfg, const char *def, const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    const char *v = vget_value(cfg, def, fmt, 0, ap);
    va_end(ap);
    return v;
}

TREL_API const char *get_esc_value(cfg_entry *cfg, const char *def, const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    const char *v = vget_value(cfg, def, fmt, 1, ap);
    va_end(ap);
    return v;
}

// Kept: errno is not cleared before the conversion, so a range error left by
// an earlier call also gives the default; callers clear it when it matters.
template <typename T, typename Wide>
static T to_number(const char *v, T def, Wide (*convert)(const char *, char **, int),
                   int base) noexcept {
    if (v == nullptr) return def;
    char *end;
    Wide n = convert(v, &end, base);
    if (end == v || errno == ERANGE) return def;
    return (T)n;
}

TREL_API int32_t get_int32(cfg_entry *cfg, int32_t def, const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    const char *v = vget_value(cfg, nullptr, fmt, 0, ap);
    va_end(ap);
    return to_number(v, def, strtol, 0);
}

TREL_API uint32_t get_uint32(cfg_entry *cfg, uint32_t def, const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    const char *v = vget_value(cfg, nullptr, fmt, 0, ap);
    va_end(ap);
    return to_number(v, def, strtoul, 0);
}

TREL_API int32_t get_int32_dec(cfg_entry *cfg, int32_t def, const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    const char *v = vget_value(cfg, nullptr, fmt, 0, ap);
    va_end(ap);
    return to_number(v, def, strtol, 10);
}

TREL_API int64_t get_int64(cfg_entry *cfg, int64_t def, const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    const char *v = vget_value(cfg, nullptr, fmt, 0, ap);
    va_end(ap);
    return to_number(v, def, strtoll, 0);
}

TREL_API int get_bool(cfg_entry *cfg, int def, const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    const char *v = vget_value(cfg, nullptr, fmt, 0, ap);
    va_end(ap);
    if (v == nullptr) return def;
    size_t len = strlen(v);
    trel::MallocPtr<char> copy(static_cast<char *>(malloc(len + 1)));
    if (!copy) {
        TREL_ERR_MALLOC(kModule, len + 1);
        return def;
    }
    memcpy(copy.get(), v, len + 1);
    int word = enabled_word(copy.get(), len);
    return word < 0 ? def : word;
}

TREL_API cfg_entry *get_cfg_it(cfg_entry *cfg, int exact, const char *fmt, ...) noexcept {
    match_ctx ctx{};
    va_list ap;
    va_start(ap, fmt);
    process_cfg_it(append_cfg_match_cb, &ctx, cfg, exact, fmt, ap);
    va_end(ap);
    return ctx.head;
}

TREL_API uint32_t get_cfg_key_count(cfg_entry *cfg, int exact, const char *fmt, ...) noexcept {
    uint32_t count = 0;
    va_list ap;
    va_start(ap, fmt);
    process_cfg_it(count_cb, &count, cfg, exact, fmt, ap);
    va_end(ap);
    return count;
}

TREL_API cfg_entry *get_cfg_section(cfg_entry *cfg, const char *postfix, const char *value,
                                    const char *fmt, ...) noexcept {
    match_ctx ctx{};
    va_list ap;
    va_start(ap, fmt);
    process_cfg_section(append_cfg_match_cb, &ctx, cfg, postfix, value, fmt, ap);
    va_end(ap);
    return sort_section(ctx.head);
}

TREL_API uint32_t get_cfg_section_count(cfg_entry *cfg, const char *postfix, const char *value,
                                        const char *fmt, ...) noexcept {
    uint32_t count = 0;
    va_list ap;
    va_start(ap, fmt);
    process_cfg_section(count_cb, &count, cfg, postfix, value, fmt, ap);
    va_end(ap);
    return count;
}

TREL_API uint32_t get_cfg_section_enabled_count(cfg_entry *cfg, const char *postfix,
                                                const char *fmt, ...) noexcept {
    uint32_t count = 0;
    va_list ap;
    va_start(ap, fmt);
    process_cfg_section(count_enabled_cb, &count, cfg, postfix, nullptr, fmt, ap);
    va_end(ap);
    return count;
}

TREL_API uint32_t get_cfg_count(cfg_entry *cfg) noexcept {
    uint32_t count = 0;
    for (cfg_entry *e = cfg; e != nullptr; e = e->next) ++count;
    return count;
}

TREL_API cfg_entry *cfg_it_append(cfg_entry *list, cfg_entry **other) noexcept {
    if (other == nullptr || *other == nullptr) return list;
    if (list == nullptr) {
        list = *other;
    } else {
        cfg_entry *tail = list;
        while (tail->next != nullptr) tail = tail->next;
        tail->next = *other;
    }
    *other = nullptr;
    return list;
}

TREL_API void free_cfg_it(cfg_entry *it) noexcept {
    while (it != nullptr) {
        cfg_entry *next = it->next;
        // Key and value are borrowed; an escape cache made for the node is its own.
        if (it->esc != it->value) free(it->esc);
        free(it);
        it = next;
    }
}

// With an index of a's keys, each lookup costs the length of the key instead
// of a walk of the other list.  The pass over b marks the slot of every key of
// a that b has too, which answers the pass over a.  Without memory for the
// index the lists are walked.
TREL_API cfg_entry *get_cfg_diff_it(cfg_entry *a, cfg_entry *b) noexcept {
    cfg_entry *head = nullptr, *tail = nullptr;
    auto add = [&](cfg_entry *from) {
        auto *node = static_cast<cfg_entry *>(calloc(1, sizeof(cfg_entry)));
        if (node == nullptr) return false;
        node->key = from->key;
        node->value = from->value;
        if (tail != nullptr)
            tail->next = node;
        else
            head = node;
        tail = node;
        return true;
    };
    using trel::cfg::KeyIndex;
    KeyIndex index;
    const bool indexed = index.build(a);
    KeyIndex::Found found[KeyIndex::kBatch];
    // The next entries of a list, with their slots; one at a time and
    // without slots when there is no index.
    auto next_batch = [&](cfg_entry **next) -> size_t {
        if (indexed) return index.lookup_batch(next, found, false);
        found[0] = {*next, nullptr};
        *next = (*next)->next;
        return 1;
    };
    for (cfg_entry *next = b; next != nullptr;) {
        for (size_t i = 0, n = next_batch(&next); i < n; ++i) {
            cfg_entry *e = found[i].entry, *old = nullptr;
            if (!indexed) {
                old = trel::cfg::find(a, e->key);
            } else if (found[i].slot != nullptr) {
                found[i].slot->mark = 1;  // a's key is in b too
                old = found[i].slot->entry;
            }
            if (is_comment_key(e->key)) continue;
            if (old != nullptr && strcmp(old->value, e->value) == 0) continue;
            if (!add(e)) TREL_ERR_CALLOC(kModule, 1, sizeof(cfg_entry));
        }
    }
    for (cfg_entry *next = a; next != nullptr;) {
        for (size_t i = 0, n = next_batch(&next); i < n; ++i) {
            cfg_entry *e = found[i].entry;
            if (is_comment_key(e->key)) continue;
            bool in_b = indexed ? found[i].slot->mark != 0 : trel::cfg::find(b, e->key) != nullptr;
            if (!in_b && !add(e)) TREL_ERR_CALLOC(kModule, 1, sizeof(cfg_entry));
        }
    }
    return head;
}

TREL_API int get_cfg_key_idx(const char *key, int n) noexcept {
    if (key == nullptr) return -1;
    int found = 0;
    for (const char *dot = strchr(key, '.'); dot != nullptr; dot = strchr(dot + 1, '.')) {
        errno = 0;
        char *end;
        long v = strtol(dot + 1, &end, 0);
        if (errno != 0 || (uint32_t)v == 0) continue;
        if (++found == n) return (int)(int32_t)v;
    }
    return -1;
}

TREL_API const char *get_key_element(const char *key, unsigned n) noexcept {
    if (key == nullptr) return nullptr;
    const char *p = key;
    for (unsigned i = 0; i < n; ++i) {
        p = strchr(p, '.');
        if (p == nullptr) return nullptr;
        ++p;
    }
    return p;
}
