// Network helpers: requests captured off the wire, scripted kernel replies,
// failure paths, file-based rules over fixture trees, and every call against
// a live bridge in a private network namespace.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <trel/net.h>

#include "device/model_data.h"
#include "trel_test.h"

using trel_test::LogCapture;
using trel_test::TempRoot;
using Bytes = std::vector<uint8_t>;

// ---- The wire: sendto, recv and socket interposed ------------------------------

namespace {

struct Sent {
    int type;  // SOCK_DGRAM or SOCK_RAW
    Bytes bytes;
};

// While active, netlink requests are recorded instead of sent and replies
// come from the script; sockets fail from the fail_from'th one on.
struct Wire {
    bool active = false;
    std::vector<Sent> sent;
    std::deque<Bytes> replies;
    int send_errno = 0;
    int fail_from = 0;
    int sockets = 0;
} g_wire;

template <typename Fn>
Fn real(const char *name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

bool is_netlink(int fd) {
    int domain = 0;
    socklen_t len = sizeof domain;
    return getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len) == 0 && domain == AF_NETLINK;
}

}  // namespace

extern "C" int socket(int domain, int type, int protocol) noexcept {
    static auto next = real<int (*)(int, int, int)>("socket");
    if (g_wire.active && g_wire.fail_from > 0 && ++g_wire.sockets >= g_wire.fail_from) {
        errno = EMFILE;
        return -1;
    }
    return next(domain, type, protocol);
}

extern "C" ssize_t sendto(int fd, const void *buf, size_t n, int flags, const struct sockaddr *to,
                          socklen_t tolen) {
    static auto next =
        real<ssize_t (*)(int, const void *, size_t, int, const sockaddr *, socklen_t)>("sendto");
    if (!g_wire.active || !is_netlink(fd)) return next(fd, buf, n, flags, to, tolen);
    if (g_wire.send_errno != 0) {
        errno = g_wire.send_errno;
        return -1;
    }
    int type = 0;
    socklen_t len = sizeof type;
    getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len);
    auto *p = static_cast<const uint8_t *>(buf);
    g_wire.sent.push_back({type, Bytes(p, p + n)});
    return static_cast<ssize_t>(n);
}

extern "C" ssize_t recv(int fd, void *buf, size_t n, int flags) {
    static auto next = real<ssize_t (*)(int, void *, size_t, int)>("recv");
    if (!g_wire.active || !is_netlink(fd)) return next(fd, buf, n, flags);
    if (g_wire.replies.empty()) {
        errno = EAGAIN;
        return -1;
    }
    Bytes r = std::move(g_wire.replies.front());
    g_wire.replies.pop_front();
    size_t k = std::min(n, r.size());  // a datagram cut like the kernel cuts it
    memcpy(buf, r.data(), k);
    return static_cast<ssize_t>(k);
}

namespace {

std::string hex(const Bytes &b) {
    std::string s;
    char x[3];
    for (uint8_t c : b) {
        snprintf(x, sizeof x, "%02x", c);
        s += x;
    }
    return s;
}

std::string le32(uint32_t v) {
    return hex({uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)});
}

template <typename T>
Bytes raw(const T &v) {
    auto *p = reinterpret_cast<const uint8_t *>(&v);
    return Bytes(p, p + sizeof v);
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes head(Bytes b, size_t n) {
    b.resize(n);
    return b;
}

Bytes pad4(Bytes b) {
    b.resize((b.size() + 3) & ~size_t{3});
    return b;
}

Bytes attr(uint16_t type, const Bytes &data, uint16_t len = 0) {
    rtattr a{static_cast<unsigned short>(len ? len : 4 + data.size()), type};
    return pad4(cat({raw(a), data}));
}

// One netlink message; len overrides the header's length field.
Bytes msg(uint16_t type, const Bytes &payload, uint16_t flags = NLM_F_MULTI, uint32_t len = 0,
          uint32_t seq = 0, uint32_t pid = 0) {
    nlmsghdr h{len ? len : uint32_t(16 + payload.size()), type, flags, seq, pid};
    return pad4(cat({raw(h), payload}));
}

const Bytes kDone = msg(NLMSG_DONE, raw(0));
const Bytes kError = msg(NLMSG_ERROR, raw(nlmsgerr{-EPERM, {}}), 0);

Bytes link_msg(int index, unsigned flags) {
    ifinfomsg i{};
    i.ifi_index = index;
    i.ifi_flags = flags;
    return msg(RTM_NEWLINK, raw(i));
}

Bytes address(uint32_t index, uint8_t prefix, const Bytes &attrs) {
    ifaddrmsg a{AF_INET, prefix, 0, 0, index};
    return msg(RTM_NEWADDR, cat({raw(a), attrs}));
}

Bytes ipv4(const char *text) {
    in_addr a;
    inet_pton(AF_INET, text, &a);
    return raw(a);
}

Bytes route(uint32_t oif, const char *gateway, uint16_t flags = NLM_F_MULTI, uint32_t seq = 0,
            uint32_t pid = 0) {
    rtmsg r{};
    r.rtm_family = AF_INET;
    r.rtm_table = RT_TABLE_MAIN;
    r.rtm_type = RTN_UNICAST;
    return msg(RTM_NEWROUTE,
               cat({raw(r), attr(RTA_GATEWAY, ipv4(gateway)), attr(RTA_OIF, raw(oif))}), flags, 0,
               seq, pid);
}

const uint8_t kMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x11};

// Checks that no descriptor outlives a test, and leaves the wire inactive.
class Net : public ::testing::Test {
protected:
    void SetUp() override { g_wire = Wire{}; }
    void TearDown() override {
        g_wire = Wire{};
        EXPECT_EQ(trel_test::open_fd_count(), fds_);
    }
    // Requests must never reach the host's kernel: a read-only dump shows
    // that the interposed sendto captures them.
    void expect_capture() {
        script({kDone});
        interface_is_up(5);
        g_wire.active = false;
        ASSERT_EQ(g_wire.sent.size(), 1u) << "sendto is not interposed";
    }
    void script(std::deque<Bytes> replies, int fail_from = 0, int send_errno = 0) {
        g_wire = Wire{};
        g_wire.active = true;
        g_wire.replies = std::move(replies);
        g_wire.fail_from = fail_from;
        g_wire.send_errno = send_errno;
    }

