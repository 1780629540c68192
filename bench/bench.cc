#include "bench/bench.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>

// --- means ---

temp_dir::temp_dir() {
    char name[] = "/tmp/lumo-bench-XXXXXX";
    if (!mkdtemp(name))
        give_up("mkdtemp");
    path = name;
}

temp_dir::~temp_dir() {
    std::error_code err;
    std::filesystem::remove_all(path, err);
}

[[noreturn]] void give_up(const char *what) {
    perror(what);
    exit(1);
}

double median(std::vector<double> values) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    size_t mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

static double clock_sec(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double wall_sec() {
    return clock_sec(CLOCK_MONOTONIC);
}

double cpu_sec() {
    return clock_sec(CLOCK_PROCESS_CPUTIME_ID);
}

// --- the table ---

void tell_ratio(const char *name, double ratio, double aim, const char *detail, ...) {
    char text[256];
    va_list args;
    va_start(args, detail);
    vsnprintf(text, sizeof(text), detail, args);
    va_end(args);
    char aim_text[32] = "-";
    const char *verdict = "";
    if (aim != 0) {
        snprintf(aim_text, sizeof(aim_text), "%s%.2f", aim > 0 ? ">=" : "<=", aim > 0 ? aim : -aim);
        verdict = (aim > 0 ? ratio >= aim : ratio <= -aim) ? "met" : "MISSED";
    }
    printf("RATIO %-58s %8.3f %-7s %-6s %s\n", name, ratio, aim_text, verdict, text);
    fflush(stdout);
}

void tell_note(const char *format, ...) {
    va_list args;
    va_start(args, format);
    printf("NOTE  ");
    vprintf(format, args);
    va_end(args);
    fflush(stdout);
}

paired measure_pair(int rounds, const timed_fn &subject, const timed_fn &floor) {
    std::vector<double> subjects;
    std::vector<double> floors;
    std::vector<double> ratios;
    subject();
    floor();
    for (int i = 0; i < rounds; ++i) {
        double s = subject();
        double f = floor();
        subjects.push_back(s);
        floors.push_back(f);
        ratios.push_back(s / f);
    }
    return {.ratio = median(ratios), .subject_sec = median(subjects), .floor_sec = median(floors)};
}

// --- the library ---

struct samples {
    std::vector<double> cpu_ns;
    std::vector<double> wall_ns;
};
static std::map<std::string, samples> g_samples;

// Keeps every repetition instead of printing it.
struct keeper : benchmark::BenchmarkReporter {
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            if (run.error_occurred) {
                fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
                exit(1);
            }
            if (run.run_type != Run::RT_Iteration)
                continue;
            samples &kept = g_samples[run.run_name.function_name];
            double to_ns = 1e9 / static_cast<double>(run.iterations);
            kept.cpu_ns.push_back(run.cpu_accumulated_time * to_ns);
            kept.wall_ns.push_back(run.real_accumulated_time * to_ns);
        }
    }
};

double median_ns(const std::string &name) {
    return median(g_samples[name].cpu_ns);
}

int run_pairs(int argc, char **argv, std::span<const bench_pair> pairs) {
    char repetitions[] = "--benchmark_repetitions=11";
    char min_time[] = "--benchmark_min_time=0.05";
    char shuffle[] = "--benchmark_enable_random_interleaving=true";
    std::vector<char *> args = {argv[0], repetitions, min_time, shuffle};
    args.insert(args.end(), argv + 1, argv + argc);
    int count = static_cast<int>(args.size());
    args.push_back(nullptr);
    benchmark::Initialize(&count, args.data());
    keeper reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    for (const bench_pair &pair : pairs) {
        const samples &s = g_samples[pair.subject];
        const samples &f = g_samples[pair.floor];
        if (s.cpu_ns.empty() || f.cpu_ns.empty())
            continue;
        double cpu = median(s.cpu_ns);
        tell_ratio(pair.name, cpu / median(f.cpu_ns), pair.aim,
                   "%.0f ns / %.0f ns cpu, wall ratio %.2f, n=%zu", cpu, median(f.cpu_ns),
                   median(s.wall_ns) / median(f.wall_ns), s.cpu_ns.size());
    }
    return 0;
}
