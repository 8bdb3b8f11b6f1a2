// AES-128-CBC, SHA-256 and Base64 throughput beside libcrypto on the same
// buffers, with a ratio table at the end.  Run once plainly (libcrypto's
// hardware path) and once with OPENSSL_ia32cap masking AES-NI, PCLMULQDQ and
// the SHA extensions (its software path).
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <string>
#include <vector>

#include <trel/crypto.h>

namespace {

const uint8_t kKey[16] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6,
                          0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};
const uint8_t kIv[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

std::vector<uint8_t> pattern(size_t n) {
    std::vector<uint8_t> v(n);
    uint32_t x = 0x12345678;
    for (auto &b : v) {
        x = x * 1103515245 + 12345;
        b = (uint8_t)(x >> 16);
    }
    return v;
}

void done(benchmark::State &state, size_t n) {
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)n);
}

void trel_cbc(benchmark::State &state, bool enc) {
    const size_t n = (size_t)state.range(0);
    auto buf = pattern(n);
    for (auto _ : state) {
        int rc = enc ? aes_cbc_encrypt_128(kKey, kIv, buf.data(), n)
                     : aes_cbc_decrypt_128(kKey, kIv, buf.data(), n);
        benchmark::DoNotOptimize(rc);
        benchmark::ClobberMemory();
    }
    done(state, n);
}

// Same work per call as the library: key setup, then the whole buffer.
void openssl_cbc(benchmark::State &state, bool enc) {
    const size_t n = (size_t)state.range(0);
    auto buf = pattern(n);
    std::vector<uint8_t> out(n + 16);
    EVP_CIPHER_CTX *c = EVP_CIPHER_CTX_new();
    for (auto _ : state) {
        int a = 0, b = 0;
        EVP_CipherInit_ex(c, EVP_aes_128_cbc(), nullptr, kKey, kIv, enc ? 1 : 0);
        EVP_CIPHER_CTX_set_padding(c, 0);
        EVP_CipherUpdate(c, out.data(), &a, buf.data(), (int)n);
        EVP_CipherFinal_ex(c, out.data() + a, &b);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    EVP_CIPHER_CTX_free(c);
    done(state, n);
}

void trel_sha(benchmark::State &state) {
    const size_t n = (size_t)state.range(0);
    auto buf = pattern(n);
    uint8_t d[32];
    for (auto _ : state) {
        sha256(buf.data(), (uint32_t)n, d);
        benchmark::DoNotOptimize(d);
    }
    done(state, n);
}

void openssl_sha(benchmark::State &state) {
    const size_t n = (size_t)state.range(0);
    auto buf = pattern(n);
    uint8_t d[32];
    unsigned int len = 0;
    EVP_MD_CTX *c = EVP_MD_CTX_new();
    const EVP_MD *md = EVP_sha256();
    for (auto _ : state) {
        EVP_DigestInit_ex(c, md, nullptr);
        EVP_DigestUpdate(c, buf.data(), n);
        EVP_DigestFinal_ex(c, d, &len);
        benchmark::DoNotOptimize(d);
    }
    EVP_MD_CTX_free(c);
    done(state, n);
}

void trel_b64enc(benchmark::State &state) {
    const size_t n = (size_t)state.range(0);
    auto buf = pattern(n);
    std::vector<char> out((size_t)base64_encode_len((int32_t)n));
    for (auto _ : state) {
        base64rfc_encode(out.data(), buf.data(), (int32_t)n);
        benchmark::DoNotOptimize(out.data());
    }
    done(state, n);
}

void openssl_b64enc(benchmark::State &state) {
    const size_t n = (size_t)state.range(0);
    auto buf = pattern(n);
    std::vector<unsigned char> out(4 * ((n + 2) / 3) + 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(EVP_EncodeBlock(out.data(), buf.data(), (int)n));
    }
    done(state, n);
}

std::string encoded(size_t n) {
    auto buf = pattern(n);
    std::string s((size_t)base64_encode_len((int32_t)n), '\0');
    base64rfc_encode(s.data(), buf.data(), (int32_t)n);
    s.resize(s.size() - 1);
    return s;
}

// Decode rates count decoded bytes.
void trel_b64dec(benchmark::State &state) {
    const size_t n = (size_t)state.range(0);
    std::string text = encoded(n);
    std::vector<uint8_t> out((size_t)base64_decode_len(text.c_str()));
    for (auto _ : state) {
        base64_decode(out.data(), text.c_str());
        benchmark::DoNotOptimize(out.data());
    }
    done(state, n);
}

void openssl_b64dec(benchmark::State &state) {
    const size_t n = (size_t)state.range(0);
    std::string text = encoded(n);
    std::vector<unsigned char> out(text.size() / 4 * 3 + 3);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            EVP_DecodeBlock(out.data(), (const unsigned char *)text.data(), (int)text.size()));
    }
    done(state, n);
}