    int fds_ = trel_test::open_fd_count();
};

std::string str(int v) { return std::to_string(v); }

}  // namespace

// The exact bytes of every request, and the socket type it goes out on.
TEST_F(Net, RequestsOnTheWire) {
    const std::string pid = le32(uint32_t(getpid())), lo = le32(if_nametoindex("lo"));
    struct {
        const char *what;
        std::function<int()> call;
        int result;
        int type;
        std::string bytes;  // {time}: the sequence number is the current time
    } const rows[] = {
        {"RTM_GETROUTE, 28 bytes", [] { return get_gateway(nullptr, nullptr, 0); }, 0, SOCK_DGRAM,
         "1c000000"
         "1a00"
         "0103"
         "00000000" +
             pid +
             "02000000"
             "feffffff"
             "00000000"},
        {"RTM_GETLINK, 32 bytes", [] { return interface_is_up(5); }, -1, SOCK_RAW,
         "20000000"
         "1200"
         "0103"
         "00000000"
         "00000000" +
             std::string(32, '0')},
        {"RTM_GETADDR, 24 bytes", [] { return interface_get_ipaddress(5, nullptr, nullptr); }, -1,
         SOCK_RAW,
         "18000000"
         "1600"
         "0103"
         "00000000"
         "00000000"
         "02000000"
         "00000000"},
        {"RTM_NEWNEIGH, 36 bytes", [] { return add_ip_neigh_entry("lo", "10.1.2.3"); }, 0,
         SOCK_DGRAM,
         "24000000"
         "1c00"
         "0106"
         "00000000"
         "00000000"
         "02000000" +
             lo +
             "0100"
             "0000"
             "0800"
             "0100"
             "0a010203"},
        {"RTM_DELNEIGH, 40 bytes", [] { return fdb_delneigh(kMac, "lo"); }, 0, SOCK_RAW,
         "28000000"
         "1d00"
         "0100"
         "{time}" +
             pid + "07000000" + lo +
             "0000"
             "0001"
             "0a00"
             "0200"
             "020000000011"
             "0000"},
    };
    ASSERT_NO_FATAL_FAILURE(expect_capture());
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        script({kDone});
        uint32_t t0 = uint32_t(time(nullptr));
        EXPECT_EQ(r.call(), r.result);
        uint32_t t1 = uint32_t(time(nullptr));
        g_wire.active = false;
        ASSERT_EQ(g_wire.sent.size(), 1u);
        const Bytes &b = g_wire.sent[0].bytes;
        EXPECT_EQ(g_wire.sent[0].type, r.type);
        std::string want = r.bytes;
        if (size_t at = want.find("{time}"); at != std::string::npos) {
            ASSERT_GE(b.size(), 12u);
            uint32_t seq;
            memcpy(&seq, b.data() + 8, 4);
            EXPECT_TRUE(seq >= t0 && seq <= t1) << seq;
            want.replace(at, 6, le32(seq));
        }
        EXPECT_EQ(hex(b), want);
    }
}

// Replies the kernel might give, including truncated and failed ones.
TEST_F(Net, DumpReplies) {
    const uint32_t lo = if_nametoindex("lo"), me = uint32_t(getpid());
    auto addr = [](int index) {
        uint32_t a = 0, m = 0;
        int rc = interface_get_ipaddress(index, &a, &m);
        char out[40];
        snprintf(out, sizeof out, "%d %08x/%08x", rc, a, m);
        return std::string(out);
    };
    auto gateway = [] {
        char text[16] = "x";
        uint32_t gw = 0;
        int rc = get_gateway(text, &gw, sizeof text);
        return str(rc) + " " + text;
    };
    auto up5 = [] { return str(interface_is_up(5)); };
    const Bytes local = attr(IFA_LOCAL, ipv4("10.1.2.3"));
    struct {
        const char *what;
        std::deque<Bytes> replies;
        std::function<std::string()> call;
        std::string want;
    } const rows[] = {
        {"link up", {link_msg(5, IFF_UP)}, up5, "0"},
        {"link down, then done", {link_msg(5, 0), kDone}, up5, "-1"},
        {"another link first, in the same datagram",
         {cat({link_msg(6, IFF_UP), link_msg(5, IFF_UP)})},
         up5,
         "0"},
        {"the answer in a second datagram", {link_msg(6, IFF_UP), link_msg(5, IFF_UP)}, up5, "0"},
        {"error message", {kError}, up5, "-1"},
        {"message longer than the datagram",
         {msg(RTM_NEWLINK, Bytes(16), NLM_F_MULTI, 64)},
         up5,
         "-1"},
        {"datagram shorter than a header", {Bytes(10)}, up5, "-1"},
        {"no reply", {}, up5, "-1"},
        {"index 0 is refused", {link_msg(0, IFF_UP)}, [] { return str(interface_is_up(0)); }, "-1"},
        {"first local address",
         {address(5, 24, cat({attr(IFA_ADDRESS, ipv4("10.9.9.9")), local}))},
         [&] { return addr(5); },
         "0 0a010203/ffffff00"},
        {"prefix 32", {address(5, 32, local)}, [&] { return addr(5); }, "0 0a010203/ffffffff"},
        {"prefix 0", {address(5, 0, local)}, [&] { return addr(5); }, "0 0a010203/00000000"},
        {"other index skipped",
         {address(6, 8, local), address(5, 16, attr(IFA_LOCAL, ipv4("192.168.1.2")))},
         [&] { return addr(5); },
         "0 c0a80102/ffff0000"},
        {"attribute running past its message",
         {address(5, 24, attr(IFA_LOCAL, ipv4("10.1.2.3"), 200)), kDone},
         [&] { return addr(5); },
         "-1 00000000/00000000"},
        {"attribute too short for an address",
         {address(5, 24, attr(IFA_LOCAL, Bytes(2))), kDone},
         [&] { return addr(5); },
         "-1 00000000/00000000"},
        {"message too short for its header",
         {msg(RTM_NEWADDR, Bytes(4)), kDone},
         [&] { return addr(5); },
         "-1 00000000/00000000"},
        {"route error", {kError}, gateway, "-1 "},
        {"route datagram shorter than a header", {Bytes(8)}, gateway, "-1 "},
        {"route message longer than the datagram",
         {msg(RTM_NEWROUTE, Bytes(12), 2, 100)},
         gateway,
         "-1 "},
        {"no routes", {kDone}, gateway, "0 "},
        {"default route through lo", {route(lo, "10.0.0.254"), kDone}, gateway, "0 "},
        {"a single message ends the dump", {route(lo, "10.0.0.254", 0)}, gateway, "0 "},
        {"number 1 from this process ends the dump",
         {route(lo, "10.0.0.254", NLM_F_MULTI, 1, me)},
         gateway,
         "0 "},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        script(r.replies);
        EXPECT_EQ(r.call(), r.want);
    }
}

