// The process table: one pass over /proc, each process's stat line, command
// line and descriptors, sockets resolved through the snapshot's socket table;
// and its JSON form.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "core/log.h"
#include "core/path_root.h"
#include "core/raii.h"
#include "proc/internal.h"

using namespace trel::proc;

namespace {

constexpr size_t kProcPathSize = 128;
constexpr size_t kStatLineSize = 1024;
constexpr size_t kCmdlineSize = 1024;
constexpr size_t kFdPathSize = 386;  // both the link's path and its text
constexpr size_t kDirBufferSize = 8192;

// Keeps errno across a log call: errno after the descriptor walk tells
// whether reading the directory failed, and logging is no failure of it.
class KeepErrno {
public:
    KeepErrno() noexcept : saved_(errno) {}
    ~KeepErrno() { errno = saved_; }
    int saved() const noexcept { return saved_; }

private:
    int saved_;
};

// log2(page size / 1024): rss is counted in pages, reported in KiB.
unsigned page_shift() noexcept {
    long kib = sysconf(_SC_PAGESIZE) / 1024;
    unsigned shift = 0;
    if (kib <= 0) return 0;
    while (kib >>= 1) shift++;
    return shift;
}

trel_ps_list *trel_ps_list_init() noexcept {
    auto *list = static_cast<trel_ps_list *>(calloc(1, sizeof(trel_ps_list)));
    if (list == nullptr) {
        TREL_ERR(kModule, "Failed to allocate memory for trel_ps_list");
        return nullptr;
    }
    list_init(&list->list);
    return list;
}

void free_ps_entry(trel_ps_entry *e) noexcept {
    trel_list_link *l = e->fds.next;
    while (l != &e->fds) {
        auto *fd = reinterpret_cast<trel_ps_fd *>(l);
        l = l->next;
        if (fd->type != TREL_FD_SOCKET) free(fd->target.link);  // sockets belong to the table
        free(fd);
    }
    free(e->comm);
    free(e->cmdline);
    free(e);
}

// The first line of a small file, cut as freadline cuts it; empty when the
// file cannot be read.  One open and one read, no stream.
void read_first_line(const char *path, char *line, size_t size) noexcept {
    line[0] = '\0';
    trel::UniqueFd fd(trel::path_open(path, O_RDONLY | O_CLOEXEC));
    if (!fd) return;
    ssize_t n = read(fd.get(), line, size - 1);
    if (n <= 0) return;
    line[n] = '\0';
    line[strcspn(line, "\n\r\a")] = '\0';
}

// The entry of one process from its stat line, or null to skip it.  The name
// runs from the first "(" to the last ")", so it may hold both and spaces.
trel_ps_entry *read_stat(int32_t pid, unsigned shift) noexcept {
    char path[kProcPathSize];
    char line[kStatLineSize];
    snprintf(path, sizeof path, "/proc/%d/stat", pid);
    read_first_line(path, line, sizeof line);
    if (line[0] == '\0') return nullptr;  // gone meanwhile
    char *open = strchr(line, '(');
    char *close = strrchr(line, ')');
    if (open == nullptr || close == nullptr || open > close || strlen(close) < 2) return nullptr;
    *close = '\0';
    char state;
    int ppid;
    unsigned long vsize;
    long rss;
    if (sscanf(close + 2,
               "%c %d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %*u "
               "%lu %ld ",
               &state, &ppid, &vsize, &rss) != 4)
        return nullptr;
    auto *e = static_cast<trel_ps_entry *>(calloc(1, sizeof(trel_ps_entry)));
    char *comm = strdup(open + 1);
    if (e == nullptr || comm == nullptr) {
        TREL_ERR_CALLOC(kModule, 1, sizeof(trel_ps_entry));
        free(e);
        free(comm);
        return nullptr;
    }
    list_init(&e->list);
    list_init(&e->fds);
    e->pid = pid;
    e->comm = comm;
    e->state = state;
    e->ppid = ppid;
    e->vsz = vsize >> 10;
    e->rss = static_cast<int64_t>(static_cast<uint64_t>(rss) << shift);
    return e;
}

// The command line with its separators as spaces.
// Kept: cut at 1023 bytes, as the last byte read always becomes the terminator
// (a full 1024-byte read loses a real character).
void fread_cmdline(trel_ps_entry *e) noexcept {
    char path[kProcPathSize];
    snprintf(path, sizeof path, "/proc/%d/cmdline", e->pid);
    trel::UniqueFd fd(trel::path_open(path, O_RDONLY | O_CLOEXEC));
    if (!fd) {
        TREL_ERR(kModule, "Failed to open '%s': %s", path, strerror(errno));
        return;
    }
    char buf[kCmdlineSize];
    ssize_t n = read(fd.get(), buf, sizeof buf);
    if (n < 0) {
        TREL_ERR(kModule, "Failed to read '%s'", path);
        return;
    }
    if (n == 0) return;
    buf[n - 1] = '\0';
    for (ssize_t i = 0; i < n - 1; i++)
        if (buf[i] == '\0') buf[i] = ' ';
    e->cmdline = strdup(buf);
}

// The link text of the descriptor name in the fd directory dirfd (dir) into
// out[kFdPathSize + 1]; false when it cannot be read or fills the whole
// buffer (then it may have been cut).
bool resolve_fd_path(int dirfd, const char *dir, const char *name, char *out) noexcept {
    ssize_t n = trel::path_readlinkat(dirfd, name, out, kFdPathSize);
    if (n < 0) {
        KeepErrno keep;  // the failure itself stays in errno
        char path[kFdPathSize];
        snprintf(path, sizeof path, "%s/%s", dir, name);
        TREL_DBG(kModule, "Failed to readlink '%s': %s", path, strerror(keep.saved()));
        return false;
    }
    out[n] = '\0';
    if (static_cast<size_t>(n) == kFdPathSize) {
        KeepErrno keep;
        char path[kFdPathSize];
        snprintf(path, sizeof path, "%s/%s", dir, name);
        // Kept: two blanks before the second %s; log watchers match the text as
        // it stands.
        TREL_DBG(kModule, "Resolved path truncated '%s ->  %s'", path, out);
        return false;
    }
    return true;
}

// "type:[id]" names anonymous inodes, pipes and sockets; anything else is a
// file.  Returns TREL_FD_UNKNOWN for another bracketed kind, and the opening
// bracket in *bracket.
uint32_t classify_fd(const char *link, const char **bracket) noexcept {
    const char *colon = strchr(link, ':');
    const char *open = colon != nullptr ? strchr(colon, '[') : nullptr;
    if (open == nullptr || strchr(open, ']') == nullptr) return TREL_FD_FILE;
    *bracket = open;
    switch (link[0]) {
        case 'a':
            return TREL_FD_ANON;
        case 'p':
            return TREL_FD_PIPE;
        case 's':
            return TREL_FD_SOCKET;
        default:
            return TREL_FD_UNKNOWN;
    }
}

// Counts the process's descriptors and, with with_fds, records each one.  The
// directory is read with getdents64 into a buffer on the stack.
void walk_process_fds(trel_ps_entry *e, uint32_t with_fds, trel_socket_table *sockets) noexcept {
    char dir[kProcPathSize];
    snprintf(dir, sizeof dir, "/proc/%d/fd", e->pid);
    trel::UniqueFd fd(trel::path_open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) {
        TREL_DBG(kModule, "Failed to open '%s': %s", dir, strerror(errno));
        e->fd_count = -1;
        return;
    }
    errno = 0;
    int32_t count = -2;  // "." and ".." are listed too
    alignas(struct dirent64) char buf[kDirBufferSize];
    ssize_t n;
    while ((n = getdents64(fd.get(), buf, sizeof buf)) > 0) {
        for (ssize_t off = 0; off < n;) {
            auto *de = reinterpret_cast<struct dirent64 *>(buf + off);
            off += de->d_reclen;
            count++;
            if (!with_fds || de->d_type != DT_LNK) continue;
            char link[kFdPathSize + 1];
            if (!resolve_fd_path(fd.get(), dir, de->d_name, link)) continue;
            const char *bracket = nullptr;
            uint32_t type = classify_fd(link, &bracket);
            if (type == TREL_FD_UNKNOWN) {
                KeepErrno keep;
                TREL_WARN(kModule, "Unknown FD type '%s'", link);
                continue;
            }
            auto *rec = static_cast<trel_ps_fd *>(calloc(1, sizeof(trel_ps_fd)));
            if (rec != nullptr && type != TREL_FD_SOCKET) {
                rec->target.link = strdup(link);
                if (rec->target.link == nullptr) {
                    free(rec);
                    rec = nullptr;
                }
            }
            if (rec == nullptr) {
                TREL_ERR(kModule, "Failed to alloc FD");
                continue;
            }
            rec->type = type;
            if (type == TREL_FD_SOCKET) {
                auto inode = static_cast<uint32_t>(strtoul(bracket + 1, nullptr, 10));
                if (sockets != nullptr) HASH_FIND_INT(sockets->head, &inode, rec->target.socket);
            }
            list_append(&e->fds, &rec->list);
        }
    }
    // Kept: any failure that set errno during the walk, a failed readlink
    // included, marks the whole count as unreadable.
    if (errno != 0) {
        TREL_DBG(kModule, "Failed to read '%s': %s", dir, strerror(errno));
        count = -2;
    }
    e->fd_count = count;
}

json_t *port_json(uint32_t port) noexcept {
    return port == 0 ? json_string("*") : json_integer(port);
}

// The "socket" object of one socket record's data.
void socket_details(json_t *o, const trel_socket_inode *s) noexcept {
    if (s->type == TREL_SOCKET_UNIX) {
        const trel_unix_socket *u = s->data.un;
        if (u == nullptr) return;
        json_object_set_new(o, "refcnt", json_integer(u->refcnt));
        json_object_set_new(o, "type", json_string(name_of(kUnixTypeNames, u->type, "UNKNOWN")));
        if (u->path != nullptr) json_object_set_new(o, "path", json_string(u->path));
        json_object_set_new(o, "state", json_string(name_of(kUnixStateNames, u->state, "UNKNOWN")));
        return;
    }
    const trel_inet_socket *in = s->data.inet;
    if (in == nullptr) return;
    json_object_set_new(o, "local_port", port_json(in->local_port));
    json_object_set_new(o, "remote_port", port_json(in->remote_port));
    json_object_set_new(o, "state", json_string(name_of(kTcpStateNames, in->state, "UNKNOWN")));
}

}  // namespace

