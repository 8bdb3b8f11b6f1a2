// Helpers shared by the configuration store's files.
#pragma once

#include <trel/cfg.h>

namespace trel::cfg {

constexpr const char *kModule = "cfg";

inline bool is_blank(char c) noexcept { return c == ' ' || c == '\t'; }

// First entry whose key equals key under cfg_keycmp, or null.
inline cfg_entry *find(cfg_entry *list, const char *key) noexcept {
    for (cfg_entry *e = list; e != nullptr; e = e->next)
        if (cfg_keycmp(e->key, key) == 0) return e;
    return nullptr;
}

}  // namespace trel::cfg