// Collects bytes/s per benchmark while printing as usual; with repetitions
// the median is kept.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> rates, medians;
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &r : runs) {
            auto it = r.counters.find("bytes_per_second");
            if (it == r.counters.end()) continue;
            if (r.run_type == Run::RT_Iteration)
                rates[r.run_name.str()] = it->second.value;
            else if (r.aggregate_name == "median")
                medians[r.run_name.str()] = it->second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    double rate(const std::string &name) const {
        auto m = medians.find(name);
        if (m != medians.end()) return m->second;
        auto r = rates.find(name);
        return r != rates.end() ? r->second : 0;
    }
};

const int64_t kCipherSizes[] = {512, 16384};
const int64_t kCodecSizes[] = {3072, 49152};

void register_all() {
    for (int64_t n : kCipherSizes) {
        benchmark::RegisterBenchmark("aes128_cbc_encrypt/trel", trel_cbc, true)->Arg(n);
        benchmark::RegisterBenchmark("aes128_cbc_encrypt/openssl", openssl_cbc, true)->Arg(n);
        benchmark::RegisterBenchmark("aes128_cbc_decrypt/trel", trel_cbc, false)->Arg(n);
        benchmark::RegisterBenchmark("aes128_cbc_decrypt/openssl", openssl_cbc, false)->Arg(n);
        benchmark::RegisterBenchmark("sha256/trel", trel_sha)->Arg(n);
        benchmark::RegisterBenchmark("sha256/openssl", openssl_sha)->Arg(n);
    }
    for (int64_t n : kCodecSizes) {
        benchmark::RegisterBenchmark("base64_encode/trel", trel_b64enc)->Arg(n);
        benchmark::RegisterBenchmark("base64_encode/openssl", openssl_b64enc)->Arg(n);
        benchmark::RegisterBenchmark("base64_decode/trel", trel_b64dec)->Arg(n);
        benchmark::RegisterBenchmark("base64_decode/openssl", openssl_b64dec)->Arg(n);
    }
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    register_all();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    const char *cap = getenv("OPENSSL_ia32cap");
    printf("\nlibcrypto path: %s\n",
           cap != nullptr ? cap : "default (hardware extensions where present)");
    printf("%-28s %12s %12s %8s\n", "operation/bytes", "trel MB/s", "libcrypto", "ratio");
    for (const auto &entry : reporter.rates) {
        const std::string &name = entry.first;
        size_t slash = name.find("/trel/");
        if (slash == std::string::npos) continue;
        std::string other = name.substr(0, slash) + "/openssl/" + name.substr(slash + 6);
        double ours = reporter.rate(name), theirs = reporter.rate(other);
        if (ours <= 0 || theirs <= 0) continue;
        std::string label = name.substr(0, slash) + "/" + name.substr(slash + 6);
        printf("%-28s %12.1f %12.1f %8.2f\n", label.c_str(), ours / 1e6, theirs / 1e6,
               ours / theirs);
    }
    benchmark::Shutdown();
    return 0;
}
