// Network helpers: requests captured off the wire, scripted kernel replies,
// failure paths, file rules over fixture trees, and every call against a live
// bridge in a private network namespace.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <trel/net.h>

#include "device/model_data.h"
#include "join.h"
#include "trel_test.h"

using trel_test::LogCapture;
using trel_test::TempRoot;
using Bytes = std::vector<uint8_t>;

// ---- The wire: socket, sendto and recv interposed --------------------------------

namespace {

// While active, netlink requests are recorded (with their socket type)
// instead of sent, replies come from the script, and sockets fail from the
// fail_from'th one on.
struct Wire {
    bool active = false;
    std::vector<std::pair<int, Bytes>> sent;
    std::deque<Bytes> replies;
    int send_errno = 0, fail_from = 0, sockets = 0;
} g_wire;

template <typename Fn>
Fn next(const char *name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

bool captured(int fd) {
    int domain = 0;
    socklen_t len = sizeof domain;
    return g_wire.active && getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len) == 0 &&
           domain == AF_NETLINK;
}

}  // namespace

extern "C" int socket(int domain, int type, int protocol) noexcept {
    if (g_wire.active && g_wire.fail_from > 0 && ++g_wire.sockets >= g_wire.fail_from) {
        errno = EMFILE;
        return -1;
    }
    return next<int (*)(int, int, int)>("socket")(domain, type, protocol);
}

extern "C" ssize_t sendto(int fd, const void *buf, size_t n, int flags, const sockaddr *to,
                          socklen_t tolen) {
    if (!captured(fd)) return next<decltype(&sendto)>("sendto")(fd, buf, n, flags, to, tolen);
    errno = g_wire.send_errno;
    if (errno != 0) return -1;
    int type = 0;
    socklen_t len = sizeof type;
    getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len);
    g_wire.sent.emplace_back(type, Bytes((const uint8_t *)buf, (const uint8_t *)buf + n));
    return ssize_t(n);
}

extern "C" ssize_t recv(int fd, void *buf, size_t n, int flags) {
    if (!captured(fd)) return next<decltype(&recv)>("recv")(fd, buf, n, flags);
    if (g_wire.replies.empty()) {
        errno = EAGAIN;
        return -1;
    }
    Bytes r = std::move(g_wire.replies.front());
    g_wire.replies.pop_front();
    memcpy(buf, r.data(), std::min(n, r.size()));  // cut like a datagram
    return ssize_t(std::min(n, r.size()));
}

namespace {

std::string hex(const Bytes &b) {
    std::string s;
    for (uint8_t c : b) s += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    return s;
}
std::string hex(const uint8_t *p, size_t n) { return hex(Bytes(p, p + n)); }
std::string le32(uint32_t v) { return hex((const uint8_t *)&v, 4); }
std::string str(long v) { return std::to_string(v); }

template <typename T>
Bytes raw(const T &v) {
    return Bytes((const uint8_t *)&v, (const uint8_t *)&v + sizeof v);
}
Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
Bytes pad4(Bytes b, size_t size = 0) {
    b.resize(size ? size : (b.size() + 3) & ~size_t{3});
    return b;
}
Bytes attr(uint16_t type, const Bytes &data, uint16_t len = 0) {
    return pad4(cat({raw(rtattr{uint16_t(len ? len : 4 + data.size()), type}), data}));
}
// One message; len overrides the header's length field.
Bytes msg(uint16_t type, const Bytes &body, uint16_t flags = NLM_F_MULTI, uint32_t len = 0,
          uint32_t seq = 0, uint32_t pid = 0) {
    nlmsghdr h{len ? len : uint32_t(16 + body.size()), type, flags, seq, pid};
    return pad4(cat({raw(h), body}));
}
const Bytes kDone = msg(NLMSG_DONE, raw(0));
Bytes link_msg(int index, unsigned flags) {
    return msg(RTM_NEWLINK, raw(ifinfomsg{0, 0, 0, index, flags, 0}));
}
Bytes ipv4(const char *text) { return raw(inet_addr(text)); }
Bytes address(uint32_t index, uint8_t prefix, const Bytes &attrs) {
    return msg(RTM_NEWADDR, cat({raw(ifaddrmsg{AF_INET, prefix, 0, 0, index}), attrs}));
}
Bytes route(uint32_t oif, uint16_t flags, uint32_t seq = 0, uint32_t pid = 0) {
    rtmsg r{AF_INET, 0, 0, 0, RT_TABLE_MAIN, 0, 0, RTN_UNICAST, 0};
    Bytes attrs = cat({attr(RTA_GATEWAY, ipv4("10.0.0.254")), attr(RTA_OIF, raw(oif))});
    return msg(RTM_NEWROUTE, cat({raw(r), attrs}), flags, 0, seq, pid);
}

const uint8_t kMac[6] = {0x02, 0, 0, 0, 0, 0x11};

// Leaves the wire inactive, and checks that no descriptor outlives a test.
class Net : public ::testing::Test {
protected:
    void TearDown() override {
        g_wire = Wire{};
        EXPECT_EQ(trel_test::open_fd_count(), fds_);
    }
    void script(std::deque<Bytes> replies, int fail_from = 0, int send_errno = 0) {
        g_wire = Wire{true, {}, std::move(replies), send_errno, fail_from};
    }
    // Requests must never reach the host's kernel: a read-only dump first
    // shows that sendto is interposed.
    void expect_capture() {
        script({kDone});
        interface_is_up(5);
        ASSERT_EQ(g_wire.sent.size(), 1u) << "sendto is not interposed";
    }
    int fds_ = trel_test::open_fd_count();
};

}  // namespace

