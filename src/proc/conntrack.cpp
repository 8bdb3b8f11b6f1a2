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

namespace {

constexpr char kConntrack[] = "/proc/net/nf_conntrack";
constexpr size_t kPieceSize = 320;  // longer lines are read in pieces

void add_conntrack_host(trel_conntrack_hosts *hosts, const char *addr) noexcept {
    size_t len = strlen(addr);
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
    memcpy(copy, addr, len + 1);
    host->addr = copy;
    host->connections = 1;
    HASH_ADD_KEYPTR(hh, hosts->hosts, host->addr, len, host);
    hosts->count++;
}

// The value after key in line, cut at the next space; null when there is no
// space after it or the value is empty.
char *cut_value(char *key) noexcept {
    if (key == nullptr) return nullptr;
    char *value = key + 4;
    char *end = strchr(value, ' ');
    if (end == nullptr || end == value) return nullptr;
    *end = '\0';
    return value;
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
        // Only the first tuple counts: the reply tuple's keys are never reached.
        char *src = strstr(line, "src=");
        char *dst = strstr(line, "dst=");
        if (const char *addr = cut_value(src)) add_conntrack_host(hosts, addr);
        if (const char *addr = cut_value(dst)) add_conntrack_host(hosts, addr);
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
