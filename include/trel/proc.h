/* libtrel process and resource inspection: a snapshot of the process table
 * with each process's descriptors and sockets, the memory summary of
 * /proc/meminfo and the connection-tracking count per host.
 *
 * The socket table and the conntrack hosts are uthash tables, so this header
 * includes <uthash.h> (Debian: uthash-dev).  uthash's defaults apply: memory
 * from malloc, and a process exit with status -1 when a table cannot grow. */
#ifndef TREL_PROC_H
#define TREL_PROC_H

#include <stdint.h>
#include <sys/sysinfo.h>

#include <jansson.h>
#include <uthash.h>

#include <trel/common.h>

TREL_BEGIN_DECLS

/* ---- Process table ----------------------------------------------------------- */

/* Links of a circular doubly linked list.  A head whose links point to itself
 * is an empty list.  Every record kept on a list begins with its links, so a
 * link pointer is also a pointer to its record. */
typedef struct trel_list_link trel_list_link;
struct trel_list_link {
    trel_list_link *prev;
    trel_list_link *next;
};

/* Walks the records of the list at head (a trel_list_link *) from first to
 * last; link is a trel_list_link * variable.  The loop body must not unlink
 * the current record. */
#define TREL_LIST_FOR_EACH(link, head) \
    for ((link) = (head)->next; (link) != (head); (link) = (link)->next)

/* Descriptor types of trel_ps_fd.type. */
#define TREL_FD_UNKNOWN 0u
#define TREL_FD_FILE 1u
#define TREL_FD_ANON 2u
#define TREL_FD_PIPE 3u
#define TREL_FD_SOCKET 4u

/* Socket types of trel_socket_inode.type. */
#define TREL_SOCKET_UNKNOWN 0u
#define TREL_SOCKET_UNIX 1u
#define TREL_SOCKET_TCP 2u
#define TREL_SOCKET_TCP6 3u
#define TREL_SOCKET_UDP 4u
#define TREL_SOCKET_UDP6 5u

/* A tcp, tcp6, udp or udp6 socket.  state indexes the TCP state names
 * ("UNKNOWN", "ESTABLISHED", ... "LISTEN" = 10 ... "NEW_SYN_RECV" = 12); a udp
 * socket is 1 (connected), 7 (unconnected) or 0. */
typedef struct trel_inet_socket {
    uint32_t local_port;
    uint32_t remote_port;
    uint32_t state;
} trel_inet_socket;

/* A unix socket.  type: 0 "UNKNOWN", 1 "STREAM", 2 "DGRAM", 3 "RAW", 4 "RDM",
 * 5 "SEQPACKET"; state: 0 "UNKNOWN", 2 "UNCONNECTED", 3 "LISTENING",
 * 4 "CONNECTING", 5 "CONNECTED", 6 "DISCONNECTING".  path may be null. */
typedef struct trel_unix_socket {
    uint32_t refcnt;
    uint32_t type;
    uint32_t state;
    char *path;
} trel_unix_socket;

/* One socket of the kernel's tables, keyed by its inode.  data is the record
 * of its type (inet for tcp/udp, un for unix) or null. */
typedef struct trel_socket_inode {
    uint32_t inode;
    uint32_t type; /* TREL_SOCKET_* */
    union trel_socket_data {
        trel_inet_socket *inet;
        trel_unix_socket *un;
    } data;
    UT_hash_handle hh;
} trel_socket_inode;

/* The socket table of a snapshot: a uthash table keyed by the 4-byte inode
 * (HASH_FIND_INT(table->head, &inode, found)). */
typedef struct trel_socket_table {
    trel_socket_inode *head;
    uint32_t count;
} trel_socket_table;

/* One open descriptor.  For TREL_FD_FILE, _ANON and _PIPE, target.link is
 * the descriptor's link text; for TREL_FD_SOCKET, target.socket is the
 * socket's record in the list's socket table, or null when its inode is in
 * none of the kernel's tables. */
typedef struct trel_ps_fd {
    trel_list_link list;
    uint32_t type; /* TREL_FD_* */
    union trel_ps_fd_target {
        char *link;
        trel_socket_inode *socket;
    } target;
} trel_ps_fd;

/* One process.  comm is the name between the first "(" and the last ")" of
 * its stat line; vsz and rss are in KiB; cmdline (null when it could not be
 * read) has its argument separators turned into spaces and is cut at 1023
 * bytes.  fd_count is the number of open descriptors, -1 when the process's
 * fd directory could not be opened, -2 when reading it failed.  fds holds
 * trel_ps_fd records, empty unless descriptors were requested. */
typedef struct trel_ps_entry {
    trel_list_link list;
    int32_t pid;
    char *comm;
    char state;
    int32_t ppid;
    uint64_t vsz;
    int64_t rss;
    char *cmdline;
    int32_t fd_count;
    trel_list_link fds;
} trel_ps_entry;