TREL_API trel_ps_list *trel_ps_filter(uint32_t with_fds, trel_ps_filter_fn filter,
                                      void *arg) noexcept {
    unsigned shift = page_shift();
    trel::UniqueDir proc(trel::path_opendir("/proc"));
    if (!proc) {
        TREL_ERR(kModule, "Failed to open '%s': %s", "/proc", strerror(errno));
        return nullptr;
    }
    trel_ps_list *list = trel_ps_list_init();
    if (list == nullptr) return nullptr;
    if (with_fds) {
        list->sockets = cache_sockets();
        if (list->sockets == nullptr) TREL_WARN(kModule, "Failed to cache sockets");
    }
    while (struct dirent *de = readdir(proc.get())) {
        if (de->d_type != DT_DIR) continue;
        char *end;
        long pid = strtol(de->d_name, &end, 10);
        if (pid == 0 || end == de->d_name) continue;
        trel_ps_entry *e = read_stat(static_cast<int32_t>(pid), shift);
        if (e == nullptr) continue;
        fread_cmdline(e);
        walk_process_fds(e, with_fds, list->sockets);
        if (filter != nullptr && filter(e, arg) == 1) {
            free_ps_entry(e);
            continue;
        }
        list_append(&list->list, &e->list);
        list->count++;
    }
    return list;
}

