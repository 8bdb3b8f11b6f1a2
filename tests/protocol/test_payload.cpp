// Framing: hand-built datagrams against dec_payload, gen_payload's layout,
// the rejection rules and bad input of every length.
#include <stdlib.h>
#include <string.h>

#include <random>

#include <zlib.h>

#include "proto_test.h"

using namespace proto_test;

namespace {

// dec_payload on a copy left in out.
int dec(const Bytes &in, Bytes &out, const trel_protocol_state &c) {
    out = in;
    return dec_payload((int32_t)out.size(), out.data(), &c);
}

Bytes owned(uint8_t *d) {
    Bytes b(d, d + 40 + be16(d + 6));
    free(d);
    return b;
}

}  // namespace

TEST(Payload, HandBuiltDatagramsDecode) {
    trel_protocol_state c = make_ctrl();
    Bytes out;
    Dgram d;
    d.plain = {'h', 'e', 'l', 'l', 'o'};
    d.method = 0x0102;
    d.type = 0x0304;
    d.seq = 0xabc;
    Bytes w = build(d);
    ASSERT_EQ(w.size(), 56u);
    ASSERT_EQ(dec(w, out, c), 0);
    trel_protocol_hdr h = host_hdr(out.data());
    EXPECT_EQ(h.magic, 0x22334455u);
    EXPECT_EQ(h.length, 5);
    EXPECT_EQ(h.method, 0x0102);
    EXPECT_EQ(h.type, 0x0304);
    EXPECT_EQ(h.seq, 0xabc);
    EXPECT_EQ(h.crc, be32(&w[36]));
    EXPECT_EQ(memcmp(h.mac, kMac, 6), 0);
    EXPECT_EQ(memcmp(&out[40], "hello", 5), 0);
    EXPECT_EQ(out[55], 11);  // padding left in place

    d.plain.assign(16, 'x');  // a whole block of padding
    ASSERT_EQ(dec(build(d), out, c), 0);
    EXPECT_EQ(out.size(), 72u);
    EXPECT_EQ(host_hdr(out.data()).length, 16);

    d.plain.assign(32, 'y');  // last byte 0, no padding: nothing removed
    d.plain[31] = 0;
    d.pad_value = 0;
    ASSERT_EQ(dec(build(d), out, c), 0);
    EXPECT_EQ(host_hdr(out.data()).length, 32);
}

TEST(Payload, GenPayloadLayout) {
    trel_protocol_state c = make_ctrl();
    c.send_seq = 0x1234;  // only the low 12 bits go out
    const uint8_t five[5] = {1, 2, 3, 4, 5};
    Bytes a = owned(gen_payload(five, 5, 0x0a0b, 0x0c0d, 1, &c));
    Bytes b = owned(gen_payload(five, 5, 0x0a0b, 0x0c0d, 1, &c));
    const uint8_t head[] = {0x22, 0x33, 0x44, 0x55, 2, 0x02, 0, 16, 0x0a, 0x0b, 0x0c, 0x0d};
    ASSERT_EQ(a.size(), 56u);
    EXPECT_EQ(memcmp(a.data(), head, sizeof head), 0);
    EXPECT_EQ(memcmp(&a[28], kMac, 6), 0);
    EXPECT_EQ(be16(&a[34]), 0x2340);
    EXPECT_NE(memcmp(&a[12], &b[12], 16), 0) << "the IV must be fresh per datagram";
    const uint8_t want[16] = {1, 2, 3, 4, 5, 11, 11, 11, 11, 11, 11, 11, 11, 11, 11, 11};
    EXPECT_EQ(aes_decrypt(&a[12], &a[40], 16), Bytes(want, want + 16));
    EXPECT_EQ(be32(&a[36]), (uint32_t)crc32(0, want, 16));

    uint8_t sixteen[16] = {};
    a = owned(gen_payload(sixteen, 16, 1, 2, 1, &c));
    ASSERT_EQ(a.size(), 72u);
    EXPECT_EQ(aes_decrypt(&a[40], &a[56], 16), Bytes(16, 0x10));

    // encrypt 0 sends in clear, encrypt 2 only sets the flag: both refused.
    Bytes out;
    for (int enc : {0, 2}) {
        a = owned(gen_payload(five, 5, 1, 2, enc, &c));
        EXPECT_EQ(a[5], enc == 0 ? 0x01 : 0x02);
        EXPECT_EQ(be32(&a[36]), 0u);
        EXPECT_EQ(Bytes(&a[12], &a[28]), Bytes(16, 0));
        EXPECT_EQ(Bytes(&a[40], &a[45]), Bytes(five, five + 5));
        EXPECT_EQ(dec(a, out, c), 1) << "encrypt " << enc;
    }
    a = owned(gen_payload(nullptr, 0, 1, 2, 1, &c));  // empty: no padding, refused
    EXPECT_EQ(a.size(), 40u);
    EXPECT_EQ(dec(a, out, c), 1);
    EXPECT_EQ(gen_payload(five, -1, 1, 2, 1, &c), nullptr);
}