TEST_F(Net, RequestsOnTheWire) {
    ASSERT_NO_FATAL_FAILURE(expect_capture());
    struct {
        const char *what;
        std::function<int()> call;
        int result, type;
        std::string bytes;  // fields apart; {pid}, {lo} and {time} filled in
    } const rows[] = {
        {"RTM_GETROUTE, 28 bytes", [] { return get_gateway(nullptr, nullptr, 0); }, 0, SOCK_DGRAM,
         "1c000000 1a00 0103 00000000 {pid} 02 00 00 00 fe ff ff ff 00000000"},
        {"RTM_GETLINK, 32 bytes", [] { return interface_is_up(5); }, -1, SOCK_RAW,
         "20000000 1200 0103 00000000 00000000 00 00 0000 00000000 00000000 00000000"},
        {"RTM_GETADDR, 24 bytes", [] { return interface_get_ipaddress(5, nullptr, nullptr); }, -1,
         SOCK_RAW, "18000000 1600 0103 00000000 00000000 02 00 00 00 00000000"},
        {"RTM_NEWNEIGH, 36 bytes", [] { return add_ip_neigh_entry("lo", "10.1.2.3"); }, 0,
         SOCK_DGRAM,
         "24000000 1c00 0106 00000000 00000000 02 00 0000 {lo} 0100 00 00 0800 0100 0a010203"},
        {"RTM_DELNEIGH, 40 bytes", [] { return fdb_delneigh(kMac, "lo"); }, 0, SOCK_RAW,
         "28000000 1d00 0100 {time} {pid} 07 00 0000 {lo} 0000 00 01 0a00 0200 020000000011 0000"},
    };
    auto fill = [](std::string text, const char *key, const std::string &value) {
        if (size_t at = text.find(key); at != std::string::npos)
            text.replace(at, strlen(key), value);
        return text;
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        script({kDone});
        uint32_t t0 = time(nullptr);
        EXPECT_EQ(r.call(), r.result);
        uint32_t t1 = time(nullptr);
        ASSERT_EQ(g_wire.sent.size(), 1u);
        auto &[type, b] = g_wire.sent[0];
        EXPECT_EQ(type, r.type);
        uint32_t seq = 0;
        if (b.size() >= 12) memcpy(&seq, b.data() + 8, 4);
        EXPECT_TRUE(r.bytes.find("{time}") == std::string::npos || (seq >= t0 && seq <= t1));
        std::string want =
            fill(fill(fill(r.bytes, "{pid}", le32(getpid())), "{lo}", le32(if_nametoindex("lo"))),
                 "{time}", le32(seq));
        want.erase(std::remove(want.begin(), want.end(), ' '), want.end());
        EXPECT_EQ(hex(b), want);
    }
}