// Sockets that cannot be made, sends and ioctls that fail: results and
// messages.
TEST_F(Net, FailurePaths) {
    uint8_t mac[6];
    uint32_t u;
    const uint8_t nobody[6] = {0xfe, 0xff, 0xff, 0xff, 0xff, 0xfe};
    struct {
        const char *what;
        int fail_from, send_errno;
        std::function<int()> call;
        int result;
        const char *message;  // on standard error, or null for none
    } const rows[] = {
        {"set_iface_ip, no socket", 1, 0, [] { return set_iface_ip("lo", "10.0.0.1"); }, -1,
         "libtrel_util.set_iface_ip(): unable to open sock"},
        {"set_iface_ip, unknown interface", 0, 0, [] { return set_iface_ip("nosuch0", "1.2.3.4"); },
         -1, "libtrel_util.set_iface_ip(): ioctl SIOCSIFADDR failed"},
        {"get_iface_ip, unknown interface", 0, 0, [&] { return get_iface_ip("nosuch0", &u); }, -1,
         "[debug] libtrel_util.get_iface_ip(): ioctl SIOCGIFADDR failed"},
        {"get_iface_index, empty name", 0, 0, [&] { return get_iface_index("", &u); }, -1, nullptr},
        {"get_iface_index, unknown interface", 0, 0, [&] { return get_iface_index("nosuch0", &u); },
         -1, "[error] libtrel_util.get_iface_index(): ioctl SIOCGIFINDEX failed"},
        {"get_iface_index, no socket", 1, 0, [&] { return get_iface_index("lo", &u); }, -1,
         nullptr},
        {"iface_is_up, unknown interface", 0, 0, [] { return iface_is_up("nosuch0"); }, 0,
         "libtrel_util.iface_is_up(): ioctl SIOCGIFFLAGS failed on nosuch0"},
        {"iface_is_up, no socket", 1, 0, [] { return iface_is_up("lo"); }, 0, nullptr},
        {"devhwaddr_get_iface, unknown interface", 0, 0,
         [&] { return devhwaddr_get_iface(mac, "nosuch0"); }, -ECHILD, nullptr},
        {"devhwaddr_get_iface, no socket", 1, 0, [&] { return devhwaddr_get_iface(mac, "lo"); }, -1,
         nullptr},
        {"devhwaddr_get, no socket", 1, 0, [&] { return devhwaddr_get(mac); }, 1, nullptr},
        {"devifindex_get_hwaddr, no match", 0, 0, [&] { return devifindex_get_hwaddr(&u, nobody); },
         -ECHILD, nullptr},
        {"devifindex_get_hwaddr, no socket", 1, 0,
         [&] { return devifindex_get_hwaddr(&u, nobody); }, -1, nullptr},
        {"get_gateway, no socket", 1, 0, [] { return get_gateway(nullptr, nullptr, 0); }, -1,
         nullptr},
        {"get_gateway, send fails", 0, ENOBUFS, [] { return get_gateway(nullptr, nullptr, 0); }, -1,
         nullptr},
        {"add_ip_neigh_entry, bad address", 0, 0,
         [] { return add_ip_neigh_entry("lo", "10.0.0.300"); }, -1, nullptr},
        {"add_ip_neigh_entry, send fails", 0, ENOBUFS,
         [] { return add_ip_neigh_entry("lo", "10.0.0.3"); }, -1, nullptr},
        {"interface_is_up, no socket", 1, 0, [] { return interface_is_up(1); }, -1, nullptr},
        {"interface_get_ipaddress, no socket", 1, 0,
         [] { return interface_get_ipaddress(1, nullptr, nullptr); }, -1, nullptr},
        {"fdb_delneigh, no socket", 1, 0, [] { return fdb_delneigh(kMac, "lo"); }, -EMFILE,
         "fdb_delneigh: -24 on line 140\n"},
        {"fdb_delneigh, unknown interface", 0, 0, [] { return fdb_delneigh(kMac, "nosuch0"); },
         -ENODEV, "fdb_delneigh: -19 on line 145\n"},
        {"fdb_delneigh, no netlink socket", 2, 0, [] { return fdb_delneigh(kMac, "lo"); }, -EMFILE,
         "fdb_delneigh: -24 on line 149\n"},
        {"fdb_delneigh, send fails", 0, ENOBUFS, [] { return fdb_delneigh(kMac, "lo"); }, -ENOBUFS,
         "fdb_delneigh: -105 on line 165\n"},
    };
    struct Level {
        uint32_t saved = libtrel_log_level;
        ~Level() { libtrel_log_level = saved; }
    } level;
    ASSERT_NO_FATAL_FAILURE(expect_capture());
    libtrel_log_level = 8;  // debug lines too
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        LogCapture log;
        script({}, r.fail_from, r.send_errno);
        EXPECT_EQ(r.call(), r.result);
        g_wire.active = false;
        if (r.message)
            EXPECT_TRUE(log.contains(r.message)) << log.text();
        else
            EXPECT_EQ(log.text(), "");
    }
}

