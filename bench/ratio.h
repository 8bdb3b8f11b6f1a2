// A console reporter that also keeps the wall-clock and CPU time per
// iteration of every repetition of every benchmark, to print ratios of two
// benchmarks' medians (with the ratio of their fastest repetitions beside
// them) at the end.
#pragma once

#include <benchmark/benchmark.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace trel_bench {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &r : runs) {
            if (r.run_type != Run::RT_Iteration || r.iterations == 0 || r.error_occurred) continue;
            std::string name = r.run_name.function_name;
            if (!r.run_name.args.empty()) name += "/" + r.run_name.args;
            times_[{name, true}].push_back(r.real_accumulated_time / (double)r.iterations);
            times_[{name, false}].push_back(r.cpu_accumulated_time / (double)r.iterations);
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // Prints time(num) / time(den), in wall-clock or CPU time, when both ran,
    // and the note.
    void ratio(const std::string &num, const std::string &den, bool real_time,
               const char *note = "") {
        auto n = times_.find({num, real_time}), d = times_.find({den, real_time});
        if (n == times_.end() || d == times_.end()) return;
        std::sort(n->second.begin(), n->second.end());
        std::sort(d->second.begin(), d->second.end());
        printf("%-22s / %-22s %-4s median %6.2f  fastest %6.2f  (%zu, %zu runs)%s\n", num.c_str(),
               den.c_str(), real_time ? "wall" : "CPU", median(n->second) / median(d->second),
               n->second.front() / d->second.front(), n->second.size(), d->second.size(), note);
    }

private:
    static double median(const std::vector<double> &v) {
        size_t m = v.size() / 2;
        return v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
    }
    // Times by benchmark name and whether they are wall-clock.
    std::map<std::pair<std::string, bool>, std::vector<double>> times_;
};

}  // namespace trel_bench