// Replies the kernel might give, including truncated and failed ones.
TEST_F(Net, DumpReplies) {
    const uint32_t lo = if_nametoindex("lo");
    auto up = [] { return str(interface_is_up(5)); };
    auto addr = [] {
        uint32_t a = 0, m = 0;
        int rc = interface_get_ipaddress(5, &a, &m);
        return str(rc) + " " + le32(htonl(a)) + "/" + le32(htonl(m));
    };
    auto gateway = [] {
        char text[16] = "x";
        return str(get_gateway(text, nullptr, sizeof text)) + text;
    };
    const Bytes local = attr(IFA_LOCAL, ipv4("10.1.2.3"));
    const std::string none = "-1 00000000/00000000";
    struct {
        const char *what;
        std::deque<Bytes> replies;
        std::function<std::string()> call;
        std::string want;
    } const rows[] = {
        {"link down, then done", {link_msg(5, 0), kDone}, up, "-1"},
        {"the answer after an address", {cat({address(5, 8, {}), link_msg(5, 1)})}, up, "0"},
        {"the answer in a second datagram", {link_msg(6, IFF_UP), link_msg(5, IFF_UP)}, up, "0"},
        {"error", {msg(NLMSG_ERROR, raw(nlmsgerr{-EPERM, {}}), 0)}, up, "-1"},
        {"message longer than the datagram", {msg(RTM_NEWLINK, Bytes(16), 2, 64)}, up, "-1"},
        {"datagram shorter than a header", {Bytes(10)}, up, "-1"},
        {"no reply", {}, up, "-1"},
        {"index 0 is refused", {link_msg(0, IFF_UP)}, [] { return str(interface_is_up(0)); }, "-1"},
        {"an address after a link",
         {cat({link_msg(5, IFF_UP), address(5, 16, local)})},
         addr,
         "0 0a010203/ffff0000"},
        {"first local address",
         {address(5, 24, cat({attr(IFA_ADDRESS, ipv4("9.9.9.9")), local}))},
         addr,
         "0 0a010203/ffffff00"},
        {"prefix 0, another index first",
         {address(6, 8, local), address(5, 0, local)},
         addr,
         "0 0a010203/00000000"},
        {"attribute past its message",
         {address(5, 24, attr(IFA_LOCAL, ipv4("1.2.3.4"), 200)), kDone},
         addr,
         none},
        {"attribute too short", {address(5, 24, attr(IFA_LOCAL, Bytes(2))), kDone}, addr, none},
        {"prefix above 32", {address(5, 40, local)}, addr, "0 0a010203/ffffffff"},
        {"route datagram shorter than a header", {Bytes(8)}, gateway, "-1"},
        {"route message longer than the datagram",
         {msg(RTM_NEWROUTE, Bytes(12), 2, 100)},
         gateway,
         "-1"},
        {"default route through lo", {route(lo, NLM_F_MULTI), kDone}, gateway, "0"},
        {"a single message ends the dump", {route(lo, 0)}, gateway, "0"},
        {"number 1 from this process ends it", {route(lo, NLM_F_MULTI, 1, getpid())}, gateway, "0"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        script(r.replies);
        EXPECT_EQ(r.call(), r.want);
    }
}

TEST_F(Net, FailurePaths) {
    ASSERT_NO_FATAL_FAILURE(expect_capture());
    uint8_t mac[6];
    uint32_t u;
    const uint8_t nobody[6] = {0xfe, 0xff, 0xff, 0xff, 0xff, 0xfe};
    struct {
        const char *what;
        int fail_from, send_errno;
        std::function<int()> call;
        int result;
        const char *message;  // on standard error; "" for none at all
    } const rows[] = {
        {"set_iface_ip: no socket", 1, 0, [] { return set_iface_ip("lo", "10.0.0.1"); }, -1,
         "[error] libtrel_util.set_iface_ip(): unable to open sock"},
        {"set_iface_ip: no interface", 0, 0, [] { return set_iface_ip("nosuch0", "1.2.3.4"); }, -1,
         "libtrel_util.set_iface_ip(): ioctl SIOCSIFADDR failed"},
        {"get_iface_ip: no interface", 0, 0, [&] { return get_iface_ip("nosuch0", &u); }, -1,
         "[debug] libtrel_util.get_iface_ip(): ioctl SIOCGIFADDR failed"},
        {"get_iface_index: no interface", 0, 0, [&] { return get_iface_index("nosuch0", &u); }, -1,
         "libtrel_util.get_iface_index(): ioctl SIOCGIFINDEX failed"},
        {"get_iface_index: empty name", 0, 0, [&] { return get_iface_index("", &u); }, -1, ""},
        {"iface_is_up: no interface", 0, 0, [] { return iface_is_up("nosuch0"); }, 0,
         "libtrel_util.iface_is_up(): ioctl SIOCGIFFLAGS failed on nosuch0"},
        {"devhwaddr_get_iface: no interface", 0, 0,
         [&] { return devhwaddr_get_iface(mac, "nosuch0"); }, -ECHILD, ""},
        {"devifindex_get_hwaddr: no match", 0, 0, [&] { return devifindex_get_hwaddr(&u, nobody); },
         -ECHILD, ""},
        {"interface_is_up: send fails", 0, ENOBUFS, [] { return interface_is_up(1); }, -1, ""},
        {"add_ip_neigh_entry: bad address", 0, 0,
         [] { return add_ip_neigh_entry("lo", "10.0.0.300"); }, -1, ""},
        {"add_ip_neigh_entry: send fails", 0, ENOBUFS,
         [] { return add_ip_neigh_entry("lo", "10.0.0.3"); }, -1, ""},
        {"fdb_delneigh: no socket", 1, 0, [] { return fdb_delneigh(kMac, "lo"); }, -EMFILE,
         "fdb_delneigh: -24 on line 140\n"},
        {"fdb_delneigh: no interface", 0, 0, [] { return fdb_delneigh(kMac, "nosuch0"); }, -ENODEV,
         "fdb_delneigh: -19 on line 145\n"},
        {"fdb_delneigh: no netlink socket", 2, 0, [] { return fdb_delneigh(kMac, "lo"); }, -EMFILE,
         "fdb_delneigh: -24 on line 149\n"},
        {"fdb_delneigh: send fails", 0, ENOBUFS, [] { return fdb_delneigh(kMac, "lo"); }, -ENOBUFS,
         "fdb_delneigh: -105 on line 165\n"},
    };
    trel_test::LogSettings level(8);  // debug lines too
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        LogCapture log;
        script({}, r.fail_from, r.send_errno);
        EXPECT_EQ(r.call(), r.result);
        g_wire.active = false;
        EXPECT_TRUE(*r.message ? log.contains(r.message) : log.text().empty()) << log.text();
    }
}

