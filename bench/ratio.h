// A console reporter that also keeps the time per iteration of every
// repetition of every benchmark, to print ratios of two benchmarks' medians
// (with the ratio of their fastest repetitions beside them) at the end.
#pragma once

#include <benchmark/benchmark.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace trel_bench {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    // real_time: wall-clock time per iteration, else CPU time.
    explicit RatioReporter(bool real_time)
        : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular),
          real_time_(real_time) {}

    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &r : runs) {
            if (r.run_type != Run::RT_Iteration || r.iterations == 0 || r.error_occurred) continue;
            std::string name = r.run_name.function_name;
            if (!r.run_name.args.empty()) name += "/" + r.run_name.args;
            double t = real_time_ ? r.real_accumulated_time : r.cpu_accumulated_time;
            times_[name].push_back(t / (double)r.iterations);
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // Prints time(num) / time(den), when both ran, and the note.
    void ratio(const std::string &num, const std::string &den, const char *note = "") {
        if (!times_.count(num) || !times_.count(den)) return;
        std::vector<double> &n = times_[num], &d = times_[den];
        std::sort(n.begin(), n.end());
        std::sort(d.begin(), d.end());
        printf("%-22s / %-22s median %6.2f  fastest %6.2f  (%zu, %zu runs)%s\n", num.c_str(),
               den.c_str(), median(n) / median(d), n.front() / d.front(), n.size(), d.size(), note);
    }

private:
    static double median(const std::vector<double> &v) {
        size_t m = v.size() / 2;
        return v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
    }
    bool real_time_;
    std::map<std::string, std::vector<double>> times_;
};

}  // namespace trel_bench
