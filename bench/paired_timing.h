// Timing an operation beside the primitive it must call, in alternation, for same-run ratios.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <vector>

namespace orvo_bench {

// Wall-clock and process CPU time (all threads) since a start point, in milliseconds.
struct Stopwatch {
    std::chrono::steady_clock::time_point wall = std::chrono::steady_clock::now();
    double cpu = cpuMs();
    static double cpuMs() {
        timespec ts;
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
        return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
    }
    double wallMs() const {
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - wall).count();
    }
    double cpuMsSince() const { return cpuMs() - cpu; }
};

inline double median(std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::nth_element(v.begin(), v.begin() + long(v.size() / 2), v.end());
    return v[v.size() / 2];
}

// Times an operation and the primitive it must call in alternation, so that both see the same
// load on a shared machine. Reports medians of wall and CPU time and of the per-pair ratios; on a
// busy machine the CPU ratio (work done, all threads) is the steadier figure.
template <typename Op, typename Base>
void paired(benchmark::State& state, Op op, Base base) {
    std::vector<double> op_ms, base_ms, ratio, op_cpu, base_cpu, cpu_ratio;
    for (auto _ : state) {
        Stopwatch b;
        base();
        const double bw = b.wallMs(), bc = b.cpuMsSince();
        Stopwatch o;
        op();
        const double ow = o.wallMs(), oc = o.cpuMsSince();
        base_ms.push_back(bw);
        op_ms.push_back(ow);
        ratio.push_back(ow / bw);
        base_cpu.push_back(bc);
        op_cpu.push_back(oc);
        cpu_ratio.push_back(oc / bc);
    }
    state.counters["base_ms"] = median(base_ms);
    state.counters["op_ms"] = median(op_ms);
    state.counters["ratio"] = median(ratio);
    state.counters["base_cpu_ms"] = median(base_cpu);
    state.counters["op_cpu_ms"] = median(op_cpu);
    state.counters["cpu_ratio"] = median(cpu_ratio);
}

}  // namespace orvo_bench
