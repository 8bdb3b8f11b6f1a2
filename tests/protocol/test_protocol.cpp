// Discovery protocol: datagrams built by hand (OpenSSL AES, zlib CRC) against
// dec_payload, gen_payload's layout, bad input of every length, the service
// on real sockets inside a libevent loop, and the client's datagram on the
// wire of a bridge in a private network namespace.
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <event2/event.h>
#include <openssl/evp.h>
#include <zlib.h>

#include "trel_test.h"

using trel_test::LogCapture;

namespace {

using Bytes = std::vector<uint8_t>;
const uint8_t kKey[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                          0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
const uint8_t kMac[6] = {0x02, 0xa1, 0xb2, 0xc3, 0xd4, 0xe5};
constexpr char kKeyHex[] = "00112233445566778899aabbccddeeff", kGroup[] = "239.1.2.3";

uint16_t be16(const uint8_t *p) { return (uint16_t)(p[0] << 8 | p[1]); }
uint32_t be32(const uint8_t *p) { return (uint32_t)be16(p) << 16 | be16(p + 2); }

// AES-128-CBC under kKey without padding.
Bytes aes(bool enc, const uint8_t iv[16], const uint8_t *data, size_t n) {
    Bytes out(n);
    int len = 0;
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex(ctx, EVP_aes_128_cbc(), nullptr, kKey, iv, enc ? 1 : 0);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_CipherUpdate(ctx, out.data(), &len, data, (int)n);
    EVP_CIPHER_CTX_free(ctx);
    return out;
}

// A hand-built datagram, by default valid and encrypted under kKey.
// pad -1 pads the usual way, else appends pad bytes of value pad.  forged
// leaves the body in clear: what a sender without the key can make.
struct Dgram {
    Bytes plain;
    uint16_t method = 1, type = 7, seq = 0x123;
    uint8_t version = 2, flags = 0x02;
    uint32_t magic = 0x22334455;
    int pad = -1;
    uint32_t crc_delta = 0;
    bool forged = false;
    uint8_t iv[16] = {15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0};
};

Bytes build(const Dgram &d) {
    Bytes body = d.plain, out;
    size_t pad = d.pad >= 0 ? (size_t)d.pad : body.empty() ? 0 : 16 - body.size() % 16;
    body.insert(body.end(), pad, (uint8_t)pad);
    uint32_t crc = (uint32_t)crc32(0, body.data(), (uInt)body.size()) + d.crc_delta;
    auto put = [&out](uint32_t v, int n) {
        for (int s = 8 * (n - 1); s >= 0; s -= 8) out.push_back((uint8_t)(v >> s));
    };
    put(d.magic, 4), put(d.version, 1), put(d.flags, 1), put((uint32_t)body.size(), 2);
    put(d.method, 2), put(d.type, 2);
    out.insert(out.end(), d.iv, d.iv + 16);
    out.insert(out.end(), kMac, kMac + 6);
    put((uint32_t)d.seq << 4, 2), put(crc, 4);
    if (!body.empty() && !d.forged) body = aes(true, d.iv, body.data(), body.size());
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Bytes text_dgram(uint16_t method, uint16_t seq, const std::string &text) {
    return build(Dgram{Bytes(text.begin(), text.end()), method, 7, seq});
}

// A record with kKey and kMac, as dec_payload and gen_payload read it.
trel_protocol_state make_ctrl() {
    trel_protocol_state c = {};
    c.last_seq = 0xfff;  // repeated by no test datagram unless meant to
    memcpy(c.key, kKey, 16);
    memcpy(c.mac, kMac, 6);
    return c;
}

const trel_protocol_hdr &hdr(const Bytes &d) {
    return *reinterpret_cast<const trel_protocol_hdr *>(d.data());
}

// dec_payload on a copy left in out.
int dec(const Bytes &in, Bytes &out, const trel_protocol_state &c) {
    out = in;
    return dec_payload((int32_t)out.size(), out.data(), &c);
}

Bytes owned(uint8_t *d) {
    Bytes b(d, d + 40 + be16(d + 6));
    free(d);
    return b;
}

// Whether trel_protocol_ctrl is zero with sock -1, as deinit leaves it.
bool record_is_reset() {
    trel_protocol_state zero = {};
    zero.sock = -1;
    return memcmp(&trel_protocol_ctrl, &zero, sizeof zero) == 0;
}

std::string settings(const std::string &key, const std::string &mcip) {
    return (key.empty() ? "" : "morna.key=" + key + "\n") +
           (mcip.empty() ? "" : "morna.mcip=" + mcip + "\n") + "morna.version=1\n";
}

// A temporary root holding the device's system information.
struct Device : trel_test::TempRoot {
    Device() { write("/proc/trelhal/system.info", "vendorid=0x7a1e\nserialno=02A1B2C3D4E5\n"); }
};

bool ip(const std::string &args) {
    return system(("ip " + args + " >/dev/null 2>&1").c_str()) == 0;
}

size_t count(const LogCapture &log, const std::string &needle) {
    size_t n = 0;
    for (const auto &l : log.lines()) n += l.find(needle) != std::string::npos;
    return n;
}

std::vector<std::string> g_calls;
struct event_base *g_base = nullptr;

// Records "<name>:<payload>".
template <char Name>
void on(void *payload) {
    auto *p = static_cast<char *>(payload);
    auto *h = reinterpret_cast<const trel_protocol_hdr *>(p - 40);
    g_calls.push_back(std::string{Name, ':'} + std::string(p, h->length));
}
trel_protocol_handler g_table[] = {
    {on<'a'>, 7}, {on<'b'>, 7}, {on<'c'>, 5}, {on<'d'>, 99}, {nullptr, 0}};

// Runs the loop until cond holds, for about five seconds at most.
bool pump(const std::function<bool()> &cond) {
    for (int i = 0; i < 5000 && !cond(); i++) {
        event_base_loop(g_base, EVLOOP_NONBLOCK);
        usleep(1000);
    }
    return cond();
}

// The next option-less IPv4 packet carrying UDP to port 48000 seen on fd.
Bytes capture_next(int fd, int timeout_ms) {
    uint8_t b[2048];
    struct pollfd pfd = {fd, POLLIN, 0};
    while (poll(&pfd, 1, timeout_ms) > 0) {
        ssize_t n = recv(fd, b, sizeof b, 0);
        if (n >= 28 && b[0] == 0x45 && b[9] == IPPROTO_UDP && be16(&b[22]) == TREL_PROTOCOL_PORT)
            return Bytes(b, b + std::min((size_t)n, (size_t)be16(&b[2])));
    }
    return {};
}

}  // namespace

TEST(Payload, HandBuiltAndGenerated) {
    trel_protocol_state c = make_ctrl();
    LogCapture log;
    Bytes out;
    const Dgram d{{'h', 'e', 'l', 'l', 'o'}, 0x0102, 0x0304, 0xabc};
    Bytes w = build(d);
    Dgram f = d;  // "hello" and pad 1 in clear with their CRC: 6 bytes, not a whole block
    f.pad = 1, f.forged = true;
    Bytes forged = build(f);
    for (int level : {15, 16}) {  // the debug messages need more than 15
        libtrel_log_level = level;
        log.clear();
        for (int32_t n : {55, 57}) {  // size one off: refused before the header is touched
            out = w;
            out.push_back(0);
            EXPECT_EQ(dec_payload(n, out.data(), &c), 1);
            EXPECT_EQ(memcmp(out.data(), w.data(), 40), 0);
        }
        EXPECT_EQ(dec(forged, out, c), 1);
        EXPECT_EQ(log.contains("libtrel.dec_payload(): packet length check fail"), level > 15);
        EXPECT_EQ(log.contains("libtrel.dec_payload(): hdr=" +
                               std::to_string((int)be32(&forged[36])) + ", crc32="),
                  level > 15);
    }
    ASSERT_EQ(dec(w, out, c), 0);
    EXPECT_EQ(hdr(out).type, 0x0304);
    EXPECT_EQ(hdr(out).seq, 0xabc);
    EXPECT_EQ(Bytes(&out[40], &out[46]), Bytes({'h', 'e', 'l', 'l', 'o', 11}));  // no terminator

    // Edits of that datagram; the length field is left unpadded on acceptance.
    const struct {
        const char *what;
        int rc, length;
        void (*edit)(Dgram &);
    } rows[] = {
        {"a whole block of padding", 0, 16, [](Dgram &x) { x.plain.assign(16, 'x'); }},
        {"pad 0 removes nothing", 0, 32, [](Dgram &x) { x.plain.assign(32, 0), x.pad = 0; }},
        {"nothing but padding", 0, 0, [](Dgram &x) { x.plain.clear(), x.pad = 16; }},
        {"version 3", 0, 5, [](Dgram &x) { x.version = 3; }},
        {"version 1", 1, 16, [](Dgram &x) { x.version = 1; }},
        {"magic", 1, 16, [](Dgram &x) { x.magic = 0x22334456; }},
        {"clear flag", 1, 16, [](Dgram &x) { x.flags = 0x01; }},
        {"crc", 1, 16, [](Dgram &x) { x.crc_delta = 1; }},
        {"bad pad byte", 1, 32,
         [](Dgram &x) { x.plain.assign(32, 1), x.plain[31] = 5, x.pad = 0; }},
        {"pad above length", 1, 16, [](Dgram &x) { x.plain.assign(16, 0x11), x.pad = 0; }},
        {"repeat before magic", 2, 16, [](Dgram &x) { x.seq = 0x321, x.magic = 0; }},
        // Forged without the key, at lengths the cipher refuses: never accepted.
        {"forged 1", 1, 1, [](Dgram &x) { x.plain.clear(), x.pad = 1, x.forged = true; }},
        {"forged 17", 1, 17, [](Dgram &x) { x.plain.assign(16, 'f'), x.pad = 1, x.forged = true; }},
    };
    c.last_seq = 0x321;
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        Dgram x = d;
        r.edit(x);
        EXPECT_EQ(dec(build(x), out, c), r.rc);
        EXPECT_EQ(hdr(out).length, r.length);  // converted in any case
    }
    Dgram x = d;
    for (x.seq = 0x321, x.method = 0; x.method < 12; x.method++) {  // 3, 5 and 6 never repeat
        SCOPED_TRACE("method " + std::to_string(x.method));
        EXPECT_EQ(dec(build(x), out, c), x.method == 3 || x.method == 5 || x.method == 6 ? 0 : 2);
    }

    // gen_payload's layout, read back with the reference cipher.
    c.send_seq = 0x1234;  // only the low 12 bits go out
    const uint8_t five[5] = {1, 2, 3, 4, 5};
    Bytes a = owned(gen_payload(five, 5, 0x0a0b, 0x0c0d, 1, &c));
    Bytes b = owned(gen_payload(five, 5, 0x0a0b, 0x0c0d, 1, &c));
    const uint8_t head[] = {0x22, 0x33, 0x44, 0x55, 2, 0x02, 0, 16, 0x0a, 0x0b, 0x0c, 0x0d};
    ASSERT_EQ(a.size(), 56u);
    EXPECT_EQ(Bytes(a.begin(), a.begin() + 12), Bytes(head, head + 12));
    EXPECT_EQ(Bytes(&a[28], &a[34]), Bytes(kMac, kMac + 6));
    EXPECT_EQ(be16(&a[34]), 0x2340);
    EXPECT_NE(Bytes(&a[12], &a[28]), Bytes(&b[12], &b[28])) << "the IV must be fresh per datagram";
    const uint8_t want[16] = {1, 2, 3, 4, 5, 11, 11, 11, 11, 11, 11, 11, 11, 11, 11, 11};
    EXPECT_EQ(aes(false, &a[12], &a[40], 16), Bytes(want, want + 16));
    EXPECT_EQ(be32(&a[36]), (uint32_t)crc32(0, want, 16));
    a = owned(gen_payload(Bytes(16, 0).data(), 16, 1, 2, 1, &c));
    EXPECT_EQ(aes(false, &a[40], &a[56], 16), Bytes(16, 0x10));  // a whole block of padding
    for (int enc : {0, 2}) {  // encrypt 0 sends in clear, encrypt 2 only sets the flag
        SCOPED_TRACE("encrypt " + std::to_string(enc));
        a = owned(gen_payload(five, 5, 1, 2, enc, &c));
        EXPECT_EQ(a[5], enc == 0 ? 0x01 : 0x02);
        EXPECT_EQ(be32(&a[36]), 0u);
        EXPECT_EQ(a.size(), 45u);
    }
    a = owned(gen_payload(nullptr, 0, 1, 2, 1, &c));  // empty: no padding, refused
    EXPECT_EQ(a.size(), 40u);
    EXPECT_EQ(dec(a, out, c), 1);
    EXPECT_EQ(hdr(out).magic, 0x22334455u);  // 40 bytes pass the length check: converted
    EXPECT_EQ(gen_payload(five, -1, 1, 2, 1, &c), nullptr);
    EXPECT_EQ(gen_payload(nullptr, 1, 1, 2, 1, &c), nullptr);
}

// Every received size from 0 to 600 over exactly-sized heap buffers: random
// bytes, with a matching length field, and under a valid header.
TEST(Payload, EveryLengthStaysInBounds) {
    trel_protocol_state c = make_ctrl();
    unsigned seed = 12345;
    Bytes valid = build(Dgram{Bytes(200, 'z')});
    for (int n = 0; n <= 600; n++) {
        for (int variant = 0; variant < 3; variant++) {
            Bytes buf(n);  // exactly sized on the heap
            for (auto &b : buf) b = (uint8_t)rand_r(&seed);
            if (variant == 2 && n > 0) memcpy(buf.data(), valid.data(), std::min(n, 40));
            if (variant > 0 && n >= 40)
                buf[6] = (uint8_t)((n - 40) >> 8), buf[7] = (uint8_t)(n - 40);
            int rc = dec_payload(n, buf.data(), &c);
            EXPECT_TRUE(rc == 1 || rc == 2) << "size " << n << " variant " << variant;
        }
    }
}

// Service and client settings: every failure is logged, leaves the record
// reset and no descriptor open.
TEST(Init, FailuresAndSuccess) {
    trel_test::run_in_child([] {
        unshare(CLONE_NEWNET);  // optional: isolates port 48000 when possible
        ip("link set lo up");
        Device root;
        root.write("/var/run/ipready.br0", "192.0.2.99\n");  // not a local address
        LogCapture log;
        int fds = trel_test::open_fd_count();
        trel_protocol_client_event_mesh_halt_send();  // before any init
        EXPECT_TRUE(log.contains("event_mesh_halt_send(): trel-protocol not initilized"));
        const std::string key(kKeyHex), info = "/var/run/trel_protocol.info",
                                        cfg = "/tmp/system.cfg";
        const struct {
            std::string file, settings;  // empty settings: no file
            int open_socket;             // -1: the client
            std::string message;
        } cases[] = {
            {info, "", 1, "Unable to access /var/run/trel_protocol.info: No such file"},
            {info, "# nothing\n", 1, "Unable to parse /var/run/trel_protocol.info"},
            {info, settings("", kGroup), 1, "no morna.key"},
            {info, settings(key.substr(1), kGroup), 1, "morna.key invalid len 31"},
            {info, settings(key + "0", kGroup), 0, "morna.key invalid len 33"},
            {info, settings(key, ""), 1, "no morna.mcip"},
            {info, settings(key, "239.1.2.300"), 1, "morna.mcip=239.1.2.300 is not valid"},
            {info, settings(key, kGroup), 1, "set multicast socket fail, Cannot assign"},
            {cfg, "", -1, "Unable to access /tmp/system.cfg: No such file"},
            {cfg, settings(key, ""), -1, "no morna.mcip"},
        };
        for (const auto &k : cases) {
            SCOPED_TRACE(k.message);
            // Without IP_MULTICAST_IF the set-up fails one step earlier.
            if (!trel_test::has_multicast_if() && k.message.rfind("set multicast", 0) == 0)
                continue;
            root.remove(k.file);
            if (!k.settings.empty()) root.write(k.file, k.settings);
            log.clear();
            bool client = k.open_socket < 0;
            EXPECT_EQ(client ? trel_protocol_client_init() : trel_protocol_init(k.open_socket), -1);
            std::string fn = client ? "trel_protocol_client_init(): " : "trel_protocol_init(): ";
            EXPECT_TRUE(log.contains("[error] trel_protocol." + fn + k.message)) << log.text();
            EXPECT_TRUE(log.contains(fn + "could not start trel-protocol"));
            EXPECT_TRUE(record_is_reset());
            EXPECT_EQ(trel_test::open_fd_count(), fds);
        }

        root.write(info, settings(key, ""));  // without a socket the group is optional
        log.clear();
        ASSERT_EQ(trel_protocol_init(0), 0);
        EXPECT_EQ(trel_protocol_ctrl.initialized, 1u);
        EXPECT_EQ(trel_protocol_send("abc", 3, 11, 12, 1), -1);  // no socket
        for (const char *line :
             {"[info ] trel_protocol.trel_protocol_init(): no morna.mcip",
              "TREL_DEVICE[02:a1:b2:c3:d4:e5]", "trel_protocol init done",
              "failed to send message (method: 11, type: 12, len: 56), Bad file"})
            EXPECT_TRUE(log.contains(line)) << line;

        // The client takes an unparsable group as 0.0.0.0 and succeeds silently.
        root.write(cfg, settings(key, "not.an.address"));
        ASSERT_EQ(trel_protocol_client_init(), 0);
        EXPECT_EQ(trel_protocol_ctrl.mcast_ip.s_addr, 0u);
        root.write(cfg, settings(key, kGroup));
        log.clear();
        ASSERT_EQ(trel_protocol_client_init(), 0);
        EXPECT_EQ(log.text(), "");
        if (if_nametoindex("br0") != 0) return;       // never send on a real bridge
        trel_protocol_client_event_mesh_halt_send();  // no bridge: the socket step fails
        EXPECT_TRUE(log.contains("client_sock_init(): unable to bind socket to device"));
        EXPECT_TRUE(log.contains("trel_protocol.trel_protocol_client_send(): sock init failed"));
        EXPECT_EQ(trel_protocol_ctrl.sock, -1);
        EXPECT_EQ(trel_test::open_fd_count(), fds);
    });
    if (!trel_test::has_multicast_if())
        GTEST_SKIP() << "no IP_MULTICAST_IF here (qemu-user): the multicast set-up case not run";
}

// Datagrams sent to 127.0.0.1:48000 reach the handlers inside the loop; then,
// in a namespace with bridges, SIGUSR1 moves the group membership and the
// client's mesh-halt is captured on the wire of "br0".
TEST(Network, ServiceAndClient) {
    const bool ns = system("unshare -n true >/dev/null 2>&1") == 0,
               mcast_if = trel_test::has_multicast_if();
    trel_test::run_in_child([ns, mcast_if] {
        ASSERT_TRUE(!ns || (unshare(CLONE_NEWNET) == 0 && ip("link set lo up")));
        Device root;
        root.write("/var/run/trel_protocol.info", settings(kKeyHex, kGroup));
        LogCapture log;
        libtrel_log_level = 8;
        int fds = trel_test::open_fd_count();
        g_base = event_base_new();
        ASSERT_EQ(trel_protocol_init(1), 0);
        EXPECT_EQ(trel_protocol_init_recv(g_base, g_table), 0);

        Bytes bad = text_dgram(7, 2, "corrupt");
        bad[44] ^= 0x80;
        Dgram f{Bytes{'f', 'o', 'r', 'g', 'e', 'd'}, 7, 7, 9};  // in clear, CRC matching
        f.pad = 1, f.forged = true;
        int out = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in to = {AF_INET, htons(TREL_PROTOCOL_PORT), {htonl(INADDR_LOOPBACK)}, {}};
        // The 520-byte one is cut to 512 on receipt.
        for (const Bytes &b : {text_dgram(7, 1, "first"), text_dgram(7, 1, "again"), bad, build(f),
                               build(Dgram{Bytes(470, 'B')}), text_dgram(8, 3, "nobody"),
                               text_dgram(5, 3, "five"), text_dgram(99, 4, "end")})
            EXPECT_EQ(sendto(out, b.data(), b.size(), 0, (sockaddr *)&to, sizeof to),
                      (ssize_t)b.size());
        close(out);
        EXPECT_TRUE(pump([] { return g_calls.size() >= 4; }));
        EXPECT_EQ(g_calls, (std::vector<std::string>{"a:first", "b:first", "c:five", "d:end"}));
        EXPECT_EQ(trel_protocol_ctrl.last_seq, 4);
        EXPECT_EQ(count(log, "trel_protocol_recv(): failed to decrypt the message: 1"), 3u);
        EXPECT_TRUE(log.contains("trel_protocol_recv(): [first"));

        size_t signals = 0;
        auto usr1 = [&] {
            raise(SIGUSR1);
            signals++;
            return pump([&] { return count(log, "Get DHCP IP") == signals; });
        };
        ASSERT_TRUE(usr1());  // no bridge address yet: nothing happens
        if (ns && mcast_if) {
            for (const char *cmd : {"link add d1 up type bridge", "link add d2 up type bridge",
                                    "addr add 10.1.0.1/24 dev d1", "addr add 10.2.0.1/24 dev d2",
                                    "route add 239.0.0.0/8 dev d1"})
                ASSERT_TRUE(ip(cmd)) << cmd;
            auto joined = [](const char *dev) {
                return ip(std::string("maddr show dev ") + dev + " | grep -qw " + kGroup);
            };
            root.write("/var/run/ipready.br0", "10.1.0.1\n");
            ASSERT_TRUE(usr1());
            EXPECT_TRUE(joined("d1"));
            ASSERT_TRUE(usr1());  // same address: no re-join
            EXPECT_EQ(count(log, "my_ip is 10.1.0.1"), 1u);
            root.write("/var/run/ipready.br0", "10.2.0.1\n");
            ASSERT_TRUE(usr1());
            EXPECT_TRUE(joined("d2"));
            EXPECT_FALSE(joined("d1"));
            auto opt = [fd = trel_protocol_ctrl.sock, v = 0, n = (socklen_t)4](int lvl,
                                                                               int name) mutable {
                return getsockopt(fd, lvl, name, &v, &n) == 0 ? v : -1;
            };
            EXPECT_EQ(opt(SOL_SOCKET, SO_REUSEADDR), 1);
            EXPECT_EQ(opt(SOL_SOCKET, SO_BROADCAST), 1);
            EXPECT_EQ(opt(IPPROTO_IP, IP_MULTICAST_TTL), 64);
            EXPECT_EQ(opt(IPPROTO_IP, IP_MULTICAST_LOOP), 0);
            EXPECT_EQ((in_addr_t)opt(IPPROTO_IP, IP_MULTICAST_IF), inet_addr("10.2.0.1"));
            EXPECT_EQ(trel_protocol_send("abc", 3, 11, 12, 1), 56);
            EXPECT_EQ(count(log, "set multicast socket fail"), 0u);
            trel_protocol_deinit();  // an address known at init is joined at once
            ASSERT_EQ(trel_protocol_init(1), 0);
            EXPECT_TRUE(joined("d2"));
        }
        trel_protocol_deinit();
        trel_protocol_deinit();
        EXPECT_TRUE(record_is_reset());
        event_base_free(g_base);
        EXPECT_EQ(trel_test::open_fd_count(), fds);
        if (!ns || !mcast_if) return;

        root.write("/tmp/system.cfg", settings(kKeyHex, kGroup));
        ASSERT_EQ(trel_protocol_client_init(), 0);
        ASSERT_TRUE(ip("link add br0 up type bridge") && ip("addr add 10.3.0.1/24 dev br0"));
        int cap = socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_ALL));  // also sees outgoing frames
        ASSERT_GE(cap, 0);
        trel_protocol_client_event_mesh_halt_send();
        EXPECT_EQ(trel_protocol_ctrl.sock, -1);
        EXPECT_EQ(trel_test::open_fd_count(), fds + 1);  // the capture
        Bytes pkt = capture_next(cap, 5000);
        EXPECT_EQ(capture_next(cap, 0), Bytes()) << "exactly one datagram";
        close(cap);
        ASSERT_EQ(pkt.size(), 28u + 56u) << log.text();
        EXPECT_EQ(pkt[8], 64);                          // TTL
        EXPECT_EQ(be16(&pkt[20]), TREL_PROTOCOL_PORT);  // source port
        EXPECT_EQ(be32(&pkt[16]), ntohl(inet_addr(kGroup)));
        Bytes d;
        ASSERT_EQ(dec(Bytes(pkt.begin() + 28, pkt.end()), d, make_ctrl()), 0);
        EXPECT_EQ(hdr(d).method, 6);
        EXPECT_EQ(hdr(d).type, 3);
        const uint8_t want[16] = {0x02, 0xa1, 0xb2, 0xc3, 0xd4, 0xe5, 0, 0,
                                  0x02, 0x58, 0,    0,    0,    4,    2, 2};
        EXPECT_EQ(Bytes(&d[40], &d[56]), Bytes(want, want + 16));
    });
    if (!ns) GTEST_SKIP() << "the membership and capture parts need root for a network namespace";
    if (!mcast_if)
        GTEST_SKIP()
            << "no IP_MULTICAST_IF here (qemu-user): the membership and capture parts not run";
}
