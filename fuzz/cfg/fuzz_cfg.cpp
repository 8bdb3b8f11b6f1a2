// Parses arbitrary bytes as a configuration, then checks lookups, escaping,
// key order, prefix lists, sections and the diff against what was parsed.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <libtrel.h>
#include <trel/cfg.h>

namespace {

int sign(int v) { return (v > 0) - (v < 0); }

void check(bool ok) {
    if (!ok) abort();
}

cfg_entry *first_match(cfg_entry *cfg, const char *key) {
    for (cfg_entry *e = cfg; e != nullptr; e = e->next)
        if (cfg_keycmp(e->key, key) == 0) return e;
    return nullptr;
}

void check_escape(cfg_entry *e) {
    const char *esc = esc_value(e);
    check(esc != nullptr);
    std::string back;
    for (const char *p = esc; *p != '\0'; ++p) {
        if (*p == '\\') {
            ++p;
            check(*p != '\0' && strchr("`\\\"'$", *p) != nullptr);
        } else {
            check(strchr("`\\\"'$", *p) == nullptr);
        }
        back += *p;
    }
    check(back == e->value);
    check(esc_value(e) == esc);
}

void check_section(cfg_entry *cfg, const char *key) {
    const char *dot = strchr(key, '.');
    if (dot == nullptr) return;
    std::string prefix(key, (size_t)(dot - key + 1));
    const char *rest = strchr(dot + 1, '.');
    const char *postfix = rest;  // null: members without a postfix
    cfg_entry *s = get_cfg_section(cfg, postfix, nullptr, "%s", prefix.c_str());
    uint32_t n = 0;
    for (cfg_entry *p = s; p != nullptr; p = p->next, ++n) {
        check(strncmp(p->key, prefix.c_str(), prefix.size()) == 0);
        if (p->next != nullptr) check(cfg_keycmp(p->key, p->next->key) <= 0);
    }
    check(n == get_cfg_section_count(cfg, postfix, nullptr, "%s", prefix.c_str()));
    check(get_cfg_section_enabled_count(cfg, postfix, "%s", prefix.c_str()) <= n);
    free_cfg_it(s);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    libtrel_log_level = 0;
    libtrel_log_use_syslog = 0;
    if (size == 0) return 0;
    FILE *f = fmemopen(const_cast<uint8_t *>(data), size, "r");
    if (f == nullptr) return 0;
    cfg_entry *cfg = parse_stream(f);
    fclose(f);

    // Lookups walk the list, so only the first entries are checked in depth.
    constexpr uint32_t kDeep = 64;
    uint32_t count = 0;
    bool distinct = true;
    for (cfg_entry *e = cfg; e != nullptr; e = e->next, ++count) {
        check(cfg_keycmp(e->key, e->key) == 0);
        if (e->next != nullptr)
            check(sign(cfg_keycmp(e->key, e->next->key)) ==
                  -sign(cfg_keycmp(e->next->key, e->key)));
        check_escape(e);
        get_cfg_key_idx(e->key, 1);
        const char *el = get_key_element(e->key, 1);
        check(el == nullptr || (el > e->key && el[-1] == '.'));
        if (count >= kDeep) continue;

        cfg_entry *first = first_match(cfg, e->key);
        if (first != e) distinct = false;
        check(get_value(cfg, nullptr, "%s", e->key) == first->value);
        get_int32(cfg, 0, "%s", e->key);
        get_uint32(cfg, 0, "%s", e->key);
        get_int32_dec(cfg, 0, "%s", e->key);
        get_int64(cfg, 0, "%s", e->key);
        get_bool(cfg, -1, "%s", e->key);
        if (count < 8) {
            check_section(cfg, e->key);
            cfg_entry *it = get_cfg_it(cfg, 0, "%s", e->key);
            check(it != nullptr && get_cfg_count(it) == get_cfg_key_count(cfg, 0, "%s", e->key));
            cfg_entry *exact = get_cfg_it(cfg, 1, "%s", e->key);
            check(exact != nullptr && exact->value == first->value);
            it = cfg_it_append(it, &exact);
            check(exact == nullptr);
            free_cfg_it(it);
        }
    }
    check(count == get_cfg_count(cfg));
    if (count <= kDeep) {
        cfg_entry *diff = get_cfg_diff_it(cfg, cfg);
        if (distinct) check(diff == nullptr);
        free_cfg_it(diff);
    }
    free_cfg(cfg);
    return 0;
}
