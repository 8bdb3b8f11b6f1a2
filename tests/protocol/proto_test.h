// Helpers of the protocol tests: datagrams built by hand (OpenSSL AES and
// zlib CRC, independent of the library's framing), settings files, network
// namespaces and a packet capture.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include <trel/protocol.h>

#include "trel_test.h"

namespace proto_test {

using Bytes = std::vector<uint8_t>;

extern const uint8_t kKey[16];
extern const char kKeyHex[];  // kKey as 32 hex digits
extern const uint8_t kMac[6];

// What goes into a hand-built datagram.  By default a valid encrypted one:
// padded with pad_value bytes of pad_value (pad_value -1: the usual padding),
// correct CRC, version 2.
struct Dgram {
    Bytes plain;
    uint16_t method = 1;
    uint16_t type = 7;
    uint16_t seq = 0x123;  // the 12-bit number
    uint8_t version = 2;
    uint8_t flags = 0x02;
    uint32_t magic = 0x22334455;
    int pad_value = -1;
    bool encrypt = true;
    int32_t crc_delta = 0;  // added to the correct CRC
    uint8_t iv[16] = {0x0f, 0x0e, 0x0d, 0x0c, 0x0b, 0x0a, 0x09, 0x08,
                      0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, 0x00};
};
Bytes build(const Dgram &d, const uint8_t key[16] = kKey);

// AES-128-CBC without padding through OpenSSL.
Bytes aes_cbc(bool enc, const uint8_t key[16], const uint8_t iv[16], const uint8_t *data, size_t n);
uint16_t be16(const uint8_t *p);
uint32_t be32(const uint8_t *p);
// A control record holding kKey and kMac, as an init leaves it.
trel_protocol_state make_ctrl();
// Copies the host-order header of a decoded datagram.
trel_protocol_hdr host_hdr(const uint8_t *d);

// Protocol settings in the configuration format.
std::string settings(const std::string &key, const std::string &mcip);
// Writes the driver's system.info with serial number 02A1B2C3D4E5.
void write_system_info(const trel_test::TempRoot &root);

// Whether this process may create network namespaces (probed in a child).
bool netns_available();
// In a forked child: enter a fresh network namespace with lo up.
bool enter_netns();
// Runs an ip(8) command line; true on success.
bool ip(const std::string &args);

// Captures outgoing IPv4 UDP datagrams to a port on one interface.
class Capture {
public:
    Capture(const char *ifname, uint16_t port);
    ~Capture();
    bool ok() const { return fd_ >= 0; }
    // The next UDP payload to the port within timeout_ms; false on time-out.
    // ttl and src_port of the IP/UDP headers are returned too.
    bool next(Bytes &payload, int timeout_ms, int *ttl = nullptr, uint16_t *src_port = nullptr,
              uint32_t *dst = nullptr);

private:
    int fd_ = -1;
    uint16_t port_;
};

}  // namespace proto_test
