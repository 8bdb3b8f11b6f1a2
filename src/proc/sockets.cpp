// The kernel's socket tables, read once per snapshot into one table keyed by
// inode, so that the descriptors of every process resolve to their sockets
// without reading /proc/net again.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/log.h"
#include "core/path_root.h"
#include "core/raii.h"
#include "proc/internal.h"

namespace trel::proc {

namespace {

constexpr size_t kLineSize = 256;
constexpr uint32_t kUnixAcceptConnections = 0x10000;  // __SO_ACCEPTCON in the flags column

// A kernel unix socket state (SS_FREE 0 ... SS_DISCONNECTING 4) as an index of
// the unix state names; an unconnected socket that accepts is "LISTENING".
uint32_t unix_state(unsigned state, unsigned flags) noexcept {
    switch (state) {
        case 1:
            return flags & kUnixAcceptConnections ? 3 : 2;
        case 2:
            return 4;
        case 3:
            return 5;
        case 4:
            return 6;
        default:
            return 0;  // Kept: SS_FREE reads "UNKNOWN", never "FREE".
    }
}

const char *socket_file(uint32_t type) noexcept {
    switch (type) {
        case TREL_SOCKET_TCP:
            return "/proc/net/tcp";
        case TREL_SOCKET_TCP6:
            return "/proc/net/tcp6";
        case TREL_SOCKET_UDP:
            return "/proc/net/udp";
        case TREL_SOCKET_UDP6:
            return "/proc/net/udp6";
        default:
            return "/proc/net/unix";
    }
}

void free_socket_inode(trel_socket_inode *s) noexcept {
    if (s->type == TREL_SOCKET_UNIX) {
        if (s->data.un != nullptr) free(s->data.un->path);
        free(s->data.un);
    } else {
        free(s->data.inet);
    }
    free(s);
}

trel_socket_inode *init_socket_inode(unsigned long inode, uint32_t type) noexcept {
    auto *s = static_cast<trel_socket_inode *>(calloc(1, sizeof(trel_socket_inode)));
    if (s == nullptr) {
        TREL_ERR(kModule, "Failed to init socket inode");
        return nullptr;
    }
    s->inode = static_cast<uint32_t>(inode);
    s->type = type;
    return s;
}

// One line of /proc/net/tcp, tcp6, udp or udp6: ports, state, inode.
trel_socket_inode *parse_inet_socket_line(const char *line, uint32_t type) noexcept {
    unsigned local_port, remote_port, state;
    unsigned long inode;
    if (sscanf(line, "%*d: %*X:%X %*X:%X %X %*X:%*X %*X:%*X %*X %*u %*d %lu", &local_port,
               &remote_port, &state, &inode) != 4)
        return nullptr;
    trel_socket_inode *s = init_socket_inode(inode, type);
    if (s == nullptr) return nullptr;
    auto *d = static_cast<trel_inet_socket *>(malloc(sizeof(trel_inet_socket)));
    if (d == nullptr) {
        // Kept: this one report goes to standard output, not to the log.
        printf("Error: Failed to init udp/tcp socket data\n");
        free(s);
        return nullptr;
    }
    d->local_port = local_port;
    d->remote_port = remote_port;
    if (type == TREL_SOCKET_TCP || type == TREL_SOCKET_TCP6)
        d->state = state < 13 ? state : 0;
    else  // udp: only "ESTABLISHED" (connected) and "CLOSE" (unconnected) exist
        d->state = state == 1 || state == 7 ? state : 0;
    s->data.inet = d;
    return s;
}

// One line of /proc/net/unix: reference count, flags, type, state, inode and
// the path, which unnamed sockets lack.
trel_socket_inode *parse_unix_socket_line(const char *line) noexcept {
    unsigned refcnt, flags, type, state;
    unsigned long inode;
    char path[kLineSize];  // %s cannot outgrow the line it is read from
    int n =
        sscanf(line, "%*p: %X %*X %X %X %X %lu %s", &refcnt, &flags, &type, &state, &inode, path);
    if (n < 5) return nullptr;
    trel_socket_inode *s = init_socket_inode(inode, TREL_SOCKET_UNIX);
    if (s == nullptr) return nullptr;
    auto *d = static_cast<trel_unix_socket *>(calloc(1, sizeof(trel_unix_socket)));
    if (d != nullptr && n == 6 && path[0] != '\0') {
        d->path = strdup(path);
        if (d->path == nullptr) {
            free(d);
            d = nullptr;
        }
    }
    if (d == nullptr) {
        // Kept: this one report goes to standard output, not to the log.
        printf("Error: Failed to init unix socket data\n");
        free(s);
        return nullptr;
    }
    d->refcnt = refcnt;
    d->type = type < 6 ? type : 0;
    d->state = unix_state(state, flags);
    s->data.un = d;
    return s;
}

void add_socket(trel_socket_table *table, trel_socket_inode *s) noexcept {
    if (s->inode == 0) {
        free_socket_inode(s);
        return;
    }
    trel_socket_inode *found;
    HASH_FIND_INT(table->head, &s->inode, found);
    if (found != nullptr) {
        TREL_WARN(kModule, "Duplicate socket inode %d", static_cast<int>(s->inode));
        free_socket_inode(s);
        return;
    }
    // Kept: when the table cannot grow, uthash's fatal handler ends the process
    // (exit status -1) rather than leave a snapshot missing sockets.
    HASH_ADD_INT(table->head, inode, s);
    table->count++;
}

void parse_sockets(trel_socket_table *table, uint32_t type) noexcept {
    const char *path = socket_file(type);
    UniqueFile f(path_fopen(path, "re"));
    if (!f) {
        TREL_ERR(kModule, "Failed to open '%s': %s", path, strerror(errno));
        return;
    }
    char line[kLineSize];
    if (fgets(line, sizeof line, f.get()) == nullptr) return;  // the header
    while (fgets(line, sizeof line, f.get()) != nullptr) {
        trel_socket_inode *s = type == TREL_SOCKET_UNIX ? parse_unix_socket_line(line)
                                                        : parse_inet_socket_line(line, type);
        if (s != nullptr) add_socket(table, s);
    }
}

}  // namespace

trel_socket_table *cache_sockets() noexcept {
    auto *table = static_cast<trel_socket_table *>(calloc(1, sizeof(trel_socket_table)));
    if (table == nullptr) {
        TREL_ERR(kModule, "Failed to alloc socket hash table");
        return nullptr;
    }
    for (uint32_t type :
         {TREL_SOCKET_UNIX, TREL_SOCKET_TCP, TREL_SOCKET_TCP6, TREL_SOCKET_UDP, TREL_SOCKET_UDP6})
        parse_sockets(table, type);
    return table;
}

void free_socket_table(trel_socket_table *table) noexcept {
    if (table == nullptr) return;
    // The records stay chained through hh.next once the table's own memory
    // is gone.
    trel_socket_inode *s = table->head;
    HASH_CLEAR(hh, table->head);
    while (s != nullptr) {
        auto *next = static_cast<trel_socket_inode *>(s->hh.next);
        free_socket_inode(s);
        s = next;
    }
    free(table);
}

}  // namespace trel::proc
