// Network interfaces: ioctls on an AF_INET datagram socket, netmask
// arithmetic, the uplink run-state files, the ARP table, and gateway, link,
// address and neighbour requests over rtnetlink.  Every call opens its own
// socket and closes it before returning.
#include <arpa/inet.h>
#include <errno.h>
#include <linux/neighbour.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include <trel/exec.h>
#include <trel/net.h>

#include "core/log.h"
#include "core/path_root.h"
#include "core/raii.h"
#include "core/socket.h"
#include "core/text.h"
#include "device/model_data.h"
#include "device/netlink.h"

namespace {

constexpr char kUtil[] = "libtrel_util";
constexpr char kStatus[] = "libtrel_status";
constexpr size_t kNetlinkRead = 8192;
constexpr unsigned char kMainTable = RT_TABLE_MAIN;  // 254

// An ifreq naming ifname, cut to 15 characters.
struct ifreq named_ifreq(const char *ifname) noexcept {
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    trel::copy_text(ifr.ifr_name, IFNAMSIZ, ifname);
    return ifr;
}

trel::UniqueFd inet_socket() noexcept {
    return trel::UniqueFd(trel::open_socket(AF_INET, SOCK_DGRAM));
}

// One interface ioctl on a socket of its own.
enum class Ioctl { ok, no_socket, failed };
Ioctl interface_ioctl(unsigned long request, struct ifreq &ifr) noexcept {
    trel::UniqueFd fd = inet_socket();
    if (!fd) return Ioctl::no_socket;
    return ioctl(fd.get(), request, &ifr) == 0 ? Ioctl::ok : Ioctl::failed;
}

trel::UniqueFd route_socket(int type) noexcept {
    return trel::UniqueFd(trel::open_socket(AF_NETLINK, type, NETLINK_ROUTE));
}

// 0xFFFFFFFF shifted left by (32 - prefix_len); a prefix of 0 gives 0.
uint32_t host_mask(unsigned prefix_len) noexcept {
    if (prefix_len == 0) return 0;
    return 0xFFFFFFFFu << (32 - (prefix_len > 32 ? 32 : prefix_len));
}

// Reads one datagram of a dump into buf and walks its messages: fn(msg)
// returns 1 for an answer, 0 to go on, -1 to give up.  NLMSG_DONE, an error
// message, a truncated message or a failed read end the dump with -1.
template <typename Fn>
int walk_dump(int fd, Fn fn) noexcept {
    alignas(NLMSG_ALIGNTO) unsigned char buf[kNetlinkRead];
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) return -1;
        trel::nl::Messages msgs(buf, static_cast<size_t>(n));
        trel::nl::Msg msg;
        while (msgs.next(msg)) {
            if (msg.hdr.nlmsg_type == NLMSG_DONE || msg.hdr.nlmsg_type == NLMSG_ERROR) return -1;
            int rc = fn(msg);
            if (rc != 0) return rc > 0 ? 0 : -1;
        }
        if (msgs.truncated()) return -1;
    }
}

// Receives the answer of the route dump into buf, appending datagrams; the
// number of bytes kept, or -1.
ssize_t read_route_dump(int fd, unsigned char *buf, size_t size) noexcept {
    size_t have = 0;
    for (;;) {
        ssize_t n = recv(fd, buf + have, size - have, 0);
        if (n < static_cast<ssize_t>(sizeof(nlmsghdr))) return -1;
        nlmsghdr h;
        memcpy(&h, buf + have, sizeof h);
        if (h.nlmsg_len < sizeof h || h.nlmsg_len > static_cast<size_t>(n) ||
            h.nlmsg_type == NLMSG_ERROR)
            return -1;
        if (h.nlmsg_type == NLMSG_DONE) break;
        have += static_cast<size_t>(n);
        if ((h.nlmsg_flags & NLM_F_MULTI) == 0) break;
        // Kept: only a message numbered 1 from this process ends the dump
        // early; the request itself goes out as number 0.
        if (h.nlmsg_seq == 1 && h.nlmsg_pid == static_cast<uint32_t>(getpid())) break;
    }
    return static_cast<ssize_t>(have);
}

}  // namespace

// ---- Interface ioctls ----------------------------------------------------------

