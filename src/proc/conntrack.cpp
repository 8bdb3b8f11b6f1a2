// Connection tracking: how often each address opened or received a tracked
// connection, busiest first.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/log.h"
#include "core/path_root.h"
#include "core/raii.h"
#include "proc/internal.h"

using trel::proc::kModule;

// A host table starts with 1024 buckets instead of 32: a busy router tracks
// hundreds of hosts, and the default table only grows once a bucket chain
// holds ten of them, so every lookup would walk long chains.
#undef HASH_INITIAL_NUM_BUCKETS
#undef HASH_INITIAL_NUM_BUCKETS_LOG2
#define HASH_INITIAL_NUM_BUCKETS 1024U
#define HASH_INITIAL_NUM_BUCKETS_LOG2 10U

namespace {

constexpr char kConntrack[] = "/proc/net/nf_conntrack";
constexpr size_t kPieceSize = 320;  // longer lines are read in pieces

// The first "src=" and the first "dst=" of a line (which begins with "ipv4"
// or "ipv6"), or null: each "=" in turn is checked for the key before it, one
// pass instead of two searches of the whole line.
void find_keys(char *line, char **src, char **dst) noexcept {
    *src = *dst = nullptr;
    for (char *eq = strchr(line + 3, '='); eq != nullptr; eq = strchr(eq + 1, '=')) {
        char *key = eq - 3;
        if (*src == nullptr && memcmp(key, "src", 3) == 0)
            *src = key;
        else if (*dst == nullptr && memcmp(key, "dst", 3) == 0)
            *dst = key;
        if (*src != nullptr && *dst != nullptr) return;
    }
}

void add_conntrack_host(trel_conntrack_hosts *hosts, const char *addr, size_t len) noexcept {
    trel_conntrack_host *host;
    HASH_FIND(hh, hosts->hosts, addr, len, host);
    if (host != nullptr) {
        host->connections++;
        return;
    }
    host = static_cast<trel_conntrack_host *>(malloc(sizeof(trel_conntrack_host)));
    char *copy = static_cast<char *>(malloc(len + 1));
    if (host == nullptr || copy == nullptr) {
        TREL_ERR(kModule, "Failed to alloc host");
        free(host);
        free(copy);
        return;
    }
    memcpy(copy, addr, len);
    copy[len] = '\0';
    host->addr = copy;
    host->connections = 1;
    // Kept: when the table cannot grow, uthash's fatal handler ends the process
    // (exit status -1) rather than leave the counts short.
    HASH_ADD_KEYPTR(hh, hosts->hosts, host->addr, len, host);
    hosts->count++;
}

// Counts the value after key ("src=" or "dst="), cut in place at the next
// space; nothing when there is no space after it or the value is empty.
void count_value(trel_conntrack_hosts *hosts, char *key) noexcept {
    if (key == nullptr) return;
    char *value = key + 4;
    char *end = strchr(value, ' ');
    if (end == nullptr || end == value) return;
    *end = '\0';
    add_conntrack_host(hosts, value, static_cast<size_t>(end - value));
}

int busiest_first(const trel_conntrack_host *a, const trel_conntrack_host *b) noexcept {
    return (a->connections < b->connections) - (a->connections > b->connections);
}

}  // namespace

TREL_API trel_conntrack_hosts *get_top_conntrack_hosts(void) noexcept {
    trel::UniqueFile f(trel::path_fopen(kConntrack, "re"));
    if (!f) {
        TREL_ERR(kModule, "Failed to open '%s': %s", kConntrack, strerror(errno));
        return nullptr;
    }
    auto *hosts = static_cast<trel_conntrack_hosts *>(calloc(1, sizeof(trel_conntrack_hosts)));
    if (hosts == nullptr) {
        TREL_ERR(kModule, "Failed to alloc hash table");
        return nullptr;
    }
    char line[kPieceSize];
    while (fgets(line, sizeof line, f.get()) != nullptr) {
        if (strncmp(line, "ipv4", 4) != 0 && strncmp(line, "ipv6", 4) != 0) continue;
        // Kept: only the first tuple counts (the direction the connection was
        // opened in); the reply tuple's keys are never reached.
        char *src, *dst;
        find_keys(line, &src, &dst);
        // The source is cut before the destination's end is looked for.
        count_value(hosts, src);
        count_value(hosts, dst);
    }
    // uthash's merge sort is stable: equal counts stay in first-seen order.
    HASH_SORT(hosts->hosts, busiest_first);
    return hosts;
}

TREL_API void free_conntrack_hosts(trel_conntrack_hosts *hosts) noexcept {
    if (hosts == nullptr) return;
    trel_conntrack_host *host = hosts->hosts;
    HASH_CLEAR(hh, hosts->hosts);
    while (host != nullptr) {
        auto *next = static_cast<trel_conntrack_host *>(host->hh.next);
        free(host->addr);
        free(host);
        host = next;
    }
    free(hosts);
}
