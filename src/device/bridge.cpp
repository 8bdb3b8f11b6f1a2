// Bridges: member ports and the forwarding table as the kernel shows them
// under /sys/class/net (read through the path root), and removal of a
// forwarding entry over rtnetlink.
#include <errno.h>
#include <limits.h>
#include <linux/neighbour.h>
#include <net/if.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <trel/net.h>

#include "core/api.h"
#include "core/path_root.h"
#include "core/raii.h"
#include "core/socket.h"
#include "core/text.h"
#include "device/netlink.h"

namespace {

constexpr size_t kKernelRecord = 16;  // struct __fdb_entry
constexpr size_t kForeachRecord = 24;

// Formats a path; false when it does not fit.
bool format_path(char (&path)[PATH_MAX], const char *fmt, ...) noexcept
    __attribute__((format(printf, 2, 3)));
bool format_path(char (&path)[PATH_MAX], const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(path, sizeof path, fmt, ap);
    va_end(ap);
    return n >= 0 && static_cast<size_t>(n) < sizeof path;
}

// An interface name stays one path component below /sys/class/net.
bool is_component(const char *name) noexcept {
    return name != nullptr && name[0] != '\0' && strchr(name, '/') == nullptr &&
           strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

bool is_dot_entry(const char *name) noexcept {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// name equals prefix or continues it with ".".
bool is_name_or_vlan(const char *name, const char *prefix) noexcept {
    size_t n = strlen(prefix);
    return strncmp(name, prefix, n) == 0 && (name[n] == '\0' || name[n] == '.');
}

bool is_excluded(const char *name, const char *const *exclude) noexcept {
    for (; exclude != nullptr && *exclude != nullptr; exclude++)
        if (is_name_or_vlan(name, *exclude)) return true;
    return false;
}

bool is_symlink(const char *dir_path, const struct dirent *e) noexcept {
    if (e->d_type != DT_UNKNOWN) return e->d_type == DT_LNK;
    char path[PATH_MAX];
    struct stat st;
    return format_path(path, "%s/%s", dir_path, e->d_name) && trel::path_lstat(path, &st) == 0 &&
           S_ISLNK(st.st_mode);
}

// The ports of one bridge's members, and the name of the last member listed.
struct Members {
    unsigned long ports[MAX_ETH_PORTS];
    size_t count = 0;
    char last[NAME_MAX + 1] = "";

    bool has(unsigned port) const noexcept {
        for (size_t i = 0; i < count; i++)
            if (ports[i] == port) return true;
        return false;
    }
};

// False when the entry has no member list (it is no bridge).
bool list_members(const char *bridge, const char *const *exclude, Members &m) noexcept {
    char dir_path[PATH_MAX];
    if (!format_path(dir_path, "/sys/class/net/%s/brif", bridge)) return false;
    trel::UniqueDir dir(trel::path_opendir(dir_path));
    if (!dir) return false;
    while (struct dirent *e = readdir(dir.get())) {
        if (is_dot_entry(e->d_name)) continue;
        trel::copy_text(m.last, sizeof m.last, e->d_name);
        if (is_excluded(e->d_name, exclude)) continue;
        char path[PATH_MAX];
        char text[32];
        if (!format_path(path, "%s/%s/port_no", dir_path, e->d_name) ||
            fsreadline(path, text, sizeof text) != 0)
            continue;
        m.ports[m.count++] = strtoul(text, nullptr, 0);
        if (m.count == MAX_ETH_PORTS) {
            fprintf(stderr, "%s: WARN: MAX_ETH_PORTS hit!\n", "_fdb_foreach_on_bridge");
            break;
        }
    }
    return true;
}

void fdb_foreach_on_bridge(const char *bridge, const char *const *exclude, fdb_foreach_cb cb,
                           void *arg) noexcept {
    Members members;
    if (!list_members(bridge, exclude, members)) return;
    char path[PATH_MAX];
    if (!format_path(path, "/sys/class/net/%s/brforward", bridge)) return;
    trel::UniqueFile f(trel::path_fopen(path, "re"));
    if (!f) {
        fprintf(stderr, "%s: %s\n", path, strerror(errno));
        return;
    }
    // Kept: records are taken 24 bytes at a time although the kernel writes
    // 16-byte ones; callers decode the 24-byte buffer themselves.
    // Kept: the name passed is that of the last member listed, whichever port
    // the record is on.
    unsigned char rec[kForeachRecord];
    while (fread(rec, 1, sizeof rec, f.get()) == sizeof rec)
        if (members.has(rec[6]) && cb != nullptr) cb(arg, rec, members.last);
}

// Where fdb_delneigh last gave up, for a look in a core dump.
volatile int g_fdb_delneigh_site;

int fdb_delneigh_failed(int site) noexcept {
    int code = errno != 0 ? -errno : -EIO;
    fprintf(stderr, "%s: %d on line %d\n", "fdb_delneigh", code, site);
    g_fdb_delneigh_site = site;
    return code;
}

}  // namespace

TREL_API int get_mac_brinfo(const char *bridge, const char *mac, uint32_t *ageing,
                            uint32_t *port) noexcept {
    char path[PATH_MAX];
    if (!is_component(bridge) || mac == nullptr ||
        !format_path(path, "/sys/class/net/%s/brforward", bridge))
        return -1;
    trel::UniqueFile f(trel::path_fopen(path, "re"));
    if (!f) return -1;
    unsigned char rec[kKernelRecord];
    while (fread(rec, 1, sizeof rec, f.get()) == sizeof rec) {
        char text[18];
        snprintf(text, sizeof text, "%.2X:%.2X:%.2X:%.2X:%.2X:%.2X", rec[0], rec[1], rec[2], rec[3],
                 rec[4], rec[5]);
        if (strcasecmp(text, mac) != 0) continue;
        uint32_t timer;
        memcpy(&timer, rec + 8, sizeof timer);
        if (ageing != nullptr) *ageing = timer / 100;
        if (port != nullptr) *port = rec[6];
        return 1;
    }
    return 0;
}

TREL_API int get_br_port_state(const char *bridge, const char *port) noexcept {
    char path[PATH_MAX];
    if (!is_component(bridge) || !is_component(port) ||
        !format_path(path, "/sys/class/net/%s/brif/%s/state", bridge, port))
        return -1;
    trel::UniqueFile f(trel::path_fopen(path, "re"));
    int state;
    if (!f || fscanf(f.get(), "%d", &state) != 1) return -1;
    return state;
}

TREL_API int is_brif_disabled(const char *bridge, const char *port) noexcept {
    return get_br_port_state(bridge, port) < 1;
}

TREL_API int is_brif_forwarding(const char *bridge, const char *port) noexcept {
    return get_br_port_state(bridge, port) == 3;
}

TREL_API int get_ifname_from_br_portno(const char *bridge, int port_no, char *ifname) noexcept {
    char dir_path[PATH_MAX];
    if (!is_component(bridge) || ifname == nullptr ||
        !format_path(dir_path, "/sys/class/net/%s/brif", bridge))
        return 0;
    trel::UniqueDir dir(trel::path_opendir(dir_path));
    if (!dir) return 0;
    while (struct dirent *e = readdir(dir.get())) {
        if (!is_symlink(dir_path, e)) continue;
        char path[PATH_MAX];
        if (!format_path(path, "%s/%s/port_no", dir_path, e->d_name)) continue;
        trel::UniqueFile f(trel::path_fopen(path, "re"));
        unsigned number;
        if (!f || fscanf(f.get(), "0x%x", &number) != 1) continue;
        if (number != static_cast<unsigned>(port_no)) continue;
        trel::copy_text(ifname, IFNAMSIZ, e->d_name);
        return 1;
    }
    return 0;
}

TREL_API int fdb_foreach(const char *bridge, const char *const *exclude, fdb_foreach_cb cb,
                         void *arg) noexcept {
    static constexpr char kNet[] = "/sys/class/net";
    trel::UniqueDir dir(trel::path_opendir(kNet));
    // Kept: fdb_foreach and fdb_delneigh write their errors to standard error,
    // not to the log, where their users look for them.
    if (!dir) {
        fprintf(stderr, "%s: %s\n", kNet, strerror(errno));
        return -1;
    }
    while (struct dirent *e = readdir(dir.get())) {
        if (is_dot_entry(e->d_name)) continue;
        if (bridge != nullptr && !is_name_or_vlan(e->d_name, bridge)) continue;
        fdb_foreach_on_bridge(e->d_name, exclude, cb, arg);
    }
    return 0;
}

TREL_API int fdb_delneigh(const uint8_t *mac, const char *ifname) noexcept {
    if (mac == nullptr || ifname == nullptr) return -EINVAL;
    errno = 0;
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    trel::copy_text(ifr.ifr_name, IFNAMSIZ, ifname);
    {
        trel::UniqueFd fd(trel::open_socket(AF_INET, SOCK_DGRAM));
        if (!fd) return fdb_delneigh_failed(140);
        if (ioctl(fd.get(), SIOCGIFINDEX, &ifr) != 0) return fdb_delneigh_failed(145);
    }
    trel::UniqueFd nl(trel::open_socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE));
    if (!nl) return fdb_delneigh_failed(149);
    ndmsg nd{};
    nd.ndm_family = AF_BRIDGE;
    nd.ndm_ifindex = ifr.ifr_ifindex;
    nd.ndm_state = 0;
    nd.ndm_type = 1;
    trel::nl::Request<ndmsg> req(RTM_DELNEIGH, NLM_F_REQUEST, nd,
                                 static_cast<uint32_t>(time(nullptr)),
                                 static_cast<uint32_t>(getpid()));
    req.put(NDA_LLADDR, mac, 6);
    errno = 0;
    if (!trel::nl::send_to_kernel(nl.get(), req)) return fdb_delneigh_failed(165);
    return 0;
}
