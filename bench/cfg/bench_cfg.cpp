// Parsing a generated 20,000-line configuration against a bare getline loop
// over the same file (the floor), the cost of get_value per key, and, at 20k
// and 200k keys, the duplicate merge of a "# misc" file against a plain parse
// of the same lines and the diff of two files against parsing both.
#include <benchmark/benchmark.h>
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include <trel/cfg.h>

#include "../ratio.h"

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

std::vector<std::string> g_files;  // removed at exit

std::string write_temp(const std::string &text) {
    char tmpl[] = "/tmp/bench_cfg.XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0 || write(fd, text.data(), text.size()) != (ssize_t)text.size()) abort();
    close(fd);
    g_files.push_back(tmpl);
    return tmpl;
}

const std::string &cfg_file() {
    static std::string path = write_temp(generate());
    return path;
}

// n device-shaped lines "wireless.<s>.<field>=<value>".  Every 16th line
// repeats the key of a line about a thousand lines earlier, spelt in upper
// case, with a new value (a duplicate for the merge); variant changes every
// 7th value, drops every 50th line and renames every 97th key, so two
// variants differ in about a sixth of their keys.
std::string device_lines(int n, int variant) {
    static const char *fields[] = {"status", "devname", "ssid",    "vlanid",  "security",
                                   "psk",    "ip",      "comment", "channel", "txpower"};
    std::vector<std::string> keys;
    std::string text;
    for (int i = 0; i < n; ++i) {
        std::string key = "wireless." + std::to_string(i / 10 + 1) + "." + fields[i % 10];
        if (i % 16 == 15 && i > 1000) {
            key = keys[(size_t)(i - 1000 - i % 7)];
            for (char &c : key) c = (char)toupper((unsigned char)c);
        }
        keys.push_back(key);
        if (variant != 0 && i % 50 == 49) continue;
        if (variant != 0 && i % 97 == 96) key += ".new";
        int value = i % 1000 + (variant != 0 && i % 7 == 0 ? variant : 0);
        text += key + "=v" + std::to_string(value) + "\n";
    }
    return text;
}

// Files of n keys by variant: 0 "# misc" then variant 0, 1 a comment of the
// same length then variant 0 (a plain parse of the same lines), 2 plain
// variant 1.
const std::string &keyed_file(int n, int kind) {
    static std::map<std::pair<int, int>, std::string> files;
    auto it = files.find({n, kind});
    if (it != files.end()) return it->second;
    std::string text = (kind == 0 ? "# misc\n" : "# mist\n") + device_lines(n, kind == 2);
    return files[{n, kind}] = write_temp(text);
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
void parse_only(benchmark::State &state, const std::string &path) {
    for (auto _ : state) {
        cfg_entry *cfg = parse(path.c_str());
        benchmark::DoNotOptimize(cfg);
        state.PauseTiming();
        free_cfg(cfg);
        state.ResumeTiming();
    }
}

void BM_Parse(benchmark::State &state) {
    parse_only(state, cfg_file());
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

// "# misc" first, so duplicates are merged, against the same lines without
// the marker.
void BM_MergeParse(benchmark::State &state) {
    parse_only(state, keyed_file((int)state.range(0), 0));
}
BENCHMARK(BM_MergeParse)->Arg(20000)->Arg(200000)->Unit(benchmark::kMillisecond);
void BM_PlainParse(benchmark::State &state) {
    parse_only(state, keyed_file((int)state.range(0), 1));
}
BENCHMARK(BM_PlainParse)->Arg(20000)->Arg(200000)->Unit(benchmark::kMillisecond);

// get_cfg_diff_it of two parsed files of n keys (and freeing the result),
// against parsing both files.
void BM_Diff(benchmark::State &state) {
    cfg_entry *a = parse(keyed_file((int)state.range(0), 1).c_str());
    cfg_entry *b = parse(keyed_file((int)state.range(0), 2).c_str());
    size_t changes = 0;
    for (auto _ : state) {
        cfg_entry *d = get_cfg_diff_it(a, b);
        changes = get_cfg_count(d);
        free_cfg_it(d);
    }
    state.counters["changes"] = (double)changes;
    free_cfg(a);
    free_cfg(b);
}
BENCHMARK(BM_Diff)->Arg(20000)->Arg(200000)->Unit(benchmark::kMillisecond);

void BM_ParseBoth(benchmark::State &state) {
    const std::string &pa = keyed_file((int)state.range(0), 1);
    const std::string &pb = keyed_file((int)state.range(0), 2);
    for (auto _ : state) {
        cfg_entry *a = parse(pa.c_str());
        cfg_entry *b = parse(pb.c_str());
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        state.PauseTiming();
        free_cfg(a);
        free_cfg(b);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_ParseBoth)->Arg(20000)->Arg(200000)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    trel_bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.ratio("BM_Parse", "BM_GetlineFloor", false);
    reporter.ratio("BM_ParseAndFree", "BM_GetlineFloor", false);
    for (const char *n : {"/20000", "/200000"}) {
        reporter.ratio(std::string("BM_MergeParse") + n, std::string("BM_PlainParse") + n, false,
                       "  target <= 3");
        reporter.ratio(std::string("BM_Diff") + n, std::string("BM_ParseBoth") + n, false,
                       "  target <= 3");
    }
    for (const std::string &f : g_files) unlink(f.c_str());
    benchmark::Shutdown();
    return 0;
}
