// Framed 1 MiB messages over an AF_UNIX datagram socket pair against plain
// blocking send/recv of the same 8-byte header and 16384-byte chunks.  A
// second thread receives; the sender is timed.  The framed path
// tries each send and recv first and waits for readiness only when the
// socket is full or empty; the plain one blocks in the kernel instead.  At the
// end it prints plain time / framed time, the framed path's share of the
// plain throughput (the aim is 0.85 or more), in wall-clock time and in the
// sending thread's CPU time (steadier on a busy machine).  Use
// --benchmark_repetitions with --benchmark_enable_random_interleaving.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include <trel/ipc.h>

#include "../ratio.h"

namespace {

constexpr size_t kBody = 1 << 20;
constexpr size_t kChunk = 16384;
constexpr int32_t kStop = -1;

struct Pair {
    int fd[2];
    Pair() {
        if (socketpair(AF_UNIX, SOCK_DGRAM, 0, fd) != 0) abort();
    }
    ~Pair() {
        close(fd[0]);
        close(fd[1]);
    }
};

void BM_FramedMessage(benchmark::State &state) {
    Pair p;
    std::thread receiver([fd = p.fd[1]] {
        buffer *in = buffer_create();
        for (;;) {
            sk_msg msg{0, 0, in};
            if (sk_msg_recv(fd, &msg, 5) < 0 || msg.type == kStop) break;
            in->read(in, nullptr, in->length(in));  // consume, keep the storage
        }
        buffer_destroy(in);
    });
    buffer *body = buffer_create2(kBody);
    std::vector<char> bytes(kBody, 'x');
    body->append(body, bytes.data(), bytes.size());
    sk_msg msg{1, (int32_t)kBody, body};
    for (auto _ : state)
        if (sk_msg_send(p.fd[0], &msg, 5) != (int)kBody) state.SkipWithError("send failed");
    sk_msg stop{kStop, 0, body};
    sk_msg_send(p.fd[0], &stop, 5);
    receiver.join();
    buffer_destroy(body);
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)kBody);
}

void BM_PlainChunks(benchmark::State &state) {
    Pair p;
    std::thread receiver([fd = p.fd[1]] {
        std::vector<char> body(kBody);
        for (;;) {
            int32_t header[2];
            if (recv(fd, header, sizeof header, 0) != sizeof header || header[0] == kStop) break;
            for (size_t done = 0; done < (size_t)header[1]; done += kChunk)
                if (recv(fd, body.data() + done, kChunk, 0) < 0) return;
        }
    });
    std::vector<char> body(kBody, 'x');
    int32_t header[2] = {1, (int32_t)kBody};
    for (auto _ : state) {
        if (send(p.fd[0], header, sizeof header, 0) != sizeof header)
            state.SkipWithError("send failed");
        for (size_t done = 0; done < kBody; done += kChunk)
            if (send(p.fd[0], body.data() + done, kChunk, 0) != (ssize_t)kChunk)
                state.SkipWithError("send failed");
    }
    int32_t stop[2] = {kStop, 0};
    send(p.fd[0], stop, sizeof stop, 0);
    receiver.join();
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)kBody);
}

BENCHMARK(BM_PlainChunks)->UseRealTime();
BENCHMARK(BM_FramedMessage)->UseRealTime();

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    trel_bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.ratio("BM_PlainChunks", "BM_FramedMessage", true, "  target >= 0.85");
    reporter.ratio("BM_PlainChunks", "BM_FramedMessage", false, "  (the sender's CPU time)");
    benchmark::Shutdown();
    return 0;
}
