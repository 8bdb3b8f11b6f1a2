// Buffer throughput against std::string, freadvalue on a 200-line file, and
// the cost of LIBTREL_ROOT on a one-line read.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <libtrel.h>

namespace {

// Appends size-byte chunks up to 1 MiB, then reads everything back.
void BM_BufferAppendRead(benchmark::State &state) {
    const size_t chunk = (size_t)state.range(0);
    const size_t total = 1 << 20;
    std::vector<char> bytes(chunk, 'x');
    std::vector<char> out(chunk);
    buffer *b = buffer_create();
    for (auto _ : state) {
        for (size_t n = 0; n < total; n += chunk) b->append(b, bytes.data(), chunk);
        while (b->read(b, out.data(), chunk) > 0) {
        }
        benchmark::DoNotOptimize(out.data());
    }
    buffer_destroy(b);
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)total);
}

void BM_StringAppendRead(benchmark::State &state) {
    const size_t chunk = (size_t)state.range(0);
    const size_t total = 1 << 20;
    std::vector<char> bytes(chunk, 'x');
    std::vector<char> out(chunk);
    std::string s;
    for (auto _ : state) {
        for (size_t n = 0; n < total; n += chunk) s.append(bytes.data(), chunk);
        for (size_t pos = 0; pos < s.size(); pos += chunk) s.copy(out.data(), chunk, pos);
        s.clear();
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)total);
}

BENCHMARK(BM_BufferAppendRead)->Arg(64)->Arg(1024)->Arg(16384);
BENCHMARK(BM_StringAppendRead)->Arg(64)->Arg(1024)->Arg(16384);

// A 200-line key=value file; looks up a key near the start, middle and end.
class ValueFile : public benchmark::Fixture {
public:
    void SetUp(const benchmark::State &) override {
        char tmpl[] = "/tmp/trel-bench-XXXXXX";
        int fd = mkstemp(tmpl);
        close(fd);
        path_ = tmpl;
        std::ofstream out(path_);
        for (int i = 0; i < 200; i++) out << "key" << i << "=value-of-key-" << i << "\n";
    }
    void TearDown(const benchmark::State &) override { unlink(path_.c_str()); }

protected:
    std::string path_;
};

BENCHMARK_DEFINE_F(ValueFile, FreadValue)(benchmark::State &state) {
    std::string key = "key" + std::to_string(state.range(0));
    char buf[64];
    for (auto _ : state) {
        freadvalue(path_.c_str(), key.c_str(), buf, sizeof buf, "");
        benchmark::DoNotOptimize(buf);
    }
}
BENCHMARK_REGISTER_F(ValueFile, FreadValue)->Arg(0)->Arg(100)->Arg(199);

// freadline of a one-line file two levels down: a plain fopen without a root;
// with one, an open of the root, openat2 inside it and fdopen.
void BM_FreadlineRoot(benchmark::State &state) {
    const bool rooted = state.range(0) != 0;
    char tmpl[] = "/tmp/trel-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        state.SkipWithError("mkdtemp failed");
        return;
    }
    const std::string dir = tmpl;
    mkdir((dir + "/etc").c_str(), 0755);
    std::ofstream(dir + "/etc/hostname") << "device\n";
    const std::string path = rooted ? "/etc/hostname" : dir + "/etc/hostname";
    if (rooted) setenv("LIBTREL_ROOT", dir.c_str(), 1);
    char buf[64];
    for (auto _ : state) {
        freadline(path.c_str(), buf, sizeof buf, "");
        benchmark::DoNotOptimize(buf);
    }
    unsetenv("LIBTREL_ROOT");
    unlink((dir + "/etc/hostname").c_str());
    rmdir((dir + "/etc").c_str());
    rmdir(dir.c_str());
    state.SetLabel(rooted ? "under LIBTREL_ROOT" : "no root");
}
BENCHMARK(BM_FreadlineRoot)->Arg(0)->Arg(1);

}  // namespace

BENCHMARK_MAIN();