TREL_API int set_iface_ip(const char *ifname, const char *ip) noexcept {
    if (ifname == nullptr || ip == nullptr) return -1;
    struct sockaddr_in sin;
    memset(&sin, 0, sizeof sin);
    sin.sin_family = AF_INET;
    // Kept: text that does not parse (0) is not refused, so 0.0.0.0 goes out.
    if (inet_pton(AF_INET, ip, &sin.sin_addr) < 0) {
        TREL_ERR(kUtil, "inet_pton failed");
        return -1;
    }
    struct ifreq ifr = named_ifreq(ifname);
    memcpy(&ifr.ifr_addr, &sin, sizeof sin);
    switch (interface_ioctl(SIOCSIFADDR, ifr)) {
        case Ioctl::ok:
            return 0;
        case Ioctl::no_socket:
            TREL_ERR(kUtil, "unable to open sock");
            return -1;
        default:
            TREL_ERR(kUtil, "ioctl SIOCSIFADDR failed");
            return -1;
    }
}

TREL_API int get_iface_ip(const char *ifname, uint32_t *ip) noexcept {
    if (ifname == nullptr || ip == nullptr) return -1;
    struct ifreq ifr = named_ifreq(ifname);
    Ioctl rc = interface_ioctl(SIOCGIFADDR, ifr);
    if (rc == Ioctl::failed) TREL_DBG(kUtil, "ioctl SIOCGIFADDR failed");
    if (rc != Ioctl::ok) return -1;
    struct sockaddr_in sin;
    memcpy(&sin, &ifr.ifr_addr, sizeof sin);
    *ip = sin.sin_addr.s_addr;
    return 0;
}

TREL_API int get_iface_index(const char *ifname, uint32_t *index) noexcept {
    if (ifname == nullptr || ifname[0] == '\0' || index == nullptr) return -1;
    struct ifreq ifr = named_ifreq(ifname);
    Ioctl rc = interface_ioctl(SIOCGIFINDEX, ifr);
    if (rc == Ioctl::failed) TREL_ERR(kUtil, "ioctl SIOCGIFINDEX failed");
    if (rc != Ioctl::ok) return -1;
    *index = static_cast<uint32_t>(ifr.ifr_ifindex);
    return 0;
}

TREL_API int iface_is_up(const char *ifname) noexcept {
    if (ifname == nullptr) return 0;
    struct ifreq ifr = named_ifreq(ifname);
    Ioctl rc = interface_ioctl(SIOCGIFFLAGS, ifr);
    if (rc == Ioctl::failed) TREL_ERR(kUtil, "ioctl SIOCGIFFLAGS failed on %s", ifname);
    return rc == Ioctl::ok && (ifr.ifr_flags & IFF_UP) != 0;
}

TREL_API int devhwaddr_get_iface(uint8_t *hwaddr, const char *ifname) noexcept {
    if (hwaddr == nullptr || ifname == nullptr) return -1;
    struct ifreq ifr = named_ifreq(ifname);
    Ioctl rc = interface_ioctl(SIOCGIFHWADDR, ifr);
    if (rc != Ioctl::ok) return rc == Ioctl::failed ? -ECHILD : -1;
    memcpy(hwaddr, ifr.ifr_hwaddr.sa_data, 6);
    return 0;
}

TREL_API int devhwaddr_get(uint8_t *hwaddr) noexcept {
    for (const char *name : {"eth0", "eth0_real", "br0"})
        if (devhwaddr_get_iface(hwaddr, name) == 0) return 0;
    return 1;
}

TREL_API int devifindex_get_hwaddr(uint32_t *ifindex, const uint8_t *hwaddr) noexcept {
    if (ifindex == nullptr || hwaddr == nullptr) return -1;
    trel::UniqueFd fd = inet_socket();
    if (!fd) return -1;
    struct ifreq reqs[10];  // room for 10 interfaces: 400 bytes
    struct ifconf ifc;
    memset(reqs, 0, sizeof reqs);
    ifc.ifc_len = sizeof reqs;
    ifc.ifc_req = reqs;
    if (ioctl(fd.get(), SIOCGIFCONF, &ifc) != 0) return -EAGAIN;
    int rc = -ECHILD;
    size_t count =
        std::min(static_cast<size_t>(ifc.ifc_len) / sizeof(struct ifreq), std::size(reqs));
    for (size_t i = 0; i < count; i++) {
        struct ifreq ifr = named_ifreq(reqs[i].ifr_name);
        if (ioctl(fd.get(), SIOCGIFHWADDR, &ifr) != 0) continue;
        if (memcmp(ifr.ifr_hwaddr.sa_data, hwaddr, 6) != 0) continue;
        if (ioctl(fd.get(), SIOCGIFINDEX, &ifr) != 0) continue;
        *ifindex = static_cast<uint32_t>(ifr.ifr_ifindex);  // the last match wins
        rc = 0;
    }
    return rc;
}

