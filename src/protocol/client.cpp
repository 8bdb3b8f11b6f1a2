// One-shot client: settings from the device configuration, one datagram sent
// through a throw-away socket bound to the bridge device.
#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/socket.h"
#include "protocol/internal.h"
#include "protocol/wire.h"

using namespace trel::proto;

namespace {

constexpr const char kSystemCfgPath[] = "/tmp/system.cfg";
constexpr const char kBridge[] = "br0";

// A socket ready to multicast from the bridge, or -1.
int trel_protocol_client_sock_init() noexcept {
    int fd = trel::open_socket(AF_INET, SOCK_DGRAM);
    if (fd < 0) {
        TREL_ERR(kModule, "lcm event socket error, errno:%d/%s", errno, strerror(errno));
        return -1;
    }
    const int one = 1;
    const unsigned char ttl = 64, loop = 0;
    struct in_addr any;
    any.s_addr = htonl(INADDR_ANY);
    struct sockaddr_in local;
    memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_port = htons(kPort);
    local.sin_addr.s_addr = htonl(INADDR_ANY);

    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) < 0) {
        TREL_ERR(kModule, "can't set sockopt reuseaddr, errno:%d/%s", errno, strerror(errno));
    } else if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, kBridge, sizeof kBridge - 1) < 0) {
        TREL_ERR(kModule, "unable to bind socket to device");
    } else if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &any, sizeof any) < 0) {
        TREL_ERR(kModule, "unable to set mcast local ip, errno:%d/%s", errno, strerror(errno));
    } else if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) < 0) {
        TREL_ERR(kModule, "unable to set mcast ttl, errno:%d/%s", errno, strerror(errno));
    } else if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop) < 0) {
        TREL_ERR(kModule, "unable to set mcast loop, errno:%d/%s", errno, strerror(errno));
    } else if (bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local) < 0) {
        TREL_ERR(kModule, "unable to bind sock, errno:%d/%s", errno, strerror(errno));
    } else {
        return fd;
    }
    close(fd);
    return -1;
}

}  // namespace

TREL_API int trel_protocol_client_init(void) noexcept {
    auto &c = trel_protocol_ctrl;
    cfg_entry *cfg = nullptr;
    const char *mcip = nullptr;
    reset_ctrl();
    load_mac();
    if (!load_settings(__func__, kSystemCfgPath, true, &cfg, &mcip)) {
        free_cfg(cfg);
        trel_protocol_deinit();
        TREL_ERR(kModule, "could not start trel-protocol");
        return -1;
    }
    // Kept: an unparsable group is accepted and leaves 0.0.0.0; only a missing
    // one fails the init.
    inet_aton(mcip, &c.mcast_ip);
    c.initialized = 1;
    c.encrypt = 1;
    free_cfg(cfg);
    return 0;
}

TREL_API void trel_protocol_client_send(const void *payload, uint32_t len,
                                        uint16_t method) noexcept {
    auto &c = trel_protocol_ctrl;
    if (c.sock >= 0) close(c.sock);
    int fd = trel_protocol_client_sock_init();
    if (fd < 0) {
        c.sock = -1;
        TREL_ERR(kModule, "sock init failed");
        return;
    }
    c.sock = fd;
    trel_protocol_send(payload, (int32_t)len, method, 3, (int32_t)c.encrypt);
    close(fd);
    c.sock = -1;
}

TREL_API void trel_protocol_client_event_mesh_halt_send(void) noexcept {
    auto &c = trel_protocol_ctrl;
    if (c.initialized == 0) {
        // Kept: "initilized" as it stands; log watchers match it word for word.
        TREL_ERR(kModule, "trel-protocol not initilized");
        return;
    }
    uint8_t payload[14];
    memcpy(payload, c.mac, 6);
    put32(payload + 6, 600);
    put32(payload + 10, (uint32_t)trel_device_identify());
    trel_protocol_client_send(payload, sizeof payload, 6);
}

TREL_API int32_t trel_device_identify(void) noexcept { return 4; }
