/* libtrel device discovery protocol: framed, CRC-checked, AES-128-CBC
 * encrypted UDP multicast datagrams among the devices of a site.  A service
 * side runs in the caller's libevent loop; a one-shot client side sends a
 * single datagram. */
#ifndef TREL_PROTOCOL_H
#define TREL_PROTOCOL_H

#include <stdint.h>
#include <netinet/in.h>

#include <trel/common.h>

TREL_BEGIN_DECLS

struct event_base;

/* UDP port of the service, used as local and destination port. */
#define TREL_PROTOCOL_PORT 48000
/* Size of the fixed datagram header. */
#define TREL_PROTOCOL_HDR_LEN 40
/* Largest datagram the service reads. */
#define TREL_PROTOCOL_MAX_DGRAM 512

/* Header flags. */
#define TREL_PROTOCOL_FLAG_CLEAR 0x01
#define TREL_PROTOCOL_FLAG_ENCRYPTED 0x02

/* The protocol's control record; the one instance is trel_protocol_ctrl. */
typedef struct trel_protocol_state trel_protocol_state;
struct trel_protocol_state {
    uint32_t initialized;    /* 1 once an init succeeded */
    uint32_t encrypt;        /* 1 once initialised; the client's encrypt argument */
    struct in_addr my_ip;    /* bridge address, 0 when unknown */
    struct in_addr mcast_ip; /* multicast group */
    int32_t sock;            /* UDP socket, -1 when none */
    uint8_t mac[6];          /* this device's MAC, put into every header */
    uint8_t key[16];         /* AES-128 site key */
    uint16_t last_seq;       /* 12-bit seq of the last accepted datagram */
    uint16_t send_seq;       /* seq stamped on outgoing datagrams */
};

/* Zeroed (sock -1) by every init and deinit; programs may read it and set
 * send_seq.  Not locked: one thread per process. */
extern trel_protocol_state trel_protocol_ctrl;

/* The 40-byte datagram header.  On the wire every multi-byte field is
 * big-endian; after a successful dec_payload the header is in host order,
 * seq holds the bare 12-bit number and length the unpadded payload length. */
typedef struct trel_protocol_hdr trel_protocol_hdr;
struct trel_protocol_hdr {
    uint32_t magic; /* bytes 0x22 0x33 0x44 0x55 */
    uint8_t version;
    uint8_t flags;
    uint16_t length;
    uint16_t method;
    uint16_t type;
    uint8_t iv[16];
    uint8_t mac[6];
    uint16_t seq;
    uint32_t crc;
};

/* One entry of the caller's handler table, which ends with a null handler.
 * Every entry whose method matches is called, in table order, with the
 * decrypted payload. */
typedef struct trel_protocol_handler trel_protocol_handler;
struct trel_protocol_handler {
    void (*handler)(void *payload);
    uint32_t method;
};

/* ---- Framing ---------------------------------------------------------------- */

/* A new datagram (free with free()), 40 + padded length bytes, stamped with
 * ctrl's mac, key and send_seq; null when out of memory (logged), len is
 * negative or payload is null with a len above 0.  encrypt 1 pads, checksums
 * and encrypts, 0 sends in clear; any other value sets the encrypted flag
 * and does neither (receivers reject it).  The IV comes from the C library's
 * rand, not from a cryptographic source. */
uint8_t *gen_payload(const void *payload, int32_t len, uint16_t method, uint16_t type,
                     int32_t encrypt, const trel_protocol_state *ctrl) TREL_NOEXCEPT;
/* Checks and decrypts a received datagram of n bytes in place: 0 accepted,
 * 1 rejected, 2 repeated sequence number (methods 3, 5 and 6 never are).  A
 * datagram that passes the length check keeps its header converted to host
 * order whatever the result; dgram is never freed.  Only the payload is
 * authenticated (by its CRC under the key): header fields are not protected,
 * and replay protection is the last sequence number only. */
int dec_payload(int32_t n, uint8_t *dgram, const trel_protocol_state *ctrl) TREL_NOEXCEPT;

/* ---- Service ------------------------------------------------------------------ */

/* Loads the key and group ("/var/run/trel_protocol.info") and the MAC into
 * trel_protocol_ctrl and, with open_socket non-zero, opens the socket on port
 * 48000 and joins the group on the bridge address when there is one.  0, or
 * -1 (logged) with everything released as trel_protocol_deinit does. */
int trel_protocol_init(int32_t open_socket) TREL_NOEXCEPT;
/* Receives on base's loop: read and SIGUSR1 events that call the matching
 * handlers and follow the bridge address.  handlers (ended by a null handler)
 * stays the caller's and must outlive the service.  Always 0. */
int trel_protocol_init_recv(struct event_base *base, trel_protocol_handler *handlers) TREL_NOEXCEPT;
/* Multicasts one datagram (see gen_payload): sendto's result, the bytes sent
 * or -1 (logged), or -1 when the datagram cannot be built. */
int trel_protocol_send(const void *payload, int32_t len, uint16_t method, uint16_t type,
                       int32_t encrypt) TREL_NOEXCEPT;
/* Frees the events, leaves the group, closes the socket and zeroes the record
 * (sock -1).  Safe at any time and more than once. */
void trel_protocol_deinit(void) TREL_NOEXCEPT;

/* ---- Client --------------------------------------------------------------------- */

/* Not for a process running the service: both use trel_protocol_ctrl. */
/* Loads key, group and MAC from "/tmp/system.cfg": 0, or -1 (logged; the
 * record is reset).  An unparsable group is accepted and left 0.0.0.0. */
int trel_protocol_client_init(void) TREL_NOEXCEPT;
/* Sends one datagram of type 3, encrypted as the record's encrypt says,
 * through a socket bound to br0 for this call only; nothing is reported back
 * (failures are logged). */
void trel_protocol_client_send(const void *payload, uint32_t len, uint16_t method) TREL_NOEXCEPT;
/* Sends the 14-byte mesh-halt message (method 6); before a client init it
 * logs and sends nothing. */
void trel_protocol_client_event_mesh_halt_send(void) TREL_NOEXCEPT;
/* Always 4. */
int32_t trel_device_identify(void) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
