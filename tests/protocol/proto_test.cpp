#include "proto_test.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <openssl/evp.h>
#include <zlib.h>

namespace proto_test {

const uint8_t kKey[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                          0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
const char kKeyHex[] = "00112233445566778899aabbccddeeff";
const uint8_t kMac[6] = {0x02, 0xa1, 0xb2, 0xc3, 0xd4, 0xe5};

static Bytes aes(bool enc, const uint8_t iv[16], const uint8_t *data, size_t n) {
    Bytes out(n + 16);
    int len = 0, fin = 0;
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex(ctx, EVP_aes_128_cbc(), nullptr, kKey, iv, enc ? 1 : 0);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_CipherUpdate(ctx, out.data(), &len, data, (int)n);
    EVP_CipherFinal_ex(ctx, out.data() + len, &fin);
    EVP_CIPHER_CTX_free(ctx);
    out.resize((size_t)(len + fin));
    return out;
}

Bytes aes_decrypt(const uint8_t iv[16], const uint8_t *data, size_t n) {
    return aes(false, iv, data, n);
}

uint32_t be32(const uint8_t *p) { return (uint32_t)be16(p) << 16 | be16(p + 2); }

Bytes build(const Dgram &d) {
    Bytes body = d.plain;
    size_t pad = d.pad_value >= 0 ? (size_t)d.pad_value : body.empty() ? 0 : 16 - body.size() % 16;
    body.insert(body.end(), pad, (uint8_t)pad);
    uint32_t crc = (uint32_t)crc32(0, body.data(), (uInt)body.size()) + d.crc_delta;
    Bytes out;
    auto put = [&out](uint32_t v, int n) {
        for (int s = 8 * (n - 1); s >= 0; s -= 8) out.push_back((uint8_t)(v >> s));
    };
    put(d.magic, 4), put(d.version, 1), put(d.flags, 1), put((uint32_t)body.size(), 2);
    put(d.method, 2), put(d.type, 2);
    out.insert(out.end(), d.iv, d.iv + 16);
    out.insert(out.end(), kMac, kMac + 6);
    put((uint32_t)d.seq << 4, 2), put(crc, 4);
    if (!body.empty()) body = aes(true, d.iv, body.data(), body.size());
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

trel_protocol_state make_ctrl() {
    trel_protocol_state c = {};
    c.initialized = c.encrypt = 1;
    c.sock = -1;
    c.last_seq = 0xfff;  // repeated by no test datagram unless meant to
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
    return "# settings\n" + (key.empty() ? "" : "morna.key=" + key + "\n") +
           (mcip.empty() ? "" : "morna.mcip=" + mcip + "\n") + "morna.version=1\n";
}

void write_system_info(const trel_test::TempRoot &root) {
    root.write("/proc/trelhal/system.info",
               "vendorid=0x7a1e\nserialno=02A1B2C3D4E5\nboardrevision=12\n");
}

bool netns_available() {
    pid_t pid = fork();
    if (pid == 0) _exit(unshare(CLONE_NEWNET) == 0 ? 0 : 1);
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

bool enter_netns() {
    if (unshare(CLONE_NEWNET) != 0) return false;
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq ifr = {};
    strcpy(ifr.ifr_name, "lo");
    bool ok = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
    ifr.ifr_flags |= IFF_UP;
    ok = ok && ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
    close(fd);
    return ok;
}

bool ip(const std::string &args) {
    return system(("ip " + args + " >/dev/null 2>&1").c_str()) == 0;
}

Capture::Capture(const char *ifname, uint16_t port) : port_(port) {
    fd_ = socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_ALL));  // ETH_P_ALL also sees outgoing
    struct sockaddr_ll sll = {};
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(ETH_P_ALL);
    sll.sll_ifindex = (int)if_nametoindex(ifname);
    if (fd_ >= 0 &&
        (sll.sll_ifindex == 0 || bind(fd_, reinterpret_cast<sockaddr *>(&sll), sizeof sll) != 0)) {
        close(fd_);
        fd_ = -1;
    }
}

Capture::~Capture() {
    if (fd_ >= 0) close(fd_);
}

bool Capture::next(Packet &p, int timeout_ms) {
    uint8_t buf[2048];
    struct pollfd pfd = {fd_, POLLIN, 0};
    while (poll(&pfd, 1, timeout_ms) > 0) {
        ssize_t n = recv(fd_, buf, sizeof buf, 0);
        auto *iph = reinterpret_cast<const struct iphdr *>(buf);
        if (n < 28 || iph->version != 4 || iph->protocol != IPPROTO_UDP) continue;
        size_t ihl = (size_t)iph->ihl * 4;
        auto *udp = reinterpret_cast<const struct udphdr *>(buf + ihl);
        if (ihl + 8 > (size_t)n || ntohs(udp->dest) != port_ || ihl + ntohs(udp->len) > (size_t)n)
            continue;
        p.payload.assign(buf + ihl + 8, buf + ihl + ntohs(udp->len));
        p.ttl = iph->ttl;
        p.sport = ntohs(udp->source);
        p.dst = iph->daddr;
        return true;
    }
    return false;
}

}  // namespace proto_test
