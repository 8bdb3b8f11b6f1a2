// Parsing a generated 20,000-line configuration against a bare getline loop
// over the same file (the floor), and the cost of get_value per key.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include <trel/cfg.h>

namespace {

constexpr int kLines = 20000;

// A configuration shaped like a device's: numbered sections, a few comments
// and blank lines, values of typical lengths.
std::string generate() {
    static const char *fields[] = {"status",  "devname",     "ssid", "vlanid",  "security",
                                   "wpa.psk", "radius.1.ip", "mode", "channel", "txpower"};
    static const char *values[] = {
        "enabled",   "ath0",   "Corp-WiFi", "10",  "wpa2", "correct horse battery",
        "10.10.0.5", "master", "36",        "auto"};
    std::string text = "# CFG Start\n";
    int lines = 1;
    for (int n = 1; lines < kLines; ++n) {
        if (n % 50 == 0) {
            text += "\n# section " + std::to_string(n) + "\n";
            lines += 2;
        }
        for (int f = 0; f < 10 && lines < kLines; ++f, ++lines)
            text += "wireless." + std::to_string(n) + "." + fields[f] + "=" + values[f] + "\n";
    }
    return text;
}

const std::string &cfg_file() {
    static std::string path = [] {
        char tmpl[] = "/tmp/bench_cfg.XXXXXX";
        int fd = mkstemp(tmpl);
        std::string text = generate();
        if (fd < 0 || write(fd, text.data(), text.size()) != (ssize_t)text.size()) abort();
        close(fd);
        return std::string(tmpl);
    }();
    return path;
}

void BM_GetlineFloor(benchmark::State &state) {
    const std::string &path = cfg_file();
    char *line = nullptr;
    size_t cap = 0;
    for (auto _ : state) {
        FILE *f = fopen(path.c_str(), "r");
        size_t n = 0;
        while (getline(&line, &cap, f) != -1) ++n;
        fclose(f);
        benchmark::DoNotOptimize(n);
    }
    free(line);
    state.SetItemsProcessed(state.iterations() * kLines);
}
BENCHMARK(BM_GetlineFloor)->Unit(benchmark::kMicrosecond);

// parse() alone; freeing the list is not timed.
void BM_Parse(benchmark::State &state) {
    const std::string &path = cfg_file();
    for (auto _ : state) {
        cfg_entry *cfg = parse(path.c_str());
        benchmark::DoNotOptimize(cfg);
        state.PauseTiming();
        free_cfg(cfg);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kLines);
}
BENCHMARK(BM_Parse)->Unit(benchmark::kMicrosecond);

void BM_ParseAndFree(benchmark::State &state) {
    const std::string &path = cfg_file();
    for (auto _ : state) {
        cfg_entry *cfg = parse(path.c_str());
        benchmark::DoNotOptimize(cfg);
        free_cfg(cfg);
    }
    state.SetItemsProcessed(state.iterations() * kLines);
}
BENCHMARK(BM_ParseAndFree)->Unit(benchmark::kMicrosecond);

// get_value for every key of a file, in file order; items are lookups.
void get_every_key(benchmark::State &state, const char *path) {
    cfg_entry *cfg = parse(path);
    std::vector<const char *> keys;
    for (cfg_entry *e = cfg; e != nullptr; e = e->next) keys.push_back(e->key);
    for (auto _ : state)
        for (const char *k : keys) benchmark::DoNotOptimize(get_value(cfg, nullptr, "%s", k));
    state.SetItemsProcessed(state.iterations() * (int64_t)keys.size());
    state.counters["keys"] = (double)keys.size();
    state.counters["ns_per_lookup"] =
        benchmark::Counter((double)state.iterations() * (double)keys.size(),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    free_cfg(cfg);
}

void BM_GetValueEveryKey20k(benchmark::State &state) { get_every_key(state, cfg_file().c_str()); }
BENCHMARK(BM_GetValueEveryKey20k)->Unit(benchmark::kMillisecond);

void BM_GetValueEveryKeySample(benchmark::State &state) { get_every_key(state, TREL_SAMPLE_CFG); }
BENCHMARK(BM_GetValueEveryKeySample)->Unit(benchmark::kMicrosecond);

// Keeps the fastest CPU time per iteration of every benchmark (over
// --benchmark_repetitions) to print the parse/floor ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &r : runs) {
            if (r.run_type != Run::RT_Iteration || r.iterations == 0) continue;
            double t = r.cpu_accumulated_time / (double)r.iterations;
            std::string name = r.run_name.function_name;
            if (!times.count(name) || t < times[name]) times[name] = t;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    auto &t = reporter.times;
    double floor = t.count("BM_GetlineFloor") ? t["BM_GetlineFloor"] : 0;
    if (floor > 0) {
        for (const char *name : {"BM_Parse", "BM_ParseAndFree"})
            if (t.count(name))
                printf("%s / BM_GetlineFloor (best CPU time) = %.2f\n", name, t[name] / floor);
    }
    unlink(cfg_file().c_str());
    benchmark::Shutdown();
    return 0;
}
