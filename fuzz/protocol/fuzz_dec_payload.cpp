// dec_payload on anything a LAN peer can send.  An odd first byte turns the
// rest into the plaintext of a correctly encrypted and checksummed datagram,
// so the unpadding rules are reached with arbitrary padding bytes.  Nothing
// is accepted whose body was not a whole number of cipher blocks.
#include <stdlib.h>
#include <string.h>

#include <trel/crypto.h>
#include <trel/protocol.h>
#include <zlib.h>

namespace {

const trel_protocol_state kCtrl = {1,
                                   1,
                                   {0},
                                   {0},
                                   -1,
                                   {2, 0, 0, 0, 0, 1},
                                   {0x3a, 0x7f, 0x19, 0xc2, 0xe4, 0xb8, 0xd0, 0x6f, 0x5a, 0x9c,
                                    0x1e, 0x7b, 0x2d, 0x4f, 0x8a, 0x63},
                                   0x0ff,
                                   0};

void check(uint8_t *d, int32_t n) {
    // Only whole cipher blocks can have been decrypted under the key.
    unsigned sent = n >= 40 ? (unsigned)(d[6] << 8 | d[7]) : 0;
    int rc = dec_payload(n, d, &kCtrl);
    if (rc == 0) {
        trel_protocol_hdr h;
        memcpy(&h, d, sizeof h);
        if (n < 40 || h.length > n - 40 || h.magic != 0x22334455 || h.version < 2) abort();
        if (sent == 0 || sent % 16 != 0) abort();
    } else if (rc != 1 && rc != 2) {
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 70000) return 0;
    if (size > 0 && (data[0] & 1) != 0) {
        size_t len = (size - 1) & ~(size_t)15;
        if (len == 0) return 0;
        auto *d = static_cast<uint8_t *>(calloc(1, 40 + len));
        memcpy(d + 40, data + 1, len);
        const uint8_t head[] = {0x22,         0x33, 0x44,   0x55, 2, 2, (uint8_t)(len >> 8),
                                (uint8_t)len, 0,    data[0]};
        memcpy(d, head, sizeof head);
        uint32_t crc = (uint32_t)crc32(0, d + 40, (uInt)len);
        for (int i = 0; i < 4; i++) d[36 + i] = (uint8_t)(crc >> (24 - 8 * i));
        aes_cbc_encrypt_128(kCtrl.key, d + 12, d + 40, len);
        check(d, (int32_t)(40 + len));
        free(d);
        return 0;
    }
    // An exactly-sized copy, so any read past the datagram is caught.
    auto *d = static_cast<uint8_t *>(malloc(size ? size : 1));
    memcpy(d, data, size);
    check(d, (int32_t)size);
    free(d);
    return 0;
}
