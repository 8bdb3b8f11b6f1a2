// Build-and-decode round trips: gen_payload, then dec_payload on the result.
// Payload 463 gives a 504-byte datagram, the largest encrypted one that fits
// the service's 512-byte receive buffer; payload 512 gives 568 bytes.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include <libtrel.h>
#include <trel/crypto.h>
#include <trel/protocol.h>

namespace {

void BM_RoundTrip(benchmark::State &state) {
    trel_protocol_state c;
    memset(&c, 0, sizeof c);
    c.sock = -1;
    c.last_seq = 0xfff;
    for (int i = 0; i < 16; i++) c.key[i] = (uint8_t)(i * 17);
    std::vector<uint8_t> payload((size_t)state.range(0), 'p');
    int64_t bytes = 0;
    for (auto _ : state) {
        uint8_t *d = gen_payload(payload.data(), (int32_t)payload.size(), 1, 2, 1, &c);
        int32_t n = 40 + (d[6] << 8 | d[7]);
        if (dec_payload(n, d, &c) != 0) state.SkipWithError("round trip rejected");
        bytes += n;
        benchmark::DoNotOptimize(d);
        free(d);
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_RoundTrip)->Arg(463)->Arg(512)->Arg(16);

// Decode alone, on a fresh copy of one datagram each time.
void BM_Decode(benchmark::State &state) {
    trel_protocol_state c;
    memset(&c, 0, sizeof c);
    c.last_seq = 0xfff;
    std::vector<uint8_t> payload(463, 'p');
    uint8_t *d = gen_payload(payload.data(), 463, 1, 2, 1, &c);
    uint8_t copy[512];
    for (auto _ : state) {
        memcpy(copy, d, 504);
        benchmark::DoNotOptimize(dec_payload(504, copy, &c));
    }
    free(d);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Decode);

// The IV source every encrypted datagram pays for.
void BM_GenerateIv(benchmark::State &state) {
    uint8_t iv[16];
    for (auto _ : state) benchmark::DoNotOptimize(aes_cbc_generate_iv(iv, sizeof iv));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GenerateIv);

}  // namespace

BENCHMARK_MAIN();
