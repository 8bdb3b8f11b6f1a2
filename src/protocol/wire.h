// Offsets and byte-order helpers of the discovery datagram.  Datagrams may sit
// at any address, so fields are moved with memcpy.
#pragma once

#include <stdint.h>
#include <string.h>

namespace trel::proto {

constexpr unsigned kHdrLen = 40;
constexpr unsigned kOffMagic = 0, kOffVersion = 4, kOffFlags = 5, kOffLength = 6, kOffMethod = 8,
                   kOffType = 10, kOffIv = 12, kOffMac = 28, kOffSeq = 34, kOffCrc = 36;
constexpr uint8_t kMagic[4] = {0x22, 0x33, 0x44, 0x55};
constexpr uint32_t kMagicValue = 0x22334455;
constexpr uint8_t kVersion = 2;
constexpr uint16_t kPort = 48000;
constexpr size_t kMaxDgram = 512;

// Big-endian loads and stores.
inline uint16_t get16(const uint8_t *p) noexcept { return (uint16_t)(p[0] << 8 | p[1]); }
inline uint32_t get32(const uint8_t *p) noexcept {
    return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}
inline void put16(uint8_t *p, uint16_t v) noexcept {
    p[0] = (uint8_t)(v >> 8);
    p[1] = (uint8_t)v;
}
inline void put32(uint8_t *p, uint32_t v) noexcept {
    p[0] = (uint8_t)(v >> 24);
    p[1] = (uint8_t)(v >> 16);
    p[2] = (uint8_t)(v >> 8);
    p[3] = (uint8_t)v;
}

// Host-order stores, as dec_payload leaves the header.
inline void store_host16(uint8_t *p, uint16_t v) noexcept { memcpy(p, &v, sizeof v); }
inline void store_host32(uint8_t *p, uint32_t v) noexcept { memcpy(p, &v, sizeof v); }
inline uint16_t load_host16(const uint8_t *p) noexcept {
    uint16_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

}  // namespace trel::proto