TEST_F(Net, NetmasksAndAddresses) {
    LogCapture log;
    const std::pair<uint32_t, uint32_t> v4[] = {{24, 0xFFFFFF00}, {1, 0x80000000}, {31, 0xFFFFFFFE},
                                                {32, ~0u},        {0, ~0u},        {33, 0}};
    for (auto [n, mask] : v4) {
        SCOPED_TRACE(n);
        EXPECT_EQ(ipv4_netmask_from_prefix_len(n), mask);
        if (n <= 32 && n > 0) {
            EXPECT_EQ(ipv4_prefix_len_from_netmask(mask), n);
        }
    }
    EXPECT_TRUE(log.contains(
        "[error] libtrel_util.ipv4_netmask_from_prefix_len(): invalid subnet mask size of 33\n"));
    EXPECT_EQ(ipv4_prefix_len_from_netmask(0xF0F0F0F0), 16u);  // bits, not a prefix
    const std::pair<uint32_t, std::string> v6[] = {
        {65, std::string(16, 'f') + "80" + std::string(14, '0')},
        {127, std::string(30, 'f') + "fe"},
        {128, std::string(32, 'f')},
        {200, std::string(32, 'f')},
        {0, std::string(32, '0')}};
    for (const auto &[n, mask] : v6) {
        SCOPED_TRACE(n);
        uint8_t m[16];
        memset(m, 0xAA, sizeof m);
        ipv6_netmask_from_prefix_len(m, n);
        EXPECT_EQ(hex(m, 16), mask);
    }
    uint8_t a[16] = {0x20, 0x01}, b[16] = {0x20, 0x01};
    b[8] = 0x40;  // bit 66 differs
    EXPECT_EQ(str(net_equals_v6(a, b, 65)) + str(net_equals_v6(a, b, 66)) +
                  str(net_equals_v6(a, b, UINT32_MAX)) + str(net_equals_v6(a, nullptr, 8)),
              "1000");
    EXPECT_TRUE(log.contains("libtrel_util.net_equals_v6(): NULL pointer passed"));
    EXPECT_EQ(str(ip_belongs_to_subnet(0x0A000005, 0x0A000000, 0xFFFFFF00)) +
                  str(ip_belongs_to_subnet(0x0A000105, 0x0A000000, 0xFFFFFF00)),
              "10");
    uint8_t m[8];  // lo's address is all zeroes; six bytes are written, no more
    memset(m, 0xAA, sizeof m);
    EXPECT_EQ(JOIN(devhwaddr_get_iface(m, "lo"), hex(m, 8), devhwaddr_get_iface(nullptr, "lo")),
              JOIN(0, "000000000000aaaa", -1));
    EXPECT_EQ(devhwaddr_generate(m, 0x42), 0);
    const uint32_t oui = trel::device::kOui1;
    EXPECT_EQ(hex(m, 6),
              hex({uint8_t(oui >> 16), uint8_t(oui >> 8), uint8_t(oui), 0xde, 0xad, 0x42}));
    EXPECT_EQ(str(is_ppp_dev("ppp0")) + str(is_ppp_dev("pp")) + str(is_ppp_dev("eppp")), "100");
}

TEST_F(Net, ArpTable) {
    TempRoot root;
    char mac[32];
    EXPECT_EQ(get_mac_by_ip(nullptr, mac, sizeof mac), 0);  // no /proc/net/arp
    root.write("/proc/net/arp",
               "IP address       HW type     Flags       HW address            Mask     Device\n"
               "10.0.0.1         0x1         0x0         00:00:00:00:00:00     *        br0\n"
               "10.0.0.1         0x1         0x2         02:00:00:00:00:01     *        br0\n"
               "10.0.0.2         0x1         0x6         02:00:00:00:00:02     *        br0\n"
               "10.0.0.6         0x20        0x2         02:00:00:00:00:06:07  *        ib0\n"
               "10.0.0.5         0x1         0x2         02:00:00:00:00:05\n"
               "10.0.0.3         0x1         0x2\n"
               "10.0.0.4         0x1         0x2         02:00:00:00:00:04     *        br0\n");
    const struct {
        const char *ip;
        size_t size;
        int result;
        const char *mac;
    } rows[] = {
        {"10.0.0.1", 18, 1, "02:00:00:00:00:01"},  // the incomplete entry is skipped
        {nullptr, 32, 1, "02:00:00:00:00:01"},
        {"10.0.0.2", 18, 1, "02:00:00:00:00:02"},
        {"10.0.0.6", 32, 1, "02:00:00:00:00:06"},  // at most 18 bytes
        {"10.0.0.5", 18, 1, "02:00:00:00:00:05"},  // four fields are enough
        {"10.0.0.4", 18, 0, ""},                   // behind a line of three fields
        {"10.0.0.2", 10, 1, "02:00:00:"},
        {"10.0.0.2", 17, 1, "02:00:00:00:00:0"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.ip ? r.ip : "null") + " into " + str(r.size));
        LogCapture log;
        memset(mac, 0, sizeof mac);
        EXPECT_EQ(get_mac_by_ip(r.ip, mac, r.size), r.result);
        EXPECT_STREQ(mac, r.mac);
        EXPECT_EQ(log.contains("libtrel_status.get_mac_by_ip(): mac truncated"), r.size < 18);
    }
}