/* A snapshot of the process table: trel_ps_entry records in the order /proc
 * listed them.  sockets is null unless descriptors were requested. */
typedef struct trel_ps_list {
    trel_list_link list;
    uint32_t count;
    trel_socket_table *sockets;
} trel_ps_list;

/* Decides about one complete entry while the table is built: returning 1
 * drops it (and frees it), anything else keeps it.  The entry belongs to the
 * table; the callback must not free or unlink it. */
typedef int32_t (*trel_ps_filter_fn)(trel_ps_entry *entry, void *arg);

/* Snapshot of every process, with descriptors and sockets when with_fds is
 * non-zero, through filter (may be null) with arg.  Null when /proc cannot be
 * opened or memory runs out.  The caller frees it with trel_ps_list_free. */
trel_ps_list *trel_ps_filter(uint32_t with_fds, trel_ps_filter_fn filter, void *arg) TREL_NOEXCEPT;
/* trel_ps_filter(0, NULL, NULL). */
trel_ps_list *trel_ps(void) TREL_NOEXCEPT;
/* Frees the entries, their descriptors, the socket table and the head.
 * Accepts null. */
void trel_ps_list_free(trel_ps_list *list) TREL_NOEXCEPT;
/* A new JSON array describing entry's descriptors ("fd_type", "link",
 * "socket_type", "socket"); null on failure.  The caller owns it. */
json_t *trel_fds_to_array(const trel_ps_entry *entry) TREL_NOEXCEPT;
/* A new JSON array with one object per entry ("pid", "ppid", "vsz", "rss",
 * "stat", "fd_count", "comm", "fds").  Always consumes list, also on failure
 * (null); a null list gives an empty array. */
json_t *trel_ps_list_to_array(trel_ps_list *list) TREL_NOEXCEPT;
/* trel_ps_list_to_array(trel_ps()): every "fds" is empty. */
json_t *trel_ps_array(void) TREL_NOEXCEPT;

/* ---- Memory summary -------------------------------------------------------- */

/* The counters of /proc/meminfo in kB, named after their lines
 * ("MemTotal" ... "Committed_AS"); 0 for a line that is absent. */
typedef struct trel_meminfo {
    uint64_t mem_total;
    uint64_t mem_free;
    uint64_t mem_available;
    uint64_t buffers;
    uint64_t cached;
    uint64_t active;
    uint64_t inactive;
    uint64_t active_anon;
    uint64_t inactive_anon;
    uint64_t active_file;
    uint64_t inactive_file;
    uint64_t unevictable;
    uint64_t mlocked;
    uint64_t dirty;
    uint64_t writeback;
    uint64_t anon_pages;
    uint64_t mapped;
    uint64_t shmem;
    uint64_t slab;
    uint64_t s_reclaimable;
    uint64_t s_unreclaim;
    uint64_t kernel_stack;
    uint64_t page_tables;
    uint64_t commit_limit;
    uint64_t committed_as;
    /* (MemTotal - MemAvailable) * 100 / MemTotal: 0 without MemTotal, 100
     * without MemAvailable. */
    float used_percent;
} trel_meminfo;

/* Fills mi from /proc/meminfo: 0, or 0xFFFFFFFF when the file cannot be
 * opened (or mi is null). */
uint32_t meminfo(trel_meminfo *mi) TREL_NOEXCEPT;
/* A new JSON object with the 25 counters under their line names (not
 * used_percent); null on failure.  The caller owns it. */
json_t *trel_meminfo_to_obj(const trel_meminfo *mi) TREL_NOEXCEPT;
/* used_percent of a fresh meminfo reading; when /proc/meminfo cannot be read,
 * the share of si's totalram that is not freeram (si filled by the caller
 * with sysinfo(2)); 0 when there is neither. */
float get_memused_percent(const struct sysinfo *si) TREL_NOEXCEPT;

/* ---- Connection tracking --------------------------------------------------- */

/* One address of /proc/net/nf_conntrack and how often it was seen. */
typedef struct trel_conntrack_host {
    char *addr;
    int32_t connections;
    UT_hash_handle hh;
} trel_conntrack_host;

/* Hosts sorted busiest first (walk hosts->hh.next); equal counts keep the
 * order in which the hosts were first seen. */
typedef struct trel_conntrack_hosts {
    trel_conntrack_host *hosts;
    uint32_t count;
} trel_conntrack_hosts;

/* Counts the source and destination address of the first tuple of every ipv4
 * and ipv6 line.  Null when the file cannot be opened or memory runs out; the
 * caller frees the result with free_conntrack_hosts. */
trel_conntrack_hosts *get_top_conntrack_hosts(void) TREL_NOEXCEPT;
/* Frees every host, the table and the holder.  Accepts null. */
void free_conntrack_hosts(trel_conntrack_hosts *hosts) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
