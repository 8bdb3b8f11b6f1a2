#include "proto_test.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <openssl/evp.h>
#include <zlib.h>

namespace proto_test {

const uint8_t kKey[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                          0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
const char kKeyHex[] = "00112233445566778899aabbccddeeff";
const uint8_t kMac[6] = {0x02, 0xa1, 0xb2, 0xc3, 0xd4, 0xe5};

Bytes aes_cbc(bool enc, const uint8_t key[16], const uint8_t iv[16], const uint8_t *data,
              size_t n) {
    Bytes out(n + 16);
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    int len = 0, fin = 0;
    EVP_CipherInit_ex(ctx, EVP_aes_128_cbc(), nullptr, key, iv, enc ? 1 : 0);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_CipherUpdate(ctx, out.data(), &len, data, (int)n);
    EVP_CipherFinal_ex(ctx, out.data() + len, &fin);
    EVP_CIPHER_CTX_free(ctx);
    out.resize((size_t)(len + fin));
    return out;
}

static void put16(Bytes &b, size_t off, uint16_t v) {
    b[off] = (uint8_t)(v >> 8);
    b[off + 1] = (uint8_t)v;
}
static void put32(Bytes &b, size_t off, uint32_t v) {
    for (int i = 0; i < 4; i++) b[off + (size_t)i] = (uint8_t)(v >> (24 - 8 * i));
}

Bytes build(const Dgram &d, const uint8_t key[16]) {
    Bytes body = d.plain;
    if (d.pad_value < 0) {
        if (!body.empty())
            body.insert(body.end(), 16 - body.size() % 16, (uint8_t)(16 - body.size() % 16));
    } else {
        body.insert(body.end(), (size_t)d.pad_value, (uint8_t)d.pad_value);
    }
    uint32_t crc = (uint32_t)crc32(0, body.data(), (uInt)body.size()) + (uint32_t)d.crc_delta;
    Bytes out(40, 0);
    put32(out, 0, d.magic);
    out[4] = d.version;
    out[5] = d.flags;
    put16(out, 6, (uint16_t)body.size());
    put16(out, 8, d.method);
    put16(out, 10, d.type);
    memcpy(&out[12], d.iv, 16);
    memcpy(&out[28], kMac, 6);
    put16(out, 34, (uint16_t)(d.seq << 4));
    put32(out, 36, crc);
    if (d.encrypt && !body.empty()) body = aes_cbc(true, key, d.iv, body.data(), body.size());
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

uint16_t be16(const uint8_t *p) { return (uint16_t)(p[0] << 8 | p[1]); }
uint32_t be32(const uint8_t *p) {
    return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

trel_protocol_state make_ctrl() {
    trel_protocol_state c;
    memset(&c, 0, sizeof c);
    c.sock = -1;
    c.last_seq = 0xfff;  // no test datagram repeats it by accident
    c.initialized = c.encrypt = 1;
    memcpy(c.key, kKey, 16);
    memcpy(c.mac, kMac, 6);
    return c;
}

trel_protocol_hdr host_hdr(const uint8_t *d) {
    trel_protocol_hdr h;
    memcpy(&h, d, sizeof h);
    return h;
}

std::string settings(const std::string &key, const std::string &mcip) {
    std::string s = "# settings\n";
    if (!key.empty()) s += "morna.key=" + key + "\n";
    if (!mcip.empty()) s += "morna.mcip=" + mcip + "\n";
    return s + "morna.version=1\n";
}

void write_system_info(const trel_test::TempRoot &root) {
    root.write("/proc/trelhal/system.info",
               "vendorid=0x7a1e\nserialno=02A1B2C3D4E5\nboardrevision=12\n");
}

bool netns_available() {
    pid_t pid = fork();
    if (pid == 0) _exit(unshare(CLONE_NEWNET) == 0 ? 0 : 1);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool enter_netns() {
    if (unshare(CLONE_NEWNET) != 0) return false;
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    strcpy(ifr.ifr_name, "lo");
    bool ok = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
    ifr.ifr_flags |= IFF_UP;
    ok = ok && ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
    close(fd);
    return ok;
}

bool ip(const std::string &args) {
    std::string cmd = "ip " + args + " >/dev/null 2>&1";
    return system(cmd.c_str()) == 0;
}

Capture::Capture(const char *ifname, uint16_t port) : port_(port) {
    fd_ = socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_ALL));
    if (fd_ < 0) return;
    struct sockaddr_ll sll;
    memset(&sll, 0, sizeof sll);
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(ETH_P_ALL);
    sll.sll_ifindex = (int)if_nametoindex(ifname);
    if (sll.sll_ifindex == 0 || bind(fd_, reinterpret_cast<sockaddr *>(&sll), sizeof sll) != 0) {
        close(fd_);
        fd_ = -1;
    }
}

Capture::~Capture() {
    if (fd_ >= 0) close(fd_);
}

bool Capture::next(Bytes &payload, int timeout_ms, int *ttl, uint16_t *src_port, uint32_t *dst) {
    for (;;) {
        struct pollfd p = {fd_, POLLIN, 0};
        if (poll(&p, 1, timeout_ms) <= 0) return false;
        uint8_t buf[2048];
        struct sockaddr_ll from;
        socklen_t flen = sizeof from;
        ssize_t n = recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &flen);
        if (n < (ssize_t)sizeof(struct iphdr) || ntohs(from.sll_protocol) != ETH_P_IP) continue;
        auto *iph = reinterpret_cast<const struct iphdr *>(buf);
        size_t ihl = (size_t)iph->ihl * 4;
        if (iph->protocol != IPPROTO_UDP || (size_t)n < ihl + sizeof(struct udphdr)) continue;
        auto *udp = reinterpret_cast<const struct udphdr *>(buf + ihl);
        if (ntohs(udp->dest) != port_) continue;
        size_t ulen = ntohs(udp->len);
        if (ulen < sizeof(struct udphdr) || ihl + ulen > (size_t)n) continue;
        payload.assign(buf + ihl + sizeof(struct udphdr), buf + ihl + ulen);
        if (ttl != nullptr) *ttl = iph->ttl;
        if (src_port != nullptr) *src_port = ntohs(udp->source);
        if (dst != nullptr) *dst = iph->daddr;
        return true;
    }
}

}  // namespace proto_test
