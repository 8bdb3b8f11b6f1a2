// Shared inside the process-table module: the socket table of a snapshot,
// the name tables of the JSON output, and the list links.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <trel/proc.h>

namespace trel::proc {

constexpr char kModule[] = "libtrel_proc";

constexpr const char *kFdTypeNames[] = {"unknown", "file", "anon", "pipe", "socket"};
constexpr const char *kSocketTypeNames[] = {"unknown", "unix", "tcp", "tcp6", "udp", "udp6"};
constexpr const char *kTcpStateNames[] = {
    "UNKNOWN", "ESTABLISHED", "SYN_SENT", "SYN_RECV", "FIN_WAIT1", "FIN_WAIT2",   "TIME_WAIT",
    "CLOSE",   "CLOSE_WAIT",  "LAST_ACK", "LISTEN",   "CLOSING",   "NEW_SYN_RECV"};
constexpr const char *kUnixTypeNames[] = {"UNKNOWN", "STREAM", "DGRAM", "RAW", "RDM", "SEQPACKET"};
constexpr const char *kUnixStateNames[] = {"UNKNOWN",    "FREE",      "UNCONNECTED",  "LISTENING",
                                           "CONNECTING", "CONNECTED", "DISCONNECTING"};

static_assert(sizeof kTcpStateNames / sizeof *kTcpStateNames == 13);
static_assert(sizeof kUnixTypeNames / sizeof *kUnixTypeNames == 6);
static_assert(sizeof kUnixStateNames / sizeof *kUnixStateNames == 7);

// names[index], or fallback for an index past the end of the table.
template <size_t N>
constexpr const char *name_of(const char *const (&names)[N], uint32_t index,
                              const char *fallback) noexcept {
    return index < N ? names[index] : fallback;
}

// Reads the kernel's unix, tcp, tcp6, udp and udp6 tables into a new table;
// null when the holder cannot be allocated.
trel_socket_table *cache_sockets() noexcept;
// Frees every socket record, its data and the table.  Accepts null.
void free_socket_table(trel_socket_table *table) noexcept;

inline void list_init(trel_list_link *head) noexcept { head->prev = head->next = head; }

inline void list_append(trel_list_link *head, trel_list_link *link) noexcept {
    link->prev = head->prev;
    link->next = head;
    head->prev->next = link;
    head->prev = link;
}

inline void list_unlink(trel_list_link *link) noexcept {
    link->prev->next = link->next;
    link->next->prev = link->prev;
    link->prev = link->next = link;
}

}  // namespace trel::proc