TREL_API trel_ps_list *trel_ps(void) noexcept { return trel_ps_filter(0, nullptr, nullptr); }

TREL_API void trel_ps_list_free(trel_ps_list *list) noexcept {
    if (list == nullptr) return;
    trel_list_link *l = list->list.next;
    while (l != &list->list) {
        auto *e = reinterpret_cast<trel_ps_entry *>(l);
        l = l->next;
        free_ps_entry(e);
    }
    free_socket_table(list->sockets);
    free(list);
}

TREL_API json_t *trel_fds_to_array(const trel_ps_entry *entry) noexcept {
    if (entry == nullptr) return nullptr;
    json_t *array = json_array();
    if (array == nullptr) {
        TREL_ERR(kModule, "Failed to allocate json array");
        return nullptr;
    }
    for (const trel_list_link *l = entry->fds.next; l != &entry->fds; l = l->next) {
        const auto *fd = reinterpret_cast<const trel_ps_fd *>(l);
        json_t *o = json_object();
        if (o == nullptr) {
            TREL_ERR(kModule, "Failed to allocate json object");
            continue;
        }
        json_object_set_new(o, "fd_type", json_string(name_of(kFdTypeNames, fd->type, "unknown")));
        if (fd->type == TREL_FD_SOCKET) {
            if (const trel_socket_inode *s = fd->target.socket) {
                json_object_set_new(o, "socket_type",
                                    json_string(name_of(kSocketTypeNames, s->type, "unknown")));
                json_t *details = json_object();
                if (details == nullptr) {
                    TREL_ERR(kModule, "Failed to alloc socket json object");
                } else {
                    socket_details(details, s);
                    json_object_set_new(o, "socket", details);
                }
            }
        } else if (fd->type >= TREL_FD_FILE && fd->type <= TREL_FD_PIPE &&
                   fd->target.link != nullptr) {
            json_object_set_new(o, "link", json_string(fd->target.link));
        }
        json_array_append_new(array, o);
    }
    return array;
}

