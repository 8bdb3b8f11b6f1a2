// Protocol test helpers: datagrams built by hand (OpenSSL AES, zlib CRC),
// settings files, network namespaces and a packet capture.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include <trel/protocol.h>

#include "trel_test.h"

namespace proto_test {

using Bytes = std::vector<uint8_t>;
extern const uint8_t kKey[16];
extern const char kKeyHex[];
extern const uint8_t kMac[6];

// A hand-built datagram, by default valid and encrypted under kKey.
// pad_value -1 pads the usual way, else appends pad_value bytes of pad_value.
struct Dgram {
    Bytes plain;
    uint16_t method = 1, type = 7, seq = 0x123;
    uint8_t version = 2, flags = 0x02;
    uint32_t magic = 0x22334455;
    int pad_value = -1;
    uint32_t crc_delta = 0;
    uint8_t iv[16] = {15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0};
};
Bytes build(const Dgram &d);
Bytes aes_decrypt(const uint8_t iv[16], const uint8_t *data, size_t n);
uint32_t be32(const uint8_t *p);
inline uint16_t be16(const uint8_t *p) { return (uint16_t)(p[0] << 8 | p[1]); }
// A record as an init leaves it, with kKey and kMac.
trel_protocol_state make_ctrl();
trel_protocol_hdr host_hdr(const uint8_t *d);

std::string settings(const std::string &key, const std::string &mcip);
void write_system_info(const trel_test::TempRoot &root);  // serial 02A1B2C3D4E5

bool netns_available();  // probed in a child
bool enter_netns();      // fresh namespace with lo up
bool ip(const std::string &args);

// Outgoing IPv4 UDP datagrams to one port, seen on one interface.
struct Packet {
    Bytes payload;
    int ttl = 0;
    uint16_t sport = 0;
    uint32_t dst = 0;
};
class Capture {
public:
    Capture(const char *ifname, uint16_t port);
    ~Capture();
    bool ok() const { return fd_ >= 0; }
    bool next(Packet &p, int timeout_ms);

private:
    int fd_;
    uint16_t port_;
};

}  // namespace proto_test
