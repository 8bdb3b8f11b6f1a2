// Helpers shared by the configuration store's files.
#pragma once

#include <stddef.h>
#include <stdint.h>

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

// A hash of key under which keys equal under cfg_keycmp fall together.
uint32_t key_hash(const char *key) noexcept;

// Entries by key, keys equal under cfg_keycmp sharing one slot that holds the
// first entry inserted with that key.  An open-addressing table (linear
// probing, at most half full) in malloc'ed memory, hashed with key_hash; a
// hash match is confirmed with cfg_keycmp.  A lookup costs O(key length) on
// average.  When memory runs out the table is dropped and usable() turns
// false: callers then walk the list with find() instead, with the same
// results.
class KeyIndex {
public:
    struct Slot {
        cfg_entry *entry;  // null: empty
        uint32_t hash;
        uint32_t mark;  // the caller's, 0 to start with
    };

    KeyIndex() noexcept = default;
    KeyIndex(const KeyIndex &) = delete;
    KeyIndex &operator=(const KeyIndex &) = delete;
    ~KeyIndex();

    // Indexes the entries of list in order (so the first of equal keys
    // wins), replacing what was indexed; false when memory ran out.
    bool build(cfg_entry *list) noexcept;
    bool usable() const noexcept { return slots_ != nullptr; }
    // Looks up the keys of the next entries of *list (up to kBatch of them),
    // in order, into found, and advances *list past them; returns how many.
    // A slot is null for a key not indexed, unless add is set: then the entry
    // is indexed there (so a later equal key of the batch finds it).  With
    // add, 0 when the table could not grow (it is then dropped).  The keys
    // are all hashed, and their slots fetched, before the first is probed: in
    // a large table each lookup is otherwise a cache miss of its own.  Slots
    // stay where they are until the next call.
    struct Found {
        cfg_entry *entry;
        Slot *slot;
    };
    static constexpr size_t kBatch = 16;
    size_t lookup_batch(cfg_entry **list, Found *found, bool add) noexcept;

private:
    Slot *probe(const char *key, uint32_t hash) noexcept;
    bool grow() noexcept;

    Slot *slots_ = nullptr;
    size_t mask_ = 0;  // capacity - 1, the capacity a power of two
    size_t count_ = 0;
};

}  // namespace trel::cfg