TEST_F(Net, NetmasksAndAddresses) {
    auto v6 = [](uint32_t n) {
        uint8_t m[16];
        memset(m, 0xAA, sizeof m);
        ipv6_netmask_from_prefix_len(m, n);
        return hex(Bytes(m, m + 16));
    };
    auto x = [](uint32_t v) {
        char s[12];
        snprintf(s, sizeof s, "%08x", v);
        return std::string(s);
    };
    uint8_t a[16] = {0x20, 0x01, 0x0d, 0xb8}, b[16] = {0x20, 0x01, 0x0d, 0xb8};
    b[8] = 0x40;  // differs in bit 66 (counted from 1)
    struct {
        const char *what;
        std::function<std::string()> call;
        std::string want;
        const char *message;
    } const rows[] = {
        {"v4 /24", [&] { return x(ipv4_netmask_from_prefix_len(24)); }, "ffffff00", nullptr},
        {"v4 /1", [&] { return x(ipv4_netmask_from_prefix_len(1)); }, "80000000", nullptr},
        {"v4 /31", [&] { return x(ipv4_netmask_from_prefix_len(31)); }, "fffffffe", nullptr},
        {"v4 /32", [&] { return x(ipv4_netmask_from_prefix_len(32)); }, "ffffffff", nullptr},
        {"v4 /0 wraps", [&] { return x(ipv4_netmask_from_prefix_len(0)); }, "ffffffff", nullptr},
        {"v4 /33", [&] { return x(ipv4_netmask_from_prefix_len(33)); }, "00000000",
         "libtrel_util.ipv4_netmask_from_prefix_len(): invalid subnet mask size of 33"},
        {"prefix of /20", [] { return str(ipv4_prefix_len_from_netmask(0xFFFFF000)); }, "20",
         nullptr},
        {"prefix of all ones", [] { return str(ipv4_prefix_len_from_netmask(~0u)); }, "32",
         nullptr},
        {"prefix counts bits", [] { return str(ipv4_prefix_len_from_netmask(0xF0F0F0F0)); }, "16",
         nullptr},
        {"v6 /65", [&] { return v6(65); }, std::string(16, 'f') + "80" + std::string(14, '0'),
         nullptr},
        {"v6 /127", [&] { return v6(127); }, std::string(30, 'f') + "fe", nullptr},
        {"v6 /128", [&] { return v6(128); }, std::string(32, 'f'), nullptr},
        {"v6 /200 clamps", [&] { return v6(200); }, std::string(32, 'f'), nullptr},
        {"v6 /0", [&] { return v6(0); }, std::string(32, '0'), nullptr},
        {"v6 equal under /65", [&] { return str(net_equals_v6(a, b, 65)); }, "1", nullptr},
        {"v6 differ under /66", [&] { return str(net_equals_v6(a, b, 66)); }, "0", nullptr},
        {"v6 all ones means 128", [&] { return str(net_equals_v6(a, b, UINT32_MAX)); }, "0",
         nullptr},
        {"v6 null", [&] { return str(net_equals_v6(a, nullptr, 64)); }, "0",
         "libtrel_util.net_equals_v6(): NULL pointer passed"},
        {"in subnet", [] { return str(ip_belongs_to_subnet(0x0A000005, 0x0A000000, 0xFFFFFF00)); },
         "1", nullptr},
        {"outside subnet",
         [] { return str(ip_belongs_to_subnet(0x0A000105, 0x0A000000, 0xFFFFFF00)); }, "0",
         nullptr},
        {"generated address",
         [] {
             uint8_t m[6];
             int rc = devhwaddr_generate(m, 0x42);
             return str(rc) + " " + hex(Bytes(m, m + 6));
         },
         "0 " + hex({uint8_t(trel::device::kOui1 >> 16), uint8_t(trel::device::kOui1 >> 8),
                     uint8_t(trel::device::kOui1), 0xde, 0xad, 0x42}),
         nullptr},
        {"ppp names",
         [] {
             return str(is_ppp_dev("ppp0")) + str(is_ppp_dev("pp")) + str(is_ppp_dev("eppp")) +
                    str(is_ppp_dev(nullptr));
         },
         "1000", nullptr},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        LogCapture log;
        EXPECT_EQ(r.call(), r.want);
        if (r.message)
            EXPECT_TRUE(log.contains(r.message)) << log.text();
        else
            EXPECT_EQ(log.text(), "");
    }
}

TEST_F(Net, ArpTable) {
    TempRoot root;
    char mac[32] = "untouched";
    EXPECT_EQ(get_mac_by_ip(nullptr, mac, sizeof mac), 0);  // no /proc/net/arp
    root.write("/proc/net/arp",
               "IP address       HW type     Flags       HW address            Mask     Device\n"
               "10.0.0.1         0x1         0x0         00:00:00:00:00:00     *        br0\n"
               "10.0.0.1         0x1         0x2         02:00:00:00:00:01     *        br0\n"
               "10.0.0.2         0x1         0x6         02:00:00:00:00:02     *        br0\n"
               "10.0.0.3         0x1         0x2\n"
               "10.0.0.4         0x1         0x2         02:00:00:00:00:04     *        br0\n");
    struct {
        const char *ip;
        size_t size;
        int result;
        const char *mac;
        bool truncated;
    } const rows[] = {
        {"10.0.0.1", 18, 1, "02:00:00:00:00:01", false},  // the incomplete entry is skipped
        {nullptr, 32, 1, "02:00:00:00:00:01", false},
        {"10.0.0.2", 18, 1, "02:00:00:00:00:02", false},
        {"10.0.0.4", 18, 0, "", false},  // after a line of three fields
        {"10.0.0.9", 18, 0, "", false},
        {"10.0.0.2", 10, 1, "02:00:00:", true},
        {"10.0.0.2", 17, 1, "02:00:00:00:00:0", true},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.ip ? r.ip : "null") + " into " + str(int(r.size)));
        LogCapture log;
        memset(mac, 0, sizeof mac);
        EXPECT_EQ(get_mac_by_ip(r.ip, mac, r.size), r.result);
        EXPECT_STREQ(mac, r.mac);
        EXPECT_EQ(log.contains("libtrel_status.get_mac_by_ip(): mac truncated"), r.truncated);
    }
}