TREL_API int devhwaddr_generate(uint8_t *hwaddr, uint8_t last) noexcept {
    if (hwaddr == nullptr) return -1;
    constexpr uint32_t oui = trel::device::kOui1;
    const uint8_t bytes[6] = {static_cast<uint8_t>(oui >> 16),
                              static_cast<uint8_t>(oui >> 8),
                              static_cast<uint8_t>(oui),
                              0xDE,
                              0xAD,
                              last};
    memcpy(hwaddr, bytes, sizeof bytes);
    return 0;
}

// ---- Netmasks -------------------------------------------------------------------

TREL_API uint32_t ipv4_netmask_from_prefix_len(uint32_t prefix_len) noexcept {
    if (prefix_len > 32) {
        TREL_ERR(kUtil, "invalid subnet mask size of %u", prefix_len);
        return 0;
    }
    // Kept: the shift is taken modulo 32, so a prefix of 0 gives all ones too.
    return 0xFFFFFFFFu << ((32 - prefix_len) % 32);
}

TREL_API uint32_t ipv4_prefix_len_from_netmask(uint32_t mask) noexcept {
    return static_cast<uint32_t>(__builtin_popcount(mask));
}

TREL_API void ipv6_netmask_from_prefix_len(uint8_t *mask, uint32_t prefix_len) noexcept {
    if (mask == nullptr) return;
    if (prefix_len > 128) prefix_len = 128;
    size_t whole = prefix_len / 8;
    memset(mask, 0xFF, whole);
    if (whole < 16) {
        mask[whole] = static_cast<uint8_t>(0xFF << (8 - prefix_len % 8));
        memset(mask + whole + 1, 0, 16 - whole - 1);
    }
}

TREL_API int net_equals_v6(const uint8_t *a, const uint8_t *b, uint32_t prefix_len) noexcept {
    if (a == nullptr || b == nullptr) {
        TREL_ERR(kUtil, "NULL pointer passed");
        return 0;
    }
    uint8_t mask[16];
    ipv6_netmask_from_prefix_len(mask, prefix_len);  // all ones (-1) clamps to 128
    for (int i = 0; i < 16; i++)
        if (((a[i] ^ b[i]) & mask[i]) != 0) return 0;
    return 1;
}

TREL_API int ip_belongs_to_subnet(uint32_t ip, uint32_t net, uint32_t mask) noexcept {
    return ((ip ^ net) & mask) == 0;
}

// ---- Uplink ------------------------------------------------------------------------

TREL_API int get_wireless_uplink_state(void) noexcept {
    char state[16];
    freadline("/var/run/system.uplink", state, sizeof state, "");
    static constexpr const char *kStates[] = {"init", "wds", "eth", "down"};
    for (int i = 0; i < 4; i++)
        if (strcmp(state, kStates[i]) == 0) return i + 1;
    return TREL_UPLINK_NONE;
}

TREL_API int get_uplink_device(char *out, size_t size) noexcept {
    char state[16];
    freadline("/var/run/system.uplink", state, sizeof state, "");
    if (state[0] != '\0') {
        if (strcmp(state, "init") == 0) return 1;
        if (strcmp(state, "down") == 0) return 2;
        if (strcmp(state, "unknown") == 0) return 3;
        if (out != nullptr && size > 0) {
            freadline("/var/run/system.uplink_ifname", out, size, "");
            if (out[0] == '\0') freadline("/var/run/system.uplink_port", out, size, "");
        }
        return 0;
    }
    if (out == nullptr || size == 0) return 0;
    for (const char *name : {"eth0", "bond0", "eth1"}) {
        if (iface_is_up(name)) {
            snprintf(out, size, "%s", name);
            break;
        }
    }
    return 0;
}

