// The multicast service: one UDP socket on port 48000 joined to the site's
// group on the bridge address, read and SIGUSR1 events on the caller's
// libevent base, and dispatch of accepted datagrams to the handler table.
#include <arpa/inet.h>
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <event2/event.h>

#include <trel/core.h>

#include "core/path_root.h"
#include "core/socket.h"
#include "protocol/internal.h"
#include "protocol/wire.h"

using namespace trel::proto;

namespace {

constexpr const char kSettingsPath[] = "/var/run/trel_protocol.info";
constexpr const char kSystemInfoPath[] = "/proc/trelhal/system.info";
constexpr const char kBridgeIpPath[] = "/var/run/ipready.br0";

trel_protocol_handler *g_handlers = nullptr;
struct event *g_read_ev = nullptr;
struct event *g_signal_ev = nullptr;
// The membership last joined, kept for dropping it.
struct ip_mreq g_mreq;

// The bridge address when the run-state file holds a usable one.
bool read_bridge_ip(struct in_addr *out) noexcept {
    char buf[64];
    freadline(kBridgeIpPath, buf, sizeof buf, "0.0.0.0");
    struct in_addr a;
    if (inet_aton(buf, &a) == 0 || a.s_addr == INADDR_ANY) return false;
    *out = a;
    return true;
}

const char *ntop(struct in_addr a, char *buf, size_t size) noexcept {
    return inet_ntop(AF_INET, &a, buf, (socklen_t)size);
}

int set_opt(int level, int name, const void *value, socklen_t len) noexcept {
    return setsockopt(trel_protocol_ctrl.sock, level, name, value, len);
}

int trel_multicast_socket_init() noexcept {
    auto &c = trel_protocol_ctrl;
    const unsigned char ttl = 64, loop = 0;
    if (set_opt(IPPROTO_IP, IP_MULTICAST_IF, &c.my_ip, sizeof c.my_ip) < 0) {
        int e = errno;
        TREL_ERR(kModule, "unable to set mcast local ip, %s", strerror(e));
        errno = e;
        return -1;
    }
    if (set_opt(IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) < 0) {
        int e = errno;
        TREL_ERR(kModule, "unable to set mcast ttl, %s", strerror(e));
        errno = e;
        return -2;
    }
    if (set_opt(IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop) < 0) {
        int e = errno;
        TREL_ERR(kModule, "unable to set mcast loop, %s", strerror(e));
        errno = e;
        return -3;
    }
    g_mreq.imr_multiaddr = c.mcast_ip;
    g_mreq.imr_interface = c.my_ip;
    if (set_opt(IPPROTO_IP, IP_ADD_MEMBERSHIP, &g_mreq, sizeof g_mreq) < 0) {
        int e = errno;
        TREL_ERR(kModule, "unable to add membership, %s", strerror(e));
        errno = e;
        return -4;
    }
    return 0;
}

// Kept: leaves the group with the interface set to any, whatever interface was
// joined: the bridge address may have changed since the join.
void trel_multicast_socket_deinit() noexcept {
    g_mreq.imr_interface.s_addr = htonl(INADDR_ANY);
    if (set_opt(IPPROTO_IP, IP_DROP_MEMBERSHIP, &g_mreq, sizeof g_mreq) < 0)
        TREL_ERR(kModule, "unable to drop membership, %s", strerror(errno));
}

void trel_protocol_recv(evutil_socket_t fd, short, void *) noexcept {
    // One spare zero byte: the payload is logged as a string and is not
    // terminated.
    alignas(8) uint8_t buf[kMaxDgram + 1] = {};
    struct sockaddr_in from;
    socklen_t from_len = sizeof from;
    ssize_t n = recvfrom(fd, buf, kMaxDgram, 0, reinterpret_cast<sockaddr *>(&from), &from_len);
    if (n < 0) {
        if (errno != EINTR && errno != EAGAIN)
            TREL_ERR(kModule, "recvfrom failed: %s", strerror(errno));
        return;
    }
    int rc = dec_payload((int32_t)n, buf, &trel_protocol_ctrl);
    if (rc == 1) {
        TREL_ERR(kModule, "failed to decrypt the message: %d", rc);
        return;
    }
    if (rc != 0) return;
    uint8_t *payload = buf + kHdrLen;
    TREL_DBG(kModule, "[%s]", reinterpret_cast<char *>(payload));
    uint16_t method = load_host16(buf + kOffMethod);
    for (trel_protocol_handler *h = g_handlers; h != nullptr && h->handler != nullptr; h++)
        if (h->method == method) h->handler(payload);
    trel_protocol_ctrl.last_seq = load_host16(buf + kOffSeq);
}

void trel_usr1_handler(evutil_socket_t, short, void *) noexcept {
    TREL_INFO(kModule, "%s", "Get DHCP IP");
    auto &c = trel_protocol_ctrl;
    struct in_addr ip;
    if (!read_bridge_ip(&ip) || ip.s_addr == c.my_ip.s_addr) return;
    c.my_ip = ip;
    char text[INET_ADDRSTRLEN];
    TREL_INFO(kModule, "my_ip is %s", ntop(ip, text, sizeof text));
    trel_multicast_socket_deinit();
    if (trel_multicast_socket_init() != 0)
        TREL_ERR(kModule, "set multicast socket fail, %s", strerror(errno));
}

void free_event(struct event *&ev) noexcept {
    if (ev != nullptr) event_free(ev);
    ev = nullptr;
}

}  // namespace