namespace {

// A bridge member as the kernel shows it: brif/NAME -> ../../NAME/brport.
void add_member(const TempRoot &root, const std::string &bridge, const std::string &name,
                const std::string &port_no, const char *state = "3\n") {
    root.write("/sys/class/net/" + name + "/brport/port_no", port_no + "\n");
    root.write("/sys/class/net/" + name + "/brport/state", state);
    root.mkdir("/sys/class/net/" + bridge + "/brif");
    std::string link = root.path("/sys/class/net/" + bridge + "/brif/" + name);
    ASSERT_EQ(symlink(("../../" + name + "/brport").c_str(), link.c_str()), 0) << link;
}

// A forwarding record: MAC 02:00:00:00:00:<id>, port, is-local, timer.
Bytes fdb_record(uint8_t id, uint8_t port, uint32_t timer, size_t size) {
    Bytes r(size);
    const uint8_t mac[6] = {0x02, 0, 0, 0, 0, id};
    memcpy(r.data(), mac, 6);
    r[6] = port;
    memcpy(r.data() + 8, &timer, 4);
    return r;
}

void write_bytes(const TempRoot &root, const std::string &logical, const Bytes &b) {
    root.write(logical, std::string(b.begin(), b.end()));
}

}  // namespace

TEST_F(Net, BridgeFiles) {
    TempRoot root;
    add_member(root, "br0", "eth0", "0x1");
    add_member(root, "br0", "eth1", "0x2", "0\n");
    add_member(root, "br0", "ethA", "0xa", "1\n");
    add_member(root, "br0", "eth12", "12", "junk\n");              // not in "0x%x" form
    root.write("/sys/class/net/br0/brif/plain/port_no", "0x3\n");  // not a link
    root.write("/sys/class/net/br0/brif/plain/state", "3\n");
    write_bytes(root, "/sys/class/net/br0/brforward",
                cat({fdb_record(1, 1, 0, 16), fdb_record(2, 2, 12345, 16),
                     fdb_record(3, 10, 99, 16), head(fdb_record(4, 1, 500, 16), 10)}));
    auto info = [](const char *br, const char *mac) {
        uint32_t age = 77, port = 77;
        int rc = get_mac_brinfo(br, mac, &age, &port);
        return str(rc) + " " + str(int(age)) + " " + str(int(port));
    };
    auto name = [](int port) {
        char n[16] = "-";
        return str(get_ifname_from_br_portno("br0", port, n)) + " " + n;
    };
    auto state = [](const char *port) {
        return str(get_br_port_state("br0", port)) + " " + str(is_brif_disabled("br0", port)) +
               " " + str(is_brif_forwarding("br0", port));
    };
    struct {
        const char *what;
        std::function<std::string()> call;
        std::string want;
    } const rows[] = {
        {"first record", [&] { return info("br0", "02:00:00:00:00:01"); }, "1 0 1"},
        {"lower case, age in seconds", [&] { return info("br0", "02:00:00:00:00:02"); }, "1 123 2"},
        {"third 16-byte record", [&] { return info("br0", "02:00:00:00:00:03"); }, "1 0 10"},
        {"only in a partial record", [&] { return info("br0", "02:00:00:00:00:04"); }, "0 77 77"},
        {"absent", [&] { return info("br0", "02:00:00:00:00:09"); }, "0 77 77"},
        {"no such bridge", [&] { return info("br9", "02:00:00:00:00:01"); }, "-1 77 77"},
        {"path outside /sys/class/net", [&] { return info("..", "02:00:00:00:00:01"); },
         "-1 77 77"},
        {"forwarding", [&] { return state("eth0"); }, "3 0 1"},
        {"disabled", [&] { return state("eth1"); }, "0 1 0"},
        {"listening", [&] { return state("ethA"); }, "1 0 0"},
        {"unreadable state", [&] { return state("eth12"); }, "-1 1 0"},
        {"missing state", [&] { return state("eth7"); }, "-1 1 0"},
        {"port 1", [&] { return name(1); }, "1 eth0"},
        {"port 10 in hex", [&] { return name(10); }, "1 ethA"},
        {"decimal port_no is not read", [&] { return name(12); }, "0 -"},
        {"not a link", [&] { return name(3); }, "0 -"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        EXPECT_EQ(r.call(), r.want);
    }
}

TEST_F(Net, FdbForeach) {
    TempRoot root;
    add_member(root, "br0", "eth0", "0x1");
    add_member(root, "br0", "eth1", "0x2");
    add_member(root, "br0", "eth1.5", "0x3");
    add_member(root, "br0", "eth10", "0x4");
    add_member(root, "br0.10", "eth2", "0x1");
    add_member(root, "br01", "eth3", "0x1");
    root.mkdir("/sys/class/net/eth9");  // no brif: skipped
    // 24-byte records; port 9 is no member; the trailing piece is partial.
    write_bytes(root, "/sys/class/net/br0/brforward",
                cat({fdb_record(1, 1, 0, 24), fdb_record(2, 2, 0, 24), fdb_record(3, 3, 0, 24),
                     fdb_record(4, 4, 0, 24), fdb_record(9, 9, 0, 24), fdb_record(5, 1, 0, 20)}));
    write_bytes(root, "/sys/class/net/br0.10/brforward", fdb_record(0x10, 1, 0, 24));
    write_bytes(root, "/sys/class/net/br01/brforward", fdb_record(0x20, 1, 0, 24));

    // Record ids and, per bridge (br0 has ids below 0x10), the member names
    // handed over.
    struct Seen {
        std::multiset<int> ids;
        std::map<int, std::set<std::string>> names;
    };
    auto collect = [](void *arg, const uint8_t *entry, const char *ifname) {
        auto *s = static_cast<Seen *>(arg);
        s->ids.insert(entry[5]);
        s->names[entry[5] < 0x10 ? 0 : entry[5]].insert(ifname);
    };
    const std::set<std::string> br0_members = {"eth0", "eth1", "eth1.5", "eth10"};
    const char *eth1[] = {"eth1", nullptr};
    struct {
        const char *what;
        const char *bridge;
        const char *const *exclude;
        std::multiset<int> ids;
    } const rows[] = {
        {"br0 and its VLAN bridge", "br0", nullptr, {1, 2, 3, 4, 0x10}},
        {"eth1 and eth1.5 excluded, eth10 not", "br0", eth1, {1, 4, 0x10}},
        {"every bridge", nullptr, nullptr, {1, 2, 3, 4, 0x10, 0x20}},
        {"no bridge named br", "br", nullptr, {}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        LogCapture log;
        Seen seen;
        EXPECT_EQ(fdb_foreach(r.bridge, r.exclude, collect, &seen), 0);
        EXPECT_EQ(seen.ids, r.ids);
        EXPECT_EQ(log.text(), "");
        // One name per bridge: the last member listed on it.
        for (const auto &[bridge, names] : seen.names) {
            ASSERT_EQ(names.size(), 1u) << bridge;
            const std::string &n = *names.begin();
            const std::set<std::string> allowed =
                bridge == 0 ? br0_members : std::set<std::string>{bridge == 0x10 ? "eth2" : "eth3"};
            EXPECT_TRUE(allowed.count(n)) << n;
        }
    }

    // At most 16 member ports per bridge; the 16th stops the listing.
    for (int members : {15, 16, 17}) {
        SCOPED_TRACE(str(members) + " members");
        TempRoot big;
        Bytes records;
        for (int i = 1; i <= members; i++) {
            char port_no[12];
            snprintf(port_no, sizeof port_no, "0x%x", i);
            add_member(big, "big", "p" + str(i), port_no);
            records = cat({records, fdb_record(uint8_t(i), uint8_t(i), 0, 24)});
        }
        write_bytes(big, "/sys/class/net/big/brforward", records);
        LogCapture log;
        Seen seen;
        EXPECT_EQ(fdb_foreach("big", nullptr, collect, &seen), 0);
        EXPECT_EQ(seen.ids.size(), size_t(std::min(members, MAX_ETH_PORTS)));
        EXPECT_EQ(log.text(), members >= MAX_ETH_PORTS
                                  ? "_fdb_foreach_on_bridge: WARN: MAX_ETH_PORTS hit!\n"
                                  : "");
    }

    LogCapture log;
    Seen seen;
    root.remove("/sys/class/net/br01/brforward");
    EXPECT_EQ(fdb_foreach("br01", nullptr, collect, &seen), 0);
    EXPECT_EQ(log.text(), "/sys/class/net/br01/brforward: No such file or directory\n");
    log.clear();
    root.remove("/sys/class/net");
    EXPECT_EQ(fdb_foreach(nullptr, nullptr, collect, &seen), -1);
    EXPECT_EQ(log.text(), "/sys/class/net: No such file or directory\n");
    EXPECT_TRUE(seen.ids.empty());
}

TEST_F(Net, UplinkFiles) {
    struct {
        const char *state, *ifname, *port;
        int wireless, device;
        const char *out;
        size_t size;
    } const rows[] = {
        {"init\n", "wlan0\n", nullptr, TREL_UPLINK_INIT, 1, "keep", 16},
        {"down\n", "wlan0\n", nullptr, TREL_UPLINK_DOWN, 2, "keep", 16},
        {"unknown\n", "wlan0\n", nullptr, TREL_UPLINK_NONE, 3, "keep", 16},
        {"wds\n", "wlan0\n", "eth1\n", TREL_UPLINK_WDS, 0, "wlan0", 16},
        {"eth\n", "\n", "eth1\n", TREL_UPLINK_ETH, 0, "eth1", 16},
        {"eth\n", nullptr, "eth1\n", TREL_UPLINK_ETH, 0, "eth1", 16},
        {"eth\n", nullptr, nullptr, TREL_UPLINK_ETH, 0, "", 16},
        {"bogus\n", "wlan0\n", nullptr, TREL_UPLINK_NONE, 0, "wlan0", 16},
        {"wds\n", "wlan0\n", nullptr, TREL_UPLINK_WDS, 0, "wl", 3},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.state) + " " + (r.ifname ? r.ifname : "-"));
        TempRoot root;
        root.write("/var/run/system.uplink", r.state);
        if (r.ifname) root.write("/var/run/system.uplink_ifname", r.ifname);
        if (r.port) root.write("/var/run/system.uplink_port", r.port);
        char out[16] = "keep";
        EXPECT_EQ(get_wireless_uplink_state(), r.wireless);
        EXPECT_EQ(get_uplink_device(out, r.size), r.device);
        EXPECT_STREQ(out, r.out);
    }

    // The default route's interface as "ip route" prints it.
    struct {
        const char *routes;
        const char *want;
    } const gw_rows[] = {
        {"default via 10.0.0.254 dev wan0 proto static\n10.0.0.0/24 dev wan0\n", "wan0"},
        {"10.0.0.0/24 dev br0\n", "br0"},
        {"", "br0"},
        {"default via 10.0.0.1 dev abcdefghijklmnopq\n", "abcdefghijklmno"},
        {"default via 10.0.0.1 dev eth0\ndefault via 10.9.0.1 dev eth1 metric 5\n", "eth0\neth1"},
    };
    for (const auto &r : gw_rows) {
        SCOPED_TRACE(r.routes);
        trel_test::FakePath path;
        path.add("ip", std::string("printf '") + r.routes + "'");
        EXPECT_STREQ(get_default_gw_interface(), r.want);
    }
}

