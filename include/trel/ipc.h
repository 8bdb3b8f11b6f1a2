/* libtrel local IPC and statistics: Unix-domain datagram sockets, framed
 * messages over sockets, the report and inform-profile lock files, and
 * integer averages with outlier removal. */
#ifndef TREL_IPC_H
#define TREL_IPC_H

#include <stdint.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <trel/common.h>
#include <trel/core.h>

TREL_BEGIN_DECLS

/* ---- Unix-domain datagram sockets ----------------------------------------- */

/* A server socket bound to a well-known path, or a client socket bound to
 * "/var/run/uds_client-<pid>-<n>" and connected to a server's path. */
typedef struct uds_sock uds_sock;
struct uds_sock {
    int32_t sock;             /* descriptor, -1 when not open */
    struct sockaddr_un local; /* the path this socket is bound to */
    struct sockaddr_un peer;  /* client: the server path it is connected to */
};

/* The descriptor, or -1.  Whatever is at the local path is removed before the
 * bind (a stale socket, or any other file), and paths are cut to 107
 * characters. */
int uds_socket_create(const char *path, uds_sock *sock, int32_t is_server) TREL_NOEXCEPT;
int uds_sock_open_server(const char *path, uds_sock *sock) TREL_NOEXCEPT;
int uds_sock_open_client(const char *server_path, uds_sock *sock) TREL_NOEXCEPT;
int uds_get_sock(uds_sock *sock) TREL_NOEXCEPT;
/* Removes the bound path and closes the descriptor; sock keeps its value. */
void uds_sock_close(uds_sock *sock) TREL_NOEXCEPT;

/* ---- Framed socket messages ------------------------------------------------ */

/* On the wire: type and len (8 bytes, host byte order), then len body bytes
 * in chunks of at most 16384 bytes (one datagram each).  One sender per
 * socket: the receiver trusts the header's length and takes each chunk as one
 * datagram, so messages of two senders must not interleave. */
typedef struct sk_msg sk_msg;
struct sk_msg {
    int32_t type;
    int32_t len;
    buffer *buf;
};

int sk_msg_send(int fd, sk_msg *msg, uint32_t timeout) TREL_NOEXCEPT;
int sk_msg_recv(int fd, sk_msg *msg, uint32_t timeout) TREL_NOEXCEPT;
int sk_msg_sendto(int fd, sk_msg *msg, const struct sockaddr *addr,
                  socklen_t addrlen) TREL_NOEXCEPT;
int sk_msg_recvfrom(int fd, sk_msg *msg, struct sockaddr *addr, socklen_t *addrlen) TREL_NOEXCEPT;

/* ---- Lock files shared between processes ----------------------------------- */

int report_lock(void) TREL_NOEXCEPT;
int report_unlock(void) TREL_NOEXCEPT;
int report_locked(void) TREL_NOEXCEPT;
int inform_profile_lock(void) TREL_NOEXCEPT;
int inform_profile_unlock(void) TREL_NOEXCEPT;

/* ---- Averages and outliers -------------------------------------------------- */

typedef struct trel_avg trel_avg;
struct trel_avg {
    int64_t sum;   /* sum of (weighted) samples */
    int64_t count; /* number of samples, or sum of weights */
    int32_t avg;   /* last result of trel_avg_compute */
};

int64_t trel_avg_round(int64_t sum, int64_t count) TREL_NOEXCEPT;
int64_t trel_avg_array(const int64_t *values, uint64_t n) TREL_NOEXCEPT;
void trel_avg_inc(trel_avg *avg, int32_t sample) TREL_NOEXCEPT;
void trel_avg_inc_weighted(trel_avg *avg, int32_t sample, int32_t weight) TREL_NOEXCEPT;
int32_t trel_avg_compute(trel_avg *avg, uint32_t def) TREL_NOEXCEPT;
int trel_remove_outliers(int64_t *values, int64_t *mean, uint64_t *n) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