namespace trel::proto {

void reset_ctrl() noexcept {
    memset(&trel_protocol_ctrl, 0, sizeof trel_protocol_ctrl);
    trel_protocol_ctrl.sock = -1;
}

void load_mac() noexcept {
    char serial[64];
    freadvalue(kSystemInfoPath, "serialno", serial, sizeof serial, "000000000000");
    hex2uchar(serial, trel_protocol_ctrl.mac, sizeof trel_protocol_ctrl.mac);
}

bool load_settings(const char *origin, const char *path, bool mcip_required, cfg_entry **cfg,
                   const char **mcip) noexcept {
    *cfg = nullptr;
    *mcip = nullptr;
    if (trel::path_access(path, R_OK) != 0) {
        TREL_PROTO_LOG(0u, 3, origin, "Unable to access %s: %s", path, strerror(errno));
        return false;
    }
    *cfg = parse(path);
    if (*cfg == nullptr) {
        TREL_PROTO_LOG(0u, 3, origin, "Unable to parse %s", path);
        return false;
    }
    const char *key = get_value(*cfg, nullptr, "morna.key");
    *mcip = get_value(*cfg, nullptr, "morna.mcip");
    if (key == nullptr) {
        TREL_PROTO_LOG(0u, 3, origin, "no %s", "morna.key");
        return false;
    }
    if (*mcip == nullptr) {
        if (mcip_required) {
            TREL_PROTO_LOG(0u, 3, origin, "no %s", "morna.mcip");
            return false;
        }
        TREL_PROTO_LOG(3u, 6, origin, "no %s", "morna.mcip");
    }
    size_t len = strlen(key);
    if (len != 32) {
        TREL_PROTO_LOG(0u, 3, origin, "%s invalid len %zd", "morna.key", (ssize_t)len);
        return false;
    }
    hex2uchar(key, trel_protocol_ctrl.key, sizeof trel_protocol_ctrl.key);
    return true;
}

}  // namespace trel::proto