// ---- Against the kernel, in a private network and mount namespace --------------

namespace {

constexpr int kSkipped = 77;

std::string sh(const std::string &cmd) {
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr) return out;
    char buf[512];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

bool run(const std::string &cmd) {
    return system(("{ " + cmd + "; } >/dev/null 2>&1").c_str()) == 0;
}

int ifindex(const std::string &name) {
    return std::stoi(sh("cat /sys/class/net/" + name + "/ifindex"));
}

uint32_t host(const char *dotted) { return ntohl(inet_addr(dotted)); }

// Runs the checks in a child that owns a fresh network and mount namespace;
// the child exits with kSkipped when it cannot get one.
void in_namespace(const std::function<void()> &checks) {
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        unsetenv("LIBTREL_ROOT");
        if (geteuid() != 0 || unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0 || !run("ip link add br0 type bridge"))
            _exit(kSkipped);
        checks();
        fflush(stdout);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == kSkipped)
        GTEST_SKIP() << "needs root and network namespaces (unshare CLONE_NEWNET|CLONE_NEWNS)";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "see the namespace checks above";
}

}  // namespace

TEST(NetLive, EveryCallAgainstIpAndBridge) {
    in_namespace([] {
        // br0 with the members v0 and v1; eth0 a dummy (a veth where the
        // kernel has no dummy driver); a 15-character name.
        const char *setup[] = {
            "ip link set lo up",
            "ip link add v0 type veth peer name v0p",
            "ip link add v1 type veth peer name v1p",
            "ip link add eth0 type dummy || ip link add eth0 type veth peer name eth0p",
            "ip link add uplink_port_015 type veth peer name up15p",
            "ip link set br0 address 02:00:00:00:0b:00",
            "ip link set eth0 address 02:00:00:00:e0:00",
            "ip link set v0 master br0",
            "ip link set v1 master br0",
            "for i in br0 v0 v0p v1 eth0 eth0p uplink_port_015; do ip link set $i up; done",
            "ip addr add 10.0.0.1/24 dev br0",
            "ip addr add 10.9.0.1/16 dev eth0",
            "ip addr add 10.0.0.50/28 dev v0p",
            "ip route add default via 10.0.0.254 dev br0",
            "ip route add default via 10.9.0.254 dev eth0 metric 5",
            "ip neigh add 10.0.0.254 lladdr 02:00:00:00:0f:fe dev br0",
            "ip neigh add 10.0.0.5 lladdr 02:00:00:00:00:05 dev br0",
            "bridge fdb add 02:00:00:00:00:11 dev v0 master static",
            "bridge fdb add 02:00:00:00:00:12 dev v1 master static",
        };
        for (const char *cmd : setup) ASSERT_TRUE(run(cmd)) << cmd;
        int fds = trel_test::open_fd_count();
        const int br0 = ifindex("br0"), eth0 = ifindex("eth0"), v0 = ifindex("v0"),
                  v0p = ifindex("v0p"), v1p = ifindex("v1p");

        // Interface ioctls.
        uint32_t u = 0;
        EXPECT_EQ(get_iface_index("br0", &u), 0);
        EXPECT_EQ(int(u), br0);
        EXPECT_EQ(get_iface_index("uplink_port_015XYZ", &u), 0);  // cut to 15 characters
        EXPECT_EQ(int(u), ifindex("uplink_port_015"));
        EXPECT_EQ(get_iface_ip("br0", &u), 0);
        EXPECT_EQ(u, inet_addr("10.0.0.1"));
        EXPECT_EQ(iface_is_up("br0"), 1);
        EXPECT_EQ(iface_is_up("v1p"), 0);
        EXPECT_EQ(set_iface_ip("v1p", "10.7.0.1"), 0);
        EXPECT_NE(sh("ip -4 -o addr show dev v1p").find("inet 10.7.0.1/8"), std::string::npos);
        EXPECT_EQ(set_iface_ip("v1p", "not-an-address"), 0);  // sends 0.0.0.0: removes it
        EXPECT_EQ(sh("ip -4 -o addr show dev v1p"), "");
        uint8_t mac[6];
        EXPECT_EQ(devhwaddr_get_iface(mac, "br0"), 0);
        EXPECT_EQ(hex(Bytes(mac, mac + 6)), "020000000b00");
        EXPECT_EQ(devhwaddr_get(mac), 0);
        EXPECT_EQ(hex(Bytes(mac, mac + 6)), "02000000e000");  // eth0 first
        const uint8_t br0_mac[6] = {2, 0, 0, 0, 0x0b, 0}, eth0_mac[6] = {2, 0, 0, 0, 0xe0, 0};
        u = 0;
        EXPECT_EQ(devifindex_get_hwaddr(&u, br0_mac), 0);
        EXPECT_EQ(int(u), br0);
        // Only the first 10 interface addresses are looked at: eth0's comes
        // after those of lo, br0 and v0p, and falls out behind eight more of
        // br0.
        EXPECT_EQ(devifindex_get_hwaddr(&u, eth0_mac), 0);
        EXPECT_EQ(int(u), eth0);
        for (int i = 11; i <= 18; i++)
            ASSERT_TRUE(run("ip addr add 10.0.0." + str(i) + "/24 dev br0"));
        EXPECT_EQ(devifindex_get_hwaddr(&u, eth0_mac), -ECHILD);
        EXPECT_EQ(devifindex_get_hwaddr(&u, br0_mac), 0);
        for (int i = 11; i <= 18; i++)
            ASSERT_TRUE(run("ip addr del 10.0.0." + str(i) + "/24 dev br0"));

        // Gateway, ARP and neighbours.
        char text[32];
        EXPECT_EQ(get_gateway(text, &u, sizeof text), 1);
        EXPECT_STREQ(text, "10.0.0.254");
        EXPECT_EQ(u, inet_addr("10.0.0.254"));
        EXPECT_EQ(get_gateway(text, &u, 8), 1);  // inet_ntop refuses to cut
        EXPECT_STREQ(text, "");
        EXPECT_EQ(get_gateway_mac(text, sizeof text), 1);
        EXPECT_STREQ(text, "02:00:00:00:0f:fe");
        EXPECT_EQ(get_mac_by_ip("10.0.0.5", text, sizeof text), 1);
        EXPECT_STREQ(text, "02:00:00:00:00:05");
        EXPECT_EQ(add_ip_neigh_entry("br0", "10.0.0.77"), 0);
        EXPECT_NE(sh("ip neigh show 10.0.0.77 dev br0"), "");
        EXPECT_EQ(add_ip_neigh_entry("br0", "10.0.0.777"), -1);
        ASSERT_TRUE(run("ip route del default via 10.0.0.254 dev br0"));
        EXPECT_EQ(get_gateway(text, &u, sizeof text), 0);  // eth0's default does not count
        EXPECT_EQ(get_gateway_mac(text, sizeof text), 0);
        EXPECT_STREQ(get_default_gw_interface(), "eth0");

        // Links and addresses over rtnetlink.
        EXPECT_EQ(interface_is_up(br0), 0);
        EXPECT_EQ(interface_is_up(v1p), -1);
        uint32_t addr = 0, mask = 0;
        EXPECT_EQ(interface_get_ipaddress(eth0, &addr, &mask), 0);
        EXPECT_EQ(addr, host("10.9.0.1"));
        EXPECT_EQ(mask, 0xFFFF0000u);
        EXPECT_EQ(interface_get_ipaddress(v0, &addr, &mask), -1);
        EXPECT_EQ(eth_discover_possible(br0, v1p, 0), -ENETDOWN);
        EXPECT_EQ(eth_discover_possible(br0, br0, host("10.0.0.9")), 0);
        EXPECT_EQ(eth_discover_possible(br0, v0, 0), -ENODEV);
        EXPECT_EQ(eth_discover_possible(br0, eth0, host("10.0.0.9")), -EADDRNOTAVAIL);
        EXPECT_EQ(eth_discover_possible(br0, v0p, host("192.168.1.1")), -EADDRNOTAVAIL);
        EXPECT_EQ(eth_discover_possible(br0, eth0, host("192.168.1.1")), 0);

        // Bridge files, compared with what ip and bridge report.
        for (const char *port : {"v0", "v1"}) {
            SCOPED_TRACE(port);
            std::string detail = sh(std::string("ip -d link show ") + port);
            unsigned port_no = 0;
            size_t at = detail.find("port_no 0x");
            ASSERT_NE(at, std::string::npos);
            sscanf(detail.c_str() + at, "port_no 0x%x", &port_no);
            char name[16] = "";
            EXPECT_EQ(get_ifname_from_br_portno("br0", int(port_no), name), 1);
            EXPECT_STREQ(name, port);
            bool forwarding =
                sh(std::string("bridge link show dev ") + port).find("state forwarding") !=
                std::string::npos;
            EXPECT_EQ(is_brif_forwarding("br0", port), forwarding);
            EXPECT_EQ(is_brif_disabled("br0", port), !forwarding);  // v1 has no carrier
            uint32_t age = 1, fdb_port = 0;
            std::string entry =
                std::string(port) == "v0" ? "02:00:00:00:00:11" : "02:00:00:00:00:12";
            EXPECT_EQ(get_mac_brinfo("br0", entry.c_str(), &age, &fdb_port), 1);
            EXPECT_EQ(fdb_port, port_no);
            EXPECT_EQ(age, 0u);  // static entries do not age
        }
        EXPECT_TRUE(is_brif_forwarding("br0", "v0"));

        // fdb_foreach takes the kernel's 16-byte records 24 bytes at a time:
        // whatever it hands over begins with a MAC that bridge lists on the
        // port in byte 6.
        struct Entries {
            std::vector<std::pair<std::string, int>> macs;
        } seen;
        auto collect = [](void *arg, const uint8_t *e, const char *ifname) {
            char m[18];
            snprintf(m, sizeof m, "%02x:%02x:%02x:%02x:%02x:%02x", e[0], e[1], e[2], e[3], e[4],
                     e[5]);
            static_cast<Entries *>(arg)->macs.emplace_back(m, e[6]);
            EXPECT_TRUE(strcmp(ifname, "v0") == 0 || strcmp(ifname, "v1") == 0) << ifname;
        };
        EXPECT_EQ(fdb_foreach("br0", nullptr, collect, &seen), 0);
        EXPECT_FALSE(seen.macs.empty());
        std::string fdb = sh("bridge fdb show br br0");
        for (const auto &[m, port] : seen.macs) {
            char name[16] = "";
            ASSERT_EQ(get_ifname_from_br_portno("br0", port, name), 1) << m;
            EXPECT_NE(fdb.find(m + " dev " + name + " master br0"), std::string::npos) << m;
        }
        const char *both[] = {"v0", "v1", nullptr};
        Entries none;
        EXPECT_EQ(fdb_foreach("br0", both, collect, &none), 0);
        EXPECT_TRUE(none.macs.empty());

        EXPECT_EQ(fdb_delneigh(kMac, "v0"), 0);
        fdb = sh("bridge fdb show br br0");
        EXPECT_EQ(fdb.find("02:00:00:00:00:11"), std::string::npos) << fdb;
        EXPECT_NE(fdb.find("02:00:00:00:00:12 dev v1"), std::string::npos) << fdb;

        // Uplink fallback (taking eth0 down also drops its routes): the first of eth0, bond0, eth1
        // that is up.
        {
            TempRoot root;
            char out[16] = "keep";
            EXPECT_EQ(get_uplink_device(out, sizeof out), 0);
            EXPECT_STREQ(out, "eth0");
            ASSERT_TRUE(run("ip link set eth0 down"));
            strcpy(out, "keep");
            EXPECT_EQ(get_uplink_device(out, sizeof out), 0);
            EXPECT_STREQ(out, "keep");
            ASSERT_TRUE(run("ip link set eth0 up"));
        }

        EXPECT_EQ(trel_test::open_fd_count(), fds);
    });
}
