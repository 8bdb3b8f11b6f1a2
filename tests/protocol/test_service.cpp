// The multicast service on real sockets: init failures, datagrams received
// inside a libevent loop, SIGUSR1 moving the group membership, sending.
#include <arpa/inet.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <event2/event.h>

#include <fstream>
#include <functional>

#include "proto_test.h"

using namespace proto_test;
using trel_test::LogCapture;
using trel_test::TempRoot;

namespace {

constexpr char kGroup[] = "239.1.2.3";
std::vector<std::string> g_calls;
struct event_base *g_base = nullptr;

std::string text_of(void *payload) {
    auto *p = static_cast<uint8_t *>(payload);
    return std::string(reinterpret_cast<char *>(p), host_hdr(p - 40).length);
}
void on_a(void *p) { g_calls.push_back("a:" + text_of(p)); }
void on_b(void *p) { g_calls.push_back("b:" + text_of(p)); }
void on_c(void *p) { g_calls.push_back("c:" + text_of(p)); }
void on_stop(void *p) {
    g_calls.push_back("stop:" + text_of(p));
    event_base_loopbreak(g_base);
}
trel_protocol_handler g_table[] = {{on_a, 7}, {on_b, 7}, {on_c, 5}, {on_stop, 99}, {nullptr, 0}};

Bytes dgram(uint16_t method, uint16_t seq, const std::string &text) {
    Dgram d;
    d.method = method;
    d.seq = seq;
    d.plain.assign(text.begin(), text.end());
    return build(d);
}

void send_udp(const Bytes &b, const char *to, const char *via = nullptr) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (via != nullptr) {
        struct in_addr a;
        inet_aton(via, &a);
        setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &a, sizeof a);
    }
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(TREL_PROTOCOL_PORT);
    inet_aton(to, &sa.sin_addr);
    EXPECT_EQ(sendto(fd, b.data(), b.size(), 0, reinterpret_cast<sockaddr *>(&sa), sizeof sa),
              (ssize_t)b.size());
    close(fd);
}

// Runs the loop until cond holds, for at most five seconds.
bool pump(const std::function<bool()> &cond) {
    struct timespec start, now;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        if (cond()) return true;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec - start.tv_sec >= 5) return false;
        event_base_loop(g_base, EVLOOP_NONBLOCK);
        usleep(1000);
    }
}

size_t count(const LogCapture &log, const std::string &needle) {
    size_t n = 0;
    for (const auto &l : log.lines()) n += l.find(needle) != std::string::npos;
    return n;
}

// Whether /proc/net/igmp lists the group on the device.
bool joined(const char *dev, const char *group) {
    char hex[16];
    snprintf(hex, sizeof hex, "%08X", (unsigned)inet_addr(group));
    std::ifstream in("/proc/net/igmp");
    std::string line;
    bool in_dev = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] != '\t')
            in_dev = line.find(std::string("\t") + dev + " ") != std::string::npos;
        else if (in_dev && line.find(hex) != std::string::npos)
            return true;
    }
    return false;
}

bool record_is_reset() {
    trel_protocol_state zero = {};
    zero.sock = -1;
    return memcmp(&trel_protocol_ctrl, &zero, sizeof zero) == 0;
}

}  // namespace