TREL_API int is_ppp_dev(const char *ifname) noexcept {
    return ifname != nullptr && strncmp(ifname, "ppp", 3) == 0;
}

// ---- Gateway and neighbours ----------------------------------------------------------

TREL_API int get_gateway(char *out, uint32_t *gw, size_t size) noexcept {
    if (out != nullptr && size > 0) out[0] = '\0';
    trel::UniqueFd fd = route_socket(SOCK_DGRAM);
    if (!fd) return -1;
    rtmsg rt{};
    rt.rtm_family = AF_INET;
    rt.rtm_table = kMainTable;
    rt.rtm_protocol = 255;
    rt.rtm_scope = 255;
    rt.rtm_type = 255;
    trel::nl::Request<rtmsg> req(RTM_GETROUTE, NLM_F_REQUEST | NLM_F_DUMP, rt, 0,
                                 static_cast<uint32_t>(getpid()));
    if (!trel::nl::send_to_kernel(fd.get(), req)) return -1;

    alignas(NLMSG_ALIGNTO) unsigned char buf[kNetlinkRead];
    ssize_t len = read_route_dump(fd.get(), buf, sizeof buf);
    if (len < 0) return -1;

    trel::nl::Messages msgs(buf, static_cast<size_t>(len));
    trel::nl::Msg msg;
    while (msgs.next(msg)) {
        rtmsg route;
        if (msg.hdr.nlmsg_type != RTM_NEWROUTE || !trel::nl::body(msg, route)) continue;
        if (route.rtm_family != AF_INET || route.rtm_table != kMainTable) continue;
        // The preferred source (RTA_PREFSRC) plays no part in the answer.
        uint32_t dst = 0, gateway = 0;
        char ifname[IF_NAMESIZE] = "";
        trel::nl::Attrs<rtmsg> attrs(msg);
        trel::nl::Attr a;
        while (attrs.next(a)) {
            uint32_t oif;
            switch (a.type) {
                case RTA_DST:
                    trel::nl::read_attr(a, dst);
                    break;
                case RTA_OIF:
                    if (trel::nl::read_attr(a, oif) && if_indextoname(oif, ifname) == nullptr)
                        ifname[0] = '\0';
                    break;
                case RTA_GATEWAY:
                    trel::nl::read_attr(a, gateway);
                    break;
            }
        }
        // Kept: only default routes through br0 answer.
        if (dst != 0 || gateway == 0 || strcmp(ifname, "br0") != 0) continue;
        if (out != nullptr && size > 0) {
            struct in_addr in = {gateway};
            if (inet_ntop(AF_INET, &in, out, static_cast<socklen_t>(size)) == nullptr)
                out[0] = '\0';
        }
        if (gw != nullptr) *gw = gateway;
        return 1;
    }
    return msgs.truncated() ? -1 : 0;
}

TREL_API int get_gateway_mac(char *mac, size_t size) noexcept {
    char gw[16];
    int rc = get_gateway(gw, nullptr, sizeof gw);
    if (rc != 1) return rc;
    return get_mac_by_ip(gw, mac, size);
}

TREL_API int get_mac_by_ip(const char *ip, char *mac, size_t size) noexcept {
    if (mac == nullptr) return 0;
    // Kept: a short buffer is reported, then filled as far as it goes.
    if (size < 18) TREL_ERR(kStatus, "mac truncated");
    trel::UniqueFile f(trel::path_fopen("/proc/net/arp", "re"));
    if (!f) return 0;
    char line[200];
    if (fgets(line, sizeof line, f.get()) == nullptr) return 0;  // the header
    while (fgets(line, sizeof line, f.get()) != nullptr) {
        // Every field fits: a line holds at most 199 characters.
        char addr[200], hw[100], mask[100], dev[100];
        unsigned type = 0, flags = 0;
        if (sscanf(line, "%s 0x%x 0x%x %99s %99s %99s\n", addr, &type, &flags, hw, mask, dev) < 4)
            break;
        if (ip != nullptr && strcmp(ip, addr) != 0) continue;
        if (flags == 0) continue;
        trel::copy_text(mac, size < 18 ? size : 18, hw);
        return 1;
    }
    return 0;
}