namespace {

// A member as the kernel shows it: brif/NAME -> ../../NAME/brport.
void add_member(const TempRoot &root, const std::string &bridge, const std::string &name,
                int port_no, const char *state = "3\n", bool hex_no = true) {
    char no[16];
    snprintf(no, sizeof no, hex_no ? "0x%x\n" : "%d\n", port_no);
    root.write("/sys/class/net/" + name + "/brport/port_no", no);
    root.write("/sys/class/net/" + name + "/brport/state", state);
    root.mkdir("/sys/class/net/" + bridge + "/brif");
    std::string link = root.path("/sys/class/net/" + bridge + "/brif/" + name);
    ASSERT_EQ(symlink(("../../" + name + "/brport").c_str(), link.c_str()), 0) << link;
}

// Forwarding records of the given size: MAC 02:00:00:00:00:<id>, port,
// is-local, then the timer in hundredths of a second.
void write_fdb(const TempRoot &root, const std::string &bridge,
               const std::vector<std::array<uint32_t, 3>> &records, size_t size, size_t cut = 0) {
    Bytes all;
    for (auto [id, port, timer] : records)
        all = cat({all, pad4(cat({Bytes{2, 0, 0, 0, 0, uint8_t(id), uint8_t(port), 0}, raw(timer)}),
                             size)});
    all.resize(all.size() - cut);
    root.write("/sys/class/net/" + bridge + "/brforward", std::string(all.begin(), all.end()));
}

}  // namespace

