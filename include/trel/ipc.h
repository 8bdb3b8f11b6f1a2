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

/* Opens the caller's record as a server bound to path (is_server non-zero)
 * or a client connected to the server at path: the descriptor, also stored
 * in sock->sock, or -1 (logged; sock->sock is -1, nothing stays open or
 * bound).  Whatever is at the local path is removed before the bind (a stale
 * socket, or any other file), and paths are cut to 107 characters. */
int uds_socket_create(const char *path, uds_sock *sock, int32_t is_server) TREL_NOEXCEPT;
int uds_sock_open_server(const char *path, uds_sock *sock) TREL_NOEXCEPT;
int uds_sock_open_client(const char *server_path, uds_sock *sock) TREL_NOEXCEPT;
/* sock->sock, or -1 for a null record. */
int uds_get_sock(uds_sock *sock) TREL_NOEXCEPT;
/* Removes the bound path and closes the descriptor; sock keeps its value.
 * Null does nothing. */
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

/* The caller owns msg and its buffer.  Sends never block: each piece waits at
 * most the time-out for room (the *to and *from forms: 3 seconds). */
/* Sends type, len and the first len unread bytes of msg->buf: len, or -1
 * (logged; errno ETIMEDOUT after a time-out), also for a null msg, a
 * negative fd or a buffer holding fewer than len bytes.  The buffer is not
 * consumed. */
int sk_msg_send(int fd, sk_msg *msg, uint32_t timeout) TREL_NOEXCEPT;
/* Receives one message: type and len into msg, the body appended to
 * msg->buf.  The body length, or -1 (a time-out is not logged).  After a
 * failure part of the body may be in the buffer: reset it before reuse. */
int sk_msg_recv(int fd, sk_msg *msg, uint32_t timeout) TREL_NOEXCEPT;
/* sk_msg_send to addr. */
int sk_msg_sendto(int fd, sk_msg *msg, const struct sockaddr *addr,
                  socklen_t addrlen) TREL_NOEXCEPT;
/* sk_msg_recv from any sender, whose address each read stores in addr; a
 * time-out is logged.  -1 also for a null msg or addr. */
int sk_msg_recvfrom(int fd, sk_msg *msg, struct sockaddr *addr, socklen_t *addrlen) TREL_NOEXCEPT;

/* ---- Lock files shared between processes ----------------------------------- */

/* Exclusive flock on the directory "/var/run/report" (the report lock) or on
 * "/var/run/inform-profile.lock" (made 0640 when missing, never removed),
 * held until unlocked or the process ends.  lock: 0 when held now; -1 when
 * this process holds it already, the path cannot be opened, or another
 * process kept it through 11 tries 1 s apart.  unlock: 0, or -1 when it was
 * not held.  Failures are logged. */
int report_lock(void) TREL_NOEXCEPT;
int report_unlock(void) TREL_NOEXCEPT;
/* 1 while this process holds the report lock, else 0. */
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

/* Overflowing sums and products wrap.  A null accumulator does nothing. */
/* sum / count rounded half away from zero; 0 for a count of 0. */
int64_t trel_avg_round(int64_t sum, int64_t count) TREL_NOEXCEPT;
/* The rounded mean of values[n]; 0 for n 0 (or null values: sum 0). */
int64_t trel_avg_array(const int64_t *values, uint64_t n) TREL_NOEXCEPT;
/* Adds one sample. */
void trel_avg_inc(trel_avg *avg, int32_t sample) TREL_NOEXCEPT;
/* Adds sample * weight (a 32-bit product) and weight; a sample of -1 means
 * none and changes nothing. */
void trel_avg_inc_weighted(trel_avg *avg, int32_t sample, int32_t weight) TREL_NOEXCEPT;
/* The rounded mean, cut to 32 bits and stored in avg->avg, or def while
 * count is not above 0. */
int32_t trel_avg_compute(trel_avg *avg, uint32_t def) TREL_NOEXCEPT;
/* Drops, in place, the values more than three standard deviations from the
 * mean and sets *n to the number kept; *mean (when mean is non-null) gets
 * the mean of all the values given.  0, or -1 for a null values or n or an
 * *n of 0. */
int trel_remove_outliers(int64_t *values, int64_t *mean, uint64_t *n) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