TREL_API int trel_protocol_init(int32_t open_socket) noexcept {
    auto &c = trel_protocol_ctrl;
    cfg_entry *cfg = nullptr;
    const char *mcip = nullptr;
    char text[INET_ADDRSTRLEN];
    struct sockaddr_in local;
    const int one = 1;

    reset_ctrl();
    load_mac();
    TREL_INFO(kModule, "TREL_DEVICE[%02x:%02x:%02x:%02x:%02x:%02x]", c.mac[0], c.mac[1], c.mac[2],
              c.mac[3], c.mac[4], c.mac[5]);
    if (!load_settings(__func__, kSettingsPath, open_socket != 0, &cfg, &mcip)) goto fail;

    if (open_socket != 0) {
        if (inet_aton(mcip, &c.mcast_ip) == 0) {
            TREL_ERR(kModule, "%s=%s is not valid", "morna.mcip", mcip);
            goto fail;
        }
        TREL_INFO(kModule, "mcast_ip is %s", ntop(c.mcast_ip, text, sizeof text));
        c.sock = trel::open_socket(AF_INET, SOCK_DGRAM);
        if (c.sock < 0) {
            TREL_ERR(kModule, "unable to create udp socket, %s", strerror(errno));
            goto fail;
        }
        if (set_opt(SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) < 0) {
            TREL_ERR(kModule, "unable to set sockopt reuseaddr socket, %s", strerror(errno));
            goto fail;
        }
        if (set_opt(SOL_SOCKET, SO_BROADCAST, &one, sizeof one) < 0) {
            TREL_ERR(kModule, "can't set socket broadcast");
            goto fail;
        }
        memset(&local, 0, sizeof local);
        local.sin_family = AF_INET;
        local.sin_port = htons(kPort);
        local.sin_addr.s_addr = htonl(INADDR_ANY);
        if (bind(c.sock, reinterpret_cast<sockaddr *>(&local), sizeof local) < 0) {
            TREL_ERR(kModule, "unable to bind trel socket, %s", strerror(errno));
            goto fail;
        }
        struct in_addr ip;
        if (read_bridge_ip(&ip)) {
            c.my_ip = ip;
            TREL_INFO(kModule, "my_ip is %s", ntop(ip, text, sizeof text));
            if (trel_multicast_socket_init() != 0) {
                TREL_ERR(kModule, "set multicast socket fail, %s", strerror(errno));
                goto fail;
            }
        }
    }
    c.initialized = 1;
    c.encrypt = 1;
    free_cfg(cfg);
    TREL_INFO(kModule, "trel_protocol init done");
    return 0;

fail:
    free_cfg(cfg);
    trel_protocol_deinit();
    TREL_ERR(kModule, "could not start trel-protocol");
    return -1;
}

TREL_API int trel_protocol_init_recv(struct event_base *base,
                                     trel_protocol_handler *handlers) noexcept {
    g_handlers = handlers;
    // A second call replaces the events of the first.
    free_event(g_read_ev);
    free_event(g_signal_ev);
    // Kept: event_new and event_add are not checked and the answer is 0 always;
    // callers treat this call as one that cannot fail.
    g_read_ev =
        event_new(base, trel_protocol_ctrl.sock, EV_READ | EV_PERSIST, trel_protocol_recv, nullptr);
    event_add(g_read_ev, nullptr);
    g_signal_ev = event_new(base, SIGUSR1, EV_SIGNAL | EV_PERSIST, trel_usr1_handler, nullptr);
    event_add(g_signal_ev, nullptr);
    return 0;
}

TREL_API int trel_protocol_send(const void *payload, int32_t len, uint16_t method, uint16_t type,
                                int32_t encrypt) noexcept {
    auto &c = trel_protocol_ctrl;
    uint8_t *d = gen_payload(payload, len, method, type, encrypt, &c);
    if (d == nullptr) {
        TREL_ERR(kModule, "fill_trel_payload fail");
        return -1;
    }
    size_t size = kHdrLen + get16(d + kOffLength);
    struct sockaddr_in to;
    memset(&to, 0, sizeof to);
    to.sin_family = AF_INET;
    to.sin_port = htons(kPort);
    to.sin_addr = c.mcast_ip;
    ssize_t sent = sendto(c.sock, d, size, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    if (sent < 0)
        TREL_ERR(kModule, "failed to send message (method: %d, type: %d, len: %d), %s", method,
                 type, (int)size, strerror(errno));
    free(d);
    return (int)sent;
}

TREL_API void trel_protocol_deinit(void) noexcept {
    g_handlers = nullptr;
    // Events go before their descriptor is closed.
    free_event(g_read_ev);
    free_event(g_signal_ev);
    if (trel_protocol_ctrl.sock >= 0) {
        trel_multicast_socket_deinit();
        close(trel_protocol_ctrl.sock);
    }
    reset_ctrl();
}