TEST_F(Net, BridgeFiles) {
    TempRoot root;
    add_member(root, "br0", "eth0", 1);
    add_member(root, "br0", "eth1", 2, "0\n");
    add_member(root, "br0", "ethA", 10, "1\n");
    add_member(root, "br0", "e", 5, "2\n");                        // a one-character name
    add_member(root, "br0", "eth7", 12, "3\n", false);             // not "0x%x"
    root.write("/sys/class/net/br0/brif/plain/port_no", "0x3\n");  // not a link
    write_fdb(root, "br0", {{1, 1, 0}, {2, 2, 12345}, {3, 10, 99}, {4, 1, 500}}, 16, 6);
    write_fdb(root, "..", {{1, 1, 0}}, 16);  // /sys/class/brforward: outside the net tree
    auto info = [](const char *br, const char *mac) {
        uint32_t age = 7, port = 7;
        int rc = get_mac_brinfo(br, mac, &age, &port);
        return str(rc) + " " + str(age) + " " + str(port);
    };
    auto state = [](const char *port) {
        return str(get_br_port_state("br0", port)) + str(is_brif_disabled("br0", port)) +
               str(is_brif_forwarding("br0", port));
    };
    auto name = [](int port) {
        char n[16] = "-";
        return str(get_ifname_from_br_portno("br0", port, n)) + " " + n;
    };
    char n[16] = "-";
    const struct {
        const char *what;
        std::string got, want;
    } rows[] = {
        {"first record", info("br0", "02:00:00:00:00:01"), "1 0 1"},
        {"age in seconds", info("br0", "02:00:00:00:00:02"), "1 123 2"},
        {"third 16-byte record", info("br0", "02:00:00:00:00:03"), "1 0 10"},
        {"only in a partial record", info("br0", "02:00:00:00:00:04"), "0 7 7"},
        {"no such bridge", info("br9", "02:00:00:00:00:01"), "-1 7 7"},
        {"no path component", info("..", "02:00:00:00:00:01"), "-1 7 7"},
        {"states: forwarding, disabled, learning, none",
         state("eth0") + " " + state("eth1") + " " + state("ethA") + " " + state("e") + " " +
             state("eth9") + " " + state("..") + " " + state(""),
         "301 010 100 200 -110 -110 -110"},
        {"port numbers", name(1) + "|" + name(10) + "|" + name(12) + "|" + name(3),
         "1 eth0|1 ethA|0 -|0 -"},
        {"no ifname, no path component, an empty bridge, no such bridge",
         str(get_ifname_from_br_portno("br0", 1, nullptr)) +
             str(get_ifname_from_br_portno("br9", 1, n)) +
             str(get_ifname_from_br_portno("..", 1, n)) + str(get_ifname_from_br_portno("", 1, n)),
         "0000"},
        {"the name left alone", n, "-"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        EXPECT_EQ(r.got, r.want);
    }
}

TEST_F(Net, FdbForeach) {
    TempRoot root;
    add_member(root, "br0", "eth0", 1);
    add_member(root, "br0", "eth1", 2);
    add_member(root, "br0", "eth1.5", 3);
    add_member(root, "br0", "eth10", 4);
    add_member(root, "br0.10", "eth2", 1);
    add_member(root, "br01", "eth3", 1);
    root.mkdir("/sys/class/net/eth9");  // no brif: no bridge
    // 24-byte records; port 9 is no member; the last record is partial.
    write_fdb(root, "br0", {{1, 1, 0}, {2, 2, 0}, {3, 3, 0}, {4, 4, 0}, {9, 9, 0}, {5, 1, 0}}, 24,
              4);
    write_fdb(root, "br0.10", {{0x10, 1, 0}}, 24);
    write_fdb(root, "br01", {{0x20, 1, 0}}, 24);

    auto collect = [](void *arg, const uint8_t *entry, const char *) {
        static_cast<std::multiset<int> *>(arg)->insert(entry[5]);
    };
    const char *eth1[] = {"eth1", nullptr};
    const struct {
        const char *what, *bridge;
        const char *const *exclude;
        std::multiset<int> ids;
    } rows[] = {
        {"br0 and its VLAN bridge", "br0", nullptr, {1, 2, 3, 4, 0x10}},
        {"eth1 and eth1.5 excluded, eth10 not", "br0", eth1, {1, 4, 0x10}},
        {"every bridge", nullptr, nullptr, {1, 2, 3, 4, 0x10, 0x20}},
        {"a name prefix is no bridge", "br", nullptr, {}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        LogCapture log;
        std::multiset<int> seen;
        EXPECT_EQ(fdb_foreach(r.bridge, r.exclude, collect, &seen), 0);
        EXPECT_EQ(seen, r.ids);
        EXPECT_EQ(log.text(), "");
    }

    for (int count : {15, 16}) {
        SCOPED_TRACE(str(count) + " members");
        TempRoot big;
        std::vector<std::array<uint32_t, 3>> records;
        for (uint32_t i = 1; i <= 17; i++) {
            if (int(i) <= count) add_member(big, "big", "p" + str(i), i);
            records.push_back({i, i, 0});
        }
        write_fdb(big, "big", records, 24);
        LogCapture log;
        std::multiset<int> seen;
        EXPECT_EQ(fdb_foreach("big", nullptr, collect, &seen), 0);
        EXPECT_EQ(seen.size(), size_t(count));
        EXPECT_EQ(log.text(), count < MAX_ETH_PORTS
                                  ? ""
                                  : "_fdb_foreach_on_bridge: WARN: MAX_ETH_PORTS hit!\n");
    }

    LogCapture log;
    std::multiset<int> seen;
    root.remove("/sys/class/net/br01/brforward");
    EXPECT_EQ(fdb_foreach("br01", nullptr, collect, &seen), 0);
    root.remove("/sys/class/net");
    EXPECT_EQ(fdb_foreach(nullptr, nullptr, collect, &seen), -1);
    EXPECT_EQ(log.text(),
              "/sys/class/net/br01/brforward: No such file or directory\n"
              "/sys/class/net: No such file or directory\n");
    EXPECT_TRUE(seen.empty());
}

TEST_F(Net, UplinkFiles) {
    const struct {
        const char *what, *state, *ifname, *port;
        int wireless, device;
        const char *out;
        size_t size;
    } rows[] = {
        {"init", "init\n", "wlan0\n", nullptr, TREL_UPLINK_INIT, 1, "keep", 16},
        {"down", "down\n", "wlan0\n", nullptr, TREL_UPLINK_DOWN, 2, "keep", 16},
        {"unknown", "unknown\n", "wlan0\n", nullptr, TREL_UPLINK_NONE, 3, "keep", 16},
        {"wds: the interface first", "wds\n", "wlan0\n", "eth1\n", TREL_UPLINK_WDS, 0, "wlan0", 16},
        {"an empty line: the port", "eth\n", "\n", "eth1\n", TREL_UPLINK_ETH, 0, "eth1", 16},
        {"an empty file: the port", "eth\n", "", "eth1\n", TREL_UPLINK_ETH, 0, "eth1", 16},
        {"neither file", "eth\n", nullptr, nullptr, TREL_UPLINK_ETH, 0, "", 16},
        {"cut to the size", "bogus\n", "wlan0\n", nullptr, TREL_UPLINK_NONE, 0, "wl", 3},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        TempRoot root;
        root.write("/var/run/system.uplink", r.state);
        if (r.ifname) root.write("/var/run/system.uplink_ifname", r.ifname);
        if (r.port) root.write("/var/run/system.uplink_port", r.port);
        char out[16] = "keep";
        EXPECT_EQ(get_wireless_uplink_state(), r.wireless);
        EXPECT_EQ(get_uplink_device(out, r.size), r.device);
        EXPECT_STREQ(out, r.out);
    }
    // The interface of the default route as "ip route" prints it.
    for (auto [routes, want] :
         {std::pair{"default via 10.0.0.1 dev wan0 proto static\n10.0.0.0/8 dev wan0\n", "wan0"},
          {"10.0.0.0/24 dev br0\n", "br0"},
          {"default via 10.0.0.1 dev abcdefghijklmnopq\n", "abcdefghijklmno"},
          {"default via 10.0.0.1 dev eth0\ndefault via 10.9.0.1 dev eth1\n", "eth0\neth1"}}) {
        SCOPED_TRACE(routes);
        trel_test::FakePath path;
        path.add("ip", std::string("printf '") + routes + "'");
        EXPECT_STREQ(get_default_gw_interface(), want);
    }
}

// ---- Against the kernel, in a private network and mount namespace -----------------

namespace {

std::string sh(const std::string &cmd) {
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    char buf[512];
    for (size_t n; p && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    if (p) pclose(p);
    return out;
}
bool run(const std::string &cmd) {
    return system(("{ " + cmd + "; } >/dev/null 2>&1").c_str()) == 0;
}
int ifindex(const char *name) { return if_nametoindex(name); }
uint32_t host(const char *dotted) { return ntohl(inet_addr(dotted)); }
bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// Whether neighbour messages get through rtnetlink: user-mode emulation
// (qemu-user) answers EOPNOTSUPP to the message types it cannot translate.
static bool neigh_messages_work() {
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) return false;
    struct {
        nlmsghdr h;
        ndmsg n;
    } req{};
    req.h.nlmsg_len = sizeof req;
    req.h.nlmsg_type = RTM_GETNEIGH;
    req.h.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    req.n.ndm_family = AF_INET;
    const bool works = send(fd, &req, sizeof req, 0) >= 0 || errno != EOPNOTSUPP;
    close(fd);
    return works;
}

// The checks of the live test, in the child that owns the namespace.
static void live_checks() {
    const bool neigh = neigh_messages_work();
    if (!neigh)
        printf(
            "no neighbour messages over rtnetlink here (qemu-user): "
            "add_ip_neigh_entry and fdb_delneigh not checked\n");
    // With only br0 there, its address is the device's.
    uint8_t mac[6];
    const uint8_t br0_mac[6] = {2, 0, 0, 0, 0x0b, 0}, eth0_mac[6] = {2, 0, 0, 0, 0xe0, 0};
    ASSERT_TRUE(run("ip link set br0 address 02:00:00:00:0b:00"));
    EXPECT_EQ(devhwaddr_get(mac), 0);
    EXPECT_EQ(hex(mac, 6), hex(br0_mac, 6));
    // br0 with the members v0 and v1 (v1 without carrier); eth0 a dummy
    // (a veth where the kernel has no dummy driver); a 15-character name.
    for (const char *cmd : {
             "ip link add v0 type veth peer name v0p",
             "ip link add v1 type veth peer name v1p",
             "ip link add eth0 type dummy || ip link add eth0 type veth peer name eth0p",
             "ip link add uplink_port_015 type veth peer name up15p",
             "ip link set br0 address 02:00:00:00:0b:00",
             "ip link set eth0 address 02:00:00:00:e0:00",
             "ip link set v0 master br0 && ip link set v1 master br0",
             "for i in lo br0 v0 v0p v1 eth0 eth0p; do ip link set $i up; done",
             "ip addr add 10.0.0.1/24 dev br0 && ip addr add 10.9.0.1/16 dev eth0",
             "ip addr add 10.0.0.50/28 dev v0p",
             "ip route add default via 10.0.0.254 dev br0",
             "ip route add default via 10.9.0.254 dev eth0 metric 5",
             "ip neigh add 10.0.0.254 lladdr 02:00:00:00:0f:fe dev br0",
             "bridge fdb add 02:00:00:00:00:11 dev v0 master static",
             "bridge fdb add 02:00:00:00:00:12 dev v1 master static",
         })
        ASSERT_TRUE(run(cmd)) << cmd;
    int fds = trel_test::open_fd_count();
    const int br0 = ifindex("br0"), eth0 = ifindex("eth0"), v0 = ifindex("v0"),
              v1p = ifindex("v1p");

    // Interface ioctls; a name is cut to 15 characters.
    uint32_t u = 0, ip = 0, index = 0, br = 0, eth = 0;
    EXPECT_EQ(JOIN(get_iface_index("uplink_port_015XYZ", &index), get_iface_ip("br0", &ip),
                   iface_is_up("br0"), iface_is_up("v1p"), index, le32(ip)),
              JOIN(0, 0, 1, 0, ifindex("uplink_port_015"), le32(inet_addr("10.0.0.1"))));
    EXPECT_EQ(set_iface_ip("v1p", "10.7.0.1"), 0);
    EXPECT_TRUE(has(sh("ip -4 -o addr show dev v1p"), "inet 10.7.0.1/8"));
    EXPECT_EQ(set_iface_ip("v1p", "not-an-address"), 0);  // 0.0.0.0 removes the address
    EXPECT_EQ(sh("ip -4 -o addr show dev v1p"), "");
    EXPECT_EQ(devhwaddr_get(mac), 0);
    EXPECT_EQ(hex(mac, 6), hex(eth0_mac, 6));  // eth0 first
    EXPECT_EQ(
        JOIN(devifindex_get_hwaddr(&br, br0_mac), devifindex_get_hwaddr(&eth, eth0_mac), br, eth),
        JOIN(0, 0, br0, eth0));
    // Only the first 10 addresses count: eth0's falls out behind eight more of br0.
    for (int i = 11; i <= 18; i++) run("ip addr add 10.0.0." + str(i) + "/24 dev br0");
    EXPECT_EQ(devifindex_get_hwaddr(&u, eth0_mac), -ECHILD);
    for (int i = 11; i <= 18; i++) run("ip addr del 10.0.0." + str(i) + "/24 dev br0");

    // Gateway, ARP and neighbours.
    char text[32], gwmac[32];
    EXPECT_EQ(JOIN(get_gateway(text, &u, sizeof text), text, le32(u),
                   get_gateway_mac(gwmac, sizeof gwmac), gwmac),
              JOIN(1, "10.0.0.254", le32(inet_addr("10.0.0.254")), 1, "02:00:00:00:0f:fe"));
    if (neigh) {
        EXPECT_EQ(add_ip_neigh_entry("br0", "10.0.0.77"), 0);
        EXPECT_NE(sh("ip neigh show 10.0.0.77 dev br0"), "");
    }
    ASSERT_TRUE(run("ip route del default via 10.0.0.254 dev br0"));
    EXPECT_EQ(get_gateway(text, &u, sizeof text), 0);  // eth0's default does not count
    EXPECT_STREQ(get_default_gw_interface(), "eth0");

    // Links and addresses over rtnetlink.
    uint32_t addr = 0, mask = 0;
    EXPECT_EQ(JOIN(interface_is_up(br0), interface_is_up(v1p),
                   interface_get_ipaddress(eth0, &addr, &mask), le32(addr), le32(mask)),
              JOIN(0, -1, 0, le32(host("10.9.0.1")), le32(0xFFFF0000u)));
    EXPECT_EQ(
        JOIN(eth_discover_possible(br0, v1p, 0), eth_discover_possible(br0, br0, host("10.0.0.9")),
             eth_discover_possible(br0, v0, 0), eth_discover_possible(br0, eth0, host("10.0.0.9")),
             eth_discover_possible(br0, ifindex("v0p"), host("1.1.1.1")),
             eth_discover_possible(br0, eth0, host("1.1.1.1"))),
        JOIN(-ENETDOWN, 0, -ENODEV, -EADDRNOTAVAIL, -EADDRNOTAVAIL, 0));

    // Removal of a forwarding entry, and only of that one.
    if (neigh) {
        EXPECT_EQ(fdb_delneigh(kMac, "v0"), 0);
        std::string fdb = sh("bridge fdb show br br0");
        EXPECT_FALSE(has(fdb, "02:00:00:00:00:11")) << fdb;
        EXPECT_TRUE(has(fdb, "02:00:00:00:00:12 dev v1")) << fdb;
    }

    // The uplink fallback: the first of eth0, bond0, eth1 that is up.
    TempRoot root;
    char out[16] = "keep", out2[16] = "keep", one[4] = "k";
    EXPECT_EQ(get_uplink_device(out, sizeof out), 0);
    EXPECT_EQ(get_uplink_device(one, 1), 0);  // room for the terminator only
    EXPECT_STREQ(one, "");
    run("ip link set eth0 down");
    EXPECT_EQ(get_uplink_device(out2, sizeof out2), 0);
    EXPECT_EQ(JOIN(out, out2), "eth0 keep");
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}

}  // namespace

TEST(NetLive, EveryCallAgainstIpAndBridge) {
    fflush(nullptr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        unsetenv("LIBTREL_ROOT");
        if (geteuid() != 0 || unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0 || !run("ip link add br0 type bridge"))
            _exit(77);
        live_checks();
        fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "needs root and network namespaces";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "see the namespace checks above";
}