TREL_API int add_ip_neigh_entry(const char *ifname, const char *ip) noexcept {
    if (ifname == nullptr || ip == nullptr) return -1;
    struct in_addr addr;
    if (inet_pton(AF_INET, ip, &addr) != 1) return -1;
    trel::UniqueFd fd = route_socket(SOCK_DGRAM);
    if (!fd) return -1;
    ndmsg nd{};
    nd.ndm_family = AF_INET;
    nd.ndm_ifindex = static_cast<int>(if_nametoindex(ifname));
    nd.ndm_state = NUD_INCOMPLETE;
    trel::nl::Request<ndmsg> req(RTM_NEWNEIGH, NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL, nd);
    req.put(NDA_DST, &addr, sizeof addr);
    return trel::nl::send_to_kernel(fd.get(), req) ? 0 : -1;
}

TREL_API const char *get_default_gw_interface(void) noexcept {
    static char ifname[17];
    int n = popen_get_output("ip route | grep default | awk '{print $5}'", ifname, sizeof ifname);
    if (n < 0) TREL_ERR(kStatus, "get_default_gateway_interface: get default gateway failed");
    // Kept: the last character is cut as the newline, even when the output
    // filled the buffer and it is none.
    if (n > 0) ifname[n - 1] = '\0';
    if (n <= 0 || ifname[0] == '\0') strcpy(ifname, "br0");
    return ifname;
}

TREL_API int interface_is_up(int ifindex) noexcept {
    if (ifindex == 0) return -1;
    trel::UniqueFd fd = route_socket(SOCK_RAW);
    if (!fd) return -1;
    ifinfomsg info{};
    trel::nl::Request<ifinfomsg> req(RTM_GETLINK, NLM_F_REQUEST | NLM_F_DUMP, info);
    if (!trel::nl::send_to_kernel(fd.get(), req)) return -1;
    // Kept: 0 means up and -1 anything else, the reverse of iface_is_up;
    // eth_discover_possible and other callers test for 0.
    return walk_dump(fd.get(), [ifindex](const trel::nl::Msg &msg) {
        ifinfomsg link;
        if (msg.hdr.nlmsg_type != RTM_NEWLINK || !trel::nl::body(msg, link)) return 0;
        return link.ifi_index == ifindex && (link.ifi_flags & IFF_UP) != 0 ? 1 : 0;
    });
}

TREL_API int interface_get_ipaddress(int ifindex, uint32_t *addr, uint32_t *mask) noexcept {
    trel::UniqueFd fd = route_socket(SOCK_RAW);
    if (!fd) return -1;
    ifaddrmsg want{};
    want.ifa_family = AF_INET;
    trel::nl::Request<ifaddrmsg> req(RTM_GETADDR, NLM_F_REQUEST | NLM_F_DUMP, want);
    if (!trel::nl::send_to_kernel(fd.get(), req)) return -1;
    return walk_dump(fd.get(), [&](const trel::nl::Msg &msg) {
        ifaddrmsg ifa;
        if (msg.hdr.nlmsg_type != RTM_NEWADDR || !trel::nl::body(msg, ifa)) return 0;
        if (static_cast<int>(ifa.ifa_index) != ifindex) return 0;
        trel::nl::Attrs<ifaddrmsg> attrs(msg);
        trel::nl::Attr a;
        uint32_t local;
        while (attrs.next(a)) {
            if (a.type != IFA_LOCAL || !trel::nl::read_attr(a, local)) continue;
            if (addr != nullptr) *addr = ntohl(local);
            if (mask != nullptr) *mask = host_mask(ifa.ifa_prefixlen);
            return 1;
        }
        return 0;
    });
}

TREL_API int eth_discover_possible(int ifindex1, int ifindex2, uint32_t ip) noexcept {
    if (interface_is_up(ifindex1) != 0 || interface_is_up(ifindex2) != 0) return -ENETDOWN;
    if (ifindex1 == ifindex2) return 0;
    uint32_t addr1, mask1, addr2, mask2;
    if (interface_get_ipaddress(ifindex1, &addr1, &mask1) != 0 ||
        interface_get_ipaddress(ifindex2, &addr2, &mask2) != 0)
        return -ENODEV;
    if (ip_belongs_to_subnet(ip, addr1, mask1) || ip_belongs_to_subnet(addr2, addr1, mask1))
        return -EADDRNOTAVAIL;
    return 0;
}
