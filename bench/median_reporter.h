// Console output as usual, plus each benchmark's median over its repetitions, for the ratio lines
// a program prints after the table.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace orvo_bench {

class MedianReporter : public benchmark::ConsoleReporter {
public:
    struct Median {
        double real_us = 0, cpu_us = 0;
        std::map<std::string, double> counters;
    };
    std::map<std::string, Median> median;  // by function name, e.g. "BM_Grab"

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs)
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median") {
                Median& m = median[r.run_name.function_name];
                m.real_us = r.GetAdjustedRealTime();
                m.cpu_us = r.GetAdjustedCPUTime();
                for (const auto& c : r.counters) m.counters[c.first] = c.second.value;
            }
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace orvo_bench