TEST(Service, InitFailuresLeaveNothingOpen) {
    trel_test::run_in_child([] {
        enter_netns();  // optional: isolates port 48000 when possible
        TempRoot root;
        write_system_info(root);
        LogCapture log;
        int fds = trel_test::open_fd_count();
        struct Case {
            std::string settings;  // empty: no file
            int open_socket;
            std::string message;
            bool port_taken = false;
            const char *bridge_ip = nullptr;
        } cases[] = {
            {"", 1,
             "trel_protocol_init(): Unable to access /var/run/trel_protocol.info: No such file"},
            {"# nothing\n", 1, "trel_protocol_init(): Unable to parse /var/run/trel_protocol.info"},
            {settings("", kGroup), 1, "trel_protocol_init(): no morna.key"},
            {settings(std::string(kKeyHex).substr(1), kGroup), 1, "morna.key invalid len 31"},
            {settings(std::string(kKeyHex) + "0", kGroup), 0, "morna.key invalid len 33"},
            {settings(kKeyHex, ""), 1, "[error] trel_protocol.trel_protocol_init(): no morna.mcip"},
            {settings(kKeyHex, "239.1.2.300"), 1, "morna.mcip=239.1.2.300 is not valid"},
            {settings(kKeyHex, kGroup), 1, "unable to bind trel socket, Address already in use",
             true},
            {settings(kKeyHex, kGroup), 1, "unable to set mcast local ip, Cannot assign", false,
             "192.0.2.99\n"},  // not a local address
        };
        for (const Case &k : cases) {
            if (k.settings.empty())
                root.remove("/var/run/trel_protocol.info");
            else
                root.write("/var/run/trel_protocol.info", k.settings);
            int busy = -1;
            if (k.port_taken) {
                busy = socket(AF_INET, SOCK_DGRAM, 0);
                struct sockaddr_in sa = {};
                sa.sin_family = AF_INET;
                sa.sin_port = htons(TREL_PROTOCOL_PORT);
                ASSERT_EQ(bind(busy, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
            }
            if (k.bridge_ip != nullptr) root.write("/var/run/ipready.br0", k.bridge_ip);
            log.clear();
            EXPECT_EQ(trel_protocol_init(k.open_socket), -1) << k.message;
            EXPECT_TRUE(log.contains(k.message)) << log.text();
            EXPECT_TRUE(log.contains("trel_protocol_init(): could not start trel-protocol"));
            EXPECT_TRUE(record_is_reset()) << k.message;
            if (busy >= 0) close(busy);
            root.remove("/var/run/ipready.br0");
            EXPECT_EQ(trel_test::open_fd_count(), fds) << k.message;
        }

        // Without a socket the group is optional.
        root.write("/var/run/trel_protocol.info", settings(kKeyHex, ""));
        log.clear();
        ASSERT_EQ(trel_protocol_init(0), 0);
        EXPECT_TRUE(log.contains("[info ] trel_protocol.trel_protocol_init(): no morna.mcip"));
        EXPECT_TRUE(log.contains("TREL_DEVICE[02:a1:b2:c3:d4:e5]"));
        EXPECT_TRUE(log.contains("trel_protocol init done"));
        auto &c = trel_protocol_ctrl;
        EXPECT_EQ(c.initialized, 1u);
        EXPECT_EQ(c.encrypt, 1u);
        EXPECT_EQ(c.sock, -1);
        EXPECT_EQ(c.mcast_ip.s_addr, 0u);
        EXPECT_EQ(memcmp(c.key, kKey, 16), 0);
        EXPECT_EQ(memcmp(c.mac, kMac, 6), 0);
        trel_protocol_deinit();
        trel_protocol_deinit();
        EXPECT_TRUE(record_is_reset());
    });
}

TEST(Service, ReceivesInsideTheEventLoop) {
    trel_test::run_in_child([] {
        enter_netns();
        TempRoot root;
        write_system_info(root);
        root.write("/var/run/trel_protocol.info", settings(kKeyHex, kGroup));
        LogCapture log;
        libtrel_log_level = 8;
        int fds = trel_test::open_fd_count();
        g_base = event_base_new();
        ASSERT_EQ(trel_protocol_init(1), 0);
        ASSERT_GE(trel_protocol_ctrl.sock, 0);
        EXPECT_EQ(trel_protocol_ctrl.my_ip.s_addr, 0u);  // no bridge address yet
        EXPECT_EQ(trel_protocol_init_recv(g_base, g_table), 0);

        Dgram big;
        big.plain.assign(470, 'B');  // 520 bytes: cut to 512 on receipt
        Bytes bad = dgram(7, 2, "corrupt");
        bad[44] ^= 0x80;
        for (const Bytes &b : {dgram(7, 1, "first"), dgram(7, 1, "again"), bad, build(big),
                               dgram(8, 3, "nobody"), dgram(5, 3, "five"), dgram(99, 4, "end")})
            send_udp(b, "127.0.0.1");
        struct timeval limit = {5, 0};
        event_base_loopexit(g_base, &limit);
        event_base_dispatch(g_base);
        std::vector<std::string> want = {"a:first", "b:first", "c:five", "stop:end"};
        EXPECT_EQ(g_calls, want);
        EXPECT_EQ(trel_protocol_ctrl.last_seq, 4);
        EXPECT_EQ(count(log, "trel_protocol_recv(): failed to decrypt the message: 1"), 2u);
        EXPECT_TRUE(log.contains("trel_protocol_recv(): [first"));

        trel_protocol_deinit();
        EXPECT_TRUE(record_is_reset());
        event_base_free(g_base);
        EXPECT_EQ(trel_test::open_fd_count(), fds);
    });
}

TEST(Service, SignalMovesMembershipAndSendGoesOut) {
    if (!netns_available()) GTEST_SKIP() << "needs root for a network namespace";
    trel_test::run_in_child([] {
        ASSERT_TRUE(enter_netns());
        for (const char *cmd : {"link add d1 type bridge", "link add d2 type bridge",
                                "link set d1 up", "link set d2 up", "addr add 10.1.0.1/24 dev d1",
                                "addr add 10.2.0.1/24 dev d2", "route add 239.0.0.0/8 dev d1"})
            ASSERT_TRUE(ip(cmd)) << cmd;
        TempRoot root;
        write_system_info(root);
        root.write("/var/run/trel_protocol.info", settings(kKeyHex, kGroup));
        LogCapture log;
        g_base = event_base_new();
        ASSERT_EQ(trel_protocol_init(1), 0);
        trel_protocol_init_recv(g_base, g_table);
        EXPECT_FALSE(joined("d1", kGroup));

        size_t signals = 0;
        auto usr1 = [&] {
            raise(SIGUSR1);
            signals++;
            return pump([&] { return count(log, "Get DHCP IP") == signals; });
        };
        ASSERT_TRUE(usr1());  // still no address: nothing happens
        EXPECT_EQ(trel_protocol_ctrl.my_ip.s_addr, 0u);
        root.write("/var/run/ipready.br0", "10.1.0.1\n");
        ASSERT_TRUE(usr1());
        EXPECT_EQ(trel_protocol_ctrl.my_ip.s_addr, inet_addr("10.1.0.1"));
        EXPECT_TRUE(joined("d1", kGroup));
        int fd = trel_protocol_ctrl.sock, v = 0;
        unsigned char b = 0xff;
        socklen_t len = sizeof v;
        EXPECT_TRUE(getsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &v, &len) == 0 && v == 1);
        EXPECT_TRUE(getsockopt(fd, SOL_SOCKET, SO_BROADCAST, &v, &len) == 0 && v == 1);
        len = 1;
        EXPECT_TRUE(getsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &b, &len) == 0 && b == 0);
        struct sockaddr_in local = {};
        len = sizeof local;
        getsockname(fd, reinterpret_cast<sockaddr *>(&local), &len);
        EXPECT_EQ(ntohs(local.sin_port), TREL_PROTOCOL_PORT);
        ASSERT_TRUE(usr1());  // same address: no re-join
        EXPECT_EQ(count(log, "my_ip is 10.1.0.1"), 1u);

        // The group now reaches the service.
        send_udp(dgram(99, 9, "via group"), kGroup, "10.1.0.1");
        EXPECT_TRUE(pump([] { return !g_calls.empty(); }));
        EXPECT_EQ(g_calls, std::vector<std::string>{"stop:via group"});

        root.write("/var/run/ipready.br0", "10.2.0.1\n");
        ASSERT_TRUE(usr1());
        EXPECT_TRUE(joined("d2", kGroup));
        EXPECT_FALSE(joined("d1", kGroup));
        EXPECT_FALSE(log.contains("set multicast socket fail")) << log.text();

        // Sending: out of the bridge interface, TTL 64, from and to port 48000.
        Capture cap("d2", TREL_PROTOCOL_PORT);
        ASSERT_TRUE(cap.ok());
        EXPECT_EQ(trel_protocol_send("abc", 3, 11, 12, 1), 56);
        Packet got;
        ASSERT_TRUE(cap.next(got, 5000));
        EXPECT_EQ(got.ttl, 64);
        EXPECT_EQ(got.sport, TREL_PROTOCOL_PORT);
        EXPECT_EQ(got.dst, inet_addr(kGroup));
        trel_protocol_state c = make_ctrl();
        ASSERT_EQ(got.payload.size(), 56u);
        ASSERT_EQ(dec_payload(56, got.payload.data(), &c), 0);
        EXPECT_EQ(host_hdr(got.payload.data()).method, 11);
        EXPECT_EQ(host_hdr(got.payload.data()).type, 12);
        EXPECT_EQ(memcmp(&got.payload[40], "abc", 3), 0);

        trel_protocol_deinit();
        EXPECT_FALSE(joined("d2", kGroup));
        log.clear();
        EXPECT_EQ(trel_protocol_send("abc", 3, 11, 12, 1), -1);
        EXPECT_TRUE(log.contains(
            "failed to send message (method: 11, type: 12, len: 56), Bad file descriptor"));
        event_base_free(g_base);
    });
}