TEST(Payload, Rejections) {
    trel_protocol_state c = make_ctrl();
    trel_test::LogCapture log;
    Bytes out;
    Dgram d;
    d.plain.assign(20, 'p');
    Bytes good = build(d);

    // Received size one off: refused before the header is touched.
    libtrel_log_level = 16;
    for (int32_t n : {(int32_t)good.size() - 1, (int32_t)good.size() + 1}) {
        Bytes w = good;
        w.push_back(0);
        EXPECT_EQ(dec_payload(n, w.data(), &c), 1);
        EXPECT_EQ(memcmp(w.data(), good.data(), 40), 0);
    }
    EXPECT_TRUE(log.contains("libtrel.dec_payload(): packet length check fail"));
    Bytes flipped = good;
    flipped[45] ^= 0x01;
    EXPECT_EQ(dec(flipped, out, c), 1);
    EXPECT_TRUE(log.contains("libtrel.dec_payload(): hdr=" + std::to_string((int)be32(&good[36])) +
                             ", crc32="));
    libtrel_log_level = 15;  // these debug messages need more than 15
    log.clear();
    EXPECT_EQ(dec_payload(39, good.data(), &c), 1);
    EXPECT_EQ(dec(flipped, out, c), 1);
    EXPECT_EQ(log.text(), "");
    libtrel_log_level = 4;

    void (*edits[])(Dgram &) = {
        [](Dgram &x) { x.magic = 0x22334456; },
        [](Dgram &x) { x.version = 1; },
        [](Dgram &x) { x.flags = 0x01; },
        [](Dgram &x) { x.crc_delta = 1; },
        [](Dgram &x) {
            x.plain.assign(32, 1), x.plain[31] = 5, x.pad_value = 0;
        },                                                            // pad bytes differ
        [](Dgram &x) { x.plain.assign(16, 0x11), x.pad_value = 0; },  // pad above length
    };
    for (auto edit : edits) {
        Dgram x = d;
        x.method = 0x0102;
        edit(x);
        EXPECT_EQ(dec(build(x), out, c), 1) << x.version << " " << x.magic;
        EXPECT_EQ(host_hdr(out.data()).method, 0x0102);  // converted whatever the outcome
    }
}

TEST(Payload, DuplicateSequenceNumbers) {
    trel_protocol_state c = make_ctrl();
    c.last_seq = 0x123;
    Bytes out;
    Dgram d;
    d.plain = {1, 2, 3};
    for (uint16_t m = 0; m < 12; m++) {
        d.method = m;
        bool spared = m == 3 || m == 5 || m == 6;
        EXPECT_EQ(dec(build(d), out, c), spared ? 0 : 2) << "method " << m;
    }
    d.method = 1;
    d.seq = 0x124;
    EXPECT_EQ(dec(build(d), out, c), 0);
    d.seq = 0x123;  // the repeat check comes before the magic check
    d.magic = 0;
    EXPECT_EQ(dec(build(d), out, c), 2);
}

// Every received size from 0 to 600 over exactly-sized heap buffers: random
// bytes, then random bytes with a matching length field, then a valid
// header with a matching length field over a wrong body.
TEST(Payload, EveryLengthStaysInBounds) {
    trel_protocol_state c = make_ctrl();
    std::mt19937 rng(12345);
    Dgram big;
    big.plain.assign(200, 'z');
    Bytes valid = build(big);
    for (int n = 0; n <= 600; n++) {
        for (int variant = 0; variant < 3; variant++) {
            auto *buf = static_cast<uint8_t *>(malloc(n > 0 ? (size_t)n : 1));
            for (int i = 0; i < n; i++) buf[i] = (uint8_t)rng();
            if (variant == 2) memcpy(buf, valid.data(), std::min(n, 40));
            if (variant > 0 && n >= 40)
                buf[6] = (uint8_t)((n - 40) >> 8), buf[7] = (uint8_t)(n - 40);
            int rc = dec_payload(n, buf, &c);
            EXPECT_TRUE(rc == 1 || rc == 2) << "size " << n << " variant " << variant;
            free(buf);
        }
    }
    for (int len = 1; len <= 463; len++) {  // every size that fits 512 bytes
        Bytes p((size_t)len);
        for (auto &b : p) b = (uint8_t)rng();
        Bytes w = owned(gen_payload(p.data(), len, 9, 9, 1, &c));
        ASSERT_LE(w.size(), 512u);
        ASSERT_EQ(dec_payload((int32_t)w.size(), w.data(), &c), 0) << len;
        ASSERT_EQ(host_hdr(w.data()).length, len);
        ASSERT_EQ(Bytes(&w[40], &w[40 + len]), p);
    }
}
