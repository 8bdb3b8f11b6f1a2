// Unix-domain datagram sockets: a server bound to a well-known path, or a
// client bound to a private path under /var/run and connected to a server.
// Socket paths are used as given (no path root).
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <trel/ipc.h>

#include "core/log.h"
#include "core/socket.h"

namespace {

constexpr char kModule[] = "uds";
constexpr size_t kPathSize = sizeof(sockaddr_un::sun_path);  // 108
static_assert(kPathSize == 108);

// Family plus the path without its terminating NUL.
socklen_t address_length(const sockaddr_un &addr) noexcept {
    return (socklen_t)(strnlen(addr.sun_path, kPathSize) + 2);
}

}  // namespace

TREL_API int uds_socket_create(const char *path, uds_sock *sock, int32_t is_server) noexcept {
    if (sock != nullptr) sock->sock = -1;
    if (sock == nullptr || path == nullptr) {
        TREL_ERR(kModule, "invalid parameter");
        return -1;
    }
    int fd = trel::open_socket(AF_UNIX, SOCK_DGRAM);
    if (fd < 0) {
        TREL_ERR(kModule, "uds socket error, errno:%d/%s", errno, strerror(errno));
        return -1;
    }

    char name[kPathSize];
    if (is_server)
        snprintf(name, sizeof name, "%s", path);
    else
        snprintf(name, sizeof name, "/var/run/uds_client-%d-%d", (int)getpid(), rand() & 0xFFFF);
    unlink(name);

    memset(&sock->local, 0, sizeof sock->local);
    sock->local.sun_family = AF_UNIX;
    memcpy(sock->local.sun_path, name, sizeof name);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&sock->local), address_length(sock->local)) !=
        0) {
        int err = errno;
        TREL_ERR(kModule, "bind error, path:%s, errno:%d/%s", sock->local.sun_path, err,
                 strerror(err));
        unlink(name);
        close(fd);
        errno = err;
        return -1;
    }
    if (is_server) {
        sock->sock = fd;
        return fd;
    }

    memset(&sock->peer, 0, sizeof sock->peer);
    sock->peer.sun_family = AF_UNIX;
    snprintf(sock->peer.sun_path, kPathSize, "%s", path);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&sock->peer), address_length(sock->peer)) !=
        0) {
        int err = errno;
        TREL_ERR(kModule, "connect error, path:%s, errno:%d/%s", sock->peer.sun_path, err,
                 strerror(err));
        unlink(name);
        close(fd);
        errno = err;
        return -1;
    }
    sock->sock = fd;
    return fd;
}

TREL_API int uds_sock_open_server(const char *path, uds_sock *sock) noexcept {
    return uds_socket_create(path, sock, 1);
}

TREL_API int uds_sock_open_client(const char *server_path, uds_sock *sock) noexcept {
    return uds_socket_create(server_path, sock, 0);
}

TREL_API int uds_get_sock(uds_sock *sock) noexcept { return sock != nullptr ? sock->sock : -1; }

TREL_API void uds_sock_close(uds_sock *sock) noexcept {
    if (sock == nullptr) return;
    if (sock->local.sun_path[0] != '\0') {
        char name[kPathSize + 1];
        memcpy(name, sock->local.sun_path, kPathSize);
        name[kPathSize] = '\0';
        unlink(name);
    }
    // Kept: sock keeps the closed descriptor's number, not -1; callers reset or
    // reopen the record themselves.
    if (sock->sock >= 0) close(sock->sock);
}