TREL_API json_t *trel_ps_list_to_array(trel_ps_list *list) noexcept {
    json_t *array = json_array();
    if (array == nullptr) {
        TREL_ERR(kModule, "Failed to allocate json array");
        trel_ps_list_free(list);
        return nullptr;
    }
    if (list == nullptr) return array;
    trel_list_link *l = list->list.next;
    while (l != &list->list) {
        auto *e = reinterpret_cast<trel_ps_entry *>(l);
        l = l->next;
        json_t *o = json_object();
        if (o == nullptr) {
            TREL_ERR(kModule, "Failed to allocate json object");
            continue;  // freed with the list
        }
        json_object_set_new(o, "pid", json_integer(e->pid));
        json_object_set_new(o, "ppid", json_integer(e->ppid));
        json_object_set_new(o, "vsz", json_integer(static_cast<json_int_t>(e->vsz)));
        json_object_set_new(o, "rss", json_integer(e->rss));
        json_object_set_new(o, "stat", json_sprintf("%c", e->state));
        json_object_set_new(o, "fd_count", json_integer(e->fd_count));
        json_object_set_new(o, "comm", json_string(e->comm));
        json_object_set_new(o, "fds", trel_fds_to_array(e));
        json_array_append_new(array, o);
        list_unlink(&e->list);
        list->count--;
        free_ps_entry(e);
    }
    trel_ps_list_free(list);
    return array;
}

TREL_API json_t *trel_ps_array(void) noexcept { return trel_ps_list_to_array(trel_ps()); }
